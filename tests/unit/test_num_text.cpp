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

::testing::AssertionResult SameAsPrintf(double v) {
    char got[kq::kFixedTextSize], want[kq::kFixedTextSize];
    std::memset(got, 'x', sizeof(got));
    const size_t n = kq::FormatFixed6(v, got);
    std::snprintf(want, sizeof(want), "%lf", v);
    if (std::strcmp(want, got) == 0 && n == std::strlen(want)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << std::hexfloat << v << ": got \"" << got << "\" (" << n
                                         << "), printf \"" << want << "\"";
}

// Signed zeros, ties at the sixth decimal (0.0078125 rounds to even), the 2^53
// and 2^64 boundaries, extremes, subnormals, inf and nan; then random bit
// patterns, values next to the rounding boundary, dyadic ties, and fractions
// of every binary width (narrow ones fit a 64-bit product with 10^6, wide ones do not).
TEST(FormatFixed6, MatchesPrintf) {
    // clang-format off
    const double edges[] = {0.0, 0.0000005, 0.0000015, 0.0000025, 0.00000049999999999999999,
        0.0078125, 0.0234375, 2.5, 0.1, 123456.7890125, 1e15 + 0.5, 9007199254740993.0,
        4503599627370495.5, 18446744073709549568.0, 18446744073709551616.0, 1e20, 1e300, DBL_MAX,
        DBL_MIN, std::numeric_limits<double>::denorm_min(), 1e-9, HUGE_VAL, std::nan(""),
        4294967295.999999, 0.9999995, 0.99999949999999, double(INT64_MIN)};
    // clang-format on
    for (double v : edges) {
        EXPECT_TRUE(SameAsPrintf(v));
        EXPECT_TRUE(SameAsPrintf(-v));
    }
    std::mt19937_64 rng(12345);
    for (int i = 0; i < 200000; ++i) {
        const uint64_t bits = rng();
        double v;
        std::memcpy(&v, &bits, sizeof(v));
        const double half = double(rng() % 100000000) + (double(rng() % 1000000) + 0.5) / 1e6;
        for (double h : {v, std::ldexp(double(bits >> 11), int(bits % 94) - 83), half,
                         std::nextafter(half, 0.0), std::nextafter(half, 1e300), -half})
            ASSERT_TRUE(SameAsPrintf(h));
    }
    for (int k = -20000; k <= 20000; ++k) ASSERT_TRUE(SameAsPrintf(k / 128.0));
    for (int width = 1; width <= 74; ++width) {
        for (int i = 0; i < 2000; ++i) {
            const uint64_t odd = (rng() & ((1ull << (std::min(width, 53) - 1)) - 1)) << 1 | 1;
            const double frac = std::ldexp(double(odd), -width);
            ASSERT_TRUE(SameAsPrintf(frac));
            ASSERT_TRUE(SameAsPrintf(double(rng() >> (rng() % 64)) + frac));
        }
    }
}

TEST(FormatU64, MatchesPrintf) {
    std::mt19937_64 rng(4242);
    std::vector<uint64_t> values = {
        0, 9, 10, 99, 100, UINT64_MAX, 10000000000000000000ull, 9999999999999999999ull};
    for (int i = 0; i < 100000; ++i) values.push_back(rng() >> (rng() % 64));
    for (uint64_t v : values) {
        char want[32], got[kq::kU64TextSize];
        std::snprintf(want, sizeof(want), "%lu", static_cast<unsigned long>(v));
        ASSERT_EQ(kq::FormatU64(v, got), std::strlen(want));
        ASSERT_STREQ(want, got);
    }
}

}  // namespace
