// Signal bit packing against an independent bit-by-bit reference, plus the
// value conversions of the coder.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "common/command_info.h"
#include "dbc_coder.h"

namespace {

Signal MakeSignal(uint32_t start, uint32_t len, bool motorola, bool isSigned = false,
                  double factor = 1.0, double offset = 0.0, uint8_t valueType = 0) {
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

// Absolute bit positions (byte * 8 + bit) of a signal, least significant
// first, found by walking from the start bit one bit at a time.
std::vector<uint64_t> RefPositions(uint64_t start, uint32_t len, bool motorola) {
    std::vector<uint64_t> msbFirst;
    uint64_t pos = start;
    if (!motorola) {
        for (uint32_t i = 0; i < len; ++i) msbFirst.insert(msbFirst.begin(), start + i);
        return {msbFirst.rbegin(), msbFirst.rend()};
    }
    for (uint32_t i = 0; i < len; ++i) {
        msbFirst.push_back(pos);
        pos = (pos % 8 == 0) ? pos + 15 : pos - 1;  // bit 0 continues at bit 7 of the next byte
    }
    return {msbFirst.rbegin(), msbFirst.rend()};
}

bool GetBit(const uint8_t* p, uint64_t pos) {
    return (p[pos / 8] >> (pos % 8)) & 1;
}
void SetBit(uint8_t* p, uint64_t pos, bool v) {
    p[pos / 8] =
        static_cast<uint8_t>((p[pos / 8] & ~(1u << (pos % 8))) | (unsigned(v) << (pos % 8)));
}

uint64_t RefExtract(const uint8_t* p, const std::vector<uint64_t>& bits) {
    uint64_t raw = 0;
    for (size_t i = 0; i < bits.size(); ++i) raw |= uint64_t(GetBit(p, bits[i])) << i;
    return raw;
}

// What the decoder yields: exact except that when the most significant
// bit's byte holds a partial run of t bits (and is not the least significant
// bit's byte), those t bits enter through a signed 32-bit shift by L - t.
uint64_t ExpectedExtract(const uint8_t* p, const std::vector<uint64_t>& bits) {
    const uint32_t len = static_cast<uint32_t>(bits.size());
    uint64_t exact = RefExtract(p, bits);
    uint64_t msbByte = bits.back() / 8;
    uint32_t t = 0;
    for (uint64_t b : bits) t += (b / 8 == msbByte);
    if (msbByte == bits.front() / 8 || t == 8) return exact;
    uint32_t low = len - t;
    uint64_t lowBits = exact & ((uint64_t(1) << low) - 1);
    uint64_t tailVal = exact >> low;
    uint32_t shifted = static_cast<uint32_t>((tailVal << (low % 32)) & 0xFFFFFFFFu);
    int64_t extended = static_cast<int32_t>(shifted);
    return lowBits + static_cast<uint64_t>(extended);
}

uint64_t Mask(uint32_t len) {
    return len >= 64 ? ~uint64_t(0) : (uint64_t(1) << len) - 1;
}

class BitSweep : public ::testing::TestWithParam<bool> {
  protected:
    DBCCoder coder{nullptr};
};

// Every start bit 0..63 and every length 1..64: insertion changes exactly the
// signal's bits, and extraction matches the reference rule.
TEST_P(BitSweep, InsertionTouchesExactlyTheSignalBits) {
    const bool motorola = GetParam();
    constexpr size_t kSize = 24;
    std::mt19937_64 rng(motorola ? 11 : 22);
    for (uint32_t start = 0; start < 64; ++start) {
        for (uint32_t len = 1; len <= 64; ++len) {
            Signal sig = MakeSignal(start, len, motorola);
            std::vector<uint64_t> bits = RefPositions(start, len, motorola);
            for (uint64_t v : {uint64_t(0), ~uint64_t(0), rng(), rng()}) {
                for (uint8_t fill : {0x00, 0xFF}) {
                    uint8_t got[kSize], want[kSize];
                    std::memset(got, fill, kSize);
                    std::memset(want, fill, kSize);
                    for (size_t i = 0; i < bits.size(); ++i) SetBit(want, bits[i], (v >> i) & 1);
                    std::string text = std::to_string(v);
                    ASSERT_TRUE(coder.Cmd2Data(text.c_str(), got, &sig, kSize));
                    ASSERT_EQ(0, std::memcmp(got, want, kSize))
                        << "start " << start << " len " << len << " v " << v;
                    ASSERT_EQ(ExpectedExtract(got, bits), coder.GetRawValue(got, sig, kSize))
                        << "start " << start << " len " << len;
                }
            }
        }
    }
}

TEST_P(BitSweep, ExtractionMatchesTheReferenceOnRandomPayloads) {
    const bool motorola = GetParam();
    std::mt19937_64 rng(motorola ? 5 : 6);
    uint8_t payload[DBCCoder::kDecodeBufSize] = {};
    for (int round = 0; round < 8; ++round) {
        for (size_t i = 0; i < 24; ++i) payload[i] = static_cast<uint8_t>(rng());
        for (uint32_t start = 0; start < 64; ++start) {
            for (uint32_t len = 1; len <= 64; ++len) {
                Signal sig = MakeSignal(start, len, motorola);
                std::vector<uint64_t> bits = RefPositions(start, len, motorola);
                uint64_t got = coder.GetRawValue(payload, sig);
                ASSERT_EQ(ExpectedExtract(payload, bits), got)
                    << "start " << start << " len " << len;
                // Whole bytes after the first one, or lengths under 32 that
                // stay clear of bit 31, come back exactly.
                uint32_t f = 8 - bits.front() % 8;
                bool wholeBytes = len <= f || (len - f) % 8 == 0;
                if (wholeBytes || len < 32) {
                    ASSERT_EQ(RefExtract(payload, bits), got);
                }
            }
        }
    }
}

// In an 8-byte frame, a placement is accepted exactly when all its bits are
// inside the frame; refused ones read 0 and leave the frame untouched.
TEST_P(BitSweep, EightByteFrameRefusesBitsOutside) {
    const bool motorola = GetParam();
    for (uint32_t start = 0; start < 64; ++start) {
        for (uint32_t len = 1; len <= 64; ++len) {
            Signal sig = MakeSignal(start, len, motorola);
            std::vector<uint64_t> bits = RefPositions(start, len, motorola);
            bool inside = true;
            for (uint64_t b : bits) inside = inside && b < 64;
            uint8_t frame[8];
            std::memset(frame, 0xA5, sizeof(frame));
            bool ok = coder.Cmd2Data("18446744073709551615", frame, &sig, sizeof(frame));
            ASSERT_EQ(inside, ok) << "start " << start << " len " << len;
            if (!inside) {
                for (uint8_t b : frame) ASSERT_EQ(0xA5, b);
                ASSERT_EQ(0u, coder.GetRawValue(frame, sig, sizeof(frame)));
            } else if (len < 32) {
                ASSERT_EQ(Mask(len), coder.GetRawValue(frame, sig, sizeof(frame)));
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(ByteOrders, BitSweep, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "Motorola" : "Intel";
                         });

TEST(BitPacking, WorkedExamples) {
    DBCCoder coder(nullptr);
    uint8_t payload[DBCCoder::kDecodeBufSize] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0};
    struct {
        bool motorola;
        uint32_t start, len;
        uint64_t raw;
    } cases[] = {{false, 0, 16, 0x3412},
                 {false, 4, 12, 0x341},
                 {false, 0, 64, 0xF0DEBC9A78563412},
                 {true, 7, 16, 0x1234},
                 {true, 3, 12, 0x234},
                 {true, 13, 4, 0xD},
                 {true, 7, 64, 0x123456789ABCDEF0},
                 {true, 7, 8, 0x12},
                 {false, 56, 8, 0xF0}};
    for (const auto& c : cases) {
        Signal sig = MakeSignal(c.start, c.len, c.motorola);
        EXPECT_EQ(c.raw, coder.GetRawValue(payload, sig))
            << (c.motorola ? "Motorola " : "Intel ") << c.start << "|" << c.len;
    }
    uint8_t ones[DBCCoder::kDecodeBufSize];
    std::memset(ones, 0xFF, sizeof(ones));
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFu, coder.GetRawValue(ones, MakeSignal(4, 32, false)));
    EXPECT_EQ(0x10000000Eu, coder.GetRawValue(ones, MakeSignal(0, 36, false)));
}

TEST(BitPacking, HostileAndDegenerateSignals) {
    DBCCoder coder(nullptr);
    uint8_t buf[DBCCoder::kEncodeBufSize];
    std::memset(buf, 0x5A, sizeof(buf));
    const Signal cases[] = {MakeSignal(100000, 8, false),       MakeSignal(100000, 8, true),
                            MakeSignal(0xFFFFFFFF, 64, false),  MakeSignal(0xFFFFFFFF, 64, true),
                            MakeSignal(1785 * 8 - 4, 8, false),  // runs past the last byte
                            MakeSignal(1785 * 8 - 1, 1, false)};
    for (size_t i = 0; i < 6; ++i) {
        bool last = i == 5;
        EXPECT_EQ(last, coder.Cmd2Data("1", buf, &cases[i])) << i;
        EXPECT_EQ(last ? 1u : 0u, coder.GetRawValue(buf, cases[i], sizeof(buf))) << i;
    }
    std::memset(buf, 0x5A, sizeof(buf));
    Signal tooLong = MakeSignal(0, 65, false);
    Signal empty = MakeSignal(3, 0, true);
    EXPECT_FALSE(coder.Cmd2Data("1", buf, &tooLong));
    EXPECT_EQ(0u, coder.GetRawValue(buf, tooLong));
    EXPECT_TRUE(coder.Cmd2Data("255", buf, &empty));
    EXPECT_EQ(0u, coder.GetRawValue(buf, empty));
    EXPECT_FALSE(coder.Cmd2Data(nullptr, buf, &empty));
    EXPECT_FALSE(coder.Cmd2Data("1", buf, nullptr));
    for (uint8_t b : buf) ASSERT_EQ(0x5A, b);
}

TEST(BitPacking, InsertionTextIsReadAsUnsignedDecimal) {
    DBCCoder coder(nullptr);
    Signal sig = MakeSignal(0, 16, false);
    struct {
        const char* text;
        uint16_t want;
    } cases[] = {{"513", 0x0201}, {"-1", 0xFFFF}, {"abc", 0}, {" 70000", 70000 & 0xFFFF}};
    for (const auto& c : cases) {
        uint8_t buf[8] = {};
        ASSERT_TRUE(coder.Cmd2Data(c.text, buf, &sig, sizeof(buf)));
        EXPECT_EQ(c.want, buf[0] | (buf[1] << 8)) << c.text;
    }
}

TEST(GenerateValue, TextToRaw) {
    DBCCoder coder(nullptr);
    Signal offs = MakeSignal(0, 8, false, false, 1.0, -40.0);
    Signal u8 = MakeSignal(0, 8, false);
    Signal s8 = MakeSignal(0, 8, false, true);
    Signal s64 = MakeSignal(0, 64, false, true);
    Signal s1 = MakeSignal(0, 1, false, true);
    Signal scaled = MakeSignal(0, 16, false, false, 0.5, 10.0);
    Signal zeroFactor = MakeSignal(0, 16, false, false, 0.0, 1.0);
    Signal desc = MakeSignal(0, 8, false, false, 2.0, 1.0);
    desc.valueDescs = {{3.0, "ON"}, {5.0, "OFF"}, {7.0, "ON"}};
    Signal f32 = MakeSignal(0, 32, false, false, 1.0, 0.0, 1);
    Signal f64 = MakeSignal(0, 64, false, false, 2.0, 0.0, 2);
    const double kHalf = 1.25;
    uint32_t halfBits;
    float half = static_cast<float>(kHalf);
    std::memcpy(&halfBits, &half, sizeof(halfBits));
    uint64_t dblBits;
    std::memcpy(&dblBits, &kHalf, sizeof(dblBits));
    struct {
        const char* text;
        const Signal* sig;
        uint64_t want;
    } cases[] = {
        {"0", &offs, 40},
        {"-40", &offs, 0},
        {"abc", &u8, 0x636261},
        {"ABCDEFGHIJ", &u8, 0x4847464544434241},
        {"", &u8, 0},
        {nullptr, &u8, 0},
        {"ON", &desc, 1},   // (3 - 1) / 2, the first matching description
        {"OFF", &desc, 2},  // (5 - 1) / 2
        {"on", &desc, 0x6E6F},
        {"-1", &s8, 0xFF},
        {"-1", &u8, 1},  // unsigned signals keep the magnitude
        {"2.5", &u8, 3},
        {"-2.5", &s8, 0xFD},
        {"-1", &s64, UINT64_MAX},
        {"-1", &s1, 1},
        {"+0", &u8, 0},
        {".0", &u8, 0},
        {"0x10", &u8, 16},
        {"20", &scaled, 20},  // (20 - 10) / 0.5
        {"11", &zeroFactor, 10},
        {"1.25", &f32, halfBits},
        {"2.5", &f64, dblBits},
        {"1e30", &u8, UINT64_MAX},  // beyond 64 bits: saturates
        {"nan", &u8, 0},
        {"9223372036854775808", &u8, 9223372036854775808ull},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.want, coder.GenerateValue(c.text, *c.sig)) << (c.text ? c.text : "(null)");
    }
}

// Physical -> raw -> physical comes back within half a step for integers.
TEST(GenerateValue, RoundTripsThroughTheDecodeRule) {
    DBCCoder coder(nullptr);
    std::mt19937_64 rng(3);
    const Signal sigs[] = {
        MakeSignal(0, 12, false, true, 0.25, -3.0), MakeSignal(7, 16, true, false, 0.1, 0.0),
        MakeSignal(0, 32, false, true, 1.0, 100.0), MakeSignal(0, 8, false, true, 1.0, 0.0)};
    for (const Signal& sig : sigs) {
        double lo = sig.isSigned ? -std::ldexp(1.0, sig.length - 1) : 0.0;
        double hi = std::ldexp(1.0, sig.length - (sig.isSigned ? 1 : 0)) - 1.0;
        std::uniform_real_distribution<double> rawDist(lo, hi);
        for (int i = 0; i < 2000; ++i) {
            double phys = rawDist(rng) * sig.factor + sig.offset;
            std::string text = std::to_string(phys);
            uint64_t raw = coder.GenerateValue(text.c_str(), sig);
            ASSERT_EQ(raw & Mask(sig.length), raw);
            double back = DBCCoder::RawToPhysical(raw, sig);
            ASSERT_NEAR(std::stod(text), back, std::fabs(sig.factor) / 2 + 1e-9) << text;
        }
    }
}

TEST(RawToPhysical, ValuesAndTextForms) {
    float f = -2.5f;
    uint32_t fbits;
    std::memcpy(&fbits, &f, sizeof(fbits));
    double d = 3.25;
    uint64_t dbits;
    std::memcpy(&dbits, &d, sizeof(dbits));
    struct {
        Signal sig;
        uint64_t raw;
        const char* text;
    } cases[] = {
        {MakeSignal(0, 8, false), 200, "200"},
        {MakeSignal(0, 64, false), UINT64_MAX, "18446744073709551615"},
        {MakeSignal(0, 8, false, true), 0x7F, "127"},
        {MakeSignal(0, 8, false, true), 0x80, "-128.000000"},
        {MakeSignal(0, 8, false, true), 0xFF, "-1.000000"},
        {MakeSignal(0, 1, false, true), 1, "1"},
        {MakeSignal(0, 64, false, true), UINT64_MAX, "-1.000000"},
        {MakeSignal(0, 12, false, true, 0.5, 1.0), 0xFFE, "0.000000"},
        {MakeSignal(0, 8, false, false, 0.1, 0.0), 3, "0.300000"},
        {MakeSignal(0, 8, false, false, 0.0, 2.0), 5, "7.000000"},  // factor 0 adds only
        {MakeSignal(0, 8, false, false, 1.0, 0.5), 5, "5.500000"},
        {MakeSignal(0, 32, false, false, 1.0, 0.0, 1), fbits | (0xABCDull << 32), "-2.500000"},
        {MakeSignal(0, 32, false, false, 0.0, 1.0, 1), fbits, "1.000000"},  // factor 0 multiplies
        {MakeSignal(0, 64, false, false, 2.0, 1.0, 2), dbits, "7.500000"},
        {MakeSignal(0, 64, false, false, 1.0, 0.0, 2), dbits, "3.250000"},
    };
    for (const auto& c : cases) {
        kq::CommandInfo* cmd = kq::CommandInfo::Create();
        kq::AutoUnref<kq::CommandInfo> guard(true, cmd);
        ASSERT_TRUE(DBCCoder::AppendValue(cmd, c.raw, c.sig));
        EXPECT_STREQ(c.text, cmd->GetValue("S")) << "raw " << c.raw;
    }
}

}  // namespace
