// Translation of model messages into public records and the lookups of the
// analyser, checked against real DBC files read by an independent line reader
// and against small hand-written databases.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "analyser_test_util.h"

using atest::LoadText;
using atest::NewMessage;
using atest::RefSignal;

namespace {

constexpr uint32_t kExt = 0x80000000u;

// What a bounded copy leaves in a buffer: the source, cut at the buffer size.
std::string Held(const char* buf, size_t size) {
    return std::string(buf, strnlen(buf, size));
}

void ExpectSlotMatches(const DBCSignal& slot, const RefSignal& ref) {
    SCOPED_TRACE(ref.name);
    EXPECT_EQ(
        std::tie(slot.startBit, slot.length, slot.factor, slot.offset, slot.minimum, slot.maximum),
        std::tie(ref.startBit, ref.length, ref.factor, ref.offset, ref.minimum, ref.maximum));
    EXPECT_EQ(std::make_tuple(int{slot.isSigned}, int{slot.byteOrder}, int{slot.valueType}),
              std::make_tuple(int{ref.isSigned}, ref.motorola ? 0 : 1, ref.valueType));
    EXPECT_EQ(Held(slot.unit, TARN_UNIT_LEN), ref.unit.substr(0, TARN_UNIT_LEN));
    // The raw value is that of physical 0, from the definition's own numbers.
    double zero = ref.factor != 0.0 ? -ref.offset / ref.factor : -ref.offset;
    if (std::fabs(zero) < 9.2e18) {
        EXPECT_EQ(slot.rawValue, static_cast<uint64_t>(static_cast<int64_t>(zero)));
    }
    bool isSwitch = ref.mux.find('M') != std::string::npos;
    bool isMuxed = !isSwitch && !ref.mux.empty() && ref.mux[0] == 'm';
    EXPECT_EQ(slot.multiplexerType, isSwitch ? 2 : isMuxed ? 1 : 0);
    if (isMuxed) {
        EXPECT_EQ(slot.multiplexerValue, strtoul(ref.mux.c_str() + 1, nullptr, 10));
    }
}

class AnalyserCorpusTranslate : public ::testing::TestWithParam<const char*> {};

// Walked without a GetFirstMessage, the cursor starts at the first message.
TEST_P(AnalyserCorpusTranslate, RecordsMatchTheDbcTextInAscendingIdOrder) {
    const std::string path = refpack::CorpusFile(GetParam());
    if (path.empty()) GTEST_SKIP() << "corpus not available";
    const atest::RefDb refs = atest::ReadFile(path);
    CAnalyser a;
    ASSERT_TRUE(atest::LoadPath(a, path));
    ASSERT_EQ(a.GetMessageCount(), refs.size());
    auto out = NewMessage();
    auto it = refs.begin();
    for (; a.GetNextMessage(out.get()); ++it) {
        ASSERT_NE(it, refs.end());
        ASSERT_EQ(out->id | (out->extended ? kExt : 0u), it->first);
        const atest::RefMessage& ref = it->second;
        SCOPED_TRACE(ref.name);
        EXPECT_EQ(Held(out->name, TARN_NAME_LEN), ref.name.substr(0, TARN_NAME_LEN));
        EXPECT_EQ(out->size, ref.dlc);
        std::set<std::string> names;
        for (const RefSignal& s : ref.signals) names.insert(s.name);
        if (names.size() != ref.signals.size() || names.size() > TARN_MAX_SIGNALS) continue;
        ASSERT_EQ(out->signalCount, ref.signals.size());
        for (uint32_t i = 0; i < out->signalCount; ++i) {
            const DBCSignal& s = out->signals[i];
            EXPECT_TRUE(names.erase(s.name)) << s.name << " once and only once";
            if (const RefSignal* r = atest::Find(ref, s.name)) ExpectSlotMatches(s, *r);
        }
    }
    EXPECT_EQ(it, refs.end());
}

INSTANTIATE_TEST_SUITE_P(Files, AnalyserCorpusTranslate,
                         ::testing::Values("cantools__multiplex_2.dbc", "can-dbc__j1939.dbc",
                                           "cantools__floating_point.dbc", "opendbc__vw_pq.dbc",
                                           "cantools__multiplex_choices.dbc"));

// --- hand-written messages ----------------------------------------------------

std::string MessageWith(const std::string& signals, const std::string& extra = "") {
    return std::string(atest::kJ1939Header) + "BO_ 291 Msg: 64 Node\n" + signals + "\n" + extra;
}

std::string Sig(const std::string& name, uint32_t start, uint32_t length,
                const std::string& mux = "") {
    return " SG_ " + name + " " + mux + " : " + std::to_string(start) + "|" +
           std::to_string(length) + "@1+ (1,0) [0|0] \"\" Node\n";
}

// Slots end up exactly as the standard introspective sort by start bit, then
// length, leaves the records, ties included.
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
            ASSERT_EQ(atest::Names(*msg), atest::Names(*ref)) << "n " << n << " shape " << shape;
        }
    }
}

TEST(AnalyserTranslate, ThreeHundredSignalsKeepTheFirst256Sorted) {
    std::string lines;
    // Defined with falling start bits, so sorting reverses the file order.
    for (int k = 0; k < 300; ++k) lines += Sig("s" + std::to_string(k), 299 - k, 1);
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

// A reused record: the 256 slots are zeroed, name and comment are copied over
// without clearing the rest of their buffers, and cycleTime comes from an
// integer or float attribute or else keeps the caller's previous value.
TEST(AnalyserTranslate, ReusedRecordKeepsWhatTranslationDoesNotWrite) {
    const std::tuple<const char*, const char*, double> cases[] = {{"INT 0 65535", "20", 20.0},
                                                                  {"FLOAT 0 1000", "12.5", 12.5},
                                                                  {"STRING", "\"fast\"", -1.0},
                                                                  {"HEX 0 255", "30", -1.0}};
    const std::vector<char> zero(sizeof(DBCSignal) * 255, 0);
    for (const auto& [type, value, expected] : cases) {
        CAnalyser a;
        ASSERT_TRUE(LoadText(a, MessageWith(Sig("a", 0, 8), "BO_ 292 Untimed: 8 Node\n") +
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
    EXPECT_EQ(Held(buf, size), src.substr(0, size));
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
        auto out = NewMessage();
        ASSERT_TRUE(a.GetMessageById(5, out.get()));
        ExpectBounded(out->name, TARN_NAME_LEN, msg);
        ExpectBounded(out->comment, TARN_COMMENT_LEN, comment);
        ExpectBounded(out->signals[0].name, TARN_NAME_LEN, sig);
        ExpectBounded(out->signals[0].comment, TARN_COMMENT_LEN, comment);
        ExpectBounded(out->signals[0].unit, TARN_UNIT_LEN, unit);
        DBCNetworkNode n;
        memset(&n, 0x11, sizeof n);
        ASSERT_TRUE(a.GetNetworkNodeAt(0, &n));
        ExpectBounded(n.name, TARN_NAME_LEN, node);
    }
}

// --- identifiers, PGNs, nodes and value tables --------------------------------

TEST(AnalyserLookup, IdsCompareByGroupUnderJ1939AndByBits0To30Otherwise) {
    // Two identifiers, J1939 rules, equal.
    const std::tuple<uint32_t, uint32_t, bool, bool> cases[] = {
        {0x1CFEF1AA, 0x98FEF100, true, true},   // PDU2: priority, source
        {0x18EA00FE, 0x18EA3317, true, true},   // PDU1: destination too
        {0x18FEF1FE, 0x18FEF2FE, true, false},  // PDU2: group extension
        {0x18EA00FE, 0x18EB00FE, true, false},  // PDU1: format byte
        {0x100, 0x200, true, true},             // 11-bit ids: group 0
        {0x18FEF100, 0x98FEF100, false, true},  // bit 31 never counts
        {0x18FEF1FE, 0x18FEF100, false, false},
        {0x100, 0x200, false, false}};
    CAnalyser a;
    for (const auto& [x, y, j1939, equal] : cases) {
        a.SetProtocol(j1939 ? TARN_PROTOCOL_J1939 : TARN_PROTOCOL_OTHER);
        EXPECT_EQ(a.IsIdEqual(x, y), equal) << std::hex << x << " " << y;
        EXPECT_EQ(a.IsIdEqual(y, x), equal) << std::hex << y << " " << x;
    }
}

// Every extended message of a real J1939 file is found by a foreign
// identifier (other priority and source address, other destination for
// PDU1) and by its PGN; the expected hit is the first message of the
// ascending list with the same group, computed here from the text. Decoding
// a frame with the foreign identifier reports that identifier.
TEST(AnalyserLookup, RealJ1939MessagesByForeignIdAndPgn) {
    const std::string path = refpack::CorpusFile("can-dbc__j1939.dbc");
    if (path.empty()) GTEST_SKIP() << "corpus not available";
    const atest::RefDb refs = atest::ReadFile(path);
    CAnalyser a;
    ASSERT_TRUE(atest::LoadPath(a, path));
    ASSERT_EQ(a.GetProtocol(), TARN_PROTOCOL_J1939);
    auto group = [](uint64_t id) {
        return ((id >> 16) & 0xFF) < 240 ? id & 0x3FF0000u : id & 0x3FFFF00u;
    };
    auto out = NewMessage();
    int checked = 0, decoded = 0;
    for (const auto& entry : refs) {
        const uint32_t id = static_cast<uint32_t>(entry.first);
        if (!(id & kExt)) continue;
        VCI_CAN_OBJ f{};
        f.id = (id & 0x03FFFF00u) | 0x1C000000u | ((id + 0x5B) & 0xFF);
        f.id ^= ((id >> 16) & 0xFF) < 240 ? 0x3300 : 0;
        f.externFlag = 1;
        auto same = [&](const auto& o) { return group(o.first) == group(id); };
        auto first = std::find_if(refs.begin(), refs.end(), same);
        ASSERT_TRUE(a.GetMessageById(f.id, out.get())) << std::hex << f.id;
        EXPECT_EQ(std::string(out->name), first->second.name);
        ASSERT_TRUE(a.GetMessageByPgn(static_cast<uint32_t>(group(id) >> 8), out.get()));
        EXPECT_EQ(std::string(out->name), first->second.name);
        ++checked;
        if (std::count_if(refs.begin(), refs.end(), same) > 1 || entry.second.dlc > 8) continue;
        ASSERT_TRUE(a.Decode(out.get(), &f, 1, false)) << std::hex << f.id;
        EXPECT_EQ(out->id, f.id) << "the received identifier";
        EXPECT_EQ(out->extended, 1);
        ++decoded;
    }
    EXPECT_GT(checked, 300);
    EXPECT_GT(decoded, 100);
}

TEST(AnalyserValDesc, RealTablesMatchTheText) {
    const std::string path = refpack::CorpusFile("can-dbc__j1939.dbc");
    if (path.empty()) GTEST_SKIP() << "corpus not available";
    CAnalyser a;
    ASSERT_TRUE(atest::LoadPath(a, path));
    a.SetProtocol(TARN_PROTOCOL_OTHER);  // exact identifiers: no group collisions
    size_t tables = 0;
    for (const auto& entry : atest::ReadFile(path)) {
        const uint32_t id = static_cast<uint32_t>(entry.first) & 0x1FFFFFFF;
        for (const RefSignal& s : entry.second.signals) {
            const uint32_t n = a.GetValDescPairCount(id, s.name.c_str());
            ASSERT_EQ(n, s.values.size()) << s.name;
            if (n == 0) continue;
            std::vector<ValDescPair> pairs(n + 1);
            pairs[n].value = -42;
            a.GetValDescPair(id, s.name.c_str(), pairs.data());
            for (uint32_t i = 0; i < n; ++i) {
                EXPECT_EQ(pairs[i].value, s.values[i].first);
                EXPECT_EQ(std::string(pairs[i].desc), s.values[i].second.substr(0, 127));
            }
            EXPECT_EQ(pairs[n].value, -42) << "writes exactly the counted entries";
            ++tables;
        }
    }
    EXPECT_GT(tables, 1000u);
}

TEST(AnalyserValDesc, AbsentOrNullNamesAndIdsGiveNothing) {
    CAnalyser a;
    ASSERT_TRUE(LoadText(a, MessageWith(Sig("a", 0, 8), "VAL_ 291 a 1 \"On\" 0 \"Off\";\n")));
    EXPECT_EQ(a.GetValDescPairCount(291, "a"), 2u);
    EXPECT_EQ(a.GetValDescPairCount(291, "zz"), 0u);
    EXPECT_EQ(a.GetValDescPairCount(292, "a"), 0u);
    EXPECT_EQ(a.GetValDescPairCount(291, nullptr), 0u);
    ValDescPair pair{};
    pair.value = 5;
    a.GetValDescPair(291, nullptr, &pair);
    a.GetValDescPair(292, "a", &pair);
    EXPECT_EQ(pair.value, 5);
    auto out = NewMessage();
    out->size = 77;
    EXPECT_FALSE(a.GetMessageById(292, out.get()));
    EXPECT_EQ(out->size, 77u) << "a lookup that misses leaves the record alone";
}

}  // namespace
