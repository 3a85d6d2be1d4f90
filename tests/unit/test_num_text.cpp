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

TEST(FormatFixed6, EdgeValuesMatchPrintf) {
    const double inf = std::numeric_limits<double>::infinity();
    const double values[] = {0.0,
                             -0.0,
                             0.0000005,
                             -0.0000005,
                             0.0000015,
                             0.0000025,
                             0.00000049999999999999999,
                             0.0078125,  // exact tie: 7812.5 micros, rounds to even
                             0.0234375,  // exact tie rounding up to even
                             -0.0078125,
                             2.5,
                             0.1,
                             1.5,
                             123456.7890125,
                             1e15,
                             1e15 + 0.5,
                             9007199254740992.0,  // 2^53
                             9007199254740993.0,
                             4503599627370495.5,
                             1e17,
                             18446744073709549568.0,  // largest double below 2^64
                             18446744073709551616.0,  // 2^64
                             1e19,
                             1e20,
                             1e300,
                             -1e300,
                             DBL_MAX,
                             -DBL_MAX,
                             DBL_MIN,
                             -DBL_MIN,
                             std::numeric_limits<double>::denorm_min(),
                             -std::numeric_limits<double>::denorm_min(),
                             1e-300,
                             -1e-9,
                             inf,
                             -inf,
                             std::nan(""),
                             -std::nan(""),
                             static_cast<double>(UINT64_MAX),
                             static_cast<double>(INT64_MIN),
                             4294967295.999999,
                             0.9999995,
                             0.99999949999999,
                             -0.9999995};
    for (double v : values) EXPECT_TRUE(SameAsPrintf(v));
}

TEST(FormatFixed6, RandomBitPatternsMatchPrintf) {
    std::mt19937_64 rng(12345);
    for (int i = 0; i < 200000; ++i) {
        uint64_t bits = rng();
        double v;
        std::memcpy(&v, &bits, sizeof(v));
        ASSERT_TRUE(SameAsPrintf(v));
        // Magnitudes where the six decimals carry information.
        double moderate = std::ldexp(static_cast<double>(bits >> 11), -53 + int(bits % 94) - 30);
        ASSERT_TRUE(SameAsPrintf(moderate));
    }
}

// Values built around the rounding boundary of the sixth decimal, and exact
// dyadic ties (k / 128 with an odd multiple of 5^6 above it).
TEST(FormatFixed6, NearHalfwayValuesMatchPrintf) {
    std::mt19937_64 rng(99);
    for (int i = 0; i < 100000; ++i) {
        double whole = static_cast<double>(rng() % 100000000);
        double micros = static_cast<double>(rng() % 1000000);
        double v = whole + (micros + 0.5) / 1e6;
        ASSERT_TRUE(SameAsPrintf(v));
        ASSERT_TRUE(SameAsPrintf(std::nextafter(v, 0.0)));
        ASSERT_TRUE(SameAsPrintf(std::nextafter(v, 1e300)));
        ASSERT_TRUE(SameAsPrintf(-v));
    }
    for (int k = -20000; k <= 20000; ++k) ASSERT_TRUE(SameAsPrintf(k / 128.0));
}

TEST(FormatU64, MatchesPrintf) {
    std::mt19937_64 rng(4242);
    std::vector<uint64_t> values = {0,
                                    1,
                                    9,
                                    10,
                                    99,
                                    100,
                                    999,
                                    1000,
                                    UINT64_MAX,
                                    UINT64_MAX - 1,
                                    1ull << 63,
                                    10000000000000000000ull,
                                    9999999999999999999ull};
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
