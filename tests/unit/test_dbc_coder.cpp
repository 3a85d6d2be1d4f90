// Message coder over small DBC texts and a real J1939 database: PGN keys,
// lookups, multi-packet decode checks, encode splitting and round trips.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "coder/dbc_coder.h"
#include "common/command_info.h"
#include "dbc/dbc.h"
#include "support/ref_packer.h"

namespace {

using kq::AutoUnref;
using kq::CommandInfo;
using Frames = std::vector<VCI_CAN_OBJ>;

// Pdu1 (20 bytes) has signals in the first packet, across the first packet
// boundary (bytes 6-7), in Motorola order (bytes 8-9) and in the last byte.
// Dup shares Pdu2's PGN and comes first in identifier order, so Pdu2 owns that
// key. Std places Away beyond the decode buffer, Edge inside it but past 1785.
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
    for (size_t i = 0; i < data.size() && i < 8; ++i) f.data[i] = data[i];
    return f;
}

// Data packets of a payload, sequence numbered from 1, addressed with id.
Frames Packets(uint32_t id, const std::vector<uint8_t>& payload) {
    Frames out;
    for (size_t k = 0; 7 * k < payload.size(); ++k) {
        std::vector<uint8_t> d(8, 0);
        d[0] = static_cast<uint8_t>(k + 1);
        for (size_t i = 0; i < 7 && 7 * k + i < payload.size(); ++i) d[i + 1] = payload[7 * k + i];
        out.push_back(Frame(id, d));
    }
    return out;
}

// The message a decode found and its raw values by signal name.
struct Decoded {
    std::string name;  // empty when the decode failed
    std::map<std::string, uint64_t> raws;
};

class CoderTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(db.LoadContent(kDbc));
        coder.SetProtocol(TARN_PROTOCOL_J1939);
    }

    // Encodes a record named `name` holding the given (signal, value) pairs.
    Frames Encode(const char* name, std::vector<std::pair<const char*, const char*>> pairs) {
        CommandInfo* rec = CommandInfo::Create();
        AutoUnref<CommandInfo> g(true, rec);
        rec->SetName(name);
        for (const auto& p : pairs) rec->Append(p.first, p.second);
        return coder.Encode(rec);
    }

    Decoded Decode(const Frames& frames, bool byId) {
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
// only the source; standard identifiers are their own key.
TEST(PGN1939, KeysKeepThePgnInPlace) {
    DBCCoder coder(nullptr);
    struct {
        uint64_t id, key;
    } cases[] = {
        {0x000, 0x000},          {0x7FF, 0x7FF},          {0x800, 0x000},
        {0x18FEF100, 0xFEF100},  {0x18FEF1AB, 0xFEF100},  {0x98FEF1AB, 0xFEF100},
        {0x18EA00FE, 0xEA0000},  {0x18EA01FE, 0xEA0000},  {0x1CEFFF00, 0xEF0000},
        {0x1BF00400, 0x3F00400}, {0x0DF00400, 0x1F00400}, {0x18F00000, 0xF00000},
        {0x80000123, 0x000000},
    };
    for (const auto& c : cases) EXPECT_EQ(c.key, coder.PGN1939(c.id)) << std::hex << c.id;
}

// J1939 mode looks messages up by PGN (the later of two messages in database
// order wins a shared key); ordinary CAN mode and lookups by identifier use the
// identifier without its flag bits.
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

// A single frame decodes from all eight bytes and records each raw value in
// the model. Out-of-buffer rule: signals beyond the frame payload read 0,
// and a record naming one of them encodes nothing.
TEST_F(CoderTest, SingleFrameDecodeAndSignalsOutsideTheBuffers) {
    VCI_CAN_OBJ f = Frame(0x123, {0x7F, 0x81, 0x20});
    f.dataLen = 1;  // the length field does not cut the payload
    Decoded d = Decode({f}, false);
    EXPECT_EQ("Std", d.name);
    // B: Motorola 15|12 -> bits 7..0 of byte 1 then 7..4 of byte 2 = 0x812.
    const std::map<std::string, uint64_t> want = {
        {"A", 127}, {"B", 0x812}, {"Away", 0}, {"Edge", 0}};
    EXPECT_EQ(want, d.raws);
    EXPECT_EQ(0x812u, db.FindSignal(db.FindMsg2("Std"), "B")->rawZero);
    for (const char* name : {"Away", "Edge"}) {
        EXPECT_TRUE(Encode("Std", {{"A", "1"}, {name, "1"}}).empty()) << name;
    }
    d = Decode({Frame(0x98FEF1AB, {0x80, 0x0C})}, false);
    EXPECT_EQ("Pdu2", d.name);
    EXPECT_EQ(0x0C80u, d.raws["Speed"]);
}

// Every packet must carry the next sequence number and the same PGN.
TEST_F(CoderTest, MultiPacketDecodeChecksEveryFrame) {
    std::vector<uint8_t> payload(20);
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(0x10 + i);
    const uint32_t id = 0x98EA00FE;
    const Frames good = Packets(id, payload);
    ASSERT_EQ(3u, good.size());
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
        const Decoded d = Decode(c.frames, false);
        EXPECT_EQ(c.ok ? "Pdu1" : "", d.name) << c.what;
        if (c.ok) {
            EXPECT_EQ(want, d.raws) << c.what;
        }
    }
    EXPECT_EQ("", Decode({Frame(0x98FEF2AA, {})}, true).name);
}

TEST_F(CoderTest, LongestTransferDecodesAndLongerListsFail) {
    std::vector<uint8_t> payload(1785, 0);
    payload[1784] = 0x5C;
    Frames frames = Packets(0x98FECA00, payload);
    ASSERT_EQ(255u, frames.size());
    EXPECT_EQ(0x5Cu, Decode(frames, false).raws["End"]);
    frames.push_back(Frame(0x98FECA00, {0}));  // a 256th packet cannot carry its number
    EXPECT_EQ("", Decode(frames, false).name);
}

// Long messages split into numbered packets; the unused tail bytes of the last
// packet are 0xFF.
TEST_F(CoderTest, EncodeSplitsIntoPacketsWithFilledTail) {
    // Payload laid out by hand: First, Cross (bytes 6-7), Moto (bytes 8-9, high first), Last.
    std::vector<uint8_t> payload = {1, 0, 0, 0, 0, 0, 0x03, 0x02, 0x04, 0x05};
    payload.resize(20);
    payload[19] = 0xFF;
    Frames want = Packets(0x98EA00FE, payload);
    want[2].data[7] = 0xFF;  // 20 = 2 * 7 + 6: one unused byte, filled
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
}

TEST_F(CoderTest, EncodeFailuresYieldNoFrames) {
    EXPECT_TRUE(Encode("Std", {{"A", "1"}, {"Nope", "2"}}).empty()) << "unknown signal";
    EXPECT_TRUE(Encode("Nope", {{"A", "1"}}).empty()) << "unknown message";
    EXPECT_TRUE(Encode("Std", {}).empty()) << "no pairs";
    EXPECT_TRUE(coder.Encode(nullptr).empty());
    EXPECT_TRUE(coder.EncodeNormal("Std", {"A", nullptr}).empty());
}

// Real database: every signal that fits its message, encoded alone, comes back
// from the decoder with the raw value it was given (lengths up to 32 are exact).
TEST(DBCCoderCorpus, EverySignalOfARealJ1939DatabaseRoundTrips) {
    const std::string path = refpack::CorpusFile("can-dbc__j1939.dbc");
    if (path.empty()) GTEST_SKIP() << "corpus not available";
    DBC db;
    ASSERT_TRUE(db.Load(path, false));
    DBCCoder coder(&db);
    coder.SetProtocol(TARN_PROTOCOL_J1939);
    std::vector<Message*> msgs;
    db.GetAllMessage(msgs);
    ASSERT_GT(msgs.size(), 100u);
    refpack::Rng rng(8);
    CommandInfo* rec = CommandInfo::Create();
    AutoUnref<CommandInfo> guardRec(true, rec);
    std::vector<uint64_t> raws;
    size_t checked = 0;
    for (Message* m : msgs) {
        if (coder.FindMsg(static_cast<uint32_t>(m->id), false) != m) continue;  // PGN shadowed
        const DecodePlan plan = DBCCoder::PlanFor(*m);
        raws.resize(plan.readers.size());
        for (auto& entry : m->signals) {
            Signal& sig = entry.second;
            const std::vector<uint64_t> bits =
                refpack::BitPositions(sig.startBit, sig.length, sig.bigEndian);
            if (sig.length == 0 || sig.length > 32 ||
                *std::max_element(bits.begin(), bits.end()) / 8 >= m->dlc) {
                continue;  // signals the file places beyond its own message are not sent
            }
            const uint64_t raw = rng.Next() & refpack::Mask(sig.length);
            rec->Reset();
            rec->SetName(m->name);
            rec->AppendU64(sig.name, raw);
            const Frames frames = coder.Encode(rec);
            ASSERT_FALSE(frames.empty()) << m->name << "." << sig.name;
            ASSERT_TRUE(coder.DecodeRaw(plan, frames.data(), frames.size(), 0, raws.data()))
                << m->name;
            ASSERT_EQ(raw, sig.rawZero) << m->name << "." << sig.name;
            ++checked;
        }
    }
    EXPECT_GT(checked, 1000u);
}

}  // namespace
