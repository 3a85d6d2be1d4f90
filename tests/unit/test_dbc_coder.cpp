// The message coder: bit packing against the reference packer, value texts,
// J1939 lookups, multi-packet decoding and encode splitting.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "coder/dbc_coder.h"
#include "common/command_info.h"
#include "dbc/dbc.h"
#include "legacy/record_plan.h"
#include "support/ref_packer.h"

namespace {

using kq::AutoUnref;
using kq::CommandInfo;
using Frames = std::vector<VCI_CAN_OBJ>;

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

// The reference value, except that a partial top byte of t bits (not the lowest
// byte) enters through a signed 32-bit shift by L - t.
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

// Every start bit and length: insertion changes exactly the signal's bits and
// extraction follows the reference. In an 8-byte buffer a placement is taken
// exactly when all its bits are inside; refused ones read 0 and write nothing.
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

// --- messages ------------------------------------------------------------------

// Pdu1 spans three packets; Dup shares Pdu2's PGN but comes first, so Pdu2
// owns the key. Away lies beyond the decode buffer, Edge past 1785 bytes.
const char kDbc[] = R"(BU_: ECU
BO_ 291 Std: 8 ECU
 SG_ A : 0|8@1+ (1,0) [0|255] "" ECU
 SG_ B : 15|12@0- (0.5,-10) [0|0] "" ECU
 SG_ Away : 100000|8@1+ (1,0) [0|0] "" ECU
 SG_ Edge : 14284|8@1+ (1,0) [0|0] "" ECU
BO_ 2499735979 Dup: 8 ECU
BO_ 2566844672 Pdu2: 8 ECU
 SG_ Speed : 0|16@1+ (0.00390625,0) [0|250] "km/h" ECU
BO_ 2565472510 Pdu1: 20 ECU
 SG_ First : 0|8@1+ (1,0) [0|255] "" ECU
 SG_ Cross : 48|16@1+ (1,0) [0|65535] "" ECU
 SG_ Moto : 71|16@0+ (1,0) [0|65535] "" ECU
 SG_ Last : 152|8@1+ (1,0) [0|255] "" ECU
BO_ 2566844928 Long21: 21 ECU
 SG_ Tail : 160|8@1+ (1,0) [0|255] "" ECU
BO_ 2566834688 Wide: 1785 ECU
 SG_ End : 14272|8@1+ (1,0) [0|255] "" ECU
)";

VCI_CAN_OBJ Frame(uint32_t id, std::vector<uint8_t> data) {
    VCI_CAN_OBJ f{};
    f.id = id;
    f.externFlag = id > 0x7FF;
    f.dataLen = 8;
    std::copy_n(data.begin(), std::min<size_t>(data.size(), 8), f.data);
    return f;
}

// Data packets of a payload, sequence numbered from 1, the last one padded.
Frames Packets(uint32_t id, const std::vector<uint8_t>& payload, uint8_t pad = 0) {
    Frames out;
    for (size_t k = 0; 7 * k < payload.size(); ++k) {
        std::vector<uint8_t> d(8, pad);
        d[0] = static_cast<uint8_t>(k + 1);
        for (size_t i = 0; i < 7 && 7 * k + i < payload.size(); ++i) d[i + 1] = payload[7 * k + i];
        out.push_back(Frame(id, d));
    }
    return out;
}

// The message a decode found (empty when it failed) and its raw values.
struct Decoded {
    std::string name;
    std::map<std::string, uint64_t> raws;
};

class CoderTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(db.LoadContent(kDbc));
        coder.SetProtocol(TARN_PROTOCOL_J1939);
    }

    Frames Encode(const char* name, std::vector<std::pair<const char*, const char*>> pairs) {
        CommandInfo* rec = CommandInfo::Create();
        AutoUnref<CommandInfo> g(true, rec);
        rec->SetName(name);
        for (const auto& p : pairs) rec->Append(p.first, p.second);
        return coder.Encode(rec);
    }

    Decoded Decode(const Frames& frames, bool byId = false) {
        Decoded d;
        Message* msg = frames.empty() ? nullptr : coder.FindMsg(frames[0].id, byId);
        if (!msg) return d;
        const DecodePlan plan = DBCCoder::PlanFor(*msg);
        std::vector<uint64_t> raws(plan.readers.size());
        if (!coder.DecodeRaw(plan, frames.data(), frames.size(), 0, raws.data())) return d;
        d.name = msg->name;
        for (size_t k = 0; k < raws.size(); ++k) d.raws[plan.readers[k].sig->name] = raws[k];
        return d;
    }

    DBC db;
    DBCCoder coder{&db};
};

// J1939 keys: PDU1 groups (PF below 0xF0) drop both addresses, PDU2 groups
// only the source; the data page bits stay.
TEST(PGN1939, KeysKeepThePgnInPlace) {
    DBCCoder coder(nullptr);
    const std::pair<uint64_t, uint64_t> cases[] = {
        {0x7FF, 0x7FF},          {0x800, 0x000},         {0x98FEF1AB, 0xFEF100},
        {0x18EA01FE, 0xEA0000},  {0x1CEFFF00, 0xEF0000}, {0x1BF00400, 0x3F00400},
        {0x0DF00400, 0x1F00400}, {0x18F00000, 0xF00000}, {0x80000123, 0x000000}};
    for (const auto& [id, key] : cases) EXPECT_EQ(key, coder.PGN1939(id)) << std::hex << id;
}

// J1939 mode looks messages up by PGN (the later message wins a shared key);
// otherwise, and by identifier, the identifier without flag bits counts.
TEST_F(CoderTest, LookupsFollowTheProtocol) {
    struct {
        uint32_t id;
        bool byId;
        const char* j1939;  // message found in J1939 mode
        const char* other;  // message found in ordinary CAN mode
    } cases[] = {
        {0x98FEF100, false, "Pdu2", "Pdu2"},  {0x98FEF1AB, false, "Pdu2", nullptr},
        {0x18FEF1AB, false, "Pdu2", nullptr}, {0x98EA00FE, false, "Pdu1", "Pdu1"},
        {0x98EA01FE, false, "Pdu1", nullptr}, {0x123, false, "Std", "Std"},
        {0x98FEF1AB, true, nullptr, nullptr}, {0x94FEF1AB, false, "Pdu2", "Dup"},
        {0x14FEF1AB, true, "Dup", "Dup"},     {0x18FEF100, true, "Pdu2", "Pdu2"},
        {0x124, false, nullptr, nullptr},
    };
    for (ProtocolType p : {TARN_PROTOCOL_J1939, TARN_PROTOCOL_OTHER}) {
        coder.SetProtocol(p);
        for (const auto& c : cases) {
            const char* want = p == TARN_PROTOCOL_J1939 ? c.j1939 : c.other;
            Message* m = coder.FindMsg(c.id, c.byId);
            EXPECT_EQ(std::string(want ? want : "-"), m ? m->name : "-")
                << std::hex << c.id << " byId " << c.byId << " protocol " << p;
        }
    }
}

// A frame decodes from all eight bytes whatever its length field. Signals
// beyond the payload read 0, and a record naming one encodes nothing.
TEST_F(CoderTest, SingleFrameDecodeAndSignalsOutsideTheBuffers) {
    VCI_CAN_OBJ f = Frame(0x123, {0x7F, 0x81, 0x20});
    f.dataLen = 1;
    Decoded d = Decode({f});
    EXPECT_EQ("Std", d.name);
    // B: Motorola 15|12 -> bits 7..0 of byte 1 then 7..4 of byte 2 = 0x812.
    const std::map<std::string, uint64_t> want = {
        {"A", 127}, {"B", 0x812}, {"Away", 0}, {"Edge", 0}};
    EXPECT_EQ(want, d.raws);
    EXPECT_EQ(0x812u, db.FindSignal(db.FindMsg2("Std"), "B")->rawZero);
    for (const char* name : {"Away", "Edge"}) {
        EXPECT_TRUE(Encode("Std", {{"A", "1"}, {name, "1"}}).empty()) << name;
    }
}

// Every packet must carry the next sequence number and the same PGN; the
// longest transfer is 255 packets.
TEST_F(CoderTest, MultiPacketDecodeChecksEveryFrame) {
    std::vector<uint8_t> payload(20);
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(0x10 + i);
    const uint32_t id = 0x98EA00FE;
    const Frames good = Packets(id, payload);
    Frames swapped = good, otherPgn = good, otherSource = good, extra = good, badExtra = good;
    std::swap(swapped[1], swapped[2]);
    otherPgn[2].id = 0x98EB00FE;
    otherSource[1].id = 0x98EA00AA;  // same PGN, different addresses
    extra.push_back(Frame(id, {4, 0xEE}));
    badExtra.push_back(Frame(id, {9, 0xEE}));
    struct {
        const char* what;
        Frames frames;
        bool ok;
    } cases[] = {
        // clang-format off
        {"in order", good, true}, {"1,3,2", swapped, false}, {"other PGN", otherPgn, false},
        {"other address", otherSource, true}, {"extra frame", extra, true},
        {"bad extra frame", badExtra, false}, {"too few", {good[0], good[1]}, false},
        {"single", {good[0]}, false}, {"none", {}, false},
        // clang-format on
    };
    const std::map<std::string, uint64_t> want = {
        {"First", 0x10}, {"Cross", 0x1716}, {"Moto", 0x1819}, {"Last", 0x23}};
    for (const auto& c : cases) {
        const Decoded d = Decode(c.frames);
        EXPECT_EQ(c.ok ? "Pdu1" : "", d.name) << c.what;
        if (c.ok) {
            EXPECT_EQ(want, d.raws) << c.what;
        }
    }
    std::vector<uint8_t> longest(1785, 0);
    longest[1784] = 0x5C;
    Frames frames = Packets(0x98FECA00, longest);
    ASSERT_EQ(255u, frames.size());
    EXPECT_EQ(0x5Cu, Decode(frames).raws["End"]);
    frames.push_back(Frame(0x98FECA00, {0}));  // a 256th packet cannot carry its number
    EXPECT_EQ("", Decode(frames).name);
}

// Long messages split into numbered packets; the unused tail bytes of the last
// packet are 0xFF. Unknown names and empty records encode nothing.
TEST_F(CoderTest, EncodeSplitsIntoPacketsWithFilledTail) {
    std::vector<uint8_t> payload(20);
    refpack::Pack(payload.data(), 0, 8, false, 1);
    refpack::Pack(payload.data(), 48, 16, false, 515);
    refpack::Pack(payload.data(), 71, 16, true, 1029);
    refpack::Pack(payload.data(), 152, 8, false, 255);
    const Frames want = Packets(0x98EA00FE, payload, 0xFF);
    Frames got =
        Encode("Pdu1", {{"First", "1"}, {"Cross", "515"}, {"Moto", "1029"}, {"Last", "255"}});
    ASSERT_EQ(want.size(), got.size());
    for (size_t k = 0; k < want.size(); ++k) {
        EXPECT_EQ(0, std::memcmp(&want[k], &got[k], sizeof(VCI_CAN_OBJ))) << "packet " << k;
    }
    const Frames full = Encode("Long21", {{"Tail", "170"}});
    ASSERT_EQ(3u, full.size());
    const uint8_t fullLast[8] = {3, 0, 0, 0, 0, 0, 0, 170};  // 21 bytes: no fill
    EXPECT_EQ(0, std::memcmp(fullLast, full[2].data, 8));

    EXPECT_TRUE(Encode("Std", {{"A", "1"}, {"Nope", "2"}}).empty()) << "unknown signal";
    EXPECT_TRUE(Encode("Nope", {{"A", "1"}}).empty()) << "unknown message";
    EXPECT_TRUE(Encode("Std", {}).empty()) << "no pairs";
    EXPECT_TRUE(coder.Encode(nullptr).empty());
    EXPECT_TRUE(coder.EncodeNormal("Std", {"A", nullptr}).empty());
}

}  // namespace
