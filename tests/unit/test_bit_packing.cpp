// Signal bit packing against the independent bit-by-bit reference packer,
// plus the coder's value conversions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "coder/dbc_coder.h"
#include "legacy/record_plan.h"
#include "support/ref_packer.h"

namespace {

Signal Sig(uint32_t start, uint32_t len, bool motorola, bool isSigned = false, double factor = 1.0,
           double offset = 0.0, uint8_t valueType = 0) {
    Signal s;
    s.name = "S";
    s.startBit = start;
    s.length = len;
    s.bigEndian = motorola;
    s.isSigned = isSigned;
    s.factor = factor;
    s.offset = offset;
    s.valueType = valueType;
    return s;
}

template <typename T>
uint64_t BitsOf(T v) {
    uint64_t bits = 0;
    std::memcpy(&bits, &v, sizeof(v));
    return bits;
}

// What extraction yields: the reference value, except that when the most
// significant bit's byte holds a partial run of t bits (and is not the least
// significant bit's byte), those bits enter through a signed 32-bit shift by L - t.
uint64_t Documented(const uint8_t* p, uint32_t start, uint32_t len, bool motorola) {
    const std::vector<uint64_t> bits = refpack::BitPositions(start, len, motorola);
    const uint64_t exact = refpack::Extract(p, start, len, motorola);
    const uint64_t top = bits.back() / 8;
    uint32_t t = 0;
    for (uint64_t b : bits) t += b / 8 == top;
    if (top == bits.front() / 8 || t == 8) return exact;
    const uint32_t low = len - t;
    const auto shifted = static_cast<uint32_t>((exact >> low) << (low % 32));
    return (exact & refpack::Mask(low)) + static_cast<uint64_t>(int64_t{int32_t(shifted)});
}

class BitSweep : public ::testing::TestWithParam<bool> {
  protected:
    const DBCCoder coder{nullptr};
};

// Every start bit 0..63 and length 1..64: insertion into 0x00- and 0xFF-filled
// payloads changes exactly the signal's bits; extraction (of those and of random
// payloads) equals the reference wherever the rule is exact (lengths under 32,
// or whole bytes after the first) and follows the documented 32-bit rule elsewhere.
// Out-of-buffer rule: in an 8-byte buffer a placement is accepted exactly when
// all its bits are inside; refused ones read 0 and leave the buffer untouched.
TEST_P(BitSweep, InsertionAndExtractionMatchTheReference) {
    const bool motorola = GetParam();
    refpack::Rng rng(motorola ? 11 : 22);
    constexpr size_t kSize = 24;
    for (uint32_t start = 0; start < 64; ++start) {
        for (uint32_t len = 1; len <= 64; ++len) {
            const Signal sig = Sig(start, len, motorola);
            const std::vector<uint64_t> bits = refpack::BitPositions(start, len, motorola);
            const uint32_t first = 8 - bits[0] % 8;
            const bool exact = len < 32 || len <= first || (len - first) % 8 == 0;
            const std::string where =
                "start " + std::to_string(start) + " len " + std::to_string(len);
            uint8_t got[kSize], want[kSize];
            for (uint64_t v : {uint64_t{0}, ~uint64_t{0}, rng.Next(), rng.Next()}) {
                for (int fill : {0x00, 0xFF}) {
                    std::memset(got, fill, kSize);
                    std::memset(want, fill, kSize);
                    refpack::Pack(want, start, len, motorola, v);
                    ASSERT_TRUE(coder.Cmd2Data(std::to_string(v).c_str(), got, &sig, kSize));
                    ASSERT_EQ(0, std::memcmp(got, want, kSize)) << where << " value " << v;
                    ASSERT_EQ(Documented(got, start, len, motorola),
                              coder.GetRawValue(got, sig, kSize))
                        << where;
                }
            }
            for (int round = 0; round < 4; ++round) {
                for (uint8_t& b : got) b = static_cast<uint8_t>(rng.Next());
                const uint64_t raw = coder.GetRawValue(got, sig, kSize);
                ASSERT_EQ(Documented(got, start, len, motorola), raw) << where;
                if (exact) {
                    ASSERT_EQ(refpack::Extract(got, start, len, motorola), raw) << where;
                }
            }
            const bool inside = *std::max_element(bits.begin(), bits.end()) < 64;
            std::memset(got, 0xA5, kSize);
            ASSERT_EQ(inside, coder.Cmd2Data("18446744073709551615", got, &sig, 8)) << where;
            if (!inside) {
                for (uint8_t b : got) ASSERT_EQ(0xA5, b) << where;
                ASSERT_EQ(0u, coder.GetRawValue(got, sig, 8)) << where;
            } else if (len < 32) {
                ASSERT_EQ(refpack::Mask(len), coder.GetRawValue(got, sig, 8)) << where;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(ByteOrders, BitSweep, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "Motorola" : "Intel";
                         });

// Payload 12 34 56 78 9A BC DE F0, and the two 32-bit rule cases on all ones.
TEST(BitPacking, WorkedExamples) {
    DBCCoder coder(nullptr);
    uint8_t payload[DBCCoder::kDecodeBufSize] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0};
    uint8_t ones[DBCCoder::kDecodeBufSize];
    std::memset(ones, 0xFF, sizeof(ones));
    struct {
        bool motorola, allOnes;
        uint32_t start, len;
        uint64_t raw;
    } cases[] = {
        // clang-format off
        {0, 0, 0, 16, 0x3412}, {0, 0, 4, 12, 0x341}, {0, 0, 0, 64, 0xF0DEBC9A78563412},
        {1, 0, 7, 16, 0x1234}, {1, 0, 3, 12, 0x234}, {1, 0, 13, 4, 0xD}, {1, 0, 7, 8, 0x12},
        {1, 0, 7, 64, 0x123456789ABCDEF0}, {0, 0, 56, 8, 0xF0},
        {0, 1, 4, 32, 0xFFFFFFFFFFFFFFFF}, {0, 1, 0, 36, 0x10000000E},
        // clang-format on
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.raw,
                  coder.GetRawValue(c.allOnes ? ones : payload, Sig(c.start, c.len, c.motorola)))
            << (c.motorola ? "Motorola " : "Intel ") << c.start << "|" << c.len;
    }
}

// Hostile placements (past the last byte, beyond 64 bits) and null arguments
// never touch the buffer; the inserted text is read as an unsigned decimal.
TEST(BitPacking, HostileAndDegenerateSignals) {
    DBCCoder coder(nullptr);
    uint8_t buf[DBCCoder::kEncodeBufSize];
    std::memset(buf, 0x5A, sizeof(buf));
    for (const Signal& s : {Sig(100000, 8, false), Sig(100000, 8, true), Sig(~0u, 64, false),
                            Sig(~0u, 64, true), Sig(1785 * 8 - 4, 8, false), Sig(0, 65, false)}) {
        EXPECT_FALSE(coder.Cmd2Data("1", buf, &s)) << s.startBit << "|" << s.length;
        EXPECT_EQ(0u, coder.GetRawValue(buf, s, sizeof(buf))) << s.startBit << "|" << s.length;
    }
    const Signal empty = Sig(3, 0, true), lastBit = Sig(1785 * 8 - 1, 1, false);
    EXPECT_TRUE(coder.Cmd2Data("255", buf, &empty));
    EXPECT_EQ(0u, coder.GetRawValue(buf, empty));
    EXPECT_FALSE(coder.Cmd2Data(nullptr, buf, &empty));
    EXPECT_FALSE(coder.Cmd2Data("1", buf, nullptr));
    for (uint8_t b : buf) ASSERT_EQ(0x5A, b);
    EXPECT_TRUE(coder.Cmd2Data("1", buf, &lastBit));
    EXPECT_EQ(1u, coder.GetRawValue(buf, lastBit, sizeof(buf)));

    const Signal s16 = Sig(0, 16, false);
    uint8_t out[2] = {};
    EXPECT_TRUE(coder.Cmd2Data("-1", out, &s16, 2) && out[0] == 0xFF && out[1] == 0xFF);
    EXPECT_TRUE(coder.Cmd2Data("abc", out, &s16, 2) && out[0] == 0 && out[1] == 0);
}

// Signals at bit 0 with descriptions ON = 3, OFF = 5, ON = 7 (the first match
// wins and is scaled like a number). Literals keep their first 8 bytes, negative
// values on unsigned or 1-bit signals keep the magnitude, a factor of 0 acts as
// 1, and values beyond 64 bits saturate.
TEST(GenerateValue, TextToRaw) {
    DBCCoder coder(nullptr);
    struct {
        const char* text;
        uint32_t len;
        bool isSigned;
        double factor, offset;
        uint8_t type;
        uint64_t want;
    } cases[] = {
        // clang-format off
        {"0", 8, 0, 1, -40, 0, 40}, {"-40", 8, 0, 1, -40, 0, 0}, {"abc", 8, 0, 1, 0, 0, 0x636261},
        {"ABCDEFGHIJ", 8, 0, 1, 0, 0, 0x4847464544434241}, {"", 8, 0, 1, 0, 0, 0},
        {nullptr, 8, 0, 1, 0, 0, 0}, {"+0", 8, 0, 1, 0, 0, 0}, {".0", 8, 0, 1, 0, 0, 0},
        {"ON", 8, 0, 2, 1, 0, 1}, {"OFF", 8, 0, 2, 1, 0, 2}, {"on", 8, 0, 2, 1, 0, 0x6E6F},
        {"-1", 8, 1, 1, 0, 0, 0xFF}, {"-1", 8, 0, 1, 0, 0, 1}, {"-1", 1, 1, 1, 0, 0, 1},
        {"-1", 64, 1, 1, 0, 0, UINT64_MAX}, {"2.5", 8, 0, 1, 0, 0, 3},
        {"-2.5", 8, 1, 1, 0, 0, 0xFD},
        {"0x10", 8, 0, 1, 0, 0, 16}, {"20", 16, 0, 0.5, 10, 0, 20}, {"11", 16, 0, 0, 1, 0, 10},
        {"1.25", 32, 0, 1, 0, 1, BitsOf(1.25f)}, {"2.5", 64, 0, 2, 0, 2, BitsOf(1.25)},
        {"1e30", 8, 0, 1, 0, 0, UINT64_MAX}, {"nan", 8, 0, 1, 0, 0, 0},
        {"9223372036854775808", 8, 0, 1, 0, 0, 1ull << 63},
        // clang-format on
    };
    for (const auto& c : cases) {
        Signal sig = Sig(0, c.len, false, c.isSigned, c.factor, c.offset, c.type);
        sig.valueDescs = {{3.0, "ON"}, {5.0, "OFF"}, {7.0, "ON"}};
        EXPECT_EQ(c.want, coder.GenerateValue(c.text, sig)) << (c.text ? c.text : "(null)");
    }
}

// Plain decimal only for non-negative integers with factor 1 and offset 0; a
// factor of 0 adds only the offset to integers but multiplies floats by 0.
// Value tables are matched with the number that text reads as.
TEST(RawToPhysical, ValuesAndTextForms) {
    const uint64_t f32 = BitsOf(-2.5f);
    struct {
        uint32_t len;
        bool isSigned;
        double factor, offset;
        uint8_t type;
        uint64_t raw;
        const char* text;
    } cases[] = {
        // clang-format off
        {8, 0, 1, 0, 0, 200, "200"}, {64, 0, 1, 0, 0, UINT64_MAX, "18446744073709551615"},
        {8, 1, 1, 0, 0, 0x7F, "127"}, {8, 1, 1, 0, 0, 0x80, "-128.000000"}, {1, 1, 1, 0, 0, 1, "1"},
        {64, 1, 1, 0, 0, UINT64_MAX, "-1.000000"}, {12, 1, 0.5, 1, 0, 0xFFE, "0.000000"},
        {8, 0, 0.1, 0, 0, 3, "0.300000"}, {8, 0, 0, 2, 0, 5, "7.000000"},
        {8, 0, 1, 0.5, 0, 5, "5.500000"},
        {32, 0, 1, 0, 1, f32 | (0xABCDull << 32), "-2.500000"}, {32, 0, 0, 1, 1, f32, "1.000000"},
        {64, 0, 2, 1, 2, BitsOf(3.25), "7.500000"},
        // clang-format on
    };
    for (const auto& c : cases) {
        const Signal sig = Sig(0, c.len, false, c.isSigned, c.factor, c.offset, c.type);
        EXPECT_EQ(DBCCoder::IsPlainInteger(c.raw, sig), !strchr(c.text, '.')) << c.text;
        EXPECT_EQ(TableNumber(c.raw, sig), strtod(c.text, nullptr)) << c.text;
    }
}

}  // namespace
