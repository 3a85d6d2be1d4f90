// Decoding and encoding through the analyser, multiplexer selection, value
// descriptions and the raw/physical conversions. Payloads are built and read
// back with the bit-by-bit reference packer, which shares no code with the coder.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "analyser_test_util.h"

using atest::LoadText;
using atest::NewMessage;
using atest::RefMessage;
using atest::RefSignal;

namespace {

constexpr size_t kPayload = 1793;

VCI_CAN_OBJ Frame(uint32_t id, bool extended, const uint8_t* data) {
    VCI_CAN_OBJ f{};
    f.id = id;
    f.externFlag = extended ? 1 : 0;
    f.dataLen = 8;
    memcpy(f.data, data, 8);
    return f;
}

// A signal the reference packer can check within the first `bytes` bytes.
// Signals of 32 bits or more whose bits after the first byte end in a partial
// byte are extracted with a 32-bit shift by design, which the packer does not
// model, so they are left out.
bool Checkable(const RefSignal& s, size_t bytes) {
    if (s.length < 1 || s.length > 64) return false;
    const std::vector<uint64_t> pos = s.Bits();
    if (*std::max_element(pos.begin(), pos.end()) / 8 >= bytes) return false;
    const uint32_t first = std::min<uint32_t>(8 - pos.front() % 8, s.length);
    return s.length < 32 || (s.length - first) % 8 == 0;
}

double SignedValue(const RefSignal& s, uint64_t raw) {
    if (s.isSigned && s.length >= 1 && ((raw >> (s.length - 1)) & 1))
        return static_cast<double>(static_cast<int64_t>(raw | ~refpack::Mask(s.length)));
    return static_cast<double>(raw);
}

// Switch value from the text's definition: physical value, truncated, low 16
// bits. With several switches the one sorted first (start bit, length) counts.
bool SwitchValue(const RefMessage& ref, const uint8_t* payload, uint32_t& value) {
    const RefSignal* sw = nullptr;
    for (const RefSignal& s : ref.signals)
        if (s.mux.find('M') != std::string::npos &&
            (!sw || std::tie(s.startBit, s.length) < std::tie(sw->startBit, sw->length)))
            sw = &s;
    if (!sw) return false;
    double phys = SignedValue(*sw, sw->Extract(payload)) * sw->factor + sw->offset;
    value = static_cast<uint16_t>(static_cast<int64_t>(phys));
    return true;
}

bool Selected(const RefSignal& s, bool hasSwitch, uint32_t value) {
    if (!hasSwitch || s.mux.empty() || s.mux.find('M') != std::string::npos) return true;
    return strtoul(s.mux.c_str() + 1, nullptr, 10) == value;
}

// Key under which the coder files a message: its group under J1939, else
// the identifier without flags.
uint32_t LookupKey(uint64_t id, bool j1939) {
    if (!j1939 || (id & 0x1FFFFFFF) <= 0x7FF) return id & 0x1FFFFFFF;
    return ((id >> 16) & 0xFF) < 240 ? id & 0x3FF0000u : id & 0x3FFFF00u;
}

// --- real messages ------------------------------------------------------------

// Decodes a random payload of a real message and checks the selected signals,
// their raw values and value descriptions against the text; then encodes the
// decoded record and checks the frame against the reference packer.
void CheckDecodeAndEncode(CAnalyser& a, uint64_t id, const RefMessage& ref, refpack::Rng& rng,
                          int& encoded) {
    std::vector<uint8_t> payload(kPayload, 0);
    for (int i = 0; i < 8; ++i) payload[i] = static_cast<uint8_t>(rng.Next());
    if (rng.Next() % 4 == 0) payload[0] = payload[1] = 0;  // small switch values
    VCI_CAN_OBJ f = Frame(id & 0x1FFFFFFF, id >> 31, payload.data());
    auto out = NewMessage();
    ASSERT_TRUE(a.Decode(out.get(), &f, 1, false)) << ref.name;
    EXPECT_EQ(out->id, f.id);
    EXPECT_EQ(out->extended, f.externFlag);
    uint32_t sw = 0;
    const bool hasSwitch = SwitchValue(ref, payload.data(), sw);
    std::set<std::string> expected;
    for (const RefSignal& s : ref.signals)
        if (Selected(s, hasSwitch, sw)) expected.insert(s.name);
    ASSERT_EQ(out->signalCount, expected.size()) << ref.name;
    bool encodable = ref.dlc == 8;
    uint8_t packed[8] = {}, owner[8] = {};
    for (uint32_t i = 0; i < out->signalCount; ++i) {
        const DBCSignal& slot = out->signals[i];
        const RefSignal* s = atest::Find(ref, slot.name);
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(expected.count(s->name), 1u) << s->name;
        if (!Checkable(*s, kPayload)) {
            encodable = false;
            continue;
        }
        const uint64_t raw = s->Extract(payload.data());
        EXPECT_EQ(slot.rawValue, raw) << ref.name << "." << s->name;
        encodable = encodable && Checkable(*s, 8);
        if (encodable) s->Pack(packed, raw);
        for (uint64_t p : s->Bits()) {
            encodable = encodable && !refpack::GetBit(owner, p);  // bits shared: no check
            if (encodable) refpack::SetBit(owner, p, true);
        }
        if (s->values.empty() || s->factor != 1.0 || s->offset != 0.0 || s->valueType) continue;
        auto hit = std::find_if(s->values.begin(), s->values.end(),
                                [&](const auto& v) { return v.first == SignedValue(*s, raw); });
        EXPECT_EQ(std::string(slot.valueDescription),
                  hit == s->values.end() ? "" : hit->second.substr(0, 127))
            << s->name << " raw " << raw;
    }
    if (!encodable) return;
    std::vector<VCI_CAN_OBJ> frames;
    ASSERT_TRUE(a.Encode(frames, out.get())) << ref.name;
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(std::vector<uint8_t>(frames[0].data, frames[0].data + 8),
              std::vector<uint8_t>(packed, packed + 8))
        << ref.name;
    ++encoded;
}

class AnalyserCorpusCodec : public ::testing::TestWithParam<const char*> {};

TEST_P(AnalyserCorpusCodec, SignalsMatchTheReferencePackerBothWays) {
    const std::string path = refpack::CorpusFile(GetParam());
    if (path.empty()) GTEST_SKIP() << "corpus not available";
    const atest::RefDb refs = atest::ReadFile(path);
    CAnalyser a;
    ASSERT_TRUE(atest::LoadPath(a, path));
    const bool j1939 = a.GetProtocol() == TARN_PROTOCOL_J1939;
    std::map<uint32_t, int> keys;
    for (const auto& e : refs) ++keys[LookupKey(e.first, j1939)];
    refpack::Rng rng(11);
    int decoded = 0, encoded = 0;
    for (const auto& e : refs) {
        const RefMessage& ref = e.second;
        std::set<std::string> names;
        for (const RefSignal& s : ref.signals) names.insert(s.name);
        // A shared lookup key makes the later message win the lookup.
        if (ref.dlc > 8 || names.empty() || names.size() > TARN_MAX_SIGNALS ||
            names.size() != ref.signals.size() || keys[LookupKey(e.first, j1939)] > 1)
            continue;
        for (int round = 0; round < 4; ++round) CheckDecodeAndEncode(a, e.first, ref, rng, encoded);
        ++decoded;
    }
    EXPECT_GT(decoded, 0);
    EXPECT_GT(encoded, 0);
}

INSTANTIATE_TEST_SUITE_P(Files, AnalyserCorpusCodec,
                         ::testing::Values("cantools__multiplex_2.dbc", "can-dbc__j1939.dbc",
                                           "cantools__multiplex_choices.dbc", "opendbc__vw_pq.dbc",
                                           "opendbc__toyota_nodsu_pt_generated.dbc"));

// --- a hand-written database ------------------------------------------------

const char* kDb =
    "VERSION \"\"\n\nBU_: N\n\n"
    "BO_ 292 Muxed: 8 N\n SG_ Plain : 0|8@1+ (1,0) [0|0] \"\" N\n"
    " SG_ Sw M : 8|24@1+ (1,0) [0|0] \"\" N\n SG_ A2 m2 : 32|8@1+ (1,0) [0|0] \"\" N\n"
    " SG_ B3 m3 : 40|8@1+ (1,0) [0|0] \"\" N\n SG_ C3 m3 : 48|8@1+ (1,0) [0|0] \"\" N\n"
    " SG_ D2 m2 : 56|8@1+ (1,0) [0|0] \"\" N\n\n"
    "BO_ 293 Halves: 8 N\n SG_ Sw M : 0|8@1+ (0.5,0) [0|0] \"\" N\n"
    " SG_ X3 m3 : 8|8@1+ (1,0) [0|0] \"\" N\n SG_ X4 m4 : 16|8@1+ (1,0) [0|0] \"\" N\n\n"
    "BO_ 294 Signed: 8 N\n SG_ Sw M : 0|8@1- (1,0) [0|0] \"\" N\n"
    " SG_ Y m65535 : 8|8@1+ (1,0) [0|0] \"\" N\n SG_ Z m255 : 16|8@1+ (1,0) [0|0] \"\" N\n\n"
    "BO_ 295 Negative: 8 N\n SG_ Sw M : 0|8@1+ (-0.5,0) [0|0] \"\" N\n"
    " SG_ Y m65533 : 8|8@1+ (1,0) [0|0] \"\" N\n\n"
    "BO_ 296 Described: 8 N\n SG_ Scaled : 8|8@1+ (2,0) [0|0] \"\" N\n"
    " SG_ Neg : 16|8@1- (1,0) [0|0] \"\" N\n SG_ Long : 24|8@1+ (1,0) [0|0] \"\" N\n\n"
    "BO_ 297 Wide64: 8 N\n SG_ Big : 0|64@1+ (1,0) [0|0] \"\" N\n"
    " SG_ Double : 0|64@1+ (2,0) [0|0] \"\" N\n\n"
    "BO_ 298 Fractions: 8 N\n SG_ Fine : 0|32@1+ (1E-07,0) [0|0] \"\" N\n"
    " SG_ Tenths : 32|8@1+ (0.1,0) [0|0] \"\" N\n\n"
    "VAL_ 296 Scaled 1 \"One\" 2 \"Two\" 4 \"Four\" ;\nVAL_ 296 Neg 255 \"All set\" 1 \"One\" ;\n"
    "VAL_ 297 Big 1152921504606846976 \"Huge\" ;\nVAL_ 297 Double 2305843009213693952 \"Twice\" ;\n"
    "VAL_ 298 Fine 3 \"Three\" ;\nVAL_ 298 Tenths 3 \"Three\" ;\n";

class AnalyserCodec : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(LoadText(a, kDb + ("VAL_ 296 Long 7 \"" + std::string(200, 'd') + "\" ;\n")));
    }

    // Decodes one frame of message `id` whose `signal` holds `raw`.
    std::unique_ptr<DBCMessage> DecodeWith(uint32_t id, const char* signal, uint64_t raw) {
        uint8_t data[8];
        memset(data, 0xA5, 8);
        atest::Find(refs.at(id), signal)->Pack(data, raw);
        VCI_CAN_OBJ f = Frame(id, false, data);
        auto out = NewMessage();
        EXPECT_TRUE(a.Decode(out.get(), &f, 1, false)) << id;
        return out;
    }

    CAnalyser a;
    const atest::RefDb refs = atest::ReadText(kDb);
};

// The switch value is the physical value truncated toward zero, low 16 bits;
// the plain slots, the switch and the matching slots stay, in slot order.
TEST_F(AnalyserCodec, SwitchValuesSelectSignalsInSlotOrder) {
    const std::tuple<uint32_t, uint32_t, std::vector<std::string>> cases[] = {
        {292, 3, {"Plain", "Sw", "B3", "C3"}},
        {292, 2, {"Plain", "Sw", "A2", "D2"}},
        {292, 65539, {"Plain", "Sw", "B3", "C3"}},
        {292, 7, {"Plain", "Sw"}},
        {293, 7, {"Sw", "X3"}},  // 3.5
        {293, 8, {"Sw", "X4"}},
        {294, 0xFF, {"Sw", "Y"}},  // -1
        {295, 7, {"Sw", "Y"}}};    // -3.5
    for (const auto& [id, sw, kept] : cases)
        EXPECT_EQ(atest::Names(*DecodeWith(id, "Sw", sw)), kept) << id << " " << sw;
}

// The decoded value is compared with the table: for a scaled signal that is
// the physical value, for a negative signed one its negative value (raw 0xFF
// of Neg is -1, which the table lacks). Long texts fill the whole buffer, and
// 20-digit table values read as the nearest double. Scaled values are
// compared as their six-decimal text reads: 3.0000004 and 30 * 0.1 as 3.
TEST_F(AnalyserCodec, DecodedValueIsLookedUpInTheTable) {
    const std::tuple<uint32_t, const char*, uint64_t, std::string> cases[] = {
        {296, "Scaled", 2, "Four"},
        {296, "Neg", 0xFF, ""},
        {296, "Long", 7, std::string(TARN_VALDESC_LEN, 'd')},
        {297, "Big", (1ULL << 60) + 1, "Huge"},
        {297, "Big", (1ULL << 60) + 512, ""},
        {297, "Double", 1ULL << 60, "Twice"},
        {298, "Fine", 30000004, "Three"},
        {298, "Fine", 29999996, "Three"},
        {298, "Fine", 30000006, ""},
        {298, "Tenths", 30, "Three"}};
    for (const auto& [id, signal, raw, expected] : cases) {
        auto out = DecodeWith(id, signal, raw);
        const auto names = atest::Names(*out);
        const size_t i = std::find(names.begin(), names.end(), signal) - names.begin();
        ASSERT_LT(i, names.size()) << signal;
        const char* desc = out->signals[i].valueDescription;
        EXPECT_EQ(std::string(desc, strnlen(desc, TARN_VALDESC_LEN)), expected) << raw;
    }
}

TEST_F(AnalyserCodec, UnselectedMultiplexedSignalsAreNotEncoded) {
    auto msg = NewMessage();
    ASSERT_TRUE(a.GetMessageById(292, msg.get()));
    for (uint32_t i = 0; i < msg->signalCount; ++i)
        msg->signals[i].rawValue = msg->signals[i].multiplexerType == 2 ? 2 : 0x5A;
    std::vector<VCI_CAN_OBJ> frames;
    ASSERT_TRUE(a.Encode(frames, msg.get()));
    ASSERT_EQ(frames.size(), 1u);
    for (const RefSignal& s : refs.at(292).signals) {
        uint64_t expected = s.name == "Sw" ? 2 : (s.name == "B3" || s.name == "C3") ? 0 : 0x5A;
        EXPECT_EQ(s.Extract(frames[0].data), expected) << s.name;
    }
    EXPECT_EQ(msg->signalCount, 6u) << "the caller's record is not changed";
}

TEST_F(AnalyserCodec, DegenerateInputsAreRefusedAndLeaveTheRecord) {
    const uint8_t data[8] = {};
    const VCI_CAN_OBJ known = Frame(292, false, data), unknown = Frame(0x555, false, data);
    auto out = NewMessage();
    out->size = 55;
    EXPECT_FALSE(a.Decode(nullptr, &known, 1, false));
    EXPECT_FALSE(a.Decode(out.get(), nullptr, 1, false));
    EXPECT_FALSE(a.Decode(out.get(), &known, 0, false));
    EXPECT_FALSE(a.Decode(out.get(), &unknown, 1, false));
    EXPECT_EQ(out->size, 55u);
}

// Under J1939 an identifier lookup (TARN_Decode's) can decode another message
// of a group than the group lookup finds. The record shows the found one with
// the raw values its own last decode left, and its table texts for the
// values decoded under the same signal name.
TEST(AnalyserGroupDecode, RecordShowsTheGroupsMessageWithItsHeldValues) {
    CAnalyser a;
    ASSERT_TRUE(
        LoadText(a, std::string(atest::kJ1939Header) +
                        "BO_ 2566844672 A: 8 Node\n SG_ S : 0|8@1+ (1,0) [0|0] \"\" Node\n\n"
                        "BO_ 2566844926 B: 8 Node\n SG_ S : 8|8@1+ (2,0) [0|0] \"\" Node\n\n" +
                        atest::kJ1939Footer + "VAL_ 2566844926 S 5 \"Five\" 6 \"Six\" ;\n"));
    const uint8_t data[8] = {5, 3};
    const VCI_CAN_OBJ f = Frame(0x18FEF100, true, data);
    const std::tuple<bool, uint64_t, std::string> steps[] = {
        {true, 0, "Five"},   // A decoded (S = 5), B never
        {false, 3, "Six"},   // B decoded: S = 3, physical 6
        {true, 3, "Five"}};  // A again, B keeps its 3
    auto out = NewMessage();
    for (const auto& [byId, raw, desc] : steps) {
        ASSERT_TRUE(a.Decode(out.get(), &f, 1, byId));
        EXPECT_EQ(std::string(out->name), "B");
        EXPECT_EQ(out->id, 0x18FEF100u);
        ASSERT_EQ(out->signalCount, 1u);
        EXPECT_EQ(out->signals[0].startBit, 8u);
        EXPECT_EQ(out->signals[0].rawValue, raw) << byId;
        EXPECT_EQ(std::string(out->signals[0].valueDescription), desc) << byId;
    }
}

// Decodes from several threads, on an instance each or on one together, see
// their own frame's values: no scratch state is shared, and the plans a
// shared instance builds on first use come out whole.
TEST(AnalyserConcurrentDecode, ThreadsSeeTheirOwnValues) {
    const atest::RefDb refs = atest::ReadText(kDb);
    CAnalyser shared;
    ASSERT_TRUE(LoadText(shared, kDb));
    auto worker = [&](uint64_t seed, bool& ok) {
        CAnalyser own;
        ok = LoadText(own, kDb);
        refpack::Rng rng(seed);
        auto out = NewMessage();
        for (int i = 0; ok && i < 400; ++i) {
            const auto& [id, ref] = *std::next(refs.begin(), rng.Next() % refs.size());
            uint8_t data[8];
            for (uint8_t& b : data) b = static_cast<uint8_t>(rng.Next());
            VCI_CAN_OBJ f = Frame(static_cast<uint32_t>(id), false, data);
            ok = (i % 2 ? shared : own).Decode(out.get(), &f, 1, false);
            for (uint32_t k = 0; ok && k < out->signalCount; ++k)
                ok = out->signals[k].rawValue ==
                     atest::Find(ref, out->signals[k].name)->Extract(data);
        }
    };
    bool ok1 = false, ok2 = false;
    std::thread t1(worker, 1, std::ref(ok1)), t2(worker, 2, std::ref(ok2));
    t1.join();
    t2.join();
    EXPECT_TRUE(ok1 && ok2);
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

template <class T>
uint64_t BitsOf(T value) {
    uint64_t bits = 0;
    memcpy(&bits, &value, sizeof value);
    return bits;
}

// The integer raw value is masked to the length (and written back so),
// sign-extended when signed; float types read the bit pattern.
TEST(AnalyserConversion, ActualValueScalesTheMaskedRawValue) {
    const uint64_t f15 = BitsOf(1.5f) | (0xABCDULL << 32), d10 = BitsOf(10.0);
    // Signal, raw value, result, raw value afterwards.
    const std::tuple<DBCSignal, uint64_t, double, uint64_t> cases[] = {
        {Sig(4, 1, 0.5, 10), 0xF, 9.5, 0xF},    {Sig(4, 0, 0.5, 10), 0xF, 17.5, 0xF},
        {Sig(4, 1, 1, 0), 0xFE, -2, 0xE},       {Sig(8, 1, 1, 0), 0x80, -128, 0x80},
        {Sig(64, 1, 1, 0), ~0ULL, -1, ~0ULL},   {Sig(64, 0, 1, 0), 1ULL << 63, 0x1p63, 1ULL << 63},
        {Sig(0, 1, 3, 7), 0xFF, 7, 0},          {Sig(32, 0, 2, 1, 1), f15, 4.0, f15},
        {Sig(64, 0, 0.5, -1, 2), d10, 4.0, d10}};
    for (const auto& [sig, in, expected, after] : cases) {
        uint64_t raw = in;
        EXPECT_EQ(CalcActualValue(&sig, &raw), expected) << std::hex << in;
        EXPECT_EQ(raw, after) << std::hex << in;
    }
    uint64_t raw = 5;
    EXPECT_EQ(CalcActualValue(nullptr, &raw), 0.0);
    EXPECT_EQ(CalcActualValue(&std::get<0>(cases[0]), nullptr), 0.0);
}

// The raw value is clamped to the signal's range and rounded toward zero
// (with a tolerance for values a hair below an integer); the physical value
// is rewritten to what the raw value means.
TEST(AnalyserConversion, RawValueClampsTruncatesAndWritesBack) {
    // Signal, physical value, raw value, physical value written back.
    const std::tuple<DBCSignal, double, uint64_t, double> cases[] = {
        {Sig(8, 0, 1, 0), 300, 255, 255},
        {Sig(8, 0, 1, 0), -5, 0, 0},
        {Sig(8, 0, 1, 0), 2.99999995, 3, 3},
        {Sig(8, 0, 1, 0), 2.5, 2, 2},
        {Sig(8, 1, 1, 0), -200, 0x81, -127},
        {Sig(8, 1, 1, 0), -3.7, 0xFD, -3},
        {Sig(16, 0, 0.1, 0), 0.3, 3, 0.30000000000000004},
        {Sig(8, 0, 0, 5), 7, 2, 5},
        {Sig(0, 0, 1, 0), 9, 0, 0},
        {Sig(63, 0, 1, 0), 1e30, (1ULL << 63) - 1, 0x1p63 - 1},
        {Sig(64, 0, 1, 0), 1e30, ~0ULL, 0x1p64 - 1},
        {Sig(64, 1, 1, 0), -1e30, (1ULL << 63) + 1, 1 - 0x1p63},
        {Sig(32, 0, 2, 1, 1), 4.0, BitsOf(1.5f), 4.0},
        {Sig(64, 0, 0.5, -1, 2), 4.0, BitsOf(10.0), 4.0}};
    for (const auto& [sig, physical, raw, written] : cases) {
        double p = physical;
        EXPECT_EQ(CalcRawValue(&sig, &p), raw) << physical;
        EXPECT_EQ(p, written) << physical;
    }
    double p = 5;
    EXPECT_EQ(CalcRawValue(nullptr, &p), 0u);
    EXPECT_EQ(CalcRawValue(&std::get<0>(cases[0]), nullptr), 0u);
    EXPECT_EQ(p, 5.0);
}

// For in-range physical values the raw value fits the signal's width and
// lands within one factor step, and the written-back value is exactly what
// that raw value means.
TEST(AnalyserConversion, RawThenActualStaysWithinOneStep) {
    refpack::Rng rng(1);
    const double factors[] = {1, 0.5, 0.1, 0.125, 2, 0.001, 3.3, -0.25};
    for (int i = 0; i < 20000; ++i) {
        const uint32_t length = 1 + static_cast<uint32_t>(rng.Next() % 40);
        const uint8_t isSigned = (rng.Next() & 1) && length > 1;
        const double factor = factors[rng.Next() % 8];
        const double offset = static_cast<double>(static_cast<int>(rng.Next() % 2001) - 1000) / 8;
        const DBCSignal s = Sig(length, isSigned, factor, offset);
        const double span = std::ldexp(1.0, static_cast<int>(length) - isSigned);
        const double lo = isSigned ? 1.0 - span : 0.0, hi = span - 1.0;
        const double unit = static_cast<double>(rng.Next() >> 11) / 9007199254740992.0;
        const double physical = (lo + (hi - lo) * unit) * factor + offset;
        double written = physical;
        uint64_t raw = CalcRawValue(&s, &written), copy = raw;
        EXPECT_EQ(written, CalcActualValue(&s, &copy));
        EXPECT_EQ(raw & ~refpack::Mask(length), 0u);
        EXPECT_LE(std::fabs(written - physical), std::fabs(factor) * (1 + 1e-9))
            << "length " << length << " signed " << int(isSigned) << " factor " << factor
            << " physical " << physical;
    }
}

}  // namespace
