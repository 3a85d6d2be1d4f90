// Section parsers, table-driven: each case loads a DBC text, compares the
// exact log messages and checks what the model holds afterwards.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <map>
#include <random>

#include "unit/dbc_test_util.h"

namespace {

using dbctest::Sig;
using Check = std::function<void(const DBC&)>;

struct Case {
    const char* name;
    std::string text;
    std::vector<std::string> logs;
    Check check;
    bool ok = true;
};

class Sections : public ::testing::TestWithParam<Case> {};

TEST_P(Sections, LoadsAndLogs) {
    const Case& c = GetParam();
    dbctest::LogCapture log;
    bool ok = false;
    auto db = dbctest::Load(c.text, false, &ok);
    EXPECT_EQ(c.ok, ok);
    EXPECT_EQ(c.logs, log.Messages());
    if (c.check) c.check(*db);
}

std::string CaseName(const ::testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

const char* const kS8 = " SG_ S : 0|8@1+ (1,0) [0|255] \"\" Vector__XXX\n";

std::vector<Case> MessageCases() {
    return {
        {"PlainMessageAndSignal",
         std::string("BO_ 100 Msg: 8 ECU\n") + kS8,
         {},
         [](const DBC& db) {
             const Message* m = db.FindMsg(100);
             ASSERT_NE(m, nullptr);
             EXPECT_STREQ("Msg", m->name);
             EXPECT_STREQ("ECU", m->transmitter);
             EXPECT_EQ(8u, m->dlc);
             const Signal* s = Sig(db, 100, "S");
             ASSERT_NE(s, nullptr);
             EXPECT_EQ(0u, s->startBit);
             EXPECT_EQ(8u, s->length);
             EXPECT_FALSE(s->bigEndian);
             EXPECT_FALSE(s->isSigned);
             EXPECT_EQ(1.0, s->factor);
             EXPECT_EQ(255.0, s->maximum);
             EXPECT_STREQ("", s->unit);
             EXPECT_EQ("", s->multiplexer);
             EXPECT_EQ(0u, s->rawZero);
         }},
        {"Bit31KeptAsExtendedFlag",
         "BO_ 2147483905 X: 8 N\n",
         {},
         [](const DBC& db) {
             EXPECT_NE(db.FindMsg(0x80000101u), nullptr);
             EXPECT_EQ(db.FindMsg(0x101u), nullptr);
         }},
        {"Bit30DropsMessageAndSignals",
         std::string("BO_ 3221225472 X: 8 N\n") + kS8 + "BO_ 1 Y: 8 N\n",
         {},
         [](const DBC& db) {
             std::vector<Message*> all;
             db.GetAllMessage(all);
             ASSERT_EQ(1u, all.size());
             EXPECT_EQ(1u, all[0]->id);
             EXPECT_TRUE(all[0]->signals.empty());
         }},
        {"IdBaseFromPrefix",
         "BO_ 0x10 H: 1 N\nBO_ 010 O: 2 N\n",
         {},
         [](const DBC& db) {
             EXPECT_STREQ("H", db.FindMsg(16)->name);
             EXPECT_STREQ("O", db.FindMsg(8)->name);
         }},
        {"BlankBeforeColonLosesLength",
         "BO_ 5 Name : 8 Node\n",
         {},
         [](const DBC& db) {
             const Message* m = db.FindMsg(5);
             ASSERT_NE(m, nullptr);
             EXPECT_EQ(0u, m->dlc);
             EXPECT_STREQ("", m->transmitter);
         }},
        {"RepeatedIdStopsLoad",
         "BO_ 1 A: 8 X\nBO_ 2 B: 8 X\nBO_ 1 C: 8 X\nBO_ 3 D: 8 X\n",
         {"(4) BO_ id not unique : 1", "(4)ParseBO()"},
         [](const DBC& db) {
             EXPECT_STREQ("A", db.FindMsg(1)->name);
             EXPECT_NE(db.FindMsg(2), nullptr);
             EXPECT_EQ(db.FindMsg(3), nullptr);
             EXPECT_EQ(db.FindMsg2("A"), nullptr) << "name index is not rebuilt";
         },
         false},
        {"SignedMotorolaWarnsOnce",
         "BO_ 1 A: 8 X\n SG_ S : 7|8@0- (1,0) [0|0] \"\" X\n SG_ T : 8|8@0- (1,0) [0|0] \"\" X\n"
         " SG_ U : 16|8@2+ (1,0) [0|0] \"\" X\n",
         {"signed signal... "},
         [](const DBC& db) {
             EXPECT_TRUE(Sig(db, 1, "S")->bigEndian);
             EXPECT_TRUE(Sig(db, 1, "S")->isSigned);
             EXPECT_FALSE(Sig(db, 1, "U")->bigEndian) << "any digit but 0 is Intel";
         }},
        {"BlanksInsideDefinition",
         "BO_ 1 A: 8 X\n SG_ S : 0 | 8 @ 1 + ( 0.5 , -40 ) [ 0 |\t100 ] \"C\" X\n",
         {},
         [](const DBC& db) {
             const Signal* s = Sig(db, 1, "S");
             ASSERT_NE(s, nullptr);
             EXPECT_EQ(0.5, s->factor);
             EXPECT_EQ(-40.0, s->offset);
             EXPECT_EQ(100.0, s->maximum);
             EXPECT_EQ(80u, s->rawZero);
             EXPECT_STREQ("C", s->unit);
         }},
        {"ZeroFactorRawZeroIsMinusOffset",
         "BO_ 1 A: 8 X\n SG_ S : 0|8@1+ (0,5) [0|0] \"\" X\n",
         {},
         [](const DBC& db) { EXPECT_EQ(static_cast<uint64_t>(-5), Sig(db, 1, "S")->rawZero); }},
        {"MultiplexedValuesDescribeSwitch",
         "BO_ 1 A: 8 X\n SG_ Sw M : 0|8@1+ (1,0) [0|0] \"\" X\n"
         " SG_ P m2 : 8|8@1+ (1,0) [0|0] \"\" X\n SG_ Q m2 : 16|8@1+ (1,0) [0|0] \"\" X\n"
         " SG_ R m3M : 24|8@1+ (1,0) [0|0] \"\" X\n",
         {},
         [](const DBC& db) {
             const Signal* sw = Sig(db, 1, "Sw");
             ASSERT_EQ(2u, sw->valueDescs.size());
             EXPECT_EQ(2.0, sw->valueDescs[0].value);
             EXPECT_EQ("m2", sw->valueDescs[0].desc);
             EXPECT_EQ("m3", sw->valueDescs[1].desc);
             EXPECT_EQ("m3M", Sig(db, 1, "R")->multiplexer);
             EXPECT_EQ(3u, Sig(db, 1, "R")->multiplexerValue);
         }},
        {"SwitchAfterMultiplexedGetsNoPairs",
         "BO_ 1 A: 8 X\n SG_ P m2 : 8|8@1+ (1,0) [0|0] \"\" X\n"
         " SG_ Sw M : 0|8@1+ (1,0) [0|0] \"\" X\n",
         {},
         [](const DBC& db) { EXPECT_TRUE(Sig(db, 1, "Sw")->valueDescs.empty()); }},
        {"MissingColonEndsSignalList",
         std::string("BO_ 1 A: 8 X\n") + kS8 + " SG_ T 0|8@1+ (1,0) [0|0] \"\" X\n" +
             " SG_ U : 0|8@1+ (1,0) [0|0] \"\" X\n",
         {"(3)m_char==':'"},
         [](const DBC& db) {
             EXPECT_NE(Sig(db, 1, "S"), nullptr);
             EXPECT_EQ(Sig(db, 1, "T"), nullptr);
             EXPECT_EQ(Sig(db, 1, "U"), nullptr);
         }},
        {"MalformedDefinitionEndsSignalList",
         "BO_ 1 A: 8 X\n SG_ S : 0|x@1+ (1,0) [0|1] \"\" X\n SG_ U : 0|8@1+ (1,0) [0|0] \"\" X\n",
         {"(2)n==8"},
         [](const DBC& db) { EXPECT_TRUE(db.FindMsg(1)->signals.empty()); }},
        {"RepeatedSignalOverwritesKeepingPosition",
         "BO_ 1 A: 8 X\n SG_ S : 0|8@1+ (1,0) [0|0] \"\" X\n SG_ T : 8|8@1+ (1,0) [0|0] \"\" X\n"
         " SG_ S : 16|4@1+ (2,0) [0|0] \"\" X\n SG_ U : 20|4@1+ (1,0) [0|0] \"\" X\n",
         {"(4) SG_ name not unique S"},
         [](const DBC& db) {
             const Signal* s = Sig(db, 1, "S");
             EXPECT_EQ(16u, s->startBit);
             EXPECT_EQ(0u, s->index);
             EXPECT_EQ(1u, Sig(db, 1, "T")->index);
             EXPECT_EQ(2u, Sig(db, 1, "U")->index);
         }},
        {"LowerCaseSgOnlyWhenIndented",
         "BO_ 1 A: 8 X\n  sg_ S : 0|8@1+ (1,0) [0|0] \"\" X\nsg_ T : 8|8@1+ (1,0) [0|0] \"\" X\n",
         {},
         [](const DBC& db) {
             EXPECT_NE(Sig(db, 1, "S"), nullptr);
             EXPECT_EQ(Sig(db, 1, "T"), nullptr);
         }},
        {"EmptyCrLinesInsideSignalList",
         "BO_ 1 A: 8 X\r\n SG_ S : 0|8@1+ (1,0) [0|0] \"\" X\r\n\r\n\r\n"
         " SG_ T : 8|8@1+ (1,0) [0|0] \"\" X\r\n",
         {},
         [](const DBC& db) { EXPECT_EQ(2u, db.FindMsg(1)->signals.size()); }},
        {"UnitsAreShared",
         "BO_ 1 A: 8 X\n SG_ S : 0|8@1+ (1,0) [0|0] \"km/h\" X\n"
         " SG_ T : 8|8@1+ (1,0) [0|0] \"km/h\" X\n",
         {},
         [](const DBC& db) { EXPECT_EQ(Sig(db, 1, "S")->unit, Sig(db, 1, "T")->unit); }},
        {"NodesWithRepeat",
         "BU_: A A B\n",
         {"(1) BU_ name not unique A"},
         [](const DBC& db) {
             std::vector<NetworkNode*> nodes;
             db.GetAllNetworkNode(nodes);
             ASSERT_EQ(2u, nodes.size());
         }},
        {"NodesWithoutColon",
         "BU_ A B\n",
         {"(1) loss ':' behind BU "},
         [](const DBC& db) {
             std::vector<NetworkNode*> nodes;
             db.GetAllNetworkNode(nodes);
             EXPECT_TRUE(nodes.empty());
         }},
        {"NodeListEndsAtPunctuation",
         "BU_: A,B\nBU_: C\n",
         {},
         [](const DBC& db) {
             std::vector<NetworkNode*> nodes;
             db.GetAllNetworkNode(nodes);
             EXPECT_EQ(2u, nodes.size());
         }},
        {"ValueTypeDecimalIdOnly",
         std::string("BO_ 256 A: 8 X\n") + kS8 +
             "SIG_VALTYPE_ 256 S : 1;\nsig_valtype_ 0x100 S : 2;\n",
         {},
         [](const DBC& db) { EXPECT_EQ(1u, Sig(db, 256, "S")->valueType); }},
        {"OrphanSignalLineIgnored",
         std::string(kS8) + "BO_ 1 A: 8 X\n",
         {},
         [](const DBC& db) { EXPECT_TRUE(db.FindMsg(1)->signals.empty()); }},
    };
}

INSTANTIATE_TEST_SUITE_P(Messages, Sections, ::testing::ValuesIn(MessageCases()), CaseName);

const char* const kMsg100 =
    "BO_ 100 M: 8 X\n SG_ S : 0|8@1+ (1,0) [0|255] \"\" X\n SG_ Sw M : 8|8@1+ (1,0) [0|0] \"\" X\n"
    " SG_ P m1 : 16|8@1+ (1,0) [0|0] \"\" X\n";

std::vector<Case> TextCases() {
    std::string m = kMsg100;
    return {
        {"NetworkCommentLeavesNoTrace",
         m + "CM_ \"net\";\n",
         {},
         [](const DBC& db) { EXPECT_EQ("", db.FindMsg(100)->comment); }},
        {"MessageCommentHexId",
         m + "CM_ BO_ 0x64 \"hello\";\n",
         {},
         [](const DBC& db) { EXPECT_EQ("hello", db.FindMsg(100)->comment); }},
        {"MultiLineCommentCountsLines",
         m + "CM_ SG_ 100 S \"a\nb\nc\";\nCM_ BO_ 7 \"x\";\n",
         {"(8)NULL!=msg"},
         [](const DBC& db) { EXPECT_EQ("a\nb\nc", Sig(db, 100, "S")->comment); }},
        {"LaterCommentReplacesAndEscapes",
         m + "CM_ SG_ 100 S \"one\";\nCM_ SG_ 100 S \"say \\\"hi\\\"\";\n",
         {},
         [](const DBC& db) { EXPECT_EQ("say \"hi\"", Sig(db, 100, "S")->comment); }},
        {"UnknownCommentObject",
         m + "CM_ XX_ 1 \"t\";\nCM_ bo_ 100 \"u\";\n",
         {"(5) Unknown CM_", "(6) Unknown CM_"},
         [](const DBC& db) { EXPECT_EQ("", db.FindMsg(100)->comment); }},
        {"CommentForMissingSignal", m + "CM_ SG_ 100 Nope \"t\";\n", {"(5)NULL!=signal"}, {}},
        {"NodeAndVariableCommentsIgnored", m + "CM_ BU_ X \"n\";\nCM_ EV_ V \"e\";\n", {}, {}},
        {"ValueTable",
         m + "VAL_ 100 S 0 \"Off\" 1 \"On\" ;\n",
         {},
         [](const DBC& db) {
             const auto& v = Sig(db, 100, "S")->valueDescs;
             ASSERT_EQ(2u, v.size());
             EXPECT_EQ(0.0, v[0].value);
             EXPECT_EQ("Off", v[0].desc);
             EXPECT_EQ(1.0, v[1].value);
             EXPECT_EQ("On", v[1].desc);
         }},
        {"NegativeValueEndsTable",
         m + "VAL_ 100 S 0 \"a\" -1 \"b\" 2 \"c\";\n",
         {},
         [](const DBC& db) { EXPECT_EQ(1u, Sig(db, 100, "S")->valueDescs.size()); }},
        {"FractionalValueEndsTable",
         m + "VAL_ 100 S 0 \"a\" 1.5 \"b\";\n",
         {},
         [](const DBC& db) {
             const auto& v = Sig(db, 100, "S")->valueDescs;
             ASSERT_EQ(2u, v.size());
             EXPECT_EQ(1.0, v[1].value);
             EXPECT_EQ("", v[1].desc);
         }},
        {"HexValue",
         m + "VAL_ 100 S 0x10 \"sixteen\";\n",
         {},
         [](const DBC& db) { EXPECT_EQ(16.0, Sig(db, 100, "S")->valueDescs.at(0).value); }},
        {"TableReplacesMultiplexPairs",
         m + "VAL_ 100 Sw 7 \"seven\";\n",
         {},
         [](const DBC& db) {
             const auto& v = Sig(db, 100, "Sw")->valueDescs;
             ASSERT_EQ(1u, v.size());
             EXPECT_EQ("seven", v[0].desc);
         }},
        {"EnvironmentTableChangesNothing",
         m + "VAL_ S 0 \"a\";\n",
         {},
         [](const DBC& db) { EXPECT_TRUE(Sig(db, 100, "S")->valueDescs.empty()); }},
        {"TableForMissingSignal", m + "VAL_ 100 Nope 0 \"a\";\n", {"(5)NULL!=signal"}, {}},
    };
}

INSTANTIATE_TEST_SUITE_P(Text, Sections, ::testing::ValuesIn(TextCases()), CaseName);

const Attr* FindAttr(const std::vector<Attr>& attrs, const char* name) {
    for (const Attr& a : attrs) {
        if (a.name && std::strcmp(a.name, name) == 0) return &a;
    }
    return nullptr;
}

const AttrDesc* FindDef(const DBC& db, const char* name) {
    const char* atom = db.Impl()->GetAtoms().find(name);
    auto it = db.Impl()->AttrDefs().find(atom);
    return it == db.Impl()->AttrDefs().end() ? nullptr : it->second;
}

std::vector<Case> AttrCases() {
    std::string m = std::string("BU_: Node\nBO_ 291 M: 8 X\n") + kS8;
    std::string cycle = "BA_DEF_ BO_ \"GenMsgCycleTime\" INT 0 65535;\n";
    return {
        {"MessageValueAndDefault",
         m + cycle + "BA_DEF_DEF_ \"GenMsgCycleTime\" 100;\nBA_ \"GenMsgCycleTime\" BO_ 291 20;\n",
         {},
         [](const DBC& db) {
             const AttrDesc* d = FindDef(db, "GenMsgCycleTime");
             ASSERT_NE(d, nullptr);
             EXPECT_EQ("BO_", d->objType);
             EXPECT_EQ(ATTR_INT, d->type);
             EXPECT_EQ(65535, d->imax);
             EXPECT_EQ(100, d->defVal.ival);
             const Attr* a = FindAttr(db.FindMsg(291)->attrs, "GenMsgCycleTime");
             ASSERT_NE(a, nullptr);
             EXPECT_EQ(20, a->value.ival);
             EXPECT_EQ(d, a->desc);
         }},
        {"HexMessageIdInValue",
         m + cycle + "BA_ \"GenMsgCycleTime\" BO_ 0x123 5;\n",
         {},
         [](const DBC& db) { EXPECT_EQ(1u, db.FindMsg(291)->attrs.size()); }},
        {"ProtocolJ1939",
         m + "BA_DEF_ \"ProtocolType\" STRING;\nBA_ \"ProtocolType\" \"J1939\";\n",
         {},
         [](const DBC& db) { EXPECT_EQ(0u, db.GetProtocol()); }},
        {"ProtocolCaseSensitiveLastWins",
         m + "BA_DEF_ \"ProtocolType\" STRING;\nBA_ \"ProtocolType\" \"J1939\";\n"
             "BA_ \"ProtocolType\" \"j1939\";\n",
         {},
         [](const DBC& db) { EXPECT_EQ(1u, db.GetProtocol()); }},
        {"ProtocolOnMessageIgnored",
         m + "BA_DEF_ BO_ \"ProtocolType\" STRING;\nBA_ \"ProtocolType\" BO_ 291 \"J1939\";\n",
         {},
         [](const DBC& db) { EXPECT_EQ(2u, db.GetProtocol()); }},
        {"EnumSkipsEmptyTextsAndTakesIndex",
         m + "BA_DEF_ SG_ \"E\" ENUM \"A\",\"\",\"B\";\nBA_ \"E\" SG_ 291 S 1;\n",
         {},
         [](const DBC& db) {
             const AttrDesc* d = FindDef(db, "E");
             ASSERT_EQ(2u, d->enums.size());
             EXPECT_STREQ("B", d->enums[1]);
             const Attr* a = FindAttr(Sig(db, 291, "S")->attrs, "E");
             ASSERT_NE(a, nullptr);
             EXPECT_EQ(1u, a->value.uval);
             EXPECT_EQ("", a->value.str);
         }},
        {"DuplicateDefinitionAndUndefinedValue",
         m + cycle + "BA_DEF_ \"GenMsgCycleTime\" FLOAT 0 1;\nBA_ \"Nope\" 3;\n",
         {"(5) BA_DEF name errorGenMsgCycleTime",
          "(6) can not find BA_DEF_DEF_ attribute_nameNope"},
         [](const DBC& db) { EXPECT_EQ(ATTR_INT, FindDef(db, "GenMsgCycleTime")->type); }},
        {"UndefinedDefault",
         m + "BA_DEF_DEF_ \"Nope\" 1;\n",
         {"(4) can not find BA_DEF_DEF_ attribute_nameNope"},
         {}},
        {"FloatRangeWithOneNumber",
         m + "BA_DEF_ \"F\" FLOAT 2.5;\nBA_DEF_DEF_ \"F\" 1.25;\n",
         {},
         [](const DBC& db) {
             const AttrDesc* d = FindDef(db, "F");
             EXPECT_EQ(2.5, d->fmin);
             EXPECT_EQ(0.0, d->fmax);
             EXPECT_EQ(1.25, d->defVal.fval);
         }},
        {"HexRangeAndSecondDefaultWins",
         m + "BA_DEF_ BU_ \"H\" HEX 1 255;\nBA_DEF_DEF_ \"H\" 3;\nBA_DEF_DEF_ \"H\" 4;\n"
             "BA_ \"H\" BU_ Node 9;\nBA_ \"H\" BU_ Ghost 9;\n",
         {},
         [](const DBC& db) {
             const AttrDesc* d = FindDef(db, "H");
             EXPECT_EQ(255u, d->hmax);
             EXPECT_EQ(4u, d->defVal.uval);
             std::vector<NetworkNode*> nodes;
             db.GetAllNetworkNode(nodes);
             ASSERT_EQ(1u, nodes.size());
             ASSERT_EQ(1u, nodes[0]->attrs.size());
             EXPECT_EQ(9u, nodes[0]->attrs[0].value.uval);
         }},
        {"UnknownTypeWordBecomesInt",
         m + "BA_DEF_ \"W\" WORD 1 2;\n",
         {"Unknown typeWORD"},
         [](const DBC& db) {
             EXPECT_EQ(ATTR_INT, FindDef(db, "W")->type);
             EXPECT_EQ(2, FindDef(db, "W")->imax);
         }},
        {"UnknownObjectStillParsed",
         m + "BA_DEF_ \"T\" STRING;\nBA_ \"T\" XX_ \"v\";\n",
         {"(5) Unknown BA_"},
         {}},
        {"MissingTargets",
         m + cycle +
             "BA_DEF_ SG_ \"G\" INT 0 1;\nBA_ \"GenMsgCycleTime\" BO_ 999 1;\n"
             "BA_ \"G\" SG_ 291 Nope 1;\n",
         {"(6) Find msg failed! BO_ id=999 ", "(7)NULL!=signal"},
         {}},
    };
}

INSTANTIATE_TEST_SUITE_P(Attributes, Sections, ::testing::ValuesIn(AttrCases()), CaseName);

// The record-order lists follow the file only while the flag is set.
TEST(RecordOrder, ListsFilledOnlyWhenOrdered) {
    std::string text = std::string("BO_ 2 B: 8 X\n") + kS8 + "BO_ 1 A: 8 X\n" + kS8 +
                       "CM_ \"n\";\nBA_DEF_ \"T\" STRING;\nBA_ \"T\" \"v\";\nVAL_ E 1 \"x\";\n";
    for (bool ordered : {false, true}) {
        auto db = dbctest::Load(text, ordered);
        const DBCImpl* impl = db->Impl();
        size_t expect = ordered ? 1 : 0;
        EXPECT_EQ(2 * expect, impl->MsgList().size());
        EXPECT_EQ(expect, impl->Comments().size());
        EXPECT_EQ(expect, impl->AttrDefList().size());
        EXPECT_EQ(expect, impl->AttrList().size());
        EXPECT_EQ(expect, impl->Vals().size());
        EXPECT_EQ(expect, db->FindMsg(2)->signalList.size());
        if (ordered) {
            EXPECT_EQ(2u, impl->MsgList()[0]->id) << "file order, not id order";
        }
    }
}

// Property: the signal definition parser agrees with sscanf, the reference,
// field by field and bit for bit, on definitions built from tricky tokens.
TEST(SignalDefinition, AgreesWithSscanfOnGeneratedTexts) {
    const char* const ints[] = {"0",
                                "7",
                                "63",
                                "4294967295",
                                "4294967296",
                                "18446744073709551615",
                                "99999999999999999999",
                                "9999999999999999999",
                                "-1",
                                "+5",
                                "x"};
    const char* const nums[] = {"0",
                                "-0",
                                "1",
                                "0.1",
                                "-40",
                                "2.5E-005",
                                "1e308",
                                "1e309",
                                "4.9e-324",
                                "1e-400",
                                ".5",
                                "5.",
                                "0x1p3",
                                "inf",
                                "-nan",
                                "1e",
                                "1e+",
                                "00012.50",
                                "123456789012345678901234",
                                "0.000000000000000000001",
                                "",
                                "-"};
    std::mt19937 rng(2024);
    auto any = [&](const auto& table) { return table[rng() % (sizeof(table) / sizeof(*table))]; };
    for (int i = 0; i < 20000; ++i) {
        std::string text = std::string(any(ints)) + "|" + any(ints) + "@" + any(ints) +
                           (rng() % 8 ? "+" : "") + "(" + any(nums) + "," + any(nums) + ")[" +
                           any(nums) + "|" + any(nums) + "]";
        SignalDef got;
        SignalDef want;
        int n = ParseSignalDef(text.c_str(), got);
        int m = std::sscanf(text.c_str(), "%u|%u@%d%c(%lf,%lf)[%lf|%lf]", &want.startBit,
                            &want.length, &want.byteOrder, &want.sign, &want.factor, &want.offset,
                            &want.minimum, &want.maximum);
        ASSERT_EQ(m < 0 ? 0 : m, n) << text;
        EXPECT_EQ(want.startBit, got.startBit) << text;
        EXPECT_EQ(want.length, got.length) << text;
        EXPECT_EQ(want.byteOrder, got.byteOrder) << text;
        EXPECT_EQ(want.sign, got.sign) << text;
        const double w[] = {want.factor, want.offset, want.minimum, want.maximum};
        const double g[] = {got.factor, got.offset, got.minimum, got.maximum};
        EXPECT_EQ(0, std::memcmp(w, g, sizeof w)) << text;
    }
}

// Property: the pairs that multiplexed signals add to their switch match a
// direct simulation of the rule (switch = the "M" signal with the smallest
// name pointer among those defined so far; a repeated definition replaces
// its signal and drops its pairs), over random signal lists whose names
// were interned in random order.
TEST(Multiplexing, SwitchPairsMatchASimulation) {
    std::mt19937 rng(99);
    for (int round = 0; round < 200; ++round) {
        std::vector<std::string> names;
        for (int i = 0; i < 6; ++i) names.push_back("N" + std::to_string(i));
        std::vector<std::string> order = names;
        std::shuffle(order.begin(), order.end(), rng);
        std::string text = "BU_:";
        for (const std::string& n : order) text += " " + n;
        text += "\nBO_ 1 A: 8 X\n";
        std::vector<std::pair<std::string, std::string>> lines;
        for (int i = 0; i < 12; ++i) {
            int kind = static_cast<int>(rng() % 3);
            std::string ind = kind == 0 ? "M" : kind == 1 ? "m" + std::to_string(rng() % 4) : "";
            lines.emplace_back(names[rng() % names.size()], ind);
            text += " SG_ " + lines.back().first + " " + ind + " : 0|8@1+ (1,0) [0|0] \"\" X\n";
        }
        dbctest::LogCapture quiet;
        auto db = dbctest::Load(text);
        const dbc_detail::Atoms& atoms = db->Impl()->GetAtoms();
        struct Ref {
            std::string mux;
            std::vector<double> values;
        };
        std::map<const char*, Ref> ref;
        for (const auto& line : lines) {
            if (!line.second.empty() && line.second[0] == 'm') {
                double v = std::stod(line.second.substr(1));
                auto sw = std::find_if(ref.begin(), ref.end(),
                                       [](const auto& kv) { return kv.second.mux == "M"; });
                if (sw != ref.end() && std::find(sw->second.values.begin(), sw->second.values.end(),
                                                 v) == sw->second.values.end())
                    sw->second.values.push_back(v);
            }
            ref[atoms.find(line.first)] = Ref{line.second, {}};
        }
        for (const auto& kv : ref) {
            const Signal* sig = Sig(*db, 1, kv.first);
            ASSERT_NE(sig, nullptr);
            std::vector<double> got;
            for (const ValPair& p : sig->valueDescs) got.push_back(p.value);
            EXPECT_EQ(kv.second.values, got) << text;
        }
    }
}

}  // namespace
