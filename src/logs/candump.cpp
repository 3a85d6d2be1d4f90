// candump text: the log form "(1436509052.249713) can0 18FEF100#0102..."
// (classic, "##<flags>" CAN FD, "#R" remote, error frames) and the screen
// form "  can0  123   [8]  01 02 ..." with its optional time stamps and
// extra columns.
#include <cmath>
#include <cstring>

#include "logs/civil_time.h"
#include "logs/parser.h"
#include "logs/text_scan.h"

namespace tarn::logs {
namespace {

const char* SkipBlanks(const char* p, const char* end) {
    while (p != end && IsBlank(*p)) ++p;
    return p;
}

// Hex byte pairs straight into the frame, optionally separated by '.'.
const char* ReadHexPairs(const char* p, const char* end, tarn_frame& f, size_t max,
                         const char*& reason) {
    size_t n = 0;
    while (p != end) {
        if (*p == '.') {
            ++p;
            continue;
        }
        uint8_t hi = HexValue(*p);
        if (hi == kNotHex) break;
        uint8_t lo = p + 1 != end ? HexValue(p[1]) : kNotHex;
        if (lo == kNotHex) {
            reason = "odd number of hex digits in the data";
            return nullptr;
        }
        if (n == max) {
            reason = max == 8 ? "more than 8 data bytes" : "more than 64 data bytes";
            return nullptr;
        }
        f.data[n++] = static_cast<uint8_t>(hi << 4 | lo);
        p += 2;
    }
    f.length = static_cast<uint8_t>(n);
    return p;
}

// The part after the interface: ID#DATA, ID##F DATA or ID#R[LEN].
LineResult ParseFrameText(const char* p, const char* end, tarn_frame& f, const char*& reason) {
    const char* idStart = p;
    uint32_t id = 0;
    for (uint8_t d; p != end && (d = HexValue(*p)) != kNotHex && p - idStart < 8; ++p)
        id = id << 4 | d;
    if (p == end || *p != '#') return Fail(reason, "expected '#' after a 3 or 8 digit identifier");
    if (const char* why = SetCandumpId(id, static_cast<size_t>(p - idStart), f))
        return Fail(reason, why);
    ++p;
    size_t max = 8;
    if (p != end && *p == '#') {
        if (++p == end || HexValue(*p) == kNotHex)
            return Fail(reason, "expected a flags digit after '##'");
        ++p;
        f.flags |= TARN_FRAME_FD;
        max = 64;
    } else if (p != end && (*p == 'R' || *p == 'r')) {
        f.flags |= TARN_FRAME_REMOTE;
        f.length = 0;
        if (++p != end && *p >= '0' && *p <= '8') f.length = static_cast<uint8_t>(*p++ - '0');
        std::memset(f.data, 0, sizeof f.data);
        return SkipBlanks(p, end) == end ? LineResult::Frame
                                         : Fail(reason, "unexpected text after the frame");
    }
    p = ReadHexPairs(p, end, f, max, reason);
    if (!p) return LineResult::Malformed;
    if (max == 64 && !IsFdLength(f.length)) return Fail(reason, "not a CAN FD data length");
    // A classic 8-byte frame may note its raw DLC 9..F as "_F".
    if (max == 8 && f.length == 8 && end - p >= 2 && *p == '_' && HexValue(p[1]) != kNotHex) p += 2;
    if (SkipBlanks(p, end) != end) return Fail(reason, "unexpected text after the frame");
    ClearTail(f);
    return LineResult::Frame;
}

class CandumpLogParser : public LineParser {
  public:
    using LineParser::LineParser;
    LineResult Parse(std::string_view line, tarn_frame& frame, const char*& reason) override {
        return ParseCandumpLog(line, m_channels, frame, reason);
    }
};

// "(seconds)", "(2015-07-10 08:17:32.249713)" or nothing (NaN).
bool ParseScreenTime(Cursor& c, double& time) {
    time = std::nan("");
    if (!c.Eat('(')) return true;
    std::string_view text;
    if (!c.Until(')', text)) return false;
    size_t space = text.find(' ');
    if (space != std::string_view::npos)
        return ParseIsoDate(text.substr(0, space), text.substr(space + 1), time);
    return ParseSeconds(text, time);
}

class CandumpScreenParser : public LineParser {
  public:
    using LineParser::LineParser;
    LineResult Parse(std::string_view line, tarn_frame& f, const char*& reason) override {
        Cursor c(line);
        c.SkipBlanks();
        if (c.AtEnd()) return LineResult::Skip;
        if (!ParseScreenTime(c, f.time)) return Fail(reason, "bad time stamp");
        if (!SetChannel(m_channels, c.Word(), f)) return Fail(reason, kChannelRefused);
        std::string_view word = c.Word();
        if (word == "RX" || word == "TX") {  // extra columns: direction, BRS, ESI
            std::string_view brs = c.Word(), esi = c.Word();
            if ((brs != "B" && brs != "-") || (esi != "E" && esi != "-"))
                return Fail(reason, "expected 'B' or '-' and 'E' or '-' after the direction");
            word = c.Word();
        }
        uint32_t id = 0;
        if (!ParseHex32(word, id)) return Fail(reason, "bad identifier");
        f.flags = 0;
        if (const char* why = SetCandumpId(id, word.size(), f)) return Fail(reason, why);
        return ParseLengthAndData(c, f, reason);
    }

  private:
    // "[8]" is a classic frame, "[08]" or "[12]" a CAN FD one.
    static LineResult ParseLengthAndData(Cursor& c, tarn_frame& f, const char*& reason) {
        std::string_view len = c.Word();
        uint32_t n = 0;
        if (len.size() < 3 || len.front() != '[' || len.back() != ']' ||
            !ParseDec32(len.substr(1, len.size() - 2), n))
            return Fail(reason, "expected a length like [8]");
        bool fd = len.size() == 4;
        if (fd ? !IsFdLength(n) : (len.size() != 3 || n > 8)) return Fail(reason, "bad length");
        f.length = static_cast<uint8_t>(n);
        if (fd) f.flags |= TARN_FRAME_FD;
        std::string_view rest = c.Rest();
        if (!fd && rest.substr(0, 14) == "remote request") {
            f.flags |= TARN_FRAME_REMOTE;
            std::memset(f.data, 0, sizeof f.data);
            return LineResult::Frame;
        }
        for (uint32_t i = 0; i < n; ++i) {
            std::string_view byte = c.Word();
            if (byte.size() != 2 || !ParseHexByte(byte, f.data[i]))
                return Fail(reason, "fewer data bytes than the length says");
        }
        ClearTail(f);  // what follows the bytes (ASCII view, error text) is not data
        return LineResult::Frame;
    }
};

}  // namespace

const char* SetCandumpId(uint32_t value, size_t digits, tarn_frame& f) {
    f.id = value;
    f.extended = 0;
    if (digits == 3) return value > kMaxStandard ? "standard identifier above 7FF" : nullptr;
    if (digits != 8) return "identifier needs 3 or 8 hex digits";
    if (value & kErrorFlag) {  // the error class bits follow the flag
        f.id = value & kMaxExtended;
        f.flags |= TARN_FRAME_ERROR;
        return nullptr;
    }
    if (value > kMaxExtended) return "identifier wider than 29 bits";
    f.extended = 1;
    return nullptr;
}

LineResult ParseCandumpLog(std::string_view line, ChannelTable& channels, tarn_frame& f,
                           const char*& reason) {
    const char* p = line.data();
    const char* end = p + line.size();
    p = SkipBlanks(p, end);
    if (p == end) return LineResult::Skip;
    if (*p != '(') return Fail(reason, "expected a '(' time stamp");
    auto* close = static_cast<const char*>(std::memchr(p, ')', static_cast<size_t>(end - p)));
    if (!close ||
        !ParseSeconds(std::string_view(p + 1, static_cast<size_t>(close - p - 1)), f.time))
        return Fail(reason, "bad time stamp");
    p = SkipBlanks(close + 1, end);
    const char* name = p;
    while (p != end && !IsBlank(*p)) ++p;
    if (p == name || p == end) return Fail(reason, "expected an interface and a frame");
    if (!SetChannel(channels, std::string_view(name, static_cast<size_t>(p - name)), f))
        return Fail(reason, kChannelRefused);
    f.flags = 0;
    return ParseFrameText(SkipBlanks(p, end), end, f, reason);
}

std::unique_ptr<LineParser> MakeCandumpParser(Format format, ChannelTable& channels) {
    if (format == Format::CandumpLog) return std::make_unique<CandumpLogParser>(channels);
    return std::make_unique<CandumpScreenParser>(channels);
}

}  // namespace tarn::logs
