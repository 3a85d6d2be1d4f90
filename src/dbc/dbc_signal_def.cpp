// Signal definitions ("%u|%u@%d%c(%lf,%lf)[%lf|%lf]" without blanks): a fast
// parser for the ordinary forms that yields exactly what sscanf would, with
// sscanf itself for everything else; and the raw-zero conversion.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "dbc/dbc_impl.h"

namespace {

constexpr double kPow10[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                             1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

// Plain decimal digits only; anything sscanf would treat specially (signs,
// blanks, values its strtol/strtoul step would clamp) is left to sscanf.
bool FastUnsigned(const char*& p, uint64_t& v, int maxDigits = 19) {
    const char* s = p;
    uint64_t x = 0;
    while (IsDigit(*p)) {
        if (p - s >= maxDigits) return false;
        x = x * 10 + static_cast<uint64_t>(*p - '0');
        ++p;
    }
    v = x;
    return p != s;
}

// A decimal number [+-]digits[.digits][e[+-]digits]. Exact when the digits
// and the power of ten are both representable (one correctly rounded
// operation); strtod decides the rest.
bool FastDouble(const char*& p, double& v) {
    const char* s = p;
    bool neg = false;
    if (*p == '+' || *p == '-') neg = *p++ == '-';
    uint64_t mant = 0;
    int digits = 0, exp10 = 0, seen = 0;
    bool exact = true;
    for (; IsDigit(*p); ++p, ++seen) {
        if (mant == 0 && *p == '0') continue;
        if (++digits > 19) exact = false;
        if (exact) mant = mant * 10 + static_cast<uint64_t>(*p - '0');
    }
    if (*p == '.') {
        for (++p; IsDigit(*p); ++p, ++seen) {
            if (mant == 0 && *p == '0') {
                --exp10;
                continue;
            }
            if (++digits > 19) exact = false;
            if (exact) {
                mant = mant * 10 + static_cast<uint64_t>(*p - '0');
                --exp10;
            }
        }
    }
    if (seen == 0) return false;
    if (*p == 'e' || *p == 'E') {
        const char* e = p + 1;
        bool eneg = false;
        if (*e == '+' || *e == '-') eneg = *e++ == '-';
        if (!IsDigit(*e)) return false;
        int ev = 0;
        for (; IsDigit(*e); ++e) {
            if (ev < 100000) ev = ev * 10 + (*e - '0');
        }
        exp10 += eneg ? -ev : ev;
        p = e;
    }
    if (exact && mant <= (uint64_t{1} << 53) && exp10 >= -22 && exp10 <= 22) {
        double m = static_cast<double>(mant);
        v = exp10 < 0 ? m / kPow10[-exp10] : m * kPow10[exp10];
        if (neg) v = -v;
        return true;
    }
    char* end = nullptr;
    v = std::strtod(s, &end);
    return end == p;
}

bool Expect(const char*& p, char c) {
    return *p++ == c;
}

bool FastSignalDef(const char* p, SignalDef& d) {
    uint64_t start, len, order;
    if (!FastUnsigned(p, start) || !Expect(p, '|')) return false;
    if (!FastUnsigned(p, len) || !Expect(p, '@')) return false;
    if (!FastUnsigned(p, order, 18) || *p == '\0') return false;
    d.startBit = static_cast<unsigned>(start);
    d.length = static_cast<unsigned>(len);
    d.byteOrder = static_cast<int>(static_cast<int64_t>(order));
    d.sign = *p++;
    return Expect(p, '(') && FastDouble(p, d.factor) && Expect(p, ',') && FastDouble(p, d.offset) &&
           Expect(p, ')') && Expect(p, '[') && FastDouble(p, d.minimum) && Expect(p, '|') &&
           FastDouble(p, d.maximum) && Expect(p, ']');
}

}  // namespace

int ParseSignalDef(const char* text, SignalDef& out) {
    SignalDef fast;
    if (FastSignalDef(text, fast)) {
        out = fast;
        return 8;
    }
    int n = std::sscanf(text, "%u|%u@%d%c(%lf,%lf)[%lf|%lf]", &out.startBit, &out.length,
                        &out.byteOrder, &out.sign, &out.factor, &out.offset, &out.minimum,
                        &out.maximum);
    return n < 0 ? 0 : n;
}

uint64_t TruncateToU64(double v) {
    if (std::isnan(v)) return 0;
    if (v >= 18446744073709551616.0) return UINT64_MAX;
    if (v >= 9223372036854775808.0) return static_cast<uint64_t>(v);
    if (v < -9223372036854775808.0) return uint64_t{1} << 63;
    return static_cast<uint64_t>(static_cast<int64_t>(v));
}
