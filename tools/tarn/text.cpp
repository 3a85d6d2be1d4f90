#include "text.h"

#include <charconv>
#include <cmath>
#include <cstring>

namespace tarncli {
namespace {

void appendUnicodeEscape(std::string& out, unsigned code) {
    static const char kHex[] = "0123456789abcdef";
    out += "\\u00";
    out += kHex[(code >> 4) & 0xF];
    out += kHex[code & 0xF];
}

}  // namespace

void appendNumber(std::string& out, double v) {
    if (std::isnan(v)) {
        out += "nan";
        return;
    }
    if (std::isinf(v)) {
        out += v > 0 ? "inf" : "-inf";
        return;
    }
    char buf[40];
    const auto r =
        std::to_chars(buf, buf + sizeof buf, v == 0 ? 0.0 : v, std::chars_format::general, 15);
    out.append(buf, r.ptr);
}

void appendJsonNumber(std::string& out, double v) {
    if (!std::isfinite(v)) {
        out += "null";
        return;
    }
    appendNumber(out, v);
}

void appendJsonString(std::string& out, std::string_view s) {
    out += '"';
    for (char ch : s) {
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

void appendCsvField(std::string& out, std::string_view s) {
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

void appendRaw(std::string& out, const tarn_value& v, const tarn_signal_info& sig) {
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
    out.append(buf, r.ptr);
}

void appendHexId(std::string& out, uint32_t id, bool extended) {
    static const char kHex[] = "0123456789ABCDEF";
    for (int shift = extended ? 28 : 8; shift >= 0; shift -= 4) out += kHex[(id >> shift) & 0xF];
}

void appendHexBytes(std::string& out, const uint8_t* data, size_t length, bool lowerCase) {
    const char* hex = lowerCase ? "0123456789abcdef" : "0123456789ABCDEF";
    for (size_t i = 0; i < length; ++i) {
        out += hex[data[i] >> 4];
        out += hex[data[i] & 0xF];
    }
}

}  // namespace tarncli
