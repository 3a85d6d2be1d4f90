// PEAK TRC. Header lines start with ';': "$FILEVERSION" picks the layout,
// "$STARTTIME" (days since 1899-12-30) makes offsets absolute and, from 2.1
// on, "$COLUMNS" names the columns of the data lines. 1.x lines read
// "N) <offset ms> [bus] Rx|Tx <id> [-] <dlc> <bytes>|RTR"; 2.x lines follow
// the column list, the type column telling data (DT), CAN FD (FD, FB, FE,
// BI), remote (RR) and error (ER) frames apart.
#include <cmath>
#include <cstring>
#include <string>

#include "logs/parser.h"
#include "logs/text_scan.h"

namespace tarn::logs {
namespace {

constexpr double kUnixEpochInDays = 25569.0;   // 1970-01-01 counted from 1899-12-30
constexpr const char* kColumns20 = "NOTIdlD";  // the fixed layout of version 2.0

bool AllDigits(std::string_view w) {
    for (char c : w)
        if (c < '0' || c > '9') return false;
    return !w.empty();
}

// 4 hex digits for a standard identifier, 8 for an extended one.
bool ParseTrcId(std::string_view w, tarn_frame& f) {
    uint32_t id = 0;
    if (!ParseHex32(w, id)) return false;
    f.extended = w.size() > 4;
    f.id = id;
    return id <= (f.extended ? kMaxExtended : kMaxStandard);
}

class TrcParser : public LineParser {
  public:
    TrcParser(int major, ChannelTable& channels) : LineParser(channels), m_major(major) {}

    LineResult Parse(std::string_view line, tarn_frame& f, const char*& reason) override {
        Cursor c(line);
        c.SkipBlanks();
        if (c.AtEnd()) return LineResult::Skip;
        if (c.Eat(';')) return Header(c.Rest());
        f.flags = 0;
        f.time = std::nan("");
        return m_major == 1 ? Version1(c, f, reason) : Version2(c, f, reason);
    }

  private:
    LineResult Header(std::string_view h) {
        double value = 0;
        if (h.substr(0, 13) == "$FILEVERSION=" && h.size() > 13) {
            m_major = h[13] == '1' ? 1 : 2;
            m_columns = kColumns20;
        } else if (h.substr(0, 11) == "$STARTTIME=" && ParseSeconds(h.substr(11), value)) {
            m_start = (value - kUnixEpochInDays) * 86400.0;
        } else if (h.substr(0, 9) == "$COLUMNS=") {
            m_columns.clear();
            for (char ch : h.substr(9))
                if (ch != ',' && !IsBlank(ch) && m_columns.size() < 16) m_columns += ch;
        }
        return LineResult::Skip;
    }

    bool SetTime(std::string_view offsetMs, tarn_frame& f) const {
        double ms = 0;
        if (!ParseSeconds(offsetMs, ms)) return false;
        f.time = std::isnan(m_start) ? ms / 1000.0 : m_start + ms / 1000.0;
        return true;
    }

    LineResult Version1(Cursor& c, tarn_frame& f, const char*& reason) {
        std::string_view number = c.Word();
        if (number.size() < 2 || number.back() != ')' ||
            !AllDigits(number.substr(0, number.size() - 1)))
            return Fail(reason, "expected a message number like '1)'");
        if (!SetTime(c.Word(), f)) return Fail(reason, "bad time offset");
        std::string_view type = c.Word(), bus;
        if (AllDigits(type)) {  // files from 1.2 on add a bus column
            bus = type;
            type = c.Word();
        }
        if (type == "Warng") return LineResult::Skip;
        if (type == "Error")
            f.flags = TARN_FRAME_ERROR;
        else if (type != "Rx" && type != "Tx")
            return Fail(reason, "unknown message type");
        if (!SetChannel(m_channels, bus, f)) return Fail(reason, kChannelRefused);
        if (!ParseTrcId(c.Word(), f)) {
            if (!(f.flags & TARN_FRAME_ERROR)) return Fail(reason, "bad identifier");
            f.id = 0;  // an error line's identifier column carries no identifier
            f.extended = 0;
        }
        std::string_view dlcWord = c.Word();
        if (dlcWord == "-") dlcWord = c.Word();  // the reserved column of 1.3
        uint32_t dlc = 0;
        if (!ParseDec32(dlcWord, dlc) || dlc > 8) return Fail(reason, "bad data length");
        f.length = static_cast<uint8_t>(dlc);
        if (c.Rest().substr(0, 3) == "RTR") {
            f.flags |= TARN_FRAME_REMOTE;
            std::memset(f.data, 0, sizeof f.data);
            return LineResult::Frame;
        }
        for (uint32_t i = 0; i < dlc; ++i)
            if (!ParseHexByte(c.Word(), f.data[i]))
                return Fail(reason, "fewer data bytes than the length says");
        ClearTail(f);
        return LineResult::Frame;
    }

    // The fields of a 2.x line, taken in the order of the column list.
    struct Fields {
        std::string_view type, bus, id, dlc, length;
    };

    LineResult Version2(Cursor& c, tarn_frame& f, const char*& reason) {
        Fields x;
        for (char column : m_columns) {
            if (column == 'D') break;
            std::string_view w = c.Word();
            switch (column) {
                case 'O':
                    if (!SetTime(w, f)) return Fail(reason, "bad time offset");
                    break;
                case 'T':
                    x.type = w;
                    if (w == "ST" || w == "EC" || w == "EV") return LineResult::Skip;
                    break;
                case 'B':
                    x.bus = w;
                    break;
                case 'I':
                    x.id = w;
                    break;
                case 'L':
                    x.dlc = w;
                    break;
                case 'l':
                    x.length = w;
                    break;
                default:
                    break;  // number, direction, reserved
            }
        }
        if (!SetChannel(m_channels, x.bus, f)) return Fail(reason, kChannelRefused);
        if (!SetType(x.type, f)) return Fail(reason, "unknown message type");
        if ((f.flags & TARN_FRAME_ERROR) && x.id == "-") {  // error frames may have no identifier
            f.id = 0;
            f.extended = 0;
        } else if (!ParseTrcId(x.id, f)) {
            return Fail(reason, "bad identifier");
        }
        return Payload(c, x, f, reason);
    }

    static bool SetType(std::string_view type, tarn_frame& f) {
        if (type == "DT")
            f.flags = 0;
        else if (type == "FD" || type == "FB" || type == "FE" || type == "BI")
            f.flags = TARN_FRAME_FD;
        else if (type == "RR")
            f.flags = TARN_FRAME_REMOTE;
        else if (type == "ER")
            f.flags = TARN_FRAME_ERROR;
        else
            return false;
        return true;
    }

    // The bytes to the end of the line. Their count must agree with the
    // length column, or with the DLC it holds in 2.0 CAN FD lines.
    static LineResult Payload(Cursor& c, const Fields& x, tarn_frame& f, const char*& reason) {
        uint32_t declared = 0, n = 0;
        bool byDlc = x.length.empty();
        bool fd = f.flags & TARN_FRAME_FD;
        if (byDlc ? !ParseDlc(x.dlc, declared) : !ParseDec32(x.length, declared))
            return Fail(reason, "bad data length");
        if (byDlc) declared = fd ? DlcToLength(declared) : (declared > 8 ? 8 : declared);
        for (std::string_view w = c.Word(); !w.empty(); w = c.Word()) {
            if (n == (fd ? 64u : 8u)) return Fail(reason, "too many data bytes");
            if (!ParseHexByte(w, f.data[n++])) return Fail(reason, "bad data byte");
        }
        if (f.flags & TARN_FRAME_REMOTE) {
            if (n != 0 || declared > 8) return Fail(reason, "bad remote frame");
            n = declared;
            std::memset(f.data, 0, sizeof f.data);
        } else if (n != declared && !(fd && declared <= 15 && n == DlcToLength(declared)) &&
                   !(f.flags & TARN_FRAME_ERROR)) {
            return Fail(reason, "data bytes do not match the length");
        } else if (fd && !IsFdLength(n)) {
            return Fail(reason, "not a CAN FD data length");
        }
        f.length = static_cast<uint8_t>(n);
        ClearTail(f);
        return LineResult::Frame;
    }

    int m_major;
    double m_start = std::nan("");
    std::string m_columns = kColumns20;
};

}  // namespace

std::unique_ptr<LineParser> MakeTrcParser(int major, ChannelTable& channels) {
    return std::make_unique<TrcParser>(major, channels);
}

}  // namespace tarn::logs
