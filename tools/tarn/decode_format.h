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
    size_t messages = 0, transfers = 0, unknown = 0, abandoned = 0;
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

// What every line reuses, rendered once: per-message and per-signal text
// pieces and the interface names. Read-only while formatting, so several
// formatters share it across threads.
class Tables {
  public:
    struct SignalText {
        std::string text;  // "  Name="
        std::string unitText;
        std::string json;  // "\"Name\":{\"value\":"
        std::string jsonUnit;
        std::string csv;
        std::string csvUnit;
        tarn_signal_info info;
        DecimalScale scale;
    };
    struct MessageText {
        std::string name, json, csv;
        bool wanted = true;  // --only
        std::vector<SignalText> signals;
    };

    Tables(const tarn::Database& db, const Options& opts, const tarn_log_reader* reader);
    const MessageText& message(uint32_t index) const { return m_messages[index]; }
    // Learns interface names as the reader finds them; not thread-safe.
    void learnChannel(uint8_t index);
    const std::string& channel(uint8_t index, bool json) const {
        return json ? m_channelsJson[index] : m_channels[index];
    }

  private:
    const tarn_log_reader* m_reader;
    std::vector<MessageText> m_messages;
    std::vector<std::string> m_channels, m_channelsJson;
};

class Formatter {
  public:
    Formatter(const Tables& tables, const Options& opts) : m_tables(tables), m_opts(opts) {
        m_out.reserve(1 << 20);
    }
    void record(const Record& r);
    OutBuf& out() { return m_out; }

  private:
    using MessageText = Tables::MessageText;
    using SignalText = Tables::SignalText;
    void text(const Record& r, const MessageText* m);
    void json(const Record& r, const MessageText* m);
    void csv(const Record& r, const MessageText* m);
    void dtcs(const Record& r, bool asJson);

    const Tables& m_tables;
    const Options& m_opts;
    OutBuf m_out;
    OutBuf m_head;  // a CSV row's message columns
};

// Writes a buffer to standard output; false once the output is gone.
bool writeOut(OutBuf& out);

}  // namespace tarncli
