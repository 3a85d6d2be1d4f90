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

// Integer part and rounded millionths of a finite magnitude below 2^64, from
// its exact binary value; halfway cases go to the even number of millionths.
struct Fixed {
    uint64_t whole;
    uint32_t micros;
};

Fixed SplitMicros(double mag) {
    uint64_t bits;
    std::memcpy(&bits, &mag, sizeof(bits));
    uint64_t mant = bits & ((1ull << 52) - 1);
    int biased = static_cast<int>(bits >> 52);
    int exp = -1074;  // mag = mant * 2^exp
    if (biased != 0) {
        mant |= 1ull << 52;
        exp = biased - 1075;
    }
    if (exp >= 0) return {mant << exp, 0};
    int shift = -exp;
    if (shift >= 75) return {0, 0};  // mant * 10^6 < 2^73: under half a millionth
    uint64_t whole = shift >= 64 ? 0 : mant >> shift;
    uint64_t frac = shift >= 64 ? mant : mant & ((1ull << shift) - 1);
    if (frac == 0) return {whole, 0};
    // Dropping the fraction's trailing zero bits keeps its value; most
    // scaled signal values then need far fewer bits.
    int zeros = __builtin_ctzll(frac);
    frac >>= zeros;
    shift -= zeros;
    if (shift <= 44) {
        // frac < 2^44 and 10^6 < 2^20: the product fits 64 bits.
        uint64_t scaled64 = frac * kMillion;
        uint64_t q64 = scaled64 >> shift;
        uint64_t rem64 = scaled64 & ((1ull << shift) - 1);
        uint64_t half64 = 1ull << (shift - 1);
        if (rem64 > half64 || (rem64 == half64 && (q64 & 1))) ++q64;
        if (q64 == kMillion) return {whole + 1, 0};
        return {whole, static_cast<uint32_t>(q64)};
    }
    u128 scaled = static_cast<u128>(frac) * kMillion;
    uint64_t q = static_cast<uint64_t>(scaled >> shift);
    u128 rem = scaled & ((static_cast<u128>(1) << shift) - 1);
    u128 half = static_cast<u128>(1) << (shift - 1);
    if (rem > half || (rem == half && (q & 1))) ++q;
    if (q == kMillion) return {whole + 1, 0};
    return {whole, static_cast<uint32_t>(q)};
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
    Fixed fixed = SplitMicros(mag);
    p += FormatU64(fixed.whole, p);
    *p++ = '.';
    WriteSixDigits(fixed.micros, p);
    p[6] = '\0';
    return static_cast<size_t>(p + 6 - out);
}

}  // namespace kq
