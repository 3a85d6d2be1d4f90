// Translation of model messages into public records and the lookups of the
// analyser, checked against real DBC files read by an independent line reader
// and against small hand-written databases.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "analyser_test_util.h"

using atest::LoadText;
using atest::NewMessage;
using atest::RefMessage;
using atest::RefSignal;

namespace {

constexpr uint32_t kExt = 0x80000000u;

// What a bounded copy leaves in a buffer: the source, cut at the buffer size.
std::string Held(const char* buf, size_t size) {
    return std::string(buf, strnlen(buf, size));
}

uint64_t RecordKey(const DBCMessage& m) {
    return m.id | (m.extended ? uint64_t{kExt} : 0);
}

// Raw value of physical 0, from the definition's own numbers.
bool RawZero(const RefSignal& s, uint64_t& raw) {
    double x = s.factor != 0.0 ? (0.0 - s.offset) / s.factor : -s.offset;
    if (!(std::fabs(x) < 9.2e18)) return false;
    raw = static_cast<uint64_t>(static_cast<int64_t>(x));
    return true;
}

void ExpectSlotMatches(const DBCSignal& slot, const RefSignal& ref) {
    SCOPED_TRACE(ref.name);
    EXPECT_EQ(slot.startBit, ref.startBit);
    EXPECT_EQ(slot.length, ref.length);
    EXPECT_EQ(slot.factor, ref.factor);
    EXPECT_EQ(slot.offset, ref.offset);
    EXPECT_EQ(slot.minimum, ref.minimum);
    EXPECT_EQ(slot.maximum, ref.maximum);
    EXPECT_EQ(slot.isSigned, ref.isSigned ? 1 : 0);
    EXPECT_EQ(slot.byteOrder, ref.motorola ? 0 : 1);
    EXPECT_EQ(slot.valueType, ref.valueType);
    EXPECT_EQ(Held(slot.unit, TARN_UNIT_LEN), ref.unit.substr(0, TARN_UNIT_LEN));
    uint64_t raw = 0;
    if (RawZero(ref, raw)) {
        EXPECT_EQ(slot.rawValue, raw);
    }
    bool isSwitch = ref.mux.find('M') != std::string::npos;
    bool isMuxed = !isSwitch && !ref.mux.empty() && ref.mux[0] == 'm';
    EXPECT_EQ(slot.multiplexerType, isSwitch ? 2 : isMuxed ? 1 : 0);
    if (isMuxed) {
        EXPECT_EQ(slot.multiplexerValue, strtoul(ref.mux.c_str() + 1, nullptr, 10));
    }
}

bool UniqueNames(const RefMessage& ref) {
    std::set<std::string> names;
    for (const RefSignal& s : ref.signals) names.insert(s.name);
    return names.size() == ref.signals.size();
}

void ExpectSorted(const DBCMessage& m) {
    for (uint32_t i = 1; i < m.signalCount; ++i)
        EXPECT_FALSE(SignalCompareAscend(m.signals[i], m.signals[i - 1])) << "slot " << i;
}

// --- every message of real files against the text --------------------------

class AnalyserCorpusTranslate : public ::testing::TestWithParam<const char*> {};

TEST_P(AnalyserCorpusTranslate, RecordsMatchTheDbcText) {
    std::string path = atest::CorpusPath(GetParam());
    if (!atest::Exists(path)) GTEST_SKIP() << "corpus not available";
    auto refs = atest::ReadReference(atest::ReadAll(path));
    CAnalyser a;
    ASSERT_TRUE(atest::LoadPath(a, path));
    ASSERT_EQ(a.GetMessageCount(), refs.size());
    auto out = NewMessage();
    size_t visited = 0;
    for (bool ok = a.GetFirstMessage(out.get()); ok; ok = a.GetNextMessage(out.get())) {
        auto it = refs.find(RecordKey(*out));
        ASSERT_NE(it, refs.end()) << std::hex << out->id;
        const RefMessage& ref = it->second;
        SCOPED_TRACE(ref.name);
        ++visited;
        EXPECT_EQ(Held(out->name, TARN_NAME_LEN), ref.name.substr(0, TARN_NAME_LEN));
        EXPECT_EQ(out->size, ref.dlc);
        if (!UniqueNames(ref) || ref.signals.size() > TARN_MAX_SIGNALS) continue;
        ASSERT_EQ(out->signalCount, ref.signals.size());
        ExpectSorted(*out);
        std::set<std::string> seen;
        for (uint32_t i = 0; i < out->signalCount; ++i) {
            const RefSignal* s = atest::FindRef(ref, out->signals[i].name);
            ASSERT_NE(s, nullptr) << out->signals[i].name;
            ExpectSlotMatches(out->signals[i], *s);
            seen.insert(s->name);
        }
        EXPECT_EQ(seen.size(), ref.signals.size());
    }
    EXPECT_EQ(visited, refs.size());
}

INSTANTIATE_TEST_SUITE_P(Files, AnalyserCorpusTranslate,
                         ::testing::Values("cantools__multiplex_2.dbc", "can-dbc__j1939.dbc",
                                           "cantools__abs.dbc", "cantools__floating_point.dbc",
                                           "canmatrix__test_frame_decoding.dbc",
                                           "cantools__multiplex_choices.dbc",
                                           "opendbc__vw_pq.dbc"));

// --- signal cap, order and multiplexer text -------------------------------

std::string MessageWith(const std::string& signals, const std::string& extra = "") {
    return "VERSION \"\"\n\nNS_ :\n\nBS_:\n\nBU_: Node\n\nBO_ 291 Msg: 64 Node\n" + signals + "\n" +
           extra;
}

std::string SignalLine(const std::string& name, uint32_t start, uint32_t length,
                       const std::string& mux = "") {
    return " SG_ " + name + " " + mux + " : " + std::to_string(start) + "|" +
           std::to_string(length) + "@1+ (1,0) [0|0] \"\" Node\n";
}

TEST(AnalyserTranslate, ThreeHundredSignalsKeepTheFirst256Sorted) {
    std::string lines;
    // Defined with falling start bits, so sorting reverses the file order.
    for (int k = 0; k < 300; ++k) lines += SignalLine("s" + std::to_string(k), 299 - k, 1);
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

TEST(AnalyserTranslate, EqualStartBitsComeOutShorterFirst) {
    CAnalyser a;
    ASSERT_TRUE(LoadText(a, MessageWith(SignalLine("wide", 8, 8) + SignalLine("mid", 8, 4) +
                                        SignalLine("low", 0, 8) + SignalLine("thin", 8, 2))));
    auto out = NewMessage();
    ASSERT_TRUE(a.GetMessageById(291, out.get()));
    ASSERT_EQ(out->signalCount, 4u);
    const char* expected[] = {"low", "thin", "mid", "wide"};
    for (int i = 0; i < 4; ++i) EXPECT_STREQ(out->signals[i].name, expected[i]);
}

// The slots must end up exactly as sorting the records themselves with the
// standard introspective sort would leave them, ties included.
TEST(AnalyserTranslate, SortEqualsSortingTheRecordsThemselves) {
    std::mt19937 rng(21);
    auto msg = NewMessage();
    auto ref = NewMessage();
    const uint32_t sizes[] = {2, 3, 15, 16, 17, 31, 64, 200, 256};
    for (uint32_t n : sizes) {
        for (int shape = 0; shape < 4; ++shape) {
            msg->signalCount = n;
            for (uint32_t i = 0; i < n; ++i) {
                DBCSignal& s = msg->signals[i];
                s.startBit = shape == 0 ? rng() % 6 : shape == 1 ? i / 3 : shape == 2 ? n - i : i;
                s.length = shape == 3 ? 1 : rng() % 3;
                snprintf(s.name, sizeof s.name, "s%u", i);
            }
            *ref = *msg;
            std::sort(ref->signals, ref->signals + n, SignalCompareAscend);
            SortMessageSignals(*msg);
            for (uint32_t i = 0; i < n; ++i)
                ASSERT_STREQ(msg->signals[i].name, ref->signals[i].name)
                    << "n " << n << " shape " << shape << " slot " << i;
        }
    }
}

struct MuxCase {
    const char* text;
    uint8_t type;
    uint32_t value;
};

class AnalyserMuxText : public ::testing::TestWithParam<MuxCase> {};

TEST_P(AnalyserMuxText, TypeAndValueFollowTheLetters) {
    const MuxCase& c = GetParam();
    CAnalyser a;
    ASSERT_TRUE(
        LoadText(a, MessageWith(SignalLine("sw", 0, 8, "M") + SignalLine("probe", 8, 8, c.text))));
    auto out = NewMessage();
    ASSERT_TRUE(a.GetMessageById(291, out.get()));
    // Read the slots straight from the translation, before any selection.
    ASSERT_EQ(out->signalCount, 2u);
    EXPECT_EQ(out->signals[1].multiplexerType, c.type);
    EXPECT_EQ(out->signals[1].multiplexerValue, c.value);
}

INSTANTIATE_TEST_SUITE_P(Cases, AnalyserMuxText,
                         ::testing::Values(MuxCase{"m12", 1, 12}, MuxCase{"M", 2, 0},
                                           MuxCase{"m3M", 2, 0}, MuxCase{"m0", 1, 0},
                                           MuxCase{"", 0, 0}, MuxCase{"m65536", 1, 65536}));

// --- cycle time --------------------------------------------------------------

struct CycleCase {
    const char* type;   // BA_DEF_ type of "GenMsgCycleTime"
    const char* value;  // value assigned to message 291
    double expected;    // -1: keeps what the record held
};

class AnalyserCycleTime : public ::testing::TestWithParam<CycleCase> {};

TEST_P(AnalyserCycleTime, ValueByTypeOrThePreviousOne) {
    const CycleCase& c = GetParam();
    std::string text =
        "VERSION \"\"\n\nNS_ :\n\nBS_:\n\nBU_: Node\n\n"
        "BO_ 291 Timed: 8 Node\n" +
        SignalLine("a", 0, 8) + "\nBO_ 292 Untimed: 8 Node\n" + SignalLine("b", 0, 8) +
        "\nBA_DEF_ BO_ \"GenMsgCycleTime\" " + c.type +
        ";\n"
        "BA_ \"GenMsgCycleTime\" BO_ 291 " +
        c.value + ";\n";
    CAnalyser a;
    ASSERT_TRUE(LoadText(a, text));
    auto out = NewMessage();
    out->cycleTime = -1;
    ASSERT_TRUE(a.GetMessageById(291, out.get()));
    EXPECT_EQ(out->cycleTime, c.expected);
    ASSERT_TRUE(a.GetMessageById(292, out.get()));
    EXPECT_EQ(out->cycleTime, c.expected) << "a message without the attribute keeps it";
}

INSTANTIATE_TEST_SUITE_P(Types, AnalyserCycleTime,
                         ::testing::Values(CycleCase{"INT 0 65535", "20", 20.0},
                                           CycleCase{"FLOAT 0 1000", "12.5", 12.5},
                                           CycleCase{"STRING", "\"fast\"", -1.0},
                                           CycleCase{"HEX 0 255", "30", -1.0}));

// --- header fields and bounded copies ---------------------------------------

TEST(AnalyserTranslate, HeaderFieldsAndSignalSlotsAreRewrittenButNotCleared) {
    CAnalyser a;
    ASSERT_TRUE(
        LoadText(a, "VERSION \"\"\n\nBU_: N\n\nBO_ 2566844672 Big: 8 N\n" + SignalLine("x", 0, 8)));
    auto out = NewMessage();
    memset(out.get(), 0x5A, sizeof *out);
    ASSERT_TRUE(a.GetMessageById(0x18FEF100, out.get()));
    EXPECT_EQ(out->id, 0x18FEF100u);
    EXPECT_EQ(out->extended, 1);
    EXPECT_EQ(out->size, 8u);
    EXPECT_EQ(out->signalCount, 1u);
    EXPECT_STREQ(out->name, "Big");
    EXPECT_STREQ(out->comment, "");
    // Every slot behind the count was zeroed; the name buffer tail was not.
    std::vector<char> zero(sizeof(DBCSignal) * 255, 0);
    EXPECT_EQ(memcmp(&out->signals[1], zero.data(), zero.size()), 0);
    EXPECT_EQ(out->name[10], 0x5A);
}

struct CopyCase {
    size_t nameLen, commentLen, unitLen;
};

class AnalyserBoundedCopy : public ::testing::TestWithParam<CopyCase> {};

// A source at least as long as the buffer fills it completely, with no
// terminator; shorter sources are terminated.
void ExpectBounded(const char* buf, size_t size, const std::string& src) {
    EXPECT_EQ(Held(buf, size), src.substr(0, size));
    if (src.size() < size) {
        EXPECT_EQ(buf[src.size()], '\0');
    }
}

TEST_P(AnalyserBoundedCopy, LongTextsFillTheWholeBuffer) {
    const CopyCase& c = GetParam();
    std::string msgName = "M" + std::string(c.nameLen - 1, 'n');
    std::string sigName = "S" + std::string(c.nameLen - 1, 's');
    std::string comment(c.commentLen, 'c');
    std::string unit(c.unitLen, 'u');
    std::string text = "VERSION \"\"\n\nBU_: N\n\nBO_ 5 " + msgName + ": 8 N\n SG_ " + sigName +
                       " : 0|8@1+ (1,0) [0|0] \"" + unit + "\" N\n\nCM_ BO_ 5 \"" + comment +
                       "\";\nCM_ SG_ 5 " + sigName + " \"" + comment + "\";\n";
    CAnalyser a;
    ASSERT_TRUE(LoadText(a, text));
    auto out = NewMessage();
    ASSERT_TRUE(a.GetMessageById(5, out.get()));
    ExpectBounded(out->name, TARN_NAME_LEN, msgName);
    ExpectBounded(out->comment, TARN_COMMENT_LEN, comment);
    ExpectBounded(out->signals[0].name, TARN_NAME_LEN, sigName);
    ExpectBounded(out->signals[0].comment, TARN_COMMENT_LEN, comment);
    ExpectBounded(out->signals[0].unit, TARN_UNIT_LEN, unit);
}

INSTANTIATE_TEST_SUITE_P(Lengths, AnalyserBoundedCopy,
                         ::testing::Values(CopyCase{126, 199, 9}, CopyCase{127, 200, 10},
                                           CopyCase{128, 201, 11}, CopyCase{130, 250, 15}));

// --- identifier and PGN lookup ----------------------------------------------

struct IdCase {
    uint32_t query;
    bool j1939;
    const char* expected;  // nullptr: no match
};

class AnalyserIdLookup : public ::testing::TestWithParam<IdCase> {};

TEST_P(AnalyserIdLookup, MatchesByProtocolRules) {
    const IdCase& c = GetParam();
    std::string text = std::string(atest::kJ1939Header) + "BO_ 2566844672 Pdu2: 8 Node\n" +
                       SignalLine("a", 0, 8) +                                      // 0x98FEF100
                       "\nBO_ 2565537536 Pdu1: 8 Node\n" + SignalLine("b", 0, 8) +  // 0x98EAFF00
                       "\nBO_ 256 Plain: 8 Node\n" + SignalLine("c", 0, 8) + "\n" +
                       (c.j1939 ? atest::kJ1939Footer : "");
    CAnalyser a;
    ASSERT_TRUE(LoadText(a, text));
    EXPECT_EQ(a.GetProtocol(), c.j1939 ? TARN_PROTOCOL_J1939 : TARN_PROTOCOL_UNDECLARED);
    auto out = NewMessage();
    out->size = 77;
    bool found = a.GetMessageById(c.query, out.get());
    EXPECT_EQ(found, c.expected != nullptr);
    if (found)
        EXPECT_STREQ(out->name, c.expected);
    else
        EXPECT_EQ(out->size, 77u) << "a miss leaves the record alone";
}

INSTANTIATE_TEST_SUITE_P(
    Cases, AnalyserIdLookup,
    ::testing::Values(IdCase{0x18FEF1FE, true, "Pdu2"}, IdCase{0x0CFEF100, true, "Pdu2"},
                      IdCase{0x18FEF2FE, true, nullptr}, IdCase{0x18EA00FE, true, "Pdu1"},
                      IdCase{0x18EA3317, true, "Pdu1"}, IdCase{0x98FEF100, true, "Pdu2"},
                      IdCase{0x100, true, "Plain"}, IdCase{0x18FEF100, false, "Pdu2"},
                      IdCase{0x98FEF100, false, "Pdu2"}, IdCase{0x18FEF1FE, false, nullptr},
                      IdCase{0x18EA00FE, false, nullptr}, IdCase{0x80000100, false, "Plain"}));

TEST(AnalyserLookup, ProtocolSetterSwitchesTheRules) {
    CAnalyser a;
    ASSERT_TRUE(LoadText(a, std::string(atest::kJ1939Header) + "BO_ 2566844672 Pdu2: 8 Node\n" +
                                SignalLine("a", 0, 8)));
    auto out = NewMessage();
    EXPECT_FALSE(a.GetMessageById(0x18FEF1FE, out.get()));
    a.SetProtocol(TARN_PROTOCOL_J1939);
    EXPECT_TRUE(a.GetMessageById(0x18FEF1FE, out.get()));
    EXPECT_TRUE(a.IsIdEqual(0x1CFEF1AA, 0x98FEF100));
    EXPECT_FALSE(a.GetMessageById(0x18FEF1FE, nullptr));
}

// Every extended message of a real J1939 file is found by a foreign
// identifier (other priority and source address, other destination for
// PDU1) and by its PGN; the expected hit is the first message of the
// ascending list with the same group, computed here from the text.
TEST(AnalyserLookup, RealJ1939MessagesByForeignIdAndPgn) {
    std::string path = atest::CorpusPath("can-dbc__j1939.dbc");
    if (!atest::Exists(path)) GTEST_SKIP() << "corpus not available";
    auto refs = atest::ReadReference(atest::ReadAll(path));
    CAnalyser a;
    ASSERT_TRUE(atest::LoadPath(a, path));
    ASSERT_EQ(a.GetProtocol(), TARN_PROTOCOL_J1939);
    auto group = [](uint32_t id) {
        uint32_t pf = (id >> 16) & 0xFF;
        return pf < 240 ? id & 0x3FF0000u : id & 0x3FFFF00u;
    };
    auto out = NewMessage();
    int checked = 0;
    for (const auto& entry : refs) {
        uint32_t id = static_cast<uint32_t>(entry.first);
        if (!(id & kExt)) continue;
        uint32_t pf = (id >> 16) & 0xFF;
        uint32_t foreign = (id & 0x03FFFF00u) | 0x1C000000u | ((id + 0x5B) & 0xFF);
        if (pf < 240) foreign ^= 0x3300;
        const RefMessage* first = nullptr;
        for (const auto& other : refs)
            if (group(static_cast<uint32_t>(other.first)) == group(id)) {
                first = &other.second;
                break;
            }
        ASSERT_TRUE(a.GetMessageById(foreign, out.get())) << std::hex << foreign;
        EXPECT_EQ(std::string(out->name), first->name);
        ASSERT_TRUE(a.GetMessageByPgn(group(id) >> 8, out.get()));
        EXPECT_EQ(std::string(out->name), first->name);
        ++checked;
    }
    EXPECT_GT(checked, 300);
}

// --- nodes ------------------------------------------------------------------

TEST(AnalyserNodes, RealStationAddressesMatchTheText) {
    std::string path = atest::CorpusPath("can-dbc__j1939.dbc");
    if (!atest::Exists(path)) GTEST_SKIP() << "corpus not available";
    std::string text = atest::ReadAll(path);
    std::map<std::string, uint32_t> expected;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        char node[256];
        unsigned address = 0;
        if (sscanf(line.c_str(), "BA_ \"NmStationAddress\" BU_ %255s %u;", node, &address) == 2)
            expected[node] = address;
    }
    ASSERT_FALSE(expected.empty());
    CAnalyser a;
    ASSERT_TRUE(atest::LoadPath(a, path));
    uint32_t count = a.GetNetworkNodeCount();
    std::set<std::string> names;
    for (uint32_t i = 0; i < count; ++i) {
        DBCNetworkNode node{};
        node.stationAddress = 0xDEADBEEF;
        ASSERT_TRUE(a.GetNetworkNodeAt(i, &node));
        names.insert(node.name);
        auto it = expected.find(node.name);
        EXPECT_EQ(node.stationAddress, it == expected.end() ? 0xDEADBEEF : it->second) << node.name;
    }
    for (const auto& e : expected) EXPECT_EQ(names.count(e.first), 1u) << e.first;
    DBCNetworkNode untouched{};
    untouched.stationAddress = 7;
    EXPECT_FALSE(a.GetNetworkNodeAt(count, &untouched));
    EXPECT_EQ(untouched.stationAddress, 7u);
    EXPECT_EQ(untouched.name[0], 0);
    EXPECT_FALSE(a.GetNetworkNodeAt(0, nullptr));
}

struct NodeCase {
    const char* attr;  // attribute name
    const char* type;  // BA_DEF_ type with its range
    const char* value;
    bool ok;
    uint32_t address;  // expected when ok
};

class AnalyserNodeAttr : public ::testing::TestWithParam<NodeCase> {};

TEST_P(AnalyserNodeAttr, StationAddressByValueType) {
    const NodeCase& c = GetParam();
    std::string node(130, 'N');
    std::string attr = std::string("\"") + c.attr + "\"";
    std::string text = "VERSION \"\"\n\nBU_: " + node + "\n\nBO_ 1 M: 8 " + node +
                       "\n SG_ a : 0|8@1+ (1,0) [0|0] \"\" " + node + "\n\nBA_DEF_ BU_ " + attr +
                       " " + c.type + ";\nBA_ " + attr + " BU_ " + node + " " + c.value + ";\n";
    CAnalyser a;
    ASSERT_TRUE(LoadText(a, text));
    ASSERT_EQ(a.GetNetworkNodeCount(), 1u);
    DBCNetworkNode out;
    memset(&out, 0x11, sizeof out);
    EXPECT_EQ(a.GetNetworkNodeAt(0, &out), c.ok);
    EXPECT_EQ(std::string(out.name, TARN_NAME_LEN), node.substr(0, TARN_NAME_LEN));
    if (c.ok) {
        EXPECT_EQ(out.stationAddress, c.address);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Types, AnalyserNodeAttr,
    ::testing::Values(NodeCase{"NmStationAddress", "INT 0 255", "42", true, 42},
                      NodeCase{"nmstationaddress", "INT 0 255", "43", true, 43},
                      NodeCase{"NmStationAddress", "FLOAT 0 255", "12.9", true, 12},
                      NodeCase{"NmStationAddress", "STRING", "\"x\"", false, 0},
                      NodeCase{"OtherAttr", "INT 0 9", "5", true, 0x11111111}));

// --- value tables -----------------------------------------------------------

TEST(AnalyserValDesc, RealTablesMatchTheText) {
    std::string path = atest::CorpusPath("can-dbc__j1939.dbc");
    if (!atest::Exists(path)) GTEST_SKIP() << "corpus not available";
    auto refs = atest::ReadReference(atest::ReadAll(path));
    CAnalyser a;
    ASSERT_TRUE(atest::LoadPath(a, path));
    // Identifier lookups here go by identifier, not by PGN: no collisions.
    a.SetProtocol(TARN_PROTOCOL_OTHER);
    size_t tables = 0;
    for (const auto& entry : refs) {
        for (const RefSignal& s : entry.second.signals) {
            uint32_t id = static_cast<uint32_t>(entry.first) & 0x1FFFFFFF;
            uint32_t n = a.GetValDescPairCount(id, s.name.c_str());
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

TEST(AnalyserValDesc, AbsentOrNullNamesGiveNothing) {
    CAnalyser a;
    ASSERT_TRUE(
        LoadText(a, MessageWith(SignalLine("a", 0, 8), "VAL_ 291 a 1 \"On\" 0 \"Off\";\n")));
    EXPECT_EQ(a.GetValDescPairCount(291, "a"), 2u);
    EXPECT_EQ(a.GetValDescPairCount(291, "zz"), 0u);
    EXPECT_EQ(a.GetValDescPairCount(292, "a"), 0u);
    EXPECT_EQ(a.GetValDescPairCount(291, nullptr), 0u);
    ValDescPair pair{};
    pair.value = 5;
    a.GetValDescPair(291, nullptr, &pair);
    a.GetValDescPair(292, "a", &pair);
    EXPECT_EQ(pair.value, 5);
}

// --- iteration --------------------------------------------------------------

TEST(AnalyserIterate, CursorWalksAscendingIdsOnce) {
    CAnalyser a;
    ASSERT_TRUE(LoadText(a,
                         "VERSION \"\"\n\nBU_: N\n\nBO_ 2147483905 E: 8 N\n\nBO_ 300 B: 8 N\n\n"
                         "BO_ 20 A: 8 N\n"));
    auto out = NewMessage();
    EXPECT_FALSE(a.GetFirstMessage(nullptr));
    std::vector<std::string> names;
    // Next without First starts at the first message.
    while (a.GetNextMessage(out.get())) names.push_back(out->name);
    EXPECT_EQ(names, (std::vector<std::string>{"A", "B", "E"}));
    EXPECT_FALSE(a.GetNextMessage(out.get()));
    ASSERT_TRUE(a.GetFirstMessage(out.get()));
    EXPECT_STREQ(out->name, "A");
    EXPECT_EQ(a.GetMessageCount(), 3u);
}

TEST(AnalyserIterate, EmptyDatabaseHasNoFirstMessage) {
    CAnalyser a;
    auto out = NewMessage();
    EXPECT_FALSE(a.GetFirstMessage(out.get()));
    EXPECT_FALSE(a.GetNextMessage(out.get()));
    FileInfo missing{};
    snprintf(missing.path, sizeof missing.path, "/nonexistent/none.dbc");
    EXPECT_FALSE(a.Load(&missing));
    EXPECT_FALSE(a.Load(nullptr));
    EXPECT_EQ(a.GetNetworkNodeCount(), 0u);
}

}  // namespace
