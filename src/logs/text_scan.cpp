#include "logs/text_scan.h"

#include <charconv>

namespace tarn::logs {
namespace {

// 10^n for the fraction digits one from_chars call can hold; dividing by an
// exact power gives the correctly rounded fraction.
constexpr double kPow10[19] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8, 1e9,
                               1e10, 1e11, 1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18};

bool AllDigits(std::string_view text) {
    for (char c : text)
        if (c < '0' || c > '9') return false;
    return true;
}

}  // namespace

bool Cursor::Until(char stop, std::string_view& out) {
    for (const char* p = m_p; p != m_end; ++p) {
        if (*p == stop) {
            out = std::string_view(m_p, static_cast<size_t>(p - m_p));
            m_p = p + 1;
            return true;
        }
    }
    return false;
}

bool ParseHex32(std::string_view text, uint32_t& out) {
    if (text.empty() || text.size() > 8) return false;
    uint32_t v = 0;
    for (char c : text) {
        uint8_t d = HexValue(c);
        if (d == kNotHex) return false;
        v = (v << 4) | d;
    }
    out = v;
    return true;
}

bool ParseDec32(std::string_view text, uint32_t& out) {
    const char* end = text.data() + text.size();
    auto [p, ec] = std::from_chars(text.data(), end, out);
    return ec == std::errc() && p == end && !text.empty();
}

bool ParseSeconds(std::string_view text, double& out) {
    size_t dot = text.find('.');
    std::string_view whole = text.substr(0, dot);
    uint64_t seconds = 0;
    const char* wend = whole.data() + whole.size();
    auto [p, ec] = std::from_chars(whole.data(), wend, seconds);
    if (ec != std::errc() || p != wend) return false;
    out = static_cast<double>(seconds);
    if (dot == std::string_view::npos) return true;
    std::string_view frac = text.substr(dot + 1);
    if (frac.empty()) return true;
    if (!AllDigits(frac)) return false;
    size_t digits = frac.size() < 18 ? frac.size() : 18;
    uint64_t f = 0;
    std::from_chars(frac.data(), frac.data() + digits, f);
    out += static_cast<double>(f) / kPow10[digits];
    return true;
}

bool ParseHexByte(std::string_view text, uint8_t& out) {
    if (text.empty() || text.size() > 2) return false;
    uint8_t hi = text.size() == 2 ? HexValue(text[0]) : 0;
    uint8_t lo = HexValue(text.back());
    if (hi == kNotHex || lo == kNotHex) return false;
    out = static_cast<uint8_t>(hi << 4 | lo);
    return true;
}

bool StartsWithNoCase(std::string_view text, std::string_view prefix) {
    if (text.size() < prefix.size()) return false;
    for (size_t i = 0; i < prefix.size(); ++i) {
        char a = text[i], b = prefix[i];
        if (a >= 'A' && a <= 'Z') a = static_cast<char>(a - 'A' + 'a');
        if (b >= 'A' && b <= 'Z') b = static_cast<char>(b - 'A' + 'a');
        if (a != b) return false;
    }
    return true;
}

}  // namespace tarn::logs
