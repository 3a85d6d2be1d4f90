// Raw <-> physical conversion of one public signal record.
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "legacy/analyser.h"

namespace {

constexpr double kTwo63 = 9223372036854775808.0;
constexpr double kTwo64 = 18446744073709551616.0;
// Keeps values such as 0.3 / 0.1 = 2.9999999999999996 from truncating down.
constexpr double kNudge = 1e-7;

uint64_t LowBitsMask(uint32_t length) {
    return length >= 64 ? ~0ULL : (1ULL << length) - 1;
}

double FloatFromBits(uint64_t raw) {
    uint32_t bits = static_cast<uint32_t>(raw);
    float v;
    memcpy(&v, &bits, sizeof v);
    return v;
}

double DoubleFromBits(uint64_t raw) {
    double v;
    memcpy(&v, &raw, sizeof v);
    return v;
}

uint64_t BitsOfFloat(double x) {
    // Out-of-range narrowing is undefined; spell out the overflow to infinity.
    float f = std::fabs(x) > FLT_MAX ? (x > 0 ? HUGE_VALF : -HUGE_VALF) : static_cast<float>(x);
    uint32_t bits;
    memcpy(&bits, &f, sizeof bits);
    return bits;
}

uint64_t BitsOfDouble(double x) {
    uint64_t bits;
    memcpy(&bits, &x, sizeof bits);
    return bits;
}

// Integer value of a raw pattern; masks *raw to the signal's width.
double IntegerValue(const DBCSignal& sig, uint64_t* raw) {
    if (sig.length == 0) {
        *raw = 0;
        return 0.0;
    }
    uint64_t bits = sig.length < 64 ? *raw & LowBitsMask(sig.length) : *raw;
    *raw = bits;
    if (sig.isSigned && sig.length <= 64 && ((bits >> (sig.length - 1)) & 1u)) {
        uint64_t extended = bits | ~LowBitsMask(sig.length);
        return static_cast<double>(static_cast<int64_t>(extended));
    }
    return static_cast<double>(bits);
}

// Truncation toward zero; 2^63 and above convert as unsigned, and values
// beyond either end of the 64-bit range saturate instead of being undefined.
uint64_t TruncToRaw(double x) {
    if (x >= kTwo64) return ~0ULL;
    if (x >= kTwo63) return static_cast<uint64_t>(x);
    if (x <= -kTwo63) return 1ULL << 63;
    return static_cast<uint64_t>(static_cast<int64_t>(x));
}

double ClampUnsigned(double x, uint32_t length) {
    if (x < 0) return 0.0;
    if (length <= 63) {
        double hi = std::ldexp(1.0, static_cast<int>(length)) - 1.0;
        return x > hi ? hi : x;
    }
    return x > kTwo64 ? kTwo64 : x;
}

double ClampSigned(double x, uint32_t length) {
    double half = length <= 64 ? std::ldexp(1.0, static_cast<int>(length) - 1) : kTwo63;
    double hi = length <= 64 ? half - 1.0 : half;
    double lo = length <= 64 ? 1.0 - half : -half;
    if (x > hi) return hi;
    if (x < lo) return lo;
    return x;
}

// Re-applies the bounds on the integer, where doubles cannot hold 2^63 - 1.
uint64_t ClampInteger(uint64_t r, const DBCSignal& sig) {
    if (sig.length == 0 || sig.length > 64) return sig.length == 0 ? 0 : r;
    uint64_t hi = sig.isSigned ? LowBitsMask(sig.length - 1) : LowBitsMask(sig.length);
    if (!sig.isSigned) return r > hi ? hi : r;
    int64_t v = static_cast<int64_t>(r);
    int64_t shi = static_cast<int64_t>(hi);
    if (v > shi) return static_cast<uint64_t>(shi);
    if (v < -shi) return static_cast<uint64_t>(-shi);
    return r;
}

uint64_t IntegerRaw(const DBCSignal& sig, double x) {
    if (std::isnan(x)) return 0;
    x = sig.isSigned ? ClampSigned(x, sig.length) : ClampUnsigned(x, sig.length);
    if (x > 0)
        x += kNudge;
    else if (x < 0)
        x -= kNudge;
    uint64_t r = ClampInteger(TruncToRaw(x), sig);
    return sig.length <= 63 ? r & LowBitsMask(sig.length) : r;
}

}  // namespace

double CalcActualValue(const DBCSignal* signal, uint64_t* raw) {
    if (!signal || !raw) return 0.0;
    double v;
    if (signal->valueType == TARN_VALUE_FLOAT)
        v = FloatFromBits(*raw);
    else if (signal->valueType == TARN_VALUE_DOUBLE)
        v = DoubleFromBits(*raw);
    else
        v = IntegerValue(*signal, raw);
    return v * signal->factor + signal->offset;
}

uint64_t CalcRawValue(const DBCSignal* signal, double* physical) {
    if (!signal || !physical) return 0;
    double x = *physical - signal->offset;
    if (signal->factor != 0.0) x /= signal->factor;
    if (signal->valueType == TARN_VALUE_FLOAT) return BitsOfFloat(x);
    if (signal->valueType == TARN_VALUE_DOUBLE) return BitsOfDouble(x);
    uint64_t result = IntegerRaw(*signal, x);
    uint64_t copy = result;
    *physical = CalcActualValue(signal, &copy);
    return result;
}
