// Output of tarn decode: text, JSON lines or CSV rows, built in one buffer
// with the per-signal pieces rendered once per message, so that a frame
// costs little more than its numbers.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "args.h"
#include "tarn/log.h"
#include "tarn/tarn.hpp"
#include "text.h"

namespace tarncli {

struct Counts {
    size_t frames = 0, messages = 0, transfers = 0, transport = 0, unknown = 0, skipped = 0;
    size_t abandoned = 0;
};

// One thing to print: a decoded frame or a reassembled transfer, or with
// --all one the database does not know (decoded == nullptr).
struct Record {
    const tarn_frame* frame = nullptr;  // time and interface
    const tarn_decoded* decoded = nullptr;
    const tarn_value* values = nullptr;
    bool j1939 = false;
    bool transfer = false;
    uint32_t id = 0;
    bool extended = false;
    const uint8_t* data = nullptr;
    size_t size = 0;
};

class Formatter {
  public:
    Formatter(const tarn::Database& db, const Options& opts, const tarn_log_reader* reader);
    void record(const Record& r);
    size_t pending() const { return m_out.size(); }
    void flush();
    bool ok() const { return m_ok; }

  private:
    struct SignalText {
        std::string text;  // "  Name="
        std::string unitText;
        std::string json;  // "\"Name\":{\"value\":"
        std::string jsonUnit;
        std::string csv;  // "Name,"  (after the message columns)
        std::string csvUnit;
        tarn_signal_info info;
        DecimalScale scale;
    };
    struct MessageText {
        bool ready = false;
        std::string name, json, csv;
        std::vector<SignalText> signals;
    };
    const MessageText& messageText(const tarn_decoded& d);
    const std::string& channel(uint8_t index, bool json);

    void text(const Record& r, const MessageText* m);
    void json(const Record& r, const MessageText* m);
    void csv(const Record& r, const MessageText* m);
    void dtcs(const Record& r, bool asJson);
    bool wanted(const MessageText* m) const;

    const tarn::Database& m_db;
    const Options& m_opts;
    const tarn_log_reader* m_reader;
    std::vector<MessageText> m_messages;
    std::vector<std::string> m_channels, m_channelsJson;
    OutBuf m_out;
    OutBuf m_head;  // a CSV row's message columns
    bool m_ok = true;
};

}  // namespace tarncli
