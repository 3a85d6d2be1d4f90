// The native reader's scanner: a cursor over one statement of DBC text.
// Every token reader skips blanks (newlines included: a statement's extent
// is fixed before it is parsed) and leaves the cursor unchanged on failure
// except for those blanks. Numbers go through std::from_chars.
#pragma once

#include <charconv>
#include <cmath>
#include <cstdint>
#include <string_view>

namespace tarn::net {

struct CharClass {
    bool word[256] = {};
    bool blank[256] = {};
    constexpr CharClass() {
        for (int c = 0; c < 256; ++c) {
            word[c] = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '_';
            blank[c] = c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
        }
    }
};
inline constexpr CharClass kChars{};

inline bool IsWord(char c) {
    return kChars.word[static_cast<unsigned char>(c)];
}
inline bool IsBlank(char c) {
    return kChars.blank[static_cast<unsigned char>(c)];
}

// A quoted text as written: `raw` is the part between the quotes, and
// `plain` tells whether it can be stored as it is (no escapes, no CR).
struct QuotedText {
    std::string_view raw;
    bool plain = true;
};

struct Cursor {
    const char* p;
    const char* end;

    Cursor(const char* b, const char* e) : p(b), end(e) {}

    void SkipBlanks() {
        while (p < end && IsBlank(*p)) ++p;
    }
    bool AtEnd() {
        SkipBlanks();
        return p == end;
    }
    // The end of a one-line statement, which some writers close with ';'.
    bool AtLineEnd() {
        const char* b = p;
        if (Eat(';') && AtEnd()) return true;
        p = b;
        return AtEnd();
    }
    // The next non-blank character, or '\0' at the end.
    char Peek() {
        SkipBlanks();
        return p < end ? *p : '\0';
    }
    bool Eat(char c) {
        SkipBlanks();
        if (p == end || *p != c) return false;
        ++p;
        return true;
    }
    std::string_view Word() {
        SkipBlanks();
        const char* b = p;
        while (p < end && IsWord(*p)) ++p;
        return std::string_view(b, static_cast<size_t>(p - b));
    }
    bool Uint(uint64_t& v) {
        SkipBlanks();
        auto r = std::from_chars(p, end, v);
        if (r.ec != std::errc() || EndsInWord(r.ptr)) return false;
        p = r.ptr;
        return true;
    }
    bool Uint(uint32_t& v) {
        uint64_t w;
        const char* b = p;
        if (!Uint(w) || w > UINT32_MAX) {
            p = b;
            return false;
        }
        v = static_cast<uint32_t>(w);
        return true;
    }
    // A signed integer; one beyond INT64_MAX keeps its 64-bit pattern, so
    // the keys of unsigned 64-bit signals survive.
    bool Int(int64_t& v) {
        SkipBlanks();
        const char* b = p + (p < end && *p == '+' && p + 1 < end && *(p + 1) != '-');
        auto r = std::from_chars(b, end, v);
        if (r.ec == std::errc::result_out_of_range && b < end && *b != '-') {
            uint64_t u = 0;
            r = std::from_chars(b, end, u);
            v = static_cast<int64_t>(u);
        }
        if (r.ec != std::errc() || EndsInWord(r.ptr)) return false;
        p = r.ptr;
        return true;
    }
    bool Double(double& v) {
        SkipBlanks();
        const char* b = p + (p < end && *p == '+' && p + 1 < end && *(p + 1) != '-');
        if (const char* q = ShortDecimal(b, v)) {
            p = q;
            return true;
        }
        auto r = std::from_chars(b, end, v);
        if (r.ec == std::errc::result_out_of_range)
            v = Saturated(b, r.ptr);
        else if (r.ec != std::errc())
            return false;
        if (EndsInWord(r.ptr)) return false;
        p = r.ptr;
        return true;
    }
    bool Quoted(QuotedText& out) {
        SkipBlanks();
        if (p == end || *p != '"') return false;
        const char* b = p + 1;
        bool plain = true;
        for (const char* q = b; q < end; ++q) {
            char c = *q;
            if (c == '"') {
                out.raw = std::string_view(b, static_cast<size_t>(q - b));
                out.plain = plain;
                p = q + 1;
                return true;
            }
            if (c == '\\') {
                plain = false;
                if (q + 1 < end) ++q;
            } else if (c == '\r') {
                plain = false;
            }
        }
        return false;
    }

  private:
    // The common "-0.03125" or "100": at most 15 digits and no exponent. The
    // digits as an integer and the power of ten are both exact doubles, so
    // one division rounds correctly, the same value from_chars gives.
    // Anything else returns nullptr and goes to from_chars.
    const char* ShortDecimal(const char* b, double& v) const {
        static constexpr double kPow10[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                            1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
        const char* q = b + (b < end && *b == '-');
        uint64_t digits = 0;
        int count = 0, fraction = -1;
        for (; q < end; ++q) {
            if (*q >= '0' && *q <= '9') {
                digits = digits * 10 + static_cast<uint64_t>(*q - '0');
                ++count;
                if (fraction >= 0) ++fraction;
            } else if (*q == '.' && fraction < 0) {
                fraction = 0;
            } else {
                break;
            }
        }
        if (count == 0 || count > 15 || fraction == 0 || (q < end && (IsWord(*q) || *q == '.')))
            return nullptr;
        double d = static_cast<double>(digits);
        if (fraction > 0) d /= kPow10[fraction];
        v = *b == '-' ? -d : d;
        return q;
    }
    // from_chars leaves a number beyond double's range unset; real files
    // write such limits (1e+481), which mean "unbounded": infinity or zero.
    static double Saturated(const char* b, const char* e) {
        bool negative = *b == '-';
        for (const char* q = b; q + 1 < e; ++q) {
            if ((*q == 'e' || *q == 'E') && q[1] == '-') return negative ? -0.0 : 0.0;
        }
        return negative ? -HUGE_VAL : HUGE_VAL;
    }
    // "12abc" is no number: a number must not run into a word.
    bool EndsInWord(const char* q) const { return q < end && (IsWord(*q) || *q == '.'); }
};

}  // namespace tarn::net
