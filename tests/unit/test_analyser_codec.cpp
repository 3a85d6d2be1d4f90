// The analyser over hand-written databases: records, multiplexer selection,
// value descriptions and encoding, with payloads from the reference packer.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "analyser_test_util.h"
#include "support/ref_packer.h"

namespace {

using atest::LoadText;
using atest::Names;
using atest::NewMessage;

const DBCSignal* Slot(const DBCMessage& m, const std::string& name) {
    for (uint32_t i = 0; i < m.signalCount; ++i)
        if (name == m.signals[i].name) return &m.signals[i];
    return nullptr;
}

VCI_CAN_OBJ Frame(uint32_t id, bool extended, const uint8_t* data) {
    VCI_CAN_OBJ f{};
    f.id = id;
    f.externFlag = extended ? 1 : 0;
    f.dataLen = 8;
    memcpy(f.data, data, 8);
    return f;
}

const std::string kJ1939 = std::string(atest::kJ1939Header) +
                           "BO_ 2566844672 A: 8 Node\n SG_ S : 0|8@1+ (1,0) [0|0] \"\" Node\n\n"
                           "BO_ 2566844926 B: 8 Node\n SG_ S : 8|8@1+ (2,0) [0|0] \"\" Node\n\n" +
                           atest::kJ1939Footer + "VAL_ 2566844926 S 5 \"Five\" 6 \"Six\" ;\n";

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

    // Decodes one frame of message `id` whose `signal` holds `raw`, other bits
    // 0xA5; `def` keeps the message as the lookup reports it.
    std::unique_ptr<DBCMessage> DecodeWith(uint32_t id, const char* signal, uint64_t raw) {
        auto out = NewMessage();
        EXPECT_TRUE(a.GetMessageById(id, def.get()));
        const DBCSignal* s = Slot(*def, signal);
        uint8_t data[8];
        memset(data, 0xA5, 8);
        refpack::Pack(data, s->startBit, s->length, false, raw);
        VCI_CAN_OBJ f = Frame(id, false, data);
        EXPECT_TRUE(a.Decode(out.get(), &f, 1, false)) << id;
        return out;
    }

    CAnalyser a;
    std::unique_ptr<DBCMessage> def = NewMessage();
};

// The switch value is the physical value truncated toward zero, low 16 bits;
// the plain slots, the switch and the matching slots stay, in slot order,
// and the slots behind them keep the message's own slots at those places.
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
    for (const auto& [id, sw, kept] : cases) {
        const auto out = DecodeWith(id, "Sw", sw);
        EXPECT_EQ(Names(*out), kept) << id << " " << sw;
        for (uint32_t p = out->signalCount; p < def->signalCount; ++p)
            EXPECT_STREQ(out->signals[p].name, def->signals[p].name) << id << " " << sw;
    }
}

// Tables are searched with the physical value (signed: -1 for raw 0xFF) as
// its six-decimal text reads: 3.0000004 and 30 * 0.1 find 3. Long texts fill
// the buffer; 20-digit table values read as the nearest double.
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
        const auto out = DecodeWith(id, signal, raw);
        const DBCSignal* s = Slot(*out, signal);
        ASSERT_NE(s, nullptr) << signal;
        EXPECT_EQ(std::string(s->valueDescription, strnlen(s->valueDescription, TARN_VALDESC_LEN)),
                  expected)
            << raw;
    }
}

TEST_F(AnalyserCodec, UnselectedMultiplexedSignalsAreNotEncoded) {
    auto msg = NewMessage();
    ASSERT_TRUE(a.GetMessageById(292, msg.get()));
    for (uint32_t i = 0; i < msg->signalCount; ++i)
        msg->signals[i].rawValue = msg->signals[i].multiplexerType == TARN_MUX_SWITCH ? 2 : 0x5A;
    std::vector<VCI_CAN_OBJ> frames;
    ASSERT_TRUE(a.Encode(frames, msg.get()));
    ASSERT_EQ(frames.size(), 1u);
    for (uint32_t i = 0; i < msg->signalCount; ++i) {
        const DBCSignal& s = msg->signals[i];
        const std::string name = s.name;
        const uint64_t want = name == "Sw" ? 2 : (name == "B3" || name == "C3") ? 0 : 0x5A;
        EXPECT_EQ(refpack::Extract(frames[0].data, s.startBit, s.length, false), want) << name;
    }
    EXPECT_EQ(msg->signalCount, 6u) << "the caller's record is not changed";
    // Refused decodes leave the record alone.
    const VCI_CAN_OBJ unknown = Frame(0x555, false, frames[0].data);
    msg->size = 55;
    EXPECT_FALSE(a.Decode(nullptr, &frames[0], 1, false));
    EXPECT_FALSE(a.Decode(msg.get(), nullptr, 1, false));
    EXPECT_FALSE(a.Decode(msg.get(), &frames[0], 0, false));
    EXPECT_FALSE(a.Decode(msg.get(), &unknown, 1, false));
    EXPECT_EQ(msg->size, 55u);
}

// Under J1939 an identifier lookup can decode another message of a group than
// the group lookup finds; the record shows the latter with its held values.
TEST(AnalyserGroupDecode, RecordShowsTheGroupsMessageWithItsHeldValues) {
    CAnalyser a;
    ASSERT_TRUE(LoadText(a, kJ1939));
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

// --- translation ----------------------------------------------------------------

std::string MessageWith(const std::string& signals, const std::string& extra = "") {
    return "VERSION \"\"\n\nBU_: Node\n\nBO_ 291 Msg: 64 Node\n" + signals + "\n" + extra;
}

std::string Sig(const std::string& name, uint32_t start) {
    return " SG_ " + name + " : " + std::to_string(start) + "|1@1+ (1,0) [0|0] \"\" Node\n";
}

// Slots end up exactly as the standard sort by start bit, then length,
// leaves the records, ties included.
TEST(AnalyserTranslate, SortByStartBitThenLengthEqualsTheStandardSort) {
    refpack::Rng rng(21);
    auto msg = NewMessage(), ref = NewMessage();
    for (uint32_t n : {2u, 3u, 16u, 17u, 31u, 64u, 200u, 256u}) {
        for (uint32_t shape = 0; shape < 4; ++shape) {
            msg->signalCount = n;
            for (uint32_t i = 0; i < n; ++i) {
                const uint32_t starts[] = {uint32_t(rng.Next() % 6), i / 3, n - i, i};
                msg->signals[i].startBit = starts[shape];
                msg->signals[i].length = shape == 3 ? 1 : uint32_t(rng.Next() % 3);
                snprintf(msg->signals[i].name, TARN_NAME_LEN, "s%u", i);
            }
            *ref = *msg;
            std::sort(ref->signals, ref->signals + n, [](const DBCSignal& x, const DBCSignal& y) {
                return std::tie(x.startBit, x.length) < std::tie(y.startBit, y.length);
            });
            SortMessageSignals(*msg);
            ASSERT_EQ(Names(*msg), Names(*ref)) << "n " << n << " shape " << shape;
        }
    }
}

TEST(AnalyserTranslate, ThreeHundredSignalsKeepTheFirst256Sorted) {
    std::string lines;
    // Defined with falling start bits, so sorting reverses the file order.
    for (int k = 0; k < 300; ++k) lines += Sig("s" + std::to_string(k), 299 - k);
    CAnalyser a;
    ASSERT_TRUE(LoadText(a, MessageWith(lines)));
    auto out = NewMessage();
    ASSERT_TRUE(a.GetMessageById(291, out.get()));
    ASSERT_EQ(out->signalCount, 256u);
    for (uint32_t i = 0; i < 256; ++i) {
        EXPECT_EQ(out->signals[i].startBit, 44 + i);
        EXPECT_EQ(std::string(out->signals[i].name), "s" + std::to_string(255 - i));
    }
}

// A reused record: slots are zeroed, text tails are left, and cycleTime comes
// from an integer or float attribute or keeps the caller's value.
TEST(AnalyserTranslate, ReusedRecordKeepsWhatTranslationDoesNotWrite) {
    const std::tuple<const char*, const char*, double> cases[] = {{"INT 0 65535", "20", 20.0},
                                                                  {"FLOAT 0 1000", "12.5", 12.5},
                                                                  {"STRING", "\"fast\"", -1.0},
                                                                  {"HEX 0 255", "30", -1.0}};
    const std::vector<char> zero(sizeof(DBCSignal) * 255, 0);
    for (const auto& [type, value, expected] : cases) {
        CAnalyser a;
        ASSERT_TRUE(LoadText(a, MessageWith(Sig("a", 0), "BO_ 292 Untimed: 8 Node\n") +
                                    "BA_DEF_ BO_ \"GenMsgCycleTime\" " + type +
                                    ";\nBA_ \"GenMsgCycleTime\" BO_ 291 " + value + ";\n"));
        auto out = NewMessage();
        memset(out.get(), 0x5A, sizeof *out);
        out->cycleTime = -1;
        ASSERT_TRUE(a.GetMessageById(291, out.get()));
        EXPECT_EQ(out->cycleTime, expected) << type;
        EXPECT_STREQ(out->name, "Msg");
        EXPECT_STREQ(out->comment, "");
        EXPECT_EQ(std::make_pair(out->name[10], out->comment[10]), std::make_pair('Z', 'Z'))
            << "the buffer tails (0x5A) are left";
        EXPECT_EQ(memcmp(&out->signals[1], zero.data(), zero.size()), 0) << "slots are zeroed";
        ASSERT_TRUE(a.GetMessageById(292, out.get()));
        EXPECT_EQ(out->cycleTime, expected) << type << ": a message without it keeps it";
    }
}

// A source at least as long as the buffer fills it completely, with no
// terminator; shorter sources are terminated.
void ExpectBounded(const char* buf, size_t size, const std::string& src) {
    EXPECT_EQ(std::string(buf, strnlen(buf, size)), src.substr(0, size));
    if (src.size() < size) {
        EXPECT_EQ(buf[src.size()], '\0');
    }
}

TEST(AnalyserTranslate, LongTextsFillTheWholeBufferWithoutTerminator) {
    for (int extra : {-1, 0, 2}) {
        SCOPED_TRACE(extra);
        auto text = [extra](char c, size_t size) { return std::string(size + extra, c); };
        std::string msg = text('m', TARN_NAME_LEN), sig = text('s', TARN_NAME_LEN);
        std::string node = text('n', TARN_NAME_LEN), unit = text('u', TARN_UNIT_LEN);
        std::string comment = text('c', TARN_COMMENT_LEN);
        CAnalyser a;
        ASSERT_TRUE(LoadText(a, "VERSION \"\"\n\nBU_: " + node + "\n\nBO_ 5 " + msg + ": 8 " +
                                    node + "\n SG_ " + sig + " : 0|8@1+ (1,0) [0|0] \"" + unit +
                                    "\" " + node + "\n\nCM_ BO_ 5 \"" + comment +
                                    "\";\nCM_ SG_ 5 " + sig + " \"" + comment + "\";\n"));
        const uint8_t data[8] = {};
        const VCI_CAN_OBJ f = Frame(5, false, data);
        for (bool decode : {false, true}) {
            auto out = NewMessage();
            ASSERT_TRUE(decode ? a.Decode(out.get(), &f, 1, false)
                               : a.GetMessageById(5, out.get()));
            ExpectBounded(out->name, TARN_NAME_LEN, msg);
            ExpectBounded(out->comment, TARN_COMMENT_LEN, comment);
            ExpectBounded(out->signals[0].name, TARN_NAME_LEN, sig);
            ExpectBounded(out->signals[0].comment, TARN_COMMENT_LEN, comment);
            ExpectBounded(out->signals[0].unit, TARN_UNIT_LEN, unit);
        }
        DBCNetworkNode n;
        memset(&n, 0x11, sizeof n);
        ASSERT_TRUE(a.GetNetworkNodeAt(0, &n));
        ExpectBounded(n.name, TARN_NAME_LEN, node);
    }
}

}  // namespace
