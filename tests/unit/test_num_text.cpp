// The hand-written number formatting must be byte-identical to printf.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>

#include "common/num_text.h"

namespace {

std::string Printf(double v) {
    char buf[kq::kFixedTextSize];
    std::snprintf(buf, sizeof(buf), "%lf", v);
    return buf;
}

::testing::AssertionResult SameAsPrintf(double v) {
    char buf[kq::kFixedTextSize];
    std::memset(buf, 'x', sizeof(buf));
    size_t n = kq::FormatFixed6(v, buf);
    std::string want = Printf(v);
    if (want == buf && n == want.size()) return ::testing::AssertionSuccess();
    char bits[64];
    std::snprintf(bits, sizeof(bits), "%a", v);
    return ::testing::AssertionFailure()
           << bits << ": got \"" << buf << "\" (" << n << "), printf \"" << want << "\"";
}

// Signed zeros, rounding at the sixth decimal (exact ties such as 0.0078125
// round to even), the 2^53 and 2^64 boundaries, extremes, subnormals, inf, nan.
TEST(FormatFixed6, EdgeValuesMatchPrintf) {
    const double inf = std::numeric_limits<double>::infinity();
    const double tiny = std::numeric_limits<double>::denorm_min();
    // clang-format off
    const double values[] = {0.0, 0.0000005, 0.0000015, 0.0000025, 0.00000049999999999999999, 0.0078125,
                     0.0234375, 2.5, 0.1, 1.5, 123456.7890125, 1e15, 1e15 + 0.5, 9007199254740992.0,
                     9007199254740993.0, 4503599627370495.5, 1e17, 18446744073709549568.0,
                     18446744073709551616.0, 1e19, 1e20, 1e300, DBL_MAX, DBL_MIN, tiny, 1e-300,
                     1e-9, inf, std::nan(""), 4294967295.999999, 0.9999995, 0.99999949999999,
                     static_cast<double>(UINT64_MAX), static_cast<double>(INT64_MIN)};
    // clang-format on
    for (double v : values) {
        EXPECT_TRUE(SameAsPrintf(v));
        EXPECT_TRUE(SameAsPrintf(-v));
    }
}

// Random bit patterns, random magnitudes where the six decimals carry
// information, values at and next to the rounding boundary of the sixth
// decimal, and exact dyadic ties (k / 128 with an odd multiple of 5^6 above it).
TEST(FormatFixed6, RandomAndNearHalfwayValuesMatchPrintf) {
    std::mt19937_64 rng(12345);
    for (int i = 0; i < 200000; ++i) {
        const uint64_t bits = rng();
        double v;
        std::memcpy(&v, &bits, sizeof(v));
        ASSERT_TRUE(SameAsPrintf(v));
        ASSERT_TRUE(SameAsPrintf(std::ldexp(double(bits >> 11), -53 + int(bits % 94) - 30)));
        const double half = double(rng() % 100000000) + (double(rng() % 1000000) + 0.5) / 1e6;
        for (double h : {half, std::nextafter(half, 0.0), std::nextafter(half, 1e300), -half}) {
            ASSERT_TRUE(SameAsPrintf(h));
        }
    }
    for (int k = -20000; k <= 20000; ++k) ASSERT_TRUE(SameAsPrintf(k / 128.0));
}

// Fractions of every binary width: narrow ones fit a 64-bit product with
// 10^6, wide ones need more, and the switch between them must not show.
TEST(FormatFixed6, FractionsOfEveryBitWidthMatchPrintf) {
    std::mt19937_64 rng(777);
    for (int width = 1; width <= 74; ++width) {
        for (int i = 0; i < 2000; ++i) {
            const int bits = width < 53 ? width : 53;
            const uint64_t odd = (rng() & ((1ull << (bits - 1)) - 1)) << 1 | 1;
            const double frac = std::ldexp(static_cast<double>(odd), -width);
            const double whole = static_cast<double>(rng() >> (rng() % 64));
            ASSERT_TRUE(SameAsPrintf(frac));
            ASSERT_TRUE(SameAsPrintf(whole + frac));
        }
    }
}

TEST(FormatU64, MatchesPrintf) {
    std::mt19937_64 rng(4242);
    // clang-format off
    std::vector<uint64_t> values = {0, 1, 9, 10, 99, 100, 999, 1000, UINT64_MAX, UINT64_MAX - 1,
                                    1ull << 63, 10000000000000000000ull, 9999999999999999999ull};
    // clang-format on
    for (int i = 0; i < 100000; ++i) values.push_back(rng() >> (rng() % 64));
    for (uint64_t v : values) {
        char want[32];
        char got[kq::kU64TextSize];
        std::snprintf(want, sizeof(want), "%lu", static_cast<unsigned long>(v));
        size_t n = kq::FormatU64(v, got);
        ASSERT_STREQ(want, got);
        ASSERT_EQ(std::strlen(want), n);
    }
}

}  // namespace
