#include "text.h"

#include <charconv>
#include <cmath>
#include <cstring>

namespace tarncli {
namespace {

void appendUnicodeEscape(OutBuf& out, unsigned code) {
    static const char kHex[] = "0123456789abcdef";
    out += "\\u00";
    out += kHex[(code >> 4) & 0xF];
    out += kHex[code & 0xF];
}

}  // namespace

void appendNumber(OutBuf& out, double v) {
    if (std::isnan(v)) {
        out += "nan";
        return;
    }
    if (std::isinf(v)) {
        out += v > 0 ? "inf" : "-inf";
        return;
    }
    constexpr size_t kRoom = 40;
    char* buf = out.grab(kRoom);
    std::to_chars_result r;
    if (v == std::trunc(v) && std::fabs(v) < 1e15) {
        r = std::to_chars(buf, buf + kRoom, static_cast<int64_t>(v));
    } else {
        // The shortest exact form is short for most scaled values; when a
        // scale factor leaves binary residue (49.900000000000006) it is
        // long, and 15 significant digits give the intended value.
        r = std::to_chars(buf, buf + kRoom, v);
        if (r.ptr - buf > 16)
            r = std::to_chars(buf, buf + kRoom, v, std::chars_format::general, 15);
    }
    out.shrink(kRoom - static_cast<size_t>(r.ptr - buf));
}

DecimalScale DecimalScale::For(const tarn_signal_info& sig) {
    DecimalScale d;
    if (sig.value_type != TARN_VALUE_INTEGER || sig.factor == 0) return d;
    double pow10 = 1;
    for (uint32_t k = 0; k <= 9; ++k, pow10 *= 10) {
        const double f = sig.factor * pow10, o = sig.offset * pow10;
        if (std::fabs(f) > 2e9 || std::fabs(o) > 1e15) return d;
        // A decimal factor differs from its scaled integer only by binary
        // representation error, far below a millionth at these magnitudes.
        if (std::fabs(f - std::round(f)) > 1e-6 || std::fabs(o - std::round(o)) > 1e-6) continue;
        d.usable = true;
        d.decimals = k;
        d.factor = static_cast<int64_t>(std::llround(f));
        d.offset = static_cast<int64_t>(std::llround(o));
        d.rawLimit = (int64_t{1} << 52) / std::max<int64_t>(1, std::llabs(d.factor));
        return d;
    }
    return d;
}

bool DecimalScale::Append(OutBuf& out, const tarn_value& v) const {
    if (!usable) return false;
    int64_t raw;
    if (v.flags & TARN_RAW_SIGNED) {
        raw = v.raw.i;
    } else {
        if (v.raw.u > static_cast<uint64_t>(rawLimit)) return false;
        raw = static_cast<int64_t>(v.raw.u);
    }
    if (raw > rawLimit || raw < -rawLimit) return false;
    const int64_t n = raw * factor + offset;
    uint64_t mag = static_cast<uint64_t>(n < 0 ? -n : n);
    static const uint64_t kPow10[] = {1,      10,      100,      1000,      10000,
                                      100000, 1000000, 10000000, 100000000, 1000000000};
    const uint64_t scale = kPow10[decimals];
    uint64_t frac = mag % scale;
    uint32_t digits = decimals;
    while (digits && frac % 10 == 0) {  // no trailing zeros, as %g prints
        frac /= 10;
        --digits;
    }
    if (n < 0 && (mag / scale || frac)) out += '-';
    char* buf = out.grab(24);
    const auto r = std::to_chars(buf, buf + 24, mag / scale);
    out.shrink(24 - static_cast<size_t>(r.ptr - buf));
    if (!digits) return true;
    char* f = out.grab(digits + 1);
    f[0] = '.';
    for (uint32_t i = digits; i > 0; --i, frac /= 10) f[i] = static_cast<char>('0' + frac % 10);
    return true;
}

void appendFixed6(OutBuf& out, double t) {
    if (!(std::fabs(t) < 9e12)) {  // beyond exact microseconds: rare, slow path
        char buf[64];
        const auto r = std::to_chars(buf, buf + sizeof buf, t, std::chars_format::fixed, 6);
        out.append(buf, static_cast<size_t>(r.ptr - buf));
        return;
    }
    const int64_t us = std::llround(t * 1e6);
    const uint64_t mag = static_cast<uint64_t>(us < 0 ? -us : us);
    char buf[32];
    const auto r = std::to_chars(buf, buf + sizeof buf, mag / 1000000);
    if (us < 0) out += '-';
    out.append(buf, static_cast<size_t>(r.ptr - buf));
    char frac[7];
    uint64_t f = mag % 1000000;
    for (int i = 5; i >= 0; --i, f /= 10) frac[i] = static_cast<char>('0' + f % 10);
    out += '.';
    out.append(frac, 6);
}

void appendJsonNumber(OutBuf& out, double v) {
    if (!std::isfinite(v)) {
        out += "null";
        return;
    }
    appendNumber(out, v);
}

void appendJsonString(OutBuf& out, std::string_view s) {
    out += '"';
    size_t plain = 0;  // bytes that need no escape, the common case whole
    while (plain < s.size()) {
        const unsigned char c = static_cast<unsigned char>(s[plain]);
        if (c < 0x20 || c == '"' || c == '\\' || c == 0x7F) break;
        ++plain;
    }
    out.append(s.data(), plain);
    for (size_t i = plain; i < s.size(); ++i) {
        const char ch = s[i];
        const unsigned char c = static_cast<unsigned char>(ch);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += ch;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c == 0x7F) {
            appendUnicodeEscape(out, c);
        } else {
            out += ch;  // the library hands out UTF-8
        }
    }
    out += '"';
}

std::string jsonQuoted(std::string_view s) {
    OutBuf b;
    appendJsonString(b, s);
    return b.str();
}

std::string csvField(std::string_view s) {
    OutBuf b;
    appendCsvField(b, s);
    return b.str();
}

void appendCsvField(OutBuf& out, std::string_view s) {
    if (s.find_first_of(",\"\r\n") == std::string_view::npos) {
        out.append(s.data(), s.size());
        return;
    }
    out += '"';
    for (char c : s) {
        if (c == '"') out += '"';
        out += c;
    }
    out += '"';
}

void appendRaw(OutBuf& out, const tarn_value& v, const tarn_signal_info& sig) {
    char buf[24];
    std::to_chars_result r;
    if (v.flags & TARN_RAW_FLOAT) {
        uint64_t bits = 0;
        if (sig.value_type == TARN_VALUE_FLOAT) {
            const float f = static_cast<float>(v.raw.f);
            uint32_t b;
            std::memcpy(&b, &f, sizeof b);
            bits = b;
        } else {
            std::memcpy(&bits, &v.raw.f, sizeof bits);
        }
        r = std::to_chars(buf, buf + sizeof buf, bits);
    } else if (v.flags & TARN_RAW_SIGNED) {
        r = std::to_chars(buf, buf + sizeof buf, v.raw.i);
    } else {
        r = std::to_chars(buf, buf + sizeof buf, v.raw.u);
    }
    out.append(buf, static_cast<size_t>(r.ptr - buf));
}

void appendHexId(OutBuf& out, uint32_t id, bool extended) {
    static const char kHex[] = "0123456789ABCDEF";
    for (int shift = extended ? 28 : 8; shift >= 0; shift -= 4) out += kHex[(id >> shift) & 0xF];
}

void appendHexBytes(OutBuf& out, const uint8_t* data, size_t length, bool lowerCase) {
    const char* hex = lowerCase ? "0123456789abcdef" : "0123456789ABCDEF";
    for (size_t i = 0; i < length; ++i) {
        out += hex[data[i] >> 4];
        out += hex[data[i] & 0xF];
    }
}

}  // namespace tarncli
