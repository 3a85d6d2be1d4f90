// Message coder over small DBC texts and a real J1939 database: PGN keys,
// lookups, multi-packet decode checks, encode splitting and round trips.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "common/command_info.h"
#include "dbc.h"
#include "dbc_coder.h"

namespace {

using kq::AutoUnref;
using kq::CommandInfo;
using Frames = std::vector<VCI_CAN_OBJ>;

// Pdu1 (20 bytes) has signals in the first packet, across the first packet
// boundary (bytes 6-7), in Motorola order (bytes 8-9) and in the last byte.
const char kDbc[] = R"(VERSION ""

BU_: ECU

BO_ 291 Std: 8 ECU
 SG_ A : 0|8@1+ (1,0) [0|255] "" ECU
 SG_ B : 15|12@0- (0.5,-10) [0|0] "" ECU

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
    VCI_CAN_OBJ f;
    std::memset(&f, 0, sizeof(f));
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

std::string Value(const CommandInfo* cmd, const char* key) {
    const char* v = cmd->GetValue(key);
    return v ? v : "(none)";
}

class CoderTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(db.LoadContent(kDbc));
        coder.SetProtocol(TARN_PROTOCOL_J1939);
    }

    CommandInfo* Record(const char* name, std::vector<std::pair<const char*, const char*>> pairs) {
        CommandInfo* c = CommandInfo::Create();
        c->SetName(name);
        for (const auto& p : pairs) c->Append(p.first, p.second);
        records.push_back(c);
        return c;
    }
    void TearDown() override {
        for (CommandInfo* c : records) c->Release();
    }

    DBC db;
    DBCCoder coder{&db};
    CommandInfo* cmd = CommandInfo::Create();
    AutoUnref<CommandInfo> guard{true, cmd};
    std::vector<CommandInfo*> records;
};

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
        {0x98FEF1AB, true, nullptr, nullptr}, {0x18FEF100, true, "Pdu2", "Pdu2"},
        {0x124, false, nullptr, nullptr},
    };
    for (ProtocolType p : {TARN_PROTOCOL_J1939, TARN_PROTOCOL_OTHER}) {
        coder.SetProtocol(p);
        EXPECT_EQ(p, coder.GetProtocol());
        for (const auto& c : cases) {
            const char* want = p == TARN_PROTOCOL_J1939 ? c.j1939 : c.other;
            Message* m = coder.FindMsg(c.id, c.byId);
            EXPECT_EQ(std::string(want ? want : "-"), m ? m->name : "-")
                << std::hex << c.id << " byId " << c.byId << " protocol " << p;
        }
    }
}

TEST(DBCCoderIndex, EmptyUntilSetProtocolAndLaterMessageWinsOnCollision) {
    DBC db;
    ASSERT_TRUE(db.LoadContent(R"(BU_: N
BO_ 291 StdA: 8 N
 SG_ X : 0|8@1+ (1,0) [0|0] "" N
BO_ 2147483939 ExtA: 8 N
 SG_ X : 0|8@1+ (1,0) [0|0] "" N
BO_ 2566844672 P1: 8 N
 SG_ X : 0|8@1+ (1,0) [0|0] "" N
BO_ 2566844843 P2: 8 N
 SG_ X : 0|8@1+ (1,0) [0|0] "" N
)"));
    DBCCoder coder(&db);
    EXPECT_EQ(nullptr, coder.FindMsg(0x123, true));
    coder.SetProtocol(TARN_PROTOCOL_J1939);
    // 0x123 and extended 0x123 share an identifier key; P1 and P2 share a PGN.
    EXPECT_STREQ("ExtA", coder.FindMsg(0x123, true)->name);
    EXPECT_STREQ("P2", coder.FindMsg(0x98FEF100, false)->name);
    EXPECT_STREQ("P1", coder.FindMsg(0x98FEF100, true)->name);
}

TEST_F(CoderTest, SingleFrameDecodeUsesAllEightBytesAndRecordsRaw) {
    VCI_CAN_OBJ f = Frame(0x123, {0x7F, 0x81, 0x20, 0, 0, 0, 0, 0});
    f.dataLen = 1;  // the length field does not cut the payload
    ASSERT_TRUE(coder.Decode(cmd, {f}, false));
    EXPECT_STREQ("Std", cmd->GetName());
    EXPECT_EQ("127", Value(cmd, "A"));
    // B: Motorola 15|12 -> bits 7..0 of byte 1 then 7..4 of byte 2 = 0x812, signed.
    EXPECT_EQ("-1025.000000", Value(cmd, "B"));  // (0x812 - 4096) * 0.5 - 10
    Message* m = db.FindMsg2("Std");
    EXPECT_EQ(0x812u, db.FindSignal(m, "B")->rawZero);
    ASSERT_TRUE(coder.Decode(cmd, {Frame(0x98FEF1AB, {0x80, 0x0C})}, false));
    EXPECT_EQ("Pdu2", std::string(cmd->GetName()));
    EXPECT_EQ("12.500000", Value(cmd, "Speed"));
    EXPECT_EQ(nullptr, cmd->GetValue("A"));  // the record was reset
}

TEST_F(CoderTest, MultiPacketDecodeChecksEveryFrame) {
    std::vector<uint8_t> payload(20);
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(0x10 + i);
    const uint32_t id = 0x98EA00FE;
    Frames good = Packets(id, payload);
    ASSERT_EQ(3u, good.size());

    Frames swapped = good;
    std::swap(swapped[1], swapped[2]);
    Frames otherPgn = good;
    otherPgn[2].id = 0x98EB00FE;
    Frames otherSource = good;
    otherSource[1].id = 0x98EA00AA;  // same PGN, different addresses
    Frames extra = good;
    extra.push_back(Frame(id, {4, 0xEE}));
    Frames badExtra = good;
    badExtra.push_back(Frame(id, {9, 0xEE}));
    Frames tooFew(good.begin(), good.begin() + 2);
    struct {
        const char* what;
        const Frames& frames;
        bool ok;
    } cases[] = {{"in order", good, true},       {"1,3,2", swapped, false},
                 {"other PGN", otherPgn, false}, {"other address", otherSource, true},
                 {"extra frame", extra, true},   {"bad extra frame", badExtra, false},
                 {"too few", tooFew, false},     {"single", Frames{good[0]}, false}};
    for (const auto& c : cases) {
        cmd->Reset();
        cmd->SetName("before");
        cmd->Append("keep", "me");
        ASSERT_EQ(c.ok, coder.Decode(cmd, c.frames, false)) << c.what;
        if (!c.ok) {
            EXPECT_STREQ("before", cmd->GetName()) << c.what;
            EXPECT_EQ("me", Value(cmd, "keep")) << c.what;
            continue;
        }
        EXPECT_STREQ("Pdu1", cmd->GetName());
        EXPECT_EQ("16", Value(cmd, "First"));
        EXPECT_EQ(std::to_string(0x16 | (0x17 << 8)), Value(cmd, "Cross"));
        EXPECT_EQ(std::to_string((0x18 << 8) | 0x19), Value(cmd, "Moto"));
        EXPECT_EQ(std::to_string(0x23), Value(cmd, "Last"));
    }
    EXPECT_FALSE(coder.Decode(nullptr, good, false));
    EXPECT_FALSE(coder.Decode(cmd, {}, false));
    EXPECT_FALSE(coder.Decode(cmd, {Frame(0x98FEF2AA, {})}, true));
}

TEST_F(CoderTest, LongestTransferDecodesAndLongerListsFail) {
    std::vector<uint8_t> payload(1785, 0);
    payload[1784] = 0x5C;
    Frames frames = Packets(0x98FECA00, payload);
    ASSERT_EQ(255u, frames.size());
    ASSERT_TRUE(coder.Decode(cmd, frames, false));
    EXPECT_EQ("92", Value(cmd, "End"));
    frames.push_back(Frame(0x98FECA00, {0}));  // a 256th packet cannot carry its number
    EXPECT_FALSE(coder.Decode(cmd, frames, false));
}

TEST_F(CoderTest, EncodeSplitsIntoPacketsWithFilledTail) {
    // Payload laid out by hand: First, Cross (bytes 6-7), Moto (bytes 8-9, high first), Last.
    std::vector<uint8_t> payload(20, 0);
    payload[0] = 1;
    payload[6] = 0x03;
    payload[7] = 0x02;
    payload[8] = 0x04;
    payload[9] = 0x05;
    payload[19] = 0xFF;
    Frames want = Packets(0x98EA00FE, payload);
    want[2].data[7] = 0xFF;  // 20 = 2 * 7 + 6: one unused byte, filled
    CommandInfo* rec =
        Record("Pdu1", {{"First", "1"}, {"Cross", "515"}, {"Moto", "1029"}, {"Last", "255"}});
    Frames got = coder.Encode(rec);
    ASSERT_EQ(want.size(), got.size());
    for (size_t k = 0; k < want.size(); ++k) {
        EXPECT_EQ(0, std::memcmp(&want[k], &got[k], sizeof(VCI_CAN_OBJ))) << "packet " << k;
    }
    ASSERT_TRUE(coder.Decode(cmd, got, false));
    EXPECT_EQ("515", Value(cmd, "Cross"));
    EXPECT_EQ("1029", Value(cmd, "Moto"));

    Frames full = coder.Encode(Record("Long21", {{"Tail", "170"}}));
    ASSERT_EQ(3u, full.size());
    const uint8_t fullLast[8] = {3, 0, 0, 0, 0, 0, 0, 170};  // 21 bytes: no fill
    EXPECT_EQ(0, std::memcmp(fullLast, full[2].data, 8));
}

TEST_F(CoderTest, EncodeSingleFrames) {
    Frames std8 = coder.Encode(Record("Std", {{"A", "300"}}));  // bits above 8 dropped
    ASSERT_EQ(1u, std8.size());
    EXPECT_EQ(0x123u, std8[0].id);
    EXPECT_EQ(0, std8[0].externFlag);
    EXPECT_EQ(8, std8[0].dataLen);
    const uint8_t want[8] = {300 & 0xFF, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(0, std::memcmp(want, std8[0].data, 8));

    Frames ext = coder.Encode(Record("Pdu2", {{"Speed", "3200"}}));
    ASSERT_EQ(1u, ext.size());
    EXPECT_EQ(0x98FEF100u, ext[0].id);
    EXPECT_EQ(1, ext[0].externFlag);
    EXPECT_EQ(0x80, ext[0].data[0]);
    EXPECT_EQ(0x0C, ext[0].data[1]);

    coder.SetProtocol(TARN_PROTOCOL_OTHER);
    Frames normal = coder.Encode(Record("Pdu2", {{"Speed", "3200"}}));
    ASSERT_EQ(1u, normal.size());
    EXPECT_EQ(0, std::memcmp(&ext[0], &normal[0], sizeof(VCI_CAN_OBJ)));
}

TEST_F(CoderTest, EncodeFailuresYieldNoFrames) {
    struct {
        const char* what;
        CommandInfo* rec;
    } cases[] = {{"unknown signal", Record("Std", {{"A", "1"}, {"Nope", "2"}})},
                 {"unknown message", Record("Nope", {{"A", "1"}})},
                 {"no pairs", Record("Std", {})}};
    for (const auto& c : cases) EXPECT_TRUE(coder.Encode(c.rec).empty()) << c.what;
    EXPECT_TRUE(coder.Encode(nullptr).empty());
    EXPECT_TRUE(coder.EncodeNormal("Std", {"A", nullptr}).empty());
}

TEST(DBCCoderHostile, SignalsOutsideTheBuffersAreNeverTouched) {
    DBC db;
    ASSERT_TRUE(db.LoadContent(R"(BU_: N
BO_ 2566844672 Far: 8 N
 SG_ Near : 0|8@1+ (1,0) [0|0] "" N
 SG_ Away : 100000|8@1+ (1,0) [0|0] "" N
 SG_ Edge : 14284|8@1+ (1,0) [0|0] "" N
)"));
    DBCCoder coder(&db);
    coder.SetProtocol(TARN_PROTOCOL_J1939);
    CommandInfo* cmd = CommandInfo::Create();
    AutoUnref<CommandInfo> guard(true, cmd);
    ASSERT_TRUE(coder.Decode(cmd, {Frame(0x98FEF100, {7})}, false));
    EXPECT_STREQ("7", cmd->GetValue("Near"));
    EXPECT_STREQ("0", cmd->GetValue("Away"));
    EXPECT_STREQ("0", cmd->GetValue("Edge"));  // fits the decode buffer, not the frame
    for (const char* name : {"Away", "Edge"}) {
        CommandInfo* rec = CommandInfo::Create();
        AutoUnref<CommandInfo> g(true, rec);
        rec->SetName("Far");
        rec->Append("Near", "1");
        rec->Append(name, "1");
        EXPECT_TRUE(coder.Encode(rec).empty()) << name;
    }
}

TEST_F(CoderTest, FindObjFindsOrInsertsSorted) {
    Frames frames = {Frame(0x300, {}), Frame(0x100, {})};
    EXPECT_EQ(&frames[1], coder.FindObj(frames, 0x100));
    VCI_CAN_OBJ* added = coder.FindObj(frames, 0x200);
    ASSERT_EQ(3u, frames.size());
    EXPECT_EQ(0x200u, added->id);
    EXPECT_EQ(0x100u, frames[0].id);
    EXPECT_EQ(0x200u, frames[1].id);
    EXPECT_EQ(0x300u, frames[2].id);
    VCI_CAN_OBJ* ext = coder.FindObj(frames, 0x98FEF100);
    EXPECT_EQ(&frames[3], ext);
    testing::internal::CaptureStdout();
    VCI_CAN_OBJ* odd = coder.FindObj(frames, 0x100000100ull);  // no 32-bit frame can match
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_EQ(&frames[0], odd);
    EXPECT_NE(std::string::npos, log.find("internal error"));
}

// Highest byte index a signal occupies, walking its bits one by one.
uint64_t LastByte(const Signal& sig) {
    uint64_t pos = sig.startBit, top = pos / 8;
    for (uint32_t i = 1; i < sig.length; ++i) {
        pos = !sig.bigEndian ? pos + 1 : (pos % 8 == 0 ? pos + 15 : pos - 1);
        top = std::max<uint64_t>(top, pos / 8);
    }
    return top;
}

// Real database: every signal encoded alone comes back from the decoder with
// the raw value it was given, wherever the extraction rule is exact.
TEST(DBCCoderCorpus, EverySignalOfARealJ1939DatabaseRoundTrips) {
    std::string path = std::string(TARN_CORPUS_DIR) + "/can-dbc__j1939.dbc";
    if (FILE* f = std::fopen(path.c_str(), "r")) {
        std::fclose(f);
    } else {
        GTEST_SKIP() << "corpus not available";
    }
    DBC db;
    ASSERT_TRUE(db.Load(path, false));
    DBCCoder coder(&db);
    coder.SetProtocol(TARN_PROTOCOL_J1939);
    std::vector<Message*> msgs;
    db.GetAllMessage(msgs);
    ASSERT_GT(msgs.size(), 100u);
    std::mt19937_64 rng(8);
    CommandInfo* out = CommandInfo::Create();
    AutoUnref<CommandInfo> guard(true, out);
    size_t checked = 0;
    for (Message* m : msgs) {
        if (coder.FindMsg(static_cast<uint32_t>(m->id), false) != m) continue;  // PGN shadowed
        for (auto& entry : m->signals) {
            Signal& sig = entry.second;
            // Signals the file places beyond its own message size are not sent.
            if (sig.length == 0 || sig.length > 32 || LastByte(sig) >= m->dlc) continue;
            uint64_t raw = rng() & ((1ull << sig.length) - 1);
            CommandInfo* rec = CommandInfo::Create();
            AutoUnref<CommandInfo> g(true, rec);
            rec->SetName(m->name);
            rec->AppendU64(sig.name, raw);
            Frames frames = coder.Encode(rec);
            ASSERT_FALSE(frames.empty()) << m->name << "." << sig.name;
            ASSERT_TRUE(coder.Decode(out, frames, false)) << m->name;
            ASSERT_EQ(raw, sig.rawZero) << m->name << "." << sig.name;
            ++checked;
        }
    }
    EXPECT_GT(checked, 1000u);
}

}  // namespace
