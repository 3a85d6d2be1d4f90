// The line parsers of the log formats behind one interface, and what they
// share: identifier rules, CAN FD lengths and filling a frame.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

#include "logs/channels.h"
#include "tarn/db.h"

namespace tarn::logs {

// Values match tarn_log_format in the public header.
enum class Format { Unknown = 0, CandumpLog = 1, CandumpScreen = 2, Asc = 3, Trc1 = 4, Trc2 = 5 };

enum class LineResult {
    Frame,     // the frame was filled
    Skip,      // a header, comment or event line that carries no frame
    Malformed  // `reason` says why (a static text)
};

class LineParser {
  public:
    explicit LineParser(ChannelTable& channels) : m_channels(channels) {}
    virtual ~LineParser() = default;
    // One line without its end of line; a parser may keep state from header
    // lines (number base, start time, column layout) for the lines after.
    virtual LineResult Parse(std::string_view line, tarn_frame& frame, const char*& reason) = 0;

  protected:
    ChannelTable& m_channels;
};

std::unique_ptr<LineParser> MakeParser(Format format, ChannelTable& channels);
std::unique_ptr<LineParser> MakeCandumpParser(Format format, ChannelTable& channels);
std::unique_ptr<LineParser> MakeAscParser(ChannelTable& channels);
std::unique_ptr<LineParser> MakeTrcParser(int major, ChannelTable& channels);

// The candump log line parser as a plain function, for the reader's fast path.
LineResult ParseCandumpLog(std::string_view line, ChannelTable& channels, tarn_frame& frame,
                           const char*& reason);

constexpr uint32_t kErrorFlag = 0x20000000u;  // marks an error frame in 8-digit identifiers
constexpr uint32_t kMaxExtended = 0x1FFFFFFFu;
constexpr uint32_t kMaxStandard = 0x7FFu;

inline LineResult Fail(const char*& reason, const char* why) {
    reason = why;
    return LineResult::Malformed;
}

// Payload bytes of a CAN FD data length code.
inline uint8_t DlcToLength(uint32_t dlc) {
    static constexpr uint8_t kLength[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};
    return dlc < 16 ? kLength[dlc] : 64;
}
inline bool IsFdLength(uint32_t n) {
    return n <= 8 || n == 12 || n == 16 || n == 20 || n == 24 || n == 32 || n == 48 || n == 64;
}

// A DLC written as one hex digit, or as a decimal 10..15.
bool ParseDlc(std::string_view word, uint32_t& dlc);

// Zeroes the bytes past the payload so that a frame never shows stale data.
inline void ClearTail(tarn_frame& f) {
    std::memset(f.data + f.length, 0, sizeof f.data - f.length);
}

// Sets frame.channel from an interface name; false when the table refuses it.
inline bool SetChannel(ChannelTable& channels, std::string_view name, tarn_frame& f) {
    int index = channels.Find(name);
    f.channel = static_cast<uint8_t>(index);
    return index >= 0;
}
constexpr const char* kChannelRefused = "too many interfaces, or an interface name too long";

// An identifier written with 3 hex digits (standard) or 8 (extended, or an
// error frame when the error bit is set); null on success, else the reason.
const char* SetCandumpId(uint32_t value, size_t digits, tarn_frame& f);

}  // namespace tarn::logs
