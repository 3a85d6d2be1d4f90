// Decoding and encoding through the analyser, multiplexer selection, value
// descriptions and the raw/physical conversions. Payloads are built and read
// back with a bit-by-bit reference packer that shares no code with the coder.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "analyser_test_util.h"

using atest::LoadText;
using atest::NewMessage;
using atest::RefMessage;
using atest::RefSignal;

namespace {

constexpr uint32_t kExt = 0x80000000u;
constexpr size_t kPayload = 1793;

VCI_CAN_OBJ Frame(uint32_t id, bool extended, const uint8_t* data, uint8_t len = 8) {
    VCI_CAN_OBJ f{};
    f.id = id;
    f.externFlag = extended ? 1 : 0;
    f.dataLen = len;
    memcpy(f.data, data, 8);
    return f;
}

uint64_t Mask(uint32_t length) {
    return length >= 64 ? ~0ULL : (1ULL << length) - 1;
}

// Signals whose bits after the first byte end in a partial byte and whose
// length reaches 32 are extracted with a 32-bit shift by design; the
// reference packer does not model that, so such signals are skipped.
bool ExtractsExactly(const RefSignal& s) {
    uint32_t lsb = atest::BitPositions(s.startBit, s.length, s.motorola).front();
    uint32_t first = std::min(8 - lsb % 8, s.length);
    return s.length < 32 || (s.length - first) % 8 == 0;
}

bool Fits(const RefSignal& s, size_t bytes) {
    for (uint32_t p : atest::BitPositions(s.startBit, s.length, s.motorola))
        if (p / 8 >= bytes) return false;
    return s.length >= 1 && s.length <= 64;
}

double SignedValue(const RefSignal& s, uint64_t raw) {
    if (s.isSigned && s.length >= 1 && s.length < 64 && ((raw >> (s.length - 1)) & 1))
        return static_cast<double>(static_cast<int64_t>(raw | ~Mask(s.length)));
    if (s.isSigned && s.length == 64) return static_cast<double>(static_cast<int64_t>(raw));
    return static_cast<double>(raw);
}

// Switch value from the text's definition: physical value, truncated, low 16
// bits. With several switches the one sorted first (start bit, length) counts.
bool SwitchValue(const RefMessage& ref, const uint8_t* payload, uint32_t& value) {
    const RefSignal* sw = nullptr;
    for (const RefSignal& s : ref.signals) {
        if (s.mux.find('M') == std::string::npos) continue;
        if (!sw || std::make_pair(s.startBit, s.length) < std::make_pair(sw->startBit, sw->length))
            sw = &s;
    }
    if (!sw) return false;
    double phys = SignedValue(*sw, atest::RefExtract(payload, *sw)) * sw->factor + sw->offset;
    value = static_cast<uint16_t>(static_cast<int64_t>(phys));
    return true;
}

bool Selected(const RefSignal& s, bool hasSwitch, uint32_t value) {
    if (!hasSwitch || s.mux.empty() || s.mux.find('M') != std::string::npos) return true;
    return strtoul(s.mux.c_str() + 1, nullptr, 10) == value;
}

// Key under which the coder files a message: its group under J1939, else
// the identifier without flags.
uint32_t LookupKey(uint32_t id, bool j1939) {
    if (!j1939 || (id & 0x1FFFFFFF) <= 0x7FF) return id & 0x1FFFFFFF;
    return ((id >> 16) & 0xFF) < 240 ? id & 0x3FF0000u : id & 0x3FFFF00u;
}

// --- decoding real messages -------------------------------------------------

struct CorpusStats {
    int messages = 0, slots = 0;
};

void CheckDecodedMessage(CAnalyser& a, const RefMessage& ref, std::mt19937& rng,
                         CorpusStats& stats) {
    std::vector<uint8_t> payload(kPayload, 0);
    for (int i = 0; i < 8; ++i) payload[i] = static_cast<uint8_t>(rng());
    if (rng() % 4 == 0) payload[0] = payload[1] = 0;  // small switch values
    VCI_CAN_OBJ f =
        Frame(static_cast<uint32_t>(ref.id) & 0x1FFFFFFF, ref.id & kExt, payload.data());
    auto out = NewMessage();
    ASSERT_TRUE(a.Decode(out.get(), &f, 1, false)) << ref.name;
    EXPECT_EQ(out->id, f.id);
    EXPECT_EQ(out->extended, f.externFlag);
    uint32_t sw = 0;
    bool hasSwitch = SwitchValue(ref, payload.data(), sw);
    std::set<std::string> expected;
    for (const RefSignal& s : ref.signals)
        if (Selected(s, hasSwitch, sw)) expected.insert(s.name);
    ASSERT_EQ(out->signalCount, expected.size()) << ref.name;
    ++stats.messages;
    for (uint32_t i = 0; i < out->signalCount; ++i) {
        const DBCSignal& slot = out->signals[i];
        const RefSignal* s = atest::FindRef(ref, slot.name);
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(expected.count(s->name), 1u) << s->name;
        if (!ExtractsExactly(*s) || !Fits(*s, kPayload)) continue;
        uint64_t raw = atest::RefExtract(payload.data(), *s);
        EXPECT_EQ(slot.rawValue, raw) << ref.name << "." << s->name;
        ++stats.slots;
        if (s->values.empty() || s->factor != 1.0 || s->offset != 0.0 || s->valueType) continue;
        std::string desc;
        for (const auto& v : s->values)
            if (v.first == SignedValue(*s, raw)) {
                desc = v.second.substr(0, 127);
                break;
            }
        EXPECT_EQ(std::string(slot.valueDescription), desc) << s->name << " raw " << raw;
    }
}

class AnalyserCorpusDecode : public ::testing::TestWithParam<const char*> {};

TEST_P(AnalyserCorpusDecode, EverySignalMatchesTheReferenceExtraction) {
    std::string path = atest::CorpusPath(GetParam());
    if (!atest::Exists(path)) GTEST_SKIP() << "corpus not available";
    auto refs = atest::ReadReference(atest::ReadAll(path));
    CAnalyser a;
    ASSERT_TRUE(atest::LoadPath(a, path));
    bool j1939 = a.GetProtocol() == TARN_PROTOCOL_J1939;
    std::map<uint32_t, int> keys;
    for (const auto& e : refs) ++keys[LookupKey(static_cast<uint32_t>(e.first), j1939)];
    std::mt19937 rng(11);
    CorpusStats stats;
    for (const auto& e : refs) {
        const RefMessage& ref = e.second;
        std::set<std::string> names;
        for (const RefSignal& s : ref.signals) names.insert(s.name);
        if (ref.dlc > 8 || ref.signals.empty() || ref.signals.size() > TARN_MAX_SIGNALS ||
            names.size() != ref.signals.size())
            continue;
        // A shared lookup key makes the later message win the lookup.
        if (keys[LookupKey(static_cast<uint32_t>(e.first), j1939)] > 1) continue;
        for (int round = 0; round < 4; ++round) CheckDecodedMessage(a, ref, rng, stats);
    }
    EXPECT_GT(stats.messages, 0);
    EXPECT_GT(stats.slots, 0);
}

INSTANTIATE_TEST_SUITE_P(Files, AnalyserCorpusDecode,
                         ::testing::Values("cantools__multiplex_2.dbc", "can-dbc__j1939.dbc",
                                           "cantools__abs.dbc", "cantools__multiplex_choices.dbc",
                                           "canmatrix__test_frame_decoding.dbc",
                                           "opendbc__vw_pq.dbc", "cantools__vehicle.dbc",
                                           "opendbc__toyota_nodsu_pt_generated.dbc"));

// --- a hand-written database ------------------------------------------------

const char* kDb =
    "VERSION \"\"\n\nNS_ :\n\nBS_:\n\nBU_: Node\n\n"
    "BO_ 291 Mixed: 8 Node\n"
    " SG_ Speed : 7|16@0+ (0.5,0) [0|0] \"km/h\" Node\n"
    " SG_ Temp : 16|8@1- (1,-40) [0|0] \"C\" Node\n"
    " SG_ Gear : 24|4@1+ (1,0) [0|0] \"\" Node\n"
    " SG_ Odd : 39|11@0- (1,0) [0|0] \"\" Node\n"
    " SG_ Wide : 48|16@1+ (2,1) [0|0] \"\" Node\n"
    "\n"
    "BO_ 292 Muxed: 8 Node\n"
    " SG_ Plain : 0|8@1+ (1,0) [0|0] \"\" Node\n"
    " SG_ Sw M : 8|24@1+ (1,0) [0|0] \"\" Node\n"
    " SG_ A2 m2 : 32|8@1+ (1,0) [0|0] \"\" Node\n"
    " SG_ B3 m3 : 40|8@1+ (1,0) [0|0] \"\" Node\n"
    " SG_ C3 m3 : 48|8@1+ (1,0) [0|0] \"\" Node\n"
    " SG_ D2 m2 : 56|8@1+ (1,0) [0|0] \"\" Node\n"
    "\n"
    "BO_ 293 Halves: 8 Node\n"
    " SG_ Sw M : 0|8@1+ (0.5,0) [0|0] \"\" Node\n"
    " SG_ X3 m3 : 8|8@1+ (1,0) [0|0] \"\" Node\n"
    " SG_ X4 m4 : 16|8@1+ (1,0) [0|0] \"\" Node\n"
    "\n"
    "BO_ 294 Described: 8 Node\n"
    " SG_ Plain : 0|8@1+ (1,0) [0|0] \"\" Node\n"
    " SG_ Scaled : 8|8@1+ (2,0) [0|0] \"\" Node\n"
    " SG_ Neg : 16|8@1- (1,0) [0|0] \"\" Node\n"
    " SG_ Long : 24|8@1+ (1,0) [0|0] \"\" Node\n"
    "\n"
    "BO_ 295 Wide64: 8 Node\n"
    " SG_ Big : 0|64@1+ (1,0) [0|0] \"\" Node\n"
    "\n"
    "BO_ 1792 Std: 14 Node\n"
    " SG_ Lo : 0|32@1+ (1,0) [0|0] \"\" Node\n"
    " SG_ Hi : 80|16@1+ (1,0) [0|0] \"\" Node\n"
    "\n"
    "BO_ 2566844672 Long: 20 Node\n"
    " SG_ First : 0|16@1+ (1,0) [0|0] \"\" Node\n"
    " SG_ Middle : 60|24@1+ (1,0) [0|0] \"\" Node\n"
    " SG_ Last : 144|8@1+ (1,0) [0|0] \"\" Node\n"
    "\n"
    "VAL_ 294 Plain 1 \"One\" 2 \"Two\" 4 \"Four\" ;\n"
    "VAL_ 294 Scaled 1 \"One\" 2 \"Two\" 4 \"Four\" ;\n"
    "VAL_ 294 Neg 255 \"All set\" 1 \"One\" ;\n"
    "VAL_ 295 Big 1152921504606846976 \"Huge\" ;\n";

std::string LongDescTable() {
    return "VAL_ 294 Long 7 \"" + std::string(200, 'd') + "\" ;\n";
}

class AnalyserCodec : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(LoadText(a, std::string(kDb) + LongDescTable() + atest::kJ1939Footer));
    }

    RefMessage Ref(uint64_t id) { return atest::ReadReference(kDb)[id]; }

    CAnalyser a;
};

TEST_F(AnalyserCodec, MultiFrameSequencesDecodeAndReportTheReceivedId) {
    RefMessage ref = Ref(2566844672u);
    uint8_t payload[21];
    for (int i = 0; i < 21; ++i) payload[i] = static_cast<uint8_t>(i * 37 + 5);
    std::vector<VCI_CAN_OBJ> frames;
    for (uint8_t k = 0; k < 3; ++k) {
        uint8_t data[8] = {static_cast<uint8_t>(k + 1)};
        memcpy(data + 1, payload + 7 * k, 7);
        frames.push_back(Frame(0x18FEF1FE, true, data));
    }
    auto out = NewMessage();
    ASSERT_TRUE(a.Decode(out.get(), frames.data(), frames.size(), false));
    EXPECT_EQ(out->id, 0x18FEF1FEu);
    EXPECT_EQ(out->extended, 1);
    EXPECT_STREQ(out->name, "Long");
    for (uint32_t i = 0; i < out->signalCount; ++i) {
        const RefSignal* s = atest::FindRef(ref, out->signals[i].name);
        EXPECT_EQ(out->signals[i].rawValue, atest::RefExtract(payload, *s)) << s->name;
    }
    std::swap(frames[1], frames[2]);
    out->size = 99;
    EXPECT_FALSE(a.Decode(out.get(), frames.data(), frames.size(), false));
    EXPECT_FALSE(a.Decode(out.get(), frames.data(), 2, false)) << "too few packets";
    EXPECT_EQ(out->size, 99u) << "failures leave the record alone";
}

// Only the first frame's flag counts: the ids of all copies are marked as
// extended or none is. Under J1939 an extended 0x700 has group 0, so the
// 11-bit message 0x700 is found only when the first frame is standard.
TEST_F(AnalyserCodec, FirstFrameDecidesTheIdentifierKind) {
    std::vector<VCI_CAN_OBJ> frames;
    for (uint8_t k = 1; k <= 2; ++k) {
        uint8_t data[8] = {k, 1, 2, 3, 4, 5, 6, 7};
        frames.push_back(Frame(0x700, k == 2, data));
    }
    auto out = NewMessage();
    ASSERT_TRUE(a.Decode(out.get(), frames.data(), 2, false));
    EXPECT_STREQ(out->name, "Std");
    EXPECT_EQ(out->extended, 0);
    std::swap(frames[0].externFlag, frames[1].externFlag);
    EXPECT_FALSE(a.Decode(out.get(), frames.data(), 2, false));
}

TEST_F(AnalyserCodec, DegenerateInputsAreRefused) {
    uint8_t data[8] = {};
    VCI_CAN_OBJ f = Frame(291, false, data);
    auto out = NewMessage();
    out->size = 55;
    EXPECT_FALSE(a.Decode(nullptr, &f, 1, false));
    EXPECT_FALSE(a.Decode(out.get(), nullptr, 1, false));
    EXPECT_FALSE(a.Decode(out.get(), &f, 0, false));
    VCI_CAN_OBJ unknown = Frame(0x555, false, data);
    EXPECT_FALSE(a.Decode(out.get(), &unknown, 1, false));
    EXPECT_EQ(out->size, 55u);
}

// Decodes on separate instances from several threads share no scratch state.
TEST(AnalyserConcurrentDecode, InstancesOnDifferentThreadsDoNotInterfere) {
    std::string text = std::string(kDb) + atest::kJ1939Footer;
    RefMessage ref = atest::ReadReference(kDb)[291];
    auto worker = [&](unsigned seed, bool& ok) {
        CAnalyser a;
        ok = LoadText(a, text);
        std::mt19937_64 rng(seed);
        auto out = NewMessage();
        for (int i = 0; ok && i < 300; ++i) {
            uint8_t data[8];
            for (uint8_t& b : data) b = static_cast<uint8_t>(rng());
            VCI_CAN_OBJ f = Frame(291, false, data);
            ok = a.Decode(out.get(), &f, 1, false) && out->signalCount == ref.signals.size();
            for (uint32_t k = 0; ok && k < out->signalCount; ++k)
                ok = out->signals[k].rawValue ==
                     atest::RefExtract(data, *atest::FindRef(ref, out->signals[k].name));
        }
    };
    bool ok1 = false, ok2 = false;
    std::thread t1(worker, 1u, std::ref(ok1));
    std::thread t2(worker, 2u, std::ref(ok2));
    t1.join();
    t2.join();
    EXPECT_TRUE(ok1);
    EXPECT_TRUE(ok2);
}

// --- multiplexing ------------------------------------------------------------

struct MuxCase {
    uint32_t id;
    uint32_t switchRaw;
    std::vector<std::string> kept;  // in slot order
};

class AnalyserMultiplexing : public AnalyserCodec, public ::testing::WithParamInterface<MuxCase> {};

TEST_P(AnalyserMultiplexing, SwitchValueSelectsSignals) {
    const MuxCase& c = GetParam();
    RefMessage ref = Ref(c.id);
    uint8_t data[8];
    memset(data, 0xA5, 8);
    atest::RefPack(data, *atest::FindRef(ref, "Sw"), c.switchRaw);
    VCI_CAN_OBJ f = Frame(c.id, false, data);
    auto out = NewMessage();
    ASSERT_TRUE(a.Decode(out.get(), &f, 1, false));
    std::vector<std::string> names;
    for (uint32_t i = 0; i < out->signalCount; ++i) names.push_back(out->signals[i].name);
    EXPECT_EQ(names, c.kept);
}

INSTANTIATE_TEST_SUITE_P(Values, AnalyserMultiplexing,
                         ::testing::Values(MuxCase{292, 3, {"Plain", "Sw", "B3", "C3"}},
                                           MuxCase{292, 2, {"Plain", "Sw", "A2", "D2"}},
                                           MuxCase{292, 65539, {"Plain", "Sw", "B3", "C3"}},
                                           MuxCase{292, 7, {"Plain", "Sw"}},
                                           MuxCase{293, 7, {"Sw", "X3"}},
                                           MuxCase{293, 8, {"Sw", "X4"}},
                                           MuxCase{293, 9, {"Sw", "X4"}}));

TEST(AnalyserSelect, KeepsOrderAndLeavesTheTailAlone) {
    auto msg = NewMessage();
    const uint8_t types[] = {1, 0, 2, 1, 1, 1};
    const uint32_t values[] = {5, 0, 0, 4, 5, 4};
    msg->signalCount = 6;
    for (int i = 0; i < 6; ++i) {
        msg->signals[i].startBit = static_cast<uint32_t>(i);
        msg->signals[i].length = 8;
        msg->signals[i].factor = 1;
        msg->signals[i].multiplexerType = types[i];
        msg->signals[i].multiplexerValue = values[i];
    }
    msg->signals[2].rawValue = 5;
    msg->signals[6].startBit = 66;
    CAnalyser a;
    uint16_t value = 0;
    ASSERT_TRUE(a.FindMutiplexerM(msg.get(), value));
    EXPECT_EQ(value, 5);
    a.SelectMutiplexer(msg.get());
    ASSERT_EQ(msg->signalCount, 4u);
    const uint32_t keptStarts[] = {0, 1, 2, 4};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(msg->signals[i].startBit, keptStarts[i]);
    EXPECT_EQ(msg->signals[4].startBit, 4u) << "behind the count: old content";
    EXPECT_EQ(msg->signals[5].startBit, 5u);
    EXPECT_EQ(msg->signals[6].startBit, 66u);
}

TEST(AnalyserSelect, SwitchValueIsTheTruncatedPhysicalLow16Bits) {
    struct Case {
        uint64_t raw;
        uint8_t isSigned;
        double factor, offset;
        uint16_t expected;
    } cases[] = {{65539, 0, 1, 0, 3},     {0xFF, 1, 1, 0, 0xFFFF}, {7, 0, 0.5, 0, 3},
                 {7, 0, -0.5, 0, 0xFFFD}, {1, 0, 1e30, 0, 0},      {3, 0, 1, 0.9, 3}};
    for (const Case& c : cases) {
        auto msg = NewMessage();
        msg->signalCount = 2;
        msg->signals[1] = DBCSignal{};
        msg->signals[1].multiplexerType = 2;
        msg->signals[1].length = 8;
        msg->signals[1].rawValue = c.raw;
        msg->signals[1].isSigned = c.isSigned;
        msg->signals[1].factor = c.factor;
        msg->signals[1].offset = c.offset;
        CAnalyser a;
        uint16_t value = 1234;
        ASSERT_TRUE(a.FindMutiplexerM(msg.get(), value));
        EXPECT_EQ(value, c.expected) << c.raw << " x " << c.factor;
        EXPECT_EQ(msg->signals[1].rawValue, c.raw) << "the record is not touched";
        msg->signals[1].multiplexerType = 1;
        EXPECT_FALSE(a.FindMutiplexerM(msg.get(), value));
    }
}

// --- value descriptions --------------------------------------------------------

struct DescCase {
    uint32_t id;
    const char* signal;
    uint64_t raw;
    std::string desc;
};

class AnalyserDescriptions : public AnalyserCodec,
                             public ::testing::WithParamInterface<DescCase> {};

// The decoded value is read back from its text and compared with the table:
// for a scaled signal that is the physical value, for a negative signed one
// its negative value (raw 0xFF of Neg reads -1, which the table lacks).
TEST_P(AnalyserDescriptions, DecodedValueIsLookedUpInTheTable) {
    const DescCase& c = GetParam();
    RefMessage ref = Ref(c.id);
    uint8_t data[8] = {};
    atest::RefPack(data, *atest::FindRef(ref, c.signal), c.raw);
    VCI_CAN_OBJ f = Frame(c.id, false, data);
    auto out = NewMessage();
    memset(out.get(), 0x33, sizeof *out);
    ASSERT_TRUE(a.Decode(out.get(), &f, 1, false));
    for (uint32_t i = 0; i < out->signalCount; ++i) {
        if (strcmp(out->signals[i].name, c.signal) != 0) continue;
        EXPECT_EQ(std::string(out->signals[i].valueDescription,
                              strnlen(out->signals[i].valueDescription, TARN_VALDESC_LEN)),
                  c.desc);
        return;
    }
    ADD_FAILURE() << "signal missing";
}

INSTANTIATE_TEST_SUITE_P(
    Cases, AnalyserDescriptions,
    ::testing::Values(DescCase{294, "Plain", 2, "Two"}, DescCase{294, "Plain", 3, ""},
                      DescCase{294, "Scaled", 2, "Four"}, DescCase{294, "Scaled", 1, "Two"},
                      DescCase{294, "Neg", 0xFF, ""}, DescCase{294, "Neg", 1, "One"},
                      DescCase{294, "Long", 7, std::string(TARN_VALDESC_LEN, 'd')},
                      // 20-digit texts read back as the nearest double: 2^60 + 1
                      // compares equal to the table's 2^60, 2^60 + 512 does not.
                      DescCase{295, "Big", 1ULL << 60, "Huge"},
                      DescCase{295, "Big", (1ULL << 60) + 1, "Huge"},
                      DescCase{295, "Big", (1ULL << 60) + 512, ""}));

// --- encoding ------------------------------------------------------------------

// Under J1939 every 11-bit id shares group 0, so records are fetched by name.
std::unique_ptr<DBCMessage> RecordNamed(CAnalyser& a, const char* name) {
    auto msg = NewMessage();
    for (bool ok = a.GetFirstMessage(msg.get()); ok; ok = a.GetNextMessage(msg.get()))
        if (strcmp(msg->name, name) == 0) return msg;
    ADD_FAILURE() << name;
    return msg;
}

TEST_F(AnalyserCodec, LongMessagesEncodeIntoSequencedPacketsAndDecodeBack) {
    auto msg = RecordNamed(a, "Long");
    for (uint32_t i = 0; i < msg->signalCount; ++i) msg->signals[i].rawValue = 0xABCDEF >> i;
    std::vector<VCI_CAN_OBJ> frames;
    ASSERT_TRUE(a.Encode(frames, msg.get()));
    ASSERT_EQ(frames.size(), 3u);
    for (uint8_t k = 0; k < 3; ++k) EXPECT_EQ(frames[k].data[0], k + 1);
    EXPECT_EQ(frames[2].data[7], 0xFF) << "20 bytes leave one unused byte";
    auto back = NewMessage();
    ASSERT_TRUE(a.Decode(back.get(), frames.data(), frames.size(), false));
    EXPECT_STREQ(back->name, "Long");
    for (uint32_t i = 0; i < msg->signalCount; ++i)
        EXPECT_EQ(back->signals[i].rawValue,
                  msg->signals[i].rawValue & Mask(msg->signals[i].length));
}

TEST_F(AnalyserCodec, UnselectedMultiplexedSignalsAreNotEncoded) {
    RefMessage ref = Ref(292);
    auto msg = RecordNamed(a, "Muxed");
    for (uint32_t i = 0; i < msg->signalCount; ++i)
        msg->signals[i].rawValue = msg->signals[i].multiplexerType == 2 ? 2 : 0x5A;
    std::vector<VCI_CAN_OBJ> frames;
    ASSERT_TRUE(a.Encode(frames, msg.get()));
    ASSERT_EQ(frames.size(), 1u);
    for (const RefSignal& s : ref.signals) {
        uint64_t raw = atest::RefExtract(frames[0].data, s);
        uint64_t expected = s.name == "Sw" ? 2 : (s.name == "B3" || s.name == "C3") ? 0 : 0x5A;
        EXPECT_EQ(raw, expected) << s.name;
    }
    EXPECT_EQ(msg->signalCount, 6u) << "the caller's record is not changed";
}

TEST_F(AnalyserCodec, EncodeFindsTheMessageByNameOnly) {
    auto msg = RecordNamed(a, "Mixed");
    std::vector<VCI_CAN_OBJ> frames(2);
    snprintf(msg->name, sizeof msg->name, "NoSuchMessage");
    EXPECT_FALSE(a.Encode(frames, msg.get()));
    EXPECT_EQ(frames.size(), 2u);
    EXPECT_FALSE(a.Encode(frames, nullptr));
    msg = RecordNamed(a, "Muxed");
    msg->id = 0x7FF;
    EXPECT_TRUE(a.Encode(frames, msg.get()));
    EXPECT_EQ(frames[0].id, 292u);
}

// Real messages: whatever raw values the record holds, the frame is exactly
// what the reference packer makes of them, and it decodes back to them.
TEST(AnalyserCorpusEncode, PayloadsMatchTheReferencePackerAndDecodeBack) {
    std::string path = atest::CorpusPath("opendbc__toyota_nodsu_pt_generated.dbc");
    if (!atest::Exists(path)) GTEST_SKIP() << "corpus not available";
    auto refs = atest::ReadReference(atest::ReadAll(path));
    CAnalyser a;
    ASSERT_TRUE(atest::LoadPath(a, path));
    std::mt19937_64 rng(9);
    auto msg = NewMessage();
    auto back = NewMessage();
    int checked = 0;
    for (const auto& e : refs) {
        const RefMessage& ref = e.second;
        bool usable = ref.dlc == 8 && !ref.signals.empty() && ref.name.size() < 32;
        std::vector<int> owner(64, -1);
        for (size_t k = 0; usable && k < ref.signals.size(); ++k) {
            const RefSignal& s = ref.signals[k];
            usable = s.mux.empty() && Fits(s, 8);
            for (uint32_t p : usable ? atest::BitPositions(s.startBit, s.length, s.motorola)
                                     : std::vector<uint32_t>{})
                usable = usable && (owner[p] < 0 ? (owner[p] = static_cast<int>(k), true) : false);
        }
        if (!usable) continue;
        ASSERT_TRUE(a.GetMessageById(static_cast<uint32_t>(e.first), msg.get()));
        uint8_t expected[8] = {};
        for (uint32_t i = 0; i < msg->signalCount; ++i) {
            const RefSignal* s = atest::FindRef(ref, msg->signals[i].name);
            msg->signals[i].rawValue = rng() & Mask(s->length);
            atest::RefPack(expected, *s, msg->signals[i].rawValue);
        }
        std::vector<VCI_CAN_OBJ> frames;
        ASSERT_TRUE(a.Encode(frames, msg.get())) << ref.name;
        ASSERT_EQ(frames.size(), 1u);
        EXPECT_EQ(frames[0].dataLen, msg->size) << ref.name;
        EXPECT_EQ(memcmp(frames[0].data, expected, 8), 0) << ref.name;
        ASSERT_TRUE(a.Decode(back.get(), frames.data(), 1, false));
        ASSERT_EQ(back->signalCount, msg->signalCount);
        for (uint32_t i = 0; i < msg->signalCount; ++i)
            if (ExtractsExactly(*atest::FindRef(ref, msg->signals[i].name))) {
                EXPECT_EQ(back->signals[i].rawValue, msg->signals[i].rawValue)
                    << ref.name << "." << msg->signals[i].name;
            }
        ++checked;
    }
    EXPECT_GT(checked, 20);
}

// --- conversions -------------------------------------------------------------

DBCSignal Sig(uint32_t length, uint8_t isSigned, double factor, double offset,
              uint8_t valueType = 0) {
    DBCSignal s{};
    s.length = length;
    s.isSigned = isSigned;
    s.factor = factor;
    s.offset = offset;
    s.valueType = valueType;
    return s;
}

struct ActualCase {
    DBCSignal sig;
    uint64_t raw;
    double expected;
    uint64_t rawAfter;
};

class AnalyserActual : public ::testing::TestWithParam<ActualCase> {};

TEST_P(AnalyserActual, ScalesTheMaskedRawValue) {
    const ActualCase& c = GetParam();
    uint64_t raw = c.raw;
    EXPECT_EQ(CalcActualValue(&c.sig, &raw), c.expected);
    EXPECT_EQ(raw, c.rawAfter);
}

uint64_t FloatBits(float f) {
    uint32_t b;
    memcpy(&b, &f, 4);
    return b;
}

uint64_t DoubleBits(double d) {
    uint64_t b;
    memcpy(&b, &d, 8);
    return b;
}

INSTANTIATE_TEST_SUITE_P(
    Table, AnalyserActual,
    ::testing::Values(ActualCase{Sig(4, 1, 0.5, 10), 0xF, 9.5, 0xF},
                      ActualCase{Sig(4, 0, 0.5, 10), 0xF, 17.5, 0xF},
                      ActualCase{Sig(4, 1, 1, 0), 0xFE, -2, 0xE},
                      ActualCase{Sig(8, 1, 1, 0), 0x80, -128, 0x80},
                      ActualCase{Sig(64, 1, 1, 0), ~0ULL, -1, ~0ULL},
                      ActualCase{Sig(64, 0, 1, 0), 1ULL << 63, 9223372036854775808.0, 1ULL << 63},
                      ActualCase{Sig(0, 1, 3, 7), 0xFF, 7, 0},
                      ActualCase{Sig(32, 0, 2, 1, 1), FloatBits(1.5f) | (0xABCDULL << 32), 4.0,
                                 FloatBits(1.5f) | (0xABCDULL << 32)},
                      ActualCase{Sig(64, 0, 0.5, -1, 2), DoubleBits(10.0), 4.0, DoubleBits(10.0)}));

struct RawCase {
    DBCSignal sig;
    double physical;
    uint64_t raw;
    double writtenBack;
};

class AnalyserRaw : public ::testing::TestWithParam<RawCase> {};

TEST_P(AnalyserRaw, ClampsRoundsDownAndWritesBackWhatTheRawMeans) {
    const RawCase& c = GetParam();
    double p = c.physical;
    EXPECT_EQ(CalcRawValue(&c.sig, &p), c.raw);
    EXPECT_EQ(p, c.writtenBack);
}

INSTANTIATE_TEST_SUITE_P(
    Table, AnalyserRaw,
    ::testing::Values(
        RawCase{Sig(8, 0, 1, 0), 300, 255, 255}, RawCase{Sig(8, 0, 1, 0), -5, 0, 0},
        RawCase{Sig(8, 0, 1, 0), 2.99999995, 3, 3}, RawCase{Sig(8, 0, 1, 0), 2.5, 2, 2},
        RawCase{Sig(8, 1, 1, 0), -200, 0x81, -127}, RawCase{Sig(8, 1, 1, 0), 200, 0x7F, 127},
        RawCase{Sig(8, 1, 1, 0), -3.7, 0xFD, -3},
        RawCase{Sig(16, 0, 0.1, 0), 0.3, 3, 0.30000000000000004}, RawCase{Sig(8, 0, 0, 5), 7, 2, 5},
        RawCase{Sig(8, 0, 2, -40), 0, 20, 0}, RawCase{Sig(0, 0, 1, 0), 9, 0, 0},
        RawCase{Sig(63, 0, 1, 0), 1e30, (1ULL << 63) - 1, 9223372036854775807.0},
        RawCase{Sig(64, 0, 1, 0), 1e30, ~0ULL, 18446744073709551615.0},
        RawCase{Sig(64, 1, 1, 0), -1e30, (1ULL << 63) + 1, -9223372036854775807.0},
        RawCase{Sig(32, 0, 2, 1, 1), 4.0, FloatBits(1.5f), 4.0},
        RawCase{Sig(64, 0, 0.5, -1, 2), 4.0, DoubleBits(10.0), 4.0}));

TEST(AnalyserConversion, NullPointersGiveZero) {
    DBCSignal s = Sig(8, 0, 1, 0);
    uint64_t raw = 5;
    double p = 5;
    EXPECT_EQ(CalcActualValue(nullptr, &raw), 0.0);
    EXPECT_EQ(CalcActualValue(&s, nullptr), 0.0);
    EXPECT_EQ(CalcRawValue(nullptr, &p), 0u);
    EXPECT_EQ(CalcRawValue(&s, nullptr), 0u);
    EXPECT_EQ(p, 5.0);
}

// For in-range physical values the raw value lands within one factor step,
// the written-back value is exactly what that raw value means, and the raw
// value fits the signal's width.
TEST(AnalyserConversion, RawThenActualStaysWithinOneStep) {
    std::mt19937_64 rng(1);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const double factors[] = {1, 0.5, 0.1, 0.125, 2, 0.001, 3.3, -0.25};
    for (int i = 0; i < 20000; ++i) {
        uint32_t length = 1 + static_cast<uint32_t>(rng() % 40);
        uint8_t isSigned = (rng() & 1) && length > 1;
        double factor = factors[rng() % 8];
        double offset = static_cast<double>(static_cast<int>(rng() % 2001) - 1000) / 8;
        DBCSignal s = Sig(length, isSigned, factor, offset);
        double lo = isSigned ? 1.0 - std::ldexp(1.0, static_cast<int>(length) - 1) : 0.0;
        double hi = isSigned ? std::ldexp(1.0, static_cast<int>(length) - 1) - 1.0
                             : std::ldexp(1.0, static_cast<int>(length)) - 1.0;
        double physical = (lo + (hi - lo) * unit(rng)) * factor + offset;
        double written = physical;
        uint64_t raw = CalcRawValue(&s, &written);
        uint64_t copy = raw;
        EXPECT_EQ(written, CalcActualValue(&s, &copy));
        EXPECT_EQ(raw & ~Mask(length), 0u);
        EXPECT_LE(std::fabs(written - physical), std::fabs(factor) * (1 + 1e-9))
            << "length " << length << " signed " << int(isSigned) << " factor " << factor
            << " physical " << physical;
    }
}

}  // namespace
