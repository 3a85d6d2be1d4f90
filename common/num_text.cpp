#include "common/num_text.h"

#include <cmath>
#include <cstdio>
#include <cstring>

namespace kq {
namespace {

using u128 = unsigned __int128;

constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

constexpr uint64_t kMillion = 1000000;

// Writes the six fraction digits of frac (< 10^6) at out.
void WriteSixDigits(uint32_t frac, char* out) {
    for (int i = 4; i >= 0; i -= 2) {
        std::memcpy(out + i, kDigitPairs + 2 * (frac % 100), 2);
        frac /= 100;
    }
}

size_t FixedFallback(double v, char* out) {
    int n = std::snprintf(out, kFixedTextSize, "%lf", v);
    if (n < 0) {
        out[0] = '\0';
        return 0;
    }
    return static_cast<size_t>(n) < kFixedTextSize ? static_cast<size_t>(n) : kFixedTextSize - 1;
}

// Rounds |v| * 10^6 to the nearest integer, ties to even, from the exact
// binary value. Only called for finite |v| < 2^64.
u128 ScaledMicros(double mag) {
    int exp = 0;
    double frac = std::frexp(mag, &exp);  // mag = frac * 2^exp, frac in [0.5, 1)
    uint64_t mant = static_cast<uint64_t>(std::ldexp(frac, 53));
    int shift = 53 - exp;  // mag = mant / 2^shift
    u128 scaled = static_cast<u128>(mant) * kMillion;
    if (shift <= 0) return scaled << -shift;
    if (shift >= 127) return 0;  // below 2^-74: far under half a micro
    u128 q = scaled >> shift;
    u128 rem = scaled - (q << shift);
    u128 half = static_cast<u128>(1) << (shift - 1);
    if (rem > half || (rem == half && (q & 1))) ++q;
    return q;
}

}  // namespace

size_t FormatU64(uint64_t v, char* out) {
    char tmp[kU64TextSize];
    char* p = tmp + sizeof(tmp);
    while (v >= 100) {
        p -= 2;
        std::memcpy(p, kDigitPairs + 2 * (v % 100), 2);
        v /= 100;
    }
    if (v >= 10) {
        p -= 2;
        std::memcpy(p, kDigitPairs + 2 * v, 2);
    } else {
        *--p = static_cast<char>('0' + v);
    }
    size_t n = static_cast<size_t>(tmp + sizeof(tmp) - p);
    std::memcpy(out, p, n);
    out[n] = '\0';
    return n;
}

size_t FormatFixed6(double v, char* out) {
    double mag = std::fabs(v);
    if (!(mag < 18446744073709551616.0)) return FixedFallback(v, out);  // large, inf, nan
    char* p = out;
    if (std::signbit(v)) *p++ = '-';
    u128 micros = mag == 0.0 ? 0 : ScaledMicros(mag);
    // The rounded integer part may reach 2^64 only for mag just below it,
    // where mag is an integer and no rounding happens; it fits in 64 bits.
    p += FormatU64(static_cast<uint64_t>(micros / kMillion), p);
    *p++ = '.';
    WriteSixDigits(static_cast<uint32_t>(micros % kMillion), p);
    p[6] = '\0';
    return static_cast<size_t>(p + 6 - out);
}

}  // namespace kq
