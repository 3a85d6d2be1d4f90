// Text encodings of DBC input: texts are kept as UTF-8, and input that is not
// valid UTF-8 is taken as Windows-1252, the code page most DBC editors write.
#include <cstdint>
#include <cstring>

#include "dbc/reader.h"

namespace tarn::net {

namespace {

// Code points of 0x80..0x9F in Windows-1252; the five bytes it leaves
// undefined map to the C1 control of the same value, so nothing is lost.
constexpr uint16_t kHigh[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178,
};

// Length of the valid UTF-8 sequence at p (lead byte >= 0x80), or 0.
size_t SequenceLength(const unsigned char* p, const unsigned char* end) {
    unsigned char c = p[0];
    size_t n;
    unsigned char lo = 0x80, hi = 0xBF;  // bounds of the second byte
    if (c >= 0xC2 && c <= 0xDF) {
        n = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
        n = 3;
        if (c == 0xE0) lo = 0xA0;  // no overlong forms
        if (c == 0xED) hi = 0x9F;  // no surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
        n = 4;
        if (c == 0xF0) lo = 0x90;
        if (c == 0xF4) hi = 0x8F;  // nothing above U+10FFFF
    } else {
        return 0;
    }
    if (static_cast<size_t>(end - p) < n || p[1] < lo || p[1] > hi) return 0;
    for (size_t i = 2; i < n; ++i) {
        if ((p[i] & 0xC0) != 0x80) return 0;
    }
    return n;
}

void AppendUtf8(std::string& out, uint32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

}  // namespace

bool IsUtf8(std::string_view text) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text.data());
    const unsigned char* end = p + text.size();
    while (p < end) {
        // Most DBC text is ASCII: test eight bytes at a time.
        while (end - p >= 8) {
            uint64_t w;
            std::memcpy(&w, p, 8);
            if (w & 0x8080808080808080ull) break;
            p += 8;
        }
        if (p == end) break;
        if (*p < 0x80) {
            ++p;
            continue;
        }
        size_t n = SequenceLength(p, end);
        if (n == 0) return false;
        p += n;
    }
    return true;
}

std::string Cp1252ToUtf8(std::string_view text) {
    std::string out;
    out.reserve(text.size() + text.size() / 8);
    for (char ch : text) {
        unsigned char c = static_cast<unsigned char>(ch);
        if (c < 0x80) {
            out.push_back(ch);
        } else {
            AppendUtf8(out, c < 0xA0 ? kHigh[c - 0x80] : c);
        }
    }
    return out;
}

}  // namespace tarn::net
