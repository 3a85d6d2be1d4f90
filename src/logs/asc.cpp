// Vector ASC: header lines set the number base, the time stamp mode and the
// start date; event lines start with a time. Classic frames read
// "<t> <ch> <id>[x] Rx|Tx d <dlc> <bytes>" (or "r" for remote), CAN FD ones
// "<t> CANFD <ch> Rx|Tx <id>[x] [name] <brs> <esi> <dlc> <length> <bytes>
// <duration> <bits> <flags> ...". Events that carry no frame are skipped.
#include <cmath>
#include <cstring>

#include "logs/civil_time.h"
#include "logs/parser.h"
#include "logs/text_scan.h"

namespace tarn::logs {
namespace {

// In a CANFD line's flags column: the frame is CAN FD (else a classic frame
// logged on an FD channel), and the remote-request bit of a classic one.
constexpr uint32_t kFlagEdl = 0x1000;
constexpr uint32_t kFlagRemote = 0x10;

bool IsDirection(std::string_view w) {
    return w == "Rx" || w == "Tx" || w == "TxRq";
}

// "Wed Jun 15 02:54:04.123 pm 2022", after the word "date".
bool ParseDateLine(Cursor& c, double& epoch) {
    c.Word();  // day of the week
    unsigned month = MonthFromName(c.Word());
    uint32_t day = 0, year = 0;
    double clock = 0;
    if (!month || !ParseDec32(c.Word(), day) || !ParseClock(c.Word(), clock)) return false;
    std::string_view w = c.Word();
    bool pm = StartsWithNoCase(w, "pm");
    if (pm || StartsWithNoCase(w, "am")) {
        if (clock >= 12 * 3600.0) clock -= 12 * 3600.0;  // 12:xx am is just after midnight
        if (pm) clock += 12 * 3600.0;
        w = c.Word();
    }
    if (!ParseDec32(w, year) || day < 1 || day > 31) return false;
    epoch = static_cast<double>(DaysFromCivil(year, month, day)) * 86400.0 + clock;
    return true;
}

class AscParser : public LineParser {
  public:
    using LineParser::LineParser;

    LineResult Parse(std::string_view line, tarn_frame& f, const char*& reason) override {
        Cursor c(line);
        std::string_view first = c.Word();
        double t = 0;
        if (first.empty()) return LineResult::Skip;
        if (!ParseSeconds(first, t)) return Header(first, c, reason);
        m_clock = m_relative ? m_clock + t : t;
        f.time = std::isnan(m_start) ? m_clock : m_start + m_clock;
        std::string_view word = c.Word();
        if (word == "CANFD") return FdFrame(c, f, reason);
        uint32_t channel = 0;
        if (!ParseDec32(word, channel)) return LineResult::Skip;  // another kind of event
        return ClassicFrame(word, c, f, reason);
    }

  private:
    LineResult Header(std::string_view first, Cursor& c, const char*& reason) {
        if (first.substr(0, 2) == "//") return LineResult::Skip;
        if (first == "date") {
            if (!ParseDateLine(c, m_start)) m_start = std::nan("");
            return LineResult::Skip;
        }
        if (first == "base") {
            std::string_view base = c.Word();
            if (base != "hex" && base != "dec")
                return Fail(reason, "expected 'base hex' or 'base dec'");
            m_decimal = base == "dec";
            if (c.Word() == "timestamps") m_relative = c.Word() == "relative";
            return LineResult::Skip;
        }
        if (first == "internal" || first == "no" || StartsWithNoCase(first, "begin") ||
            StartsWithNoCase(first, "end"))
            return LineResult::Skip;
        return Fail(reason, "neither a header line nor an event with a time");
    }

    // "<ch> <id>[x] Rx d <dlc> <bytes>", "<ch> <id> Rx r [<dlc>]" or "<ch> ErrorFrame".
    LineResult ClassicFrame(std::string_view channel, Cursor& c, tarn_frame& f,
                            const char*& reason) {
        if (!SetChannel(m_channels, channel, f)) return Fail(reason, kChannelRefused);
        std::string_view idWord = c.Word();
        if (idWord == "ErrorFrame") return ErrorFrame(f);
        int id = ParseId(idWord, f);
        if (id == 0) return LineResult::Skip;  // "Statistic:", "Status:", ...
        if (id < 0) return Fail(reason, "identifier out of range");
        if (!IsDirection(c.Word())) return Fail(reason, "expected Rx or Tx after the identifier");
        std::string_view kind = c.Word();
        uint32_t dlc = 0;
        f.flags = 0;
        if (kind == "r") {
            std::string_view w = c.Word();
            if (!w.empty() && !ParseDlc(w, dlc)) return Fail(reason, "bad DLC");
            f.flags = TARN_FRAME_REMOTE;
            f.length = static_cast<uint8_t>(dlc > 8 ? 8 : dlc);
            std::memset(f.data, 0, sizeof f.data);
            return LineResult::Frame;
        }
        if (kind != "d") return Fail(reason, "expected 'd' or 'r' after the direction");
        if (!ParseDlc(c.Word(), dlc)) return Fail(reason, "bad DLC");
        f.length = static_cast<uint8_t>(dlc > 8 ? 8 : dlc);
        return ReadBytes(c, f, reason);
    }

    // "Rx|Tx <id>[x] [name] <brs> <esi> <dlc> <length> <bytes> <duration> <bits> <flags> ..."
    LineResult FdFrame(Cursor& c, tarn_frame& f, const char*& reason) {
        if (!SetChannel(m_channels, c.Word(), f)) return Fail(reason, kChannelRefused);
        if (!IsDirection(c.Word())) return Fail(reason, "expected Rx or Tx after the channel");
        std::string_view idWord = c.Word();
        if (idWord == "ErrorFrame") return ErrorFrame(f);
        if (ParseId(idWord, f) <= 0) return Fail(reason, "bad identifier");
        std::string_view brs = c.Word();
        if (brs != "0" && brs != "1") brs = c.Word();  // a symbolic message name came first
        std::string_view esi = c.Word();
        uint32_t dlc = 0, length = 0;
        if ((brs != "0" && brs != "1") || (esi != "0" && esi != "1"))
            return Fail(reason, "expected the BRS and ESI bits");
        if (!ParseDlc(c.Word(), dlc) || !ParseDec32(c.Word(), length) || !IsFdLength(length) ||
            length > 64)
            return Fail(reason, "bad DLC or data length");
        f.flags = TARN_FRAME_FD;
        f.length = static_cast<uint8_t>(length);
        LineResult r = ReadBytes(c, f, reason);
        if (r != LineResult::Frame) return r;
        c.Word();  // frame duration
        c.Word();  // bit count
        uint32_t flags = 0;
        if (ParseHex32(c.Word(), flags) && !(flags & kFlagEdl) && brs == "0" && length <= 8) {
            f.flags = 0;
            if (flags & kFlagRemote) {
                f.flags = TARN_FRAME_REMOTE;
                f.length = static_cast<uint8_t>(dlc > 8 ? 8 : dlc);
                std::memset(f.data, 0, sizeof f.data);
            }
        }
        return LineResult::Frame;
    }

    static LineResult ErrorFrame(tarn_frame& f) {
        f.id = 0;
        f.extended = 0;
        f.length = 0;
        f.flags = TARN_FRAME_ERROR;
        std::memset(f.data, 0, sizeof f.data);
        return LineResult::Frame;
    }

    // f.length bytes in the file's base; what follows them is not data.
    LineResult ReadBytes(Cursor& c, tarn_frame& f, const char*& reason) {
        for (size_t i = 0; i < f.length; ++i) {
            std::string_view w = c.Word();
            uint32_t v = 0;
            bool ok = m_decimal ? ParseDec32(w, v) && v <= 0xFF : w.size() == 2 && ParseHex32(w, v);
            if (!ok) return Fail(reason, "fewer data bytes than the length says");
            f.data[i] = static_cast<uint8_t>(v);
        }
        ClearTail(f);
        return LineResult::Frame;
    }

    // An identifier in the file's base, a trailing 'x' marking an extended
    // one: 1 when set, 0 when `w` is no number, -1 when out of range.
    int ParseId(std::string_view w, tarn_frame& f) const {
        bool extended = !w.empty() && (w.back() == 'x' || w.back() == 'X');
        if (extended) w.remove_suffix(1);
        uint32_t id = 0;
        if (!(m_decimal ? ParseDec32(w, id) : ParseHex32(w, id))) return 0;
        if (id > (extended ? kMaxExtended : kMaxStandard)) return -1;
        f.id = id;
        f.extended = extended;
        return 1;
    }

    bool m_decimal = false;
    bool m_relative = false;
    double m_start = std::nan("");  // epoch seconds of the "date" line
    double m_clock = 0;             // seconds since the start
};

}  // namespace

std::unique_ptr<LineParser> MakeAscParser(ChannelTable& channels) {
    return std::make_unique<AscParser>(channels);
}

}  // namespace tarn::logs
