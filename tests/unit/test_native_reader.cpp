// The native reader and writer, one table row per rule: a DBC snippet, lines
// the model must then show, the exact diagnostics, and the same model again
// after writing the text and reading it back.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "dbc/network.h"
#include "dbc/network_writer.h"

namespace {

using namespace tarn::net;

std::string Str(std::string_view s) {
    return std::string(s);
}

template <class F>
std::string Join(Range r, F item) {
    std::string out;
    for (uint32_t i = r.first; i < r.end(); ++i) out += (i == r.first ? "" : ",") + item(i);
    return out;
}

// One line per object, the fields a rule is about in a fixed order.
std::string Describe(const Network& n) {
    auto name = [&](uint32_t i) { return Str(n.names[i]); };
    auto attrs = [&](Range r) {
        return " attrs=" + Join(r, [&](uint32_t i) {
                   const AttrEntry& e = n.attrValues[i];
                   char num[32];
                   std::snprintf(num, sizeof num, "=%g/", e.value.number);
                   return Str(n.attrDefs[e.def].name) + num + Str(e.value.text);
               });
    };
    auto texts = [&](Range r) {
        return Join(r, [&](uint32_t k) {
            return std::to_string(n.valueTexts[k].raw) + ":" + Str(n.valueTexts[k].text);
        });
    };
    auto range = [&](uint32_t k) {
        return std::to_string(n.muxRanges[k].low) + "-" + std::to_string(n.muxRanges[k].high);
    };
    std::string out = "NET version=" + Str(n.version) + " cm=" + Str(n.comment) +
                      " j1939=" + std::to_string(n.j1939) + attrs(n.attrs) + "\n";
    for (const Node& node : n.nodes)
        out += "BU " + Str(node.name) + " cm=" + Str(node.comment) + attrs(node.attrs) + "\n";
    for (const AttrDef& d : n.attrDefs) {
        out += "DEF " + Str(d.name) + " obj=" + std::to_string(int(d.object)) +
               " type=" + std::to_string(int(d.type)) + " enums=" + Join(d.enums, name) +
               " default=" + (d.hasDefault ? std::to_string(int64_t(d.defaultValue.number)) : "-") +
               "/" + Str(d.defaultValue.text) + "\n";
    }
    for (const Message& m : n.messages) {
        char id[64];
        std::snprintf(id, sizeof id, "0x%X%s len=%u", m.id, m.extended ? "x" : "", m.length);
        out += "BO " + Str(m.name) + " " + id + " tx=" + Join(m.senders, name) +
               " cm=" + Str(m.comment) + attrs(m.attrs) + "\n";
        for (uint32_t i = m.signals.first; i < m.signals.end(); ++i) {
            const Signal& s = n.signals[i];
            char layout[200];
            std::snprintf(layout, sizeof layout, "%u|%u@%d%c (%g,%g) [%g|%g]", s.startBit, s.length,
                          s.bigEndian ? 0 : 1, s.isSigned ? '-' : '+', s.factor, s.offset,
                          s.minimum, s.maximum);
            out += "SG " + Str(m.name) + "." + Str(s.name) + " " + layout + " \"" + Str(s.unit) +
                   "\" rx=" + Join(s.receivers, name) + " type=" + std::to_string(int(s.type)) +
                   (s.isSwitch ? " M" : "") + " sw=" + std::to_string(s.switchIndex) +
                   " mux=" + Join(s.muxValues, range) + " vals=" + texts(s.values) +
                   " cm=" + Str(s.comment) + attrs(s.attrs) + "\n";
        }
    }
    for (const ValueTable& t : n.valueTables)
        out += "VT " + Str(t.name) + " " + texts(t.values) + "\n";
    return out;
}

std::vector<std::string> Diagnostics(const Network& n) {
    std::vector<std::string> out;
    for (const Diagnostic& d : n.diagnostics)
        out.push_back(std::to_string(d.line) + " " + Str(d.section) + ": " + Str(d.reason));
    return out;
}

struct Case {
    const char* name;
    std::string text;
    std::vector<std::string> shows;  // substrings, each found in Describe's text
    std::vector<std::string> diagnostics;
    ReadOptions options{};
    ReadStatus status = ReadStatus::Ok;
};

const std::string kHead = "VERSION \"v1\"\nBU_: A B\n";  // lines 1 and 2
const std::string kMsg = "BO_ 100 M: 8 A\n";             // line 3 after kHead

// clang-format off
const Case kCases[] = {
    {"MessagesAndSignals",
     kHead + "BO_ 2147483948 Ext: 64 B\n SG_ s1 : 12|40@1- (0.5,-1) [-2|+3] \"km/h\" A,B\n" +
         " SG_ s2: 7|8@0+ (1e-3,0) [0|0] \"\"  Vector__XXX;\n" +
         "BO_ 300 Std: 8 Vector__XXX\nBO_TX_BU_ 300 : B,A,B;\n",
     {"NET version=v1", "BU A", "BO Ext 0x12Cx len=64 tx=B ",
      "SG Ext.s1 12|40@1- (0.5,-1) [-2|3] \"km/h\" rx=A,B type=0 sw=-1",
      "SG Ext.s2 7|8@0+ (0.001,0) [0|0] \"\" rx= ", "BO Std 0x12C len=8 tx=B,A "}, {}},
    {"PlainMultiplexing",
     kHead + kMsg +
         " SG_ a m1 : 8|8@1+ (1,0) [0|0] \"\" A\n SG_ sel M : 0|8@1+ (1,0) [0|0] \"\" A\n",
     {"M.a 8|8@1+ (1,0) [0|0] \"\" rx=A type=0 sw=1 mux=1-1",
      "M.sel 0|8@1+ (1,0) [0|0] \"\" rx=A type=0 M sw=-1"}, {}},
    {"ExtendedMultiplexing",
     kHead + kMsg +
         " SG_ top M : 0|8@1+ (1,0) [0|0] \"\" A\n SG_ sub m2M : 8|8@1+ (1,0) [0|0] \"\" A\n" +
         " SG_ x m5 : 16|8@1+ (1,0) [0|0] \"\" A\n" +
         "SG_MUL_VAL_ 100 sub top 2-2, 4-6;\nSG_MUL_VAL_ 100 x sub 5-5,7-9;\n",
     {"M.sub 8|8@1+ (1,0) [0|0] \"\" rx=A type=0 M sw=0 mux=2-2,4-6",
      "M.x 16|8@1+ (1,0) [0|0] \"\" rx=A type=0 sw=1 mux=5-5,7-9"}, {}},
    {"SeveralSwitchesWithoutMulVal",
     kHead + kMsg +
         " SG_ s1 M : 0|8@1+ (1,0) [0|0] \"\" A\n SG_ s2 M : 8|8@1+ (1,0) [0|0] \"\" A\n" +
         " SG_ x m1 : 16|8@1+ (1,0) [0|0] \"\" A\n BO_ 5 N: 8 A\n SG_ y m1 : 0|8@1+ (1,0) [0|0] "
         "\"\" A\n",
     {"M.x 16|8@1+ (1,0) [0|0] \"\" rx=A type=0 sw=0 mux=1-1",
      "N.y 0|8@1+ (1,0) [0|0] \"\" rx=A type=0 sw=-1 mux= "},
     {"6 SG_: the message has several multiplexer switches and no SG_MUL_VAL_ names this signal's; "
      "the first is used",
      "8 SG_: multiplexed signal in a message without a multiplexer switch"}},
    {"ValueTextsAndTables",
     kHead + kMsg + " SG_ s : 0|8@1- (1,0) [0|0] \"\" A\n" +
         "VAL_TABLE_ T 1 \"on\" 0 \"off\" ;\nVAL_ 100 s 3 \"c\" -5 \"A negative value\" 0 \"z\" 3 "
         "\"d\";\n" +
         "VAL_ 100 nope 1 \"x\";\nVAL_ 7 s 1 \"x\";\nVAL_ EnvVar 1 \"skipped\";\n",
     {"vals=-5:A negative value,0:z,3:c cm=", "VT T 0:off,1:on"},
     {"6 VAL_: a raw value has two texts; the first is kept",
      "7 VAL_: message M has no signal nope", "8 VAL_: no message has id 7"}},
    {"Comments",
     kHead + kMsg + " SG_ s : 0|8@1+ (1,0) [0|0] \"\" A\n" +
         "CM_ \"net \\\"one\\\"\";\r\nCM_ \"two\";\n" +
         "CM_ BU_ A \"node\";\nCM_ BO_ 100 \"multi\r\nline\";\nCM_ SG_ 100 s \"sig\";\n" +
         "CM_ SG_ 100 s \"again\";\nCM_ EV_ e \"skipped\";\n",
     {"cm=net \"one\"\ntwo j1939", "BU A cm=node", "BO M 0x64 len=8 tx=A cm=multi\nline", "cm=sig"},
     {"11 CM_: the object has a comment already; the first is kept"}},
    {"Attributes",
     kHead + kMsg + " SG_ s : 0|8@1+ (1,0) [0|0] \"\" A\n" +
         "BA_DEF_ \"ProtocolType\" STRING;\nBA_DEF_ BO_ \"Cycle\" INT 0 1000;\n" +
         "BA_DEF_ SG_ \"Kind\" ENUM \"a\",\"b\",\"c\";\nBA_DEF_ BU_ \"Addr\" HEX 0 255;\n" +
         "BA_DEF_ \"Gain\" FLOAT -1.5 2.5;\nBA_ \"Gain\" 0.25;\n" +
         "BA_DEF_DEF_ \"Kind\" \"b\";\nBA_DEF_DEF_ \"Cycle\" 100;\n" +
         "BA_ \"ProtocolType\" \"J1939\";\nBA_ \"Kind\" SG_ 100 s 2;\nBA_ \"Addr\" BU_ B 17;\n" +
         "BA_ \"Cycle\" BO_ 100 20;\nBA_ \"Cycle\" BO_ 100 30;\nBA_ \"Kind\" SG_ 100 s \"z\";\n" +
         "BA_ \"Cycle\" SG_ 100 s 1;\nBA_ \"Nope\" 1;\n",
     {"j1939=1 attrs=Gain=0.25/,ProtocolType=0/J1939",
      "DEF Kind obj=3 type=4 enums=a,b,c default=1/b", "BU B cm= attrs=Addr=17/",
      "tx=A cm= attrs=Cycle=20/", "attrs=Kind=2/c"},
     {"17 BA_: the attribute is set twice for one object; the first is kept",
      "18 BA_: \"z\" is not one of the attribute's values",
      "19 BA_: attribute Cycle is defined for messages, not for signals",
      "20 BA_: no attribute definition Nope"}},
    {"J1939ByDefaultAlone",
     "BA_DEF_ \"ProtocolType\" STRING;\nBA_DEF_DEF_ \"ProtocolType\" \"J1939\";\n", {"j1939=1"}, {}},
    {"J1939ForcedByOption", "BS_:\n", {"j1939=1"}, {}, ReadOptions{false, true}},
    {"ValueTypes",
     kHead + kMsg + " SG_ f : 0|32@1- (1,0) [0|0] \"\" A\n SG_ h : 32|16@1- (1,0) [0|0] \"\" A\n" +
         "BO_ 101 D: 8 A\n SG_ d : 0|64@1- (1,0) [0|0] \"\" A\n" +
         "SIG_VALTYPE_ 100 f : 1;\nSIG_VALTYPE_ 100 h : 1;\nSIG_VALTYPE_ 101 d : 2;\n",
     {"M.f 0|32@1- (1,0) [0|0] \"\" rx=A type=1", "M.h 32|16@1- (1,0) [0|0] \"\" rx=A type=0",
      "D.d 0|64@1- (1,0) [0|0] \"\" rx=A type=2"},
     {"9 SIG_VALTYPE_: a float signal must be 32 bits long"}},
    {"BadLinesLoseOnlyThemselves",
     kHead + kMsg + " SG_ a : 0|8@1+ (1,0) [0|0] \"\" A\n SG_ b  0|8@1+ (1,0) [0|0] \"\" A\n" +
         " SG_ c : 0|0@1+ (1,0) [0|0] \"\" A\n SG_ d : 0|65@1+ (1,0) [0|0] \"\" A\n" +
         " SG_ e : 9000|8@1+ (1,0) [0|0] \"\" A\n SG_ a : 8|8@1+ (1,0) [0|0] \"\" A\n" +
         " SG_ f m1x : 0|8@1+ (1,0) [0|0] \"\" A\n SG_ g : 0|8@2+ (1,0) [0|0] \"\" A\n" +
         " SG_ h : 0|8@1+ (1;0) [0|0] \"\" A\n SG_ z : 56|8@1+ (1,0) [0|0] \"\" A\n" +
         "BO_ 100 Twin: 8 A\n SG_ lost : 0|8@1+ (1,0) [0|0] \"\" A\nBO_ 102 M: 8 A\n" +
         "FOO bar\n}\nCM_ \"never closed;\n",
     {"M.a 0|8", "M.z 56|8"},
     {"5 SG_: expected ':' after the signal name", "6 SG_: signal length must be 1 to 64 bits",
      "7 SG_: signal length must be 1 to 64 bits", "8 SG_: signal lies beyond the largest frame",
      "9 SG_: signal a appears twice in its message", "10 SG_: unknown multiplexer indicator m1x",
      "11 SG_: expected byte order 0 or 1 after '@'", "12 SG_: expected (factor,offset)",
      "14 BO_: message id 100 is already used by M",
      "15 SG_: signal of a message that was not loaded", "16 BO_: message name M is already used",
      "17 FOO: unknown section keyword", "18 : the line does not start with a section keyword",
      "19 CM_: a quoted text is not closed"}},
    {"UnmodelledSectionsAreSilent",
     "VERSION \"\"\n\nNS_ :\n\tNS_DESC_\n\tCM_\n\nBS_:\nBU_:\n\tA\n\tB\n" +
         std::string("EV_ e: 0 [0|1] \"\" 0 1 DUMMY_NODE_VECTOR0 Vector__XXX;\n") +
         "ENVVAR_DATA_ e: 4;\nSIG_GROUP_ 100 G 1 : a b;\nBA_DEF_REL_ BU_SG_REL_ \"R\" INT 0 1;\n" +
         "BA_REL_ \"R\" BU_SG_REL_ A SG_ 100 a 1;\nCAT_DEF_ 1 c 0;\nFILTER 0 A;\n// a comment\n" +
         "BA_DEF_ EV_ \"E\" INT 0 1;\nBA_ \"E\" EV_ e 1;\n",
     {"BU A", "BU B", "DEF E obj=4"}, {}},
    {"CrlfAndBom",
     "\xEF\xBB\xBFVERSION \"v\"\r\nBO_ 1 M: 8 A\r\n SG_ s : 0|8@1+ (1,0) [0|0] \"\" A\r\n"
     "CM_ SG_ 1 s \"a\r\nb\";\r\nVAL_ 1 x 1 \"y\";\r\n",
     {"NET version=v ", "cm=a\nb"},
     {"6 VAL_: message M has no signal x"}},
    {"Windows1252", "CM_ \"20 \xB0" "C \x80 \x81\";\n", {"cm=20 \xC2\xB0" "C \xE2\x82\xAC \xC2\x81 "}, {}},
    {"StrictStopsAtTheFirst", "junk\n" + kHead + kMsg + " SG_ a : 0|8@1+ (1,0) [0|0] A\n", {},
     {"1 junk: unknown section keyword"}, ReadOptions{true, false}, ReadStatus::Strict},
    {"JunkIsNotDbcEvenStrict", std::string("\x7F" "ELF\x02\x01\x00\x00 BO_", 12), {}, {},
     ReadOptions{true, false}, ReadStatus::NotDbc},
};
// clang-format on

class NativeReader : public ::testing::TestWithParam<Case> {};

TEST_P(NativeReader, ReadsSnippet) {
    const Case& c = GetParam();
    Network net;
    ASSERT_EQ(c.status, Read(c.text, c.options, net));
    std::string model = Describe(net);
    for (const std::string& s : c.shows)
        EXPECT_NE(model.find(s), std::string::npos) << s << "\nin:\n" << model;
    EXPECT_EQ(c.diagnostics, Diagnostics(net));
    if (c.status != ReadStatus::Ok) return;
    Network again;
    ASSERT_EQ(ReadStatus::Ok, Read(WriteDbc(net), c.options, again));
    EXPECT_EQ(model, Describe(again));
    EXPECT_TRUE(again.diagnostics.empty());
}

INSTANTIATE_TEST_SUITE_P(Rules, NativeReader, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

std::string Signals(const std::string& message, int count) {
    std::string out;
    for (int i = 0; i < count; ++i)
        out += " SG_ s" + std::to_string(i) + " : 0|8@1+ (1,0) [0|0] \"\" A\n";
    return message + out;
}

TEST(NativeReader, FindsEveryObjectAndKeepsIdsApart) {
    std::string text = Signals("BO_ 300 Std: 8 A\n", 3) +
                       Signals("BO_ 2147483948 Ext: 8 A\n", 100000) +
                       "BA_DEF_ BO_ \"Cycle\" INT 0 1000;\nBA_DEF_DEF_ \"Cycle\" 100;\n" +
                       "BA_DEF_ BO_ \"Bare\" INT 0 1;\nBA_ \"Cycle\" BO_ 300 20;\n";
    Network net;
    ASSERT_EQ(ReadStatus::Ok, Read(text, {}, net));
    const Message* std = net.FindMessage(300, false);
    const Message* ext = net.FindMessage(300, true);
    ASSERT_TRUE(std && ext);
    EXPECT_EQ("Std", std->name);
    EXPECT_EQ(ext, net.FindMessage("Ext"));
    EXPECT_EQ(nullptr, net.FindMessage(301, false));
    for (int i = 0; i < 100000; ++i) ASSERT_EQ(i, net.FindSignal(*ext, "s" + std::to_string(i)));
    EXPECT_EQ(2, net.FindSignal(*std, "s2"));
    EXPECT_EQ(-1, net.FindSignal(*std, "s3"));
    EXPECT_EQ(20, net.FindAttr(std->attrs, "Cycle")->number);
    EXPECT_EQ(100, net.FindAttr(ext->attrs, "Cycle")->number);
    EXPECT_EQ(nullptr, net.FindAttr(ext->attrs, "Bare"));
    EXPECT_EQ(-1, net.FindAttrDef("Nope"));
}

// Shapes that would be slow with a quadratic step or deep recursion.
TEST(NativeReader, HostileInputStaysLinear) {
    std::string hugeVal = Signals("BO_ 1 W: 8 A\n", 1) + "VAL_ 1 s0";
    for (int i = 200000; i > -200000; i -= 2) hugeVal += " " + std::to_string(i) + " \"t\"";
    std::string unclosed, quotes = "CM_ " + std::string(1000001, '"') + ";\n";
    for (int i = 0; i < 100000; ++i) unclosed += "CM_ \"x\n";
    Network a, b, c;
    ASSERT_EQ(ReadStatus::Ok, Read(hugeVal + ";\n", {}, a));
    EXPECT_EQ(200000u, a.signals[0].values.count);
    EXPECT_EQ(-199998, a.valueTexts[a.signals[0].values.first].raw);
    ASSERT_EQ(ReadStatus::Ok, Read(unclosed, {}, b));
    EXPECT_EQ(100000u, b.diagnostics.size());
    ASSERT_EQ(ReadStatus::Ok, Read(quotes, {}, c));
    EXPECT_EQ(1u, c.diagnostics.size());  // the odd quote is never closed
}

}  // namespace
