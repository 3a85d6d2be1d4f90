// The legacy reader's sections, one row per rule: a DBC text, the exact log
// lines and what the model holds afterwards.
#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <tuple>

#include "unit/dbc_test_util.h"

namespace {

using dbctest::Sig;

struct Case {
    const char* name;
    std::string text;
    std::vector<std::string> logs;
    std::function<void(const DBC&)> check;
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

std::string SG(const char* name, const char* def = "0|8@1+ (1,0) [0|0]", const char* unit = "") {
    return std::string(" SG_ ") + name + " : " + def + " \"" + unit + "\" X\n";
}

std::vector<NetworkNode*> Nodes(const DBC& db) {
    std::vector<NetworkNode*> all;
    db.GetAllNetworkNode(all);
    return all;
}

std::string Descs(const DBC& db, const char* sig) {
    const Signal* s = Sig(db, 100, sig);
    if (!s) return "<no signal>";
    std::string out;
    for (const ValPair& p : s->valueDescs)
        out += std::to_string(static_cast<int>(p.value)) + "=" + p.desc + ";";
    return out;
}

const Attr* FindAttr(const std::vector<Attr>& attrs, const char* name) {
    for (const Attr& a : attrs)
        if (a.name && std::strcmp(a.name, name) == 0) return &a;
    return nullptr;
}

const AttrDesc* Def(const DBC& db, const char* name) {
    auto it = db.Impl()->AttrDefs().find(db.Impl()->GetAtoms().find(name));
    return it == db.Impl()->AttrDefs().end() ? nullptr : it->second;
}

// clang-format off
std::vector<Case> Cases() {
    const std::string m = "BO_ 100 M: 8 X\n" + SG("S") + SG("Sw M") + SG("P m1");
    const std::string a = "BU_: Node\nBO_ 291 M: 8 X\n" + SG("S");
    const std::string cycle = "BA_DEF_ BO_ \"GenMsgCycleTime\" INT 0 65535;\n";
    const std::string proto = "BA_DEF_ \"ProtocolType\" STRING;\nBA_ \"ProtocolType\" \"J1939\";\n";
    return {
        {"IdBaseAndBlankBeforeColon", "BO_ 0x10 $H_1: 1 N\nBO_ 010 O: 2 N\nBO_ 5 Name : 8 Node\n", {},
         [](auto& db) {
             EXPECT_STREQ("$H_1", db.FindMsg(16)->name);
             EXPECT_STREQ("O", db.FindMsg(8)->name);
             EXPECT_EQ(0u, db.FindMsg(5)->dlc) << "the blank is taken for the separator";
             EXPECT_STREQ("", db.FindMsg(5)->transmitter); }},
        {"RepeatedIdStopsLoad", "BO_ 1 A: 8 X\nBO_ 2 B: 8 X\nBO_ 1 C: 8 X\nBO_ 3 D: 8 X\n",
         {"(4) BO_ id not unique : 1", "(4)ParseBO()"}, [](auto& db) {
             EXPECT_STREQ("A", db.FindMsg(1)->name);
             EXPECT_TRUE(db.FindMsg(2) && !db.FindMsg(3));
             EXPECT_EQ(db.FindMsg2("A"), nullptr) << "name index is not rebuilt"; }, false},
        {"SignedMotorolaWarnsOnce", "BO_ 1 A: 8 X\n" + SG("S", "7|8@0- (1,0) [0|0]") +
             SG("T", "8|8@0- (1,0) [0|0]") + SG("U", "16|8@2+ (1,0) [0|0]"),
         {"signed signal... "}, [](auto& db) {
             EXPECT_TRUE(Sig(db, 1, "S")->bigEndian && Sig(db, 1, "S")->isSigned);
             EXPECT_FALSE(Sig(db, 1, "U")->bigEndian) << "any digit but 0 is Intel"; }},
        {"BlanksInsideDefinitionAndRawZero", "BO_ 1 A: 8 X\n" +
             SG("S", "0 | 8 @ 1 + ( 0.5 , -40 ) [ 0 |\t100 ]", "C") + SG("Z", "8|8@1+ (0,5) [0|0]"),
         {}, [](auto& db) {
             EXPECT_EQ(100.0, Sig(db, 1, "S")->maximum);
             EXPECT_EQ(80u, Sig(db, 1, "S")->rawZero);
             EXPECT_EQ(static_cast<uint64_t>(-5), Sig(db, 1, "Z")->rawZero) << "zero factor"; }},
        {"BlankCrLinesAndIndentedLowerCaseSg", "BO_ 1 A: 8 X\r\n SG_ S : 0|8@1+ (1,0) [0|0] \"\" X\r\n"
             "\r\n\r\n  sg_ T : 8|8@1+ (1,0) [0|0] \"\" X\r\nsg_ U : 16|8@1+ (1,0) [0|0] \"\" X\r\n",
         {}, [](auto& db) { EXPECT_TRUE(Sig(db, 1, "S") && Sig(db, 1, "T") && !Sig(db, 1, "U")); }},
        {"ValueTypeDecimalIdOnly",
         "BO_ 256 A: 8 X\n" + SG("S") + "SIG_VALTYPE_ 256 S : 1;\nsig_valtype_ 0x100 S : 2;\n", {},
         [](auto& db) { EXPECT_EQ(1u, Sig(db, 256, "S")->valueType); }},
        {"NodesRepeatPunctuationAndNoColon", "BU_: A A B,C\nBU_: D\nBU_ E\n",
         {"(1) BU_ name not unique A", "(3) loss ':' behind BU "},
         [](auto& db) { EXPECT_EQ(3u, Nodes(db).size()); }},
        {"KeywordsAreWholeWordsAfterBlanks",
         "BO_X 1 A: 8 X\nVERSION \"\"\nvErsion\n;\n BO_ 3 C: 8 X\nbo_ 4 D: 8 X\n", {}, [](auto& db) {
             EXPECT_TRUE(!db.FindMsg(1) && db.FindMsg(3) && db.FindMsg(4));
             EXPECT_NE(db.Impl()->GetAtoms().find("vErsion"), nullptr) << "first words interned"; }},
        {"NamespaceEndsAtFirstUnindentedLine",
         "NS_ :\n\tBO_ 1 Hidden: 8 X\n    CM_\n\nBO_ 2 Seen: 8 X\nNS_ :\nBO_ 3 Next: 8 X\n", {},
         [](auto& db) { EXPECT_TRUE(!db.FindMsg(1) && db.FindMsg(2) && db.FindMsg(3)); }},
        {"ErrorLinesFollowCrLfText", "VERSION \"\"\r\n\r\nBU_ A\r\nCM_ BO_ 5 \"x\";\r\n",
         {"(3) loss ':' behind BU ", "(4)NULL!=msg"}, {}},
        {"Comments", m + "CM_ BO_ 0x64 \"hello\";\nCM_ SG_ 100 S \"a\nb\nc\";\nCM_ BO_ 7 \"x\";\n"
             "CM_ SG_ 100 Sw \"one\";\nCM_ SG_ 100 Sw \"say \\\"hi\\\" \\\\ a\\nb\";\n",
         {"(9)NULL!=msg"}, [](auto& db) {
             EXPECT_EQ("hello", db.FindMsg(100)->comment);
             EXPECT_EQ("a\nb\nc", Sig(db, 100, "S")->comment);
             EXPECT_EQ("say \"hi\" \\ anb", Sig(db, 100, "Sw")->comment); }},
        {"CommentTargets", m + "CM_ XX_ 1 \"t\";\nCM_ bo_ 100 \"u\";\nCM_ SG_ 100 Nope \"t\";\n"
             "CM_ BU_ X \"n\";\nCM_ EV_ V \"e\";\n",
         {"(5) Unknown CM_", "(6) Unknown CM_", "(7)NULL!=signal"},
         [](auto& db) { EXPECT_EQ("", db.FindMsg(100)->comment); }},
        {"ValueTables", m + "VAL_ 100 S 0 \"Off\" 0x10 \"On\" ;\nVAL_ 100 P 0 \"a\" -1 \"b\" 2 \"c\";\n"
             "VAL_ 100 Sw 0 \"a\" 1.5 \"b\";\nVAL_ S 0 \"a\";\nVAL_ 100 Nope 0 \"a\";\n",
         {"(9)NULL!=signal"}, [](auto& db) {
             EXPECT_EQ("0=Off;16=On;", Descs(db, "S")) << "an environment table changes nothing";
             EXPECT_EQ("0=a;", Descs(db, "P")) << "a negative value ends the table";
             EXPECT_EQ("0=a;1=;", Descs(db, "Sw")) << "replaces the multiplex pairs; fraction ends"; }},
        {"LowerCaseStatementsWithCrLf", m + "cm_ SG_ 100 S \"c\";\r\nval_ 100 S 1 \"x\";\r\n"
             "ba_def_ \"ProtocolType\" STRING;\r\nba_ \"ProtocolType\" \"J1939\";\r\n", {},
         [](auto& db) {
             EXPECT_EQ("c", Sig(db, 100, "S")->comment);
             EXPECT_EQ("1=x;", Descs(db, "S"));
             EXPECT_EQ(0u, db.GetProtocol());
             const DBCImpl& impl = *db.Impl();  // file-order lists only when asked for
             EXPECT_TRUE(impl.Comments().empty() && impl.AttrDefList().empty() &&
                         impl.AttrList().empty() && impl.Vals().empty() &&
                         db.FindMsg(100)->signalList.empty()); }},
        {"MessageValueAndDefault", a + cycle +
             "BA_DEF_DEF_ \"GenMsgCycleTime\" 100;\nBA_ \"GenMsgCycleTime\" BO_ 0x123 20;\n", {},
         [](auto& db) {
             const AttrDesc* d = Def(db, "GenMsgCycleTime");
             ASSERT_NE(d, nullptr);
             EXPECT_EQ("BO_", d->objType);
             EXPECT_EQ(65535, d->imax);
             EXPECT_EQ(100, d->defVal.ival);
             const Attr* a = FindAttr(db.FindMsg(291)->attrs, "GenMsgCycleTime");
             ASSERT_NE(a, nullptr) << "hex message id";
             EXPECT_EQ(20, a->value.ival);
             EXPECT_EQ(d, a->desc); }},
        {"ProtocolCaseSensitiveLastWins", a + proto + "BA_ \"ProtocolType\" \"j1939\";\n", {},
         [](auto& db) { EXPECT_EQ(1u, db.GetProtocol()); }},
        {"ProtocolOnMessageIgnored",
         a + "BA_DEF_ BO_ \"ProtocolType\" STRING;\nBA_ \"ProtocolType\" BO_ 291 \"J1939\";\n", {},
         [](auto& db) { EXPECT_EQ(2u, db.GetProtocol()); }},
        {"EnumSkipsEmptyTextsAndTakesIndex",
         a + "BA_DEF_ SG_ \"E\" ENUM \"A\",\"\",\"B\";\nBA_ \"E\" SG_ 291 S 1;\n", {}, [](auto& db) {
             ASSERT_EQ(2u, Def(db, "E")->enums.size());
             EXPECT_STREQ("B", Def(db, "E")->enums[1]);
             EXPECT_EQ(1u, FindAttr(Sig(db, 291, "S")->attrs, "E")->value.uval); }},
        {"DuplicateDefinitionAndUndefinedValue",
         a + cycle + "BA_DEF_ \"GenMsgCycleTime\" FLOAT 0 1;\nBA_ \"Nope\" 3;\nBA_DEF_DEF_ \"Nope\" 1;\n",
         {"(5) BA_DEF name errorGenMsgCycleTime", "(6) can not find BA_DEF_DEF_ attribute_nameNope",
          "(7) can not find BA_DEF_DEF_ attribute_nameNope"},
         [](auto& db) { EXPECT_EQ(ATTR_INT, Def(db, "GenMsgCycleTime")->type); }},
        {"FloatRangeWithOneNumberAndUnknownTypeWord",
         a + "BA_DEF_ \"F\" FLOAT 2.5;\nBA_DEF_DEF_ \"F\" 1.25;\nBA_DEF_ \"W\" WORD 1 2;\n", {"Unknown typeWORD"},
         [](auto& db) {
             EXPECT_EQ(2, Def(db, "W")->imax);
             EXPECT_EQ(2.5, Def(db, "F")->fmin);
             EXPECT_EQ(0.0, Def(db, "F")->fmax);
             EXPECT_EQ(1.25, Def(db, "F")->defVal.fval); }},
        {"HexRangeAndSecondDefaultWins", a + "BA_DEF_ BU_ \"H\" HEX 1 255;\nBA_DEF_DEF_ \"H\" 3;\n"
             "BA_DEF_DEF_ \"H\" 4;\nBA_ \"H\" BU_ Node 9;\nBA_ \"H\" BU_ Ghost 9;\n", {},
         [](auto& db) {
             EXPECT_EQ(255u, Def(db, "H")->hmax);
             EXPECT_EQ(4u, Def(db, "H")->defVal.uval);
             ASSERT_EQ(1u, Nodes(db)[0]->attrs.size());
             EXPECT_EQ(9u, Nodes(db)[0]->attrs[0].value.uval); }},
        {"MissingTargets", a + cycle + "BA_DEF_ SG_ \"G\" INT 0 1;\n"
             "BA_ \"GenMsgCycleTime\" BO_ 999 1;\nBA_ \"G\" SG_ 291 Nope 1;\n"
             "BA_DEF_ \"T\" STRING;\nBA_ \"T\" XX_ \"v\";\n",
         {"(6) Find msg failed! BO_ id=999 ", "(7)NULL!=signal", "(9) Unknown BA_"}, {}},
    };
}
// clang-format on

INSTANTIATE_TEST_SUITE_P(Rules, Sections, ::testing::ValuesIn(Cases()),
                         [](const auto& info) { return std::string(info.param.name); });

// The signal definition parser converts as sscanf does, bit for bit, also on
// overflows, denormals, hex floats, inf/nan spellings and cut-off exponents.
TEST(SignalDefinition, AgreesWithSscanfOnGeneratedTexts) {
    // clang-format off
    const std::vector<std::string> ints = {"0", "7", "00010", "4294967295", "4294967296",
        "18446744073709551616", "-1", "-4294967297", "+5", "0x8", "x", ""};
    const std::vector<std::string> nums = {"0", "-0", "0.1000000000000000055511151231257827",
        "-40", "2.5E-005", "1e308", "1.7976931348623159e308", "1e309", "4.9e-324", "2.4e-324",
        "2.2250738585072011e-308", "1e-400", ".5", "5.", "0x1p3", "0X.8", "0x", "inf", "-Infinity",
        "NAN", "nan(123)", "1e", "1e+", "+-1", "00012.50", "9007199254740993",
        "1" + std::string(300, '0'), "-"};
    // clang-format on
    std::mt19937 rng(2024);
    auto any = [&](const std::vector<std::string>& t) { return t[rng() % t.size()]; };
    for (int i = 0; i < 20000; ++i) {
        std::string text = any(ints) + "|" + any(ints) + "@" + any(ints) + (rng() % 8 ? "+" : "") +
                           "(" + any(nums) + "," + any(nums) + ")[" + any(nums) + "|" + any(nums) +
                           "]";
        SignalDef got, want;
        int n = ParseSignalDef(text.c_str(), got);
        int m = std::sscanf(text.c_str(), "%u|%u@%d%c(%lf,%lf)[%lf|%lf]", &want.startBit,
                            &want.length, &want.byteOrder, &want.sign, &want.factor, &want.offset,
                            &want.minimum, &want.maximum);
        ASSERT_EQ(std::max(m, 0), n) << text;
        EXPECT_EQ(std::tie(want.startBit, want.length, want.byteOrder, want.sign),
                  std::tie(got.startBit, got.length, got.byteOrder, got.sign))
            << text;
        const double w[] = {want.factor, want.offset, want.minimum, want.maximum};
        const double g[] = {got.factor, got.offset, got.minimum, got.maximum};
        EXPECT_EQ(0, std::memcmp(w, g, sizeof w)) << text;
    }
}

// The "mN" pairs added to the switch match a simulation: the switch is the
// "M" signal with the smallest name pointer so far; a redefinition drops its pairs.
TEST(Multiplexing, SwitchPairsMatchASimulation) {
    std::mt19937 rng(99);
    for (int round = 0; round < 200; ++round) {
        std::vector<std::string> names = {"N0", "N1", "N2", "N3", "N4", "N5"}, order = names;
        std::shuffle(order.begin(), order.end(), rng);
        std::string text = "BU_:";
        for (const std::string& n : order) text += " " + n;
        text += "\nBO_ 100 A: 8 X\n";
        std::vector<std::pair<std::string, std::string>> lines;
        for (int i = 0; i < 12; ++i) {
            int kind = static_cast<int>(rng() % 3);
            std::string ind = kind == 0 ? "M" : kind == 1 ? "m" + std::to_string(rng() % 12) : "";
            lines.emplace_back(names[rng() % names.size()], ind);
            text += SG((lines.back().first + " " + ind).c_str());
        }
        dbctest::LogCapture quiet;
        auto db = dbctest::Load(text);
        const dbc_detail::Atoms& atoms = db->Impl()->GetAtoms();
        std::map<const char*, std::pair<std::string, std::string>> ref;  // indicator, pairs
        for (const auto& [name, ind] : lines) {
            auto sw = std::find_if(ref.begin(), ref.end(),
                                   [](const auto& kv) { return kv.second.first == "M"; });
            // Indicators are "M", "m0".."m11" or none; a pair is "value=indicator".
            std::string pair = ind.empty() ? "" : ind.substr(1) + "=" + ind + ";";
            if (ind[0] == 'm' && sw != ref.end() &&
                sw->second.second.find(pair) == std::string::npos)
                sw->second.second += pair;
            ref[atoms.find(name)] = {ind, ""};
        }
        for (const auto& [name, want] : ref) EXPECT_EQ(want.second, Descs(*db, name)) << text;
    }
}

}  // namespace
