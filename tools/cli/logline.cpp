#include "logline.h"

#include <cctype>

namespace tarncli {
namespace {

constexpr uint32_t kErrorFlag = 0x20000000u;
constexpr uint32_t kExtendedMask = 0x1FFFFFFFu;

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

void skipBlanks(std::string_view& s) {
    while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
}

std::string_view takeWord(std::string_view& s) {
    skipBlanks(s);
    size_t n = 0;
    while (n < s.size() && !isBlank(s[n])) ++n;
    std::string_view word = s.substr(0, n);
    s.remove_prefix(n);
    return word;
}

// candump writes standard identifiers with 3 hex digits and extended ones with 8.
bool parseId(std::string_view text, LogFrame& f, std::string& error) {
    if (text.size() != 3 && text.size() != 8) {
        error = "identifier '" + std::string(text) + "' has neither 3 nor 8 hex digits";
        return false;
    }
    uint32_t v = 0;
    for (char c : text) {
        int d = hexDigit(c);
        if (d < 0) {
            error = "bad identifier '" + std::string(text) + "'";
            return false;
        }
        v = (v << 4) | static_cast<uint32_t>(d);
    }
    f.extended = text.size() > 3;
    f.error = f.extended && (v & kErrorFlag) != 0;
    if (!f.extended && v > 0x7FF) {
        error = "standard identifier above 7FF";
        return false;
    }
    if (f.extended && !f.error && v > kExtendedMask) {
        error = "identifier wider than 29 bits";
        return false;
    }
    f.id = f.error ? v : (v & kExtendedMask);
    return true;
}

// Hex byte pairs, optionally separated by '.', as cansend accepts them.
bool parseHexBytes(std::string_view text, size_t max, LogFrame& f, std::string& error) {
    size_t n = 0;
    for (size_t i = 0; i < text.size();) {
        if (text[i] == '.') {
            ++i;
            continue;
        }
        int hi = hexDigit(text[i]);
        int lo = i + 1 < text.size() ? hexDigit(text[i + 1]) : -1;
        if (hi < 0 || lo < 0) {
            error = "bad data '" + std::string(text) + "'";
            return false;
        }
        if (n == max) {
            error = "more than " + std::to_string(max) + " data bytes";
            return false;
        }
        f.data[n++] = static_cast<uint8_t>(hi << 4 | lo);
        i += 2;
    }
    f.len = static_cast<uint8_t>(n);
    return true;
}

// "R" or "R<dlc>" after '#': a remote request.
bool parseRemote(std::string_view text, LogFrame& f, std::string& error) {
    f.remote = true;
    if (text.size() == 1) return true;
    int d = text.size() == 2 ? hexDigit(text[1]) : -1;
    if (d < 0 || d > 8) {
        error = "bad remote frame length";
        return false;
    }
    f.len = static_cast<uint8_t>(d);
    return true;
}

// "ID#DATA", "ID#R", "ID##<flags>DATA".
bool parseFrameWord(std::string_view word, LogFrame& f, std::string& error) {
    size_t hash = word.find('#');
    if (!parseId(word.substr(0, hash), f, error)) return false;
    std::string_view rest = word.substr(hash + 1);
    if (!rest.empty() && rest.front() == '#') {
        int flags = rest.size() > 1 ? hexDigit(rest[1]) : -1;
        if (flags < 0) {
            error = "CAN FD frame without flags";
            return false;
        }
        f.fd = true;
        f.flags = static_cast<uint8_t>(flags);
        return parseHexBytes(rest.substr(2), 64, f, error);
    }
    if (!rest.empty() && (rest.front() == 'R' || rest.front() == 'r'))
        return parseRemote(rest, f, error);
    // Newer candump versions append "_<dlc>" for a raw DLC above 8: the data is what counts.
    size_t underscore = rest.find('_');
    if (underscore != std::string_view::npos) rest = rest.substr(0, underscore);
    return parseHexBytes(rest, 8, f, error);
}

// Screen format after the interface: "ID  [len]  b0 b1 ..." or "... remote request".
bool parseScreen(std::string_view idWord, std::string_view rest, LogFrame& f, std::string& error) {
    if (!parseId(idWord, f, error)) return false;
    std::string_view lenWord = takeWord(rest);
    if (lenWord.size() < 3 || lenWord.front() != '[' || lenWord.back() != ']') {
        error = "expected [length] after the identifier";
        return false;
    }
    unsigned len = 0;
    for (char c : lenWord.substr(1, lenWord.size() - 2)) {
        if (!std::isdigit(static_cast<unsigned char>(c))) {
            error = "bad length " + std::string(lenWord);
            return false;
        }
        len = len * 10 + static_cast<unsigned>(c - '0');
        if (len > 64) break;
    }
    if (len > 64) {
        error = "length above 64";
        return false;
    }
    skipBlanks(rest);
    if (rest.rfind("remote request", 0) == 0) {
        f.remote = true;
        f.len = static_cast<uint8_t>(len > 8 ? 8 : len);
        return true;
    }
    f.fd = len > 8;
    for (unsigned i = 0; i < len; ++i) {
        std::string_view b = takeWord(rest);
        if (b.size() != 2 || hexDigit(b[0]) < 0 || hexDigit(b[1]) < 0) {
            error = "expected " + std::to_string(len) + " data bytes";
            return false;
        }
        f.data[i] = static_cast<uint8_t>(hexDigit(b[0]) << 4 | hexDigit(b[1]));
    }
    f.len = static_cast<uint8_t>(len);
    return true;  // whatever follows (an ASCII column) is ignored
}

// "(....)" at the start of the line; the text may hold blanks ("2015-07-10 08:57:32.2").
bool takeTime(std::string_view& s, LogFrame& f, std::string& error) {
    skipBlanks(s);
    if (s.empty() || s.front() != '(') return true;
    size_t close = s.find(')');
    if (close == std::string_view::npos || close == 1) {
        error = "bad time stamp";
        return false;
    }
    f.time = std::string(s.substr(1, close - 1));
    s.remove_prefix(close + 1);
    return true;
}

}  // namespace

LineResult parseLogLine(std::string_view line, LogFrame& frame, std::string& error) {
    frame = LogFrame();
    std::string_view s = line;
    skipBlanks(s);
    if (s.empty() || s.front() == '#') return LineResult::Blank;
    if (!takeTime(s, frame, error)) return LineResult::Malformed;
    frame.iface = std::string(takeWord(s));
    std::string_view word = takeWord(s);
    if (frame.iface.empty() || word.empty()) {
        error = "expected an interface and a frame";
        return LineResult::Malformed;
    }
    bool ok = word.find('#') != std::string_view::npos ? parseFrameWord(word, frame, error)
                                                       : parseScreen(word, s, frame, error);
    return ok ? LineResult::Frame : LineResult::Malformed;
}

}  // namespace tarncli
