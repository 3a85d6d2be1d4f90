// The legacy model beneath the C interface: interning, lookups, load
// failures, the message cursor across reloads, and the writer's text.
#include <cmath>
#include <cstdio>
#include <limits>
#include <random>

#include "unit/dbc_test_util.h"

namespace {

using dbc_detail::Atoms;

// "Aa"/"BB" blocks share one x31 string hash: crafted names must not chain in
// one bucket. Growth must keep every atom's pointer and text; a name larger
// than an arena block gets its own (ASan watches the copy).
TEST(Atoms, CollidingTextsSpreadAndGrowthKeepsEveryAtom) {
    Atoms atoms;
    std::vector<std::pair<std::string, const char*>> seen;
    for (unsigned bits = 0; bits < 4096; ++bits) {
        std::string s;
        for (int b = 0; b < 12; ++b) s += (bits >> b) & 1 ? "BB" : "Aa";
        seen.emplace_back(s, atoms.intern(s));
    }
    EXPECT_LE(atoms.LongestChain(), 12u);
    for (int i = 0; i < 40000; ++i) seen.emplace_back("n" + std::to_string(i), nullptr);
    seen.emplace_back(std::string(100000, 'z'), nullptr);
    for (size_t i = 4096; i < seen.size(); ++i) seen[i].second = atoms.intern(seen[i].first);
    for (const auto& [text, atom] : seen) {
        EXPECT_EQ(atom, atoms.intern(text.c_str(), text.size()));
        EXPECT_EQ(text, atom);
    }
    EXPECT_EQ(nullptr, atoms.find("never"));
    EXPECT_EQ(seen.size(), atoms.size());
}

const char* const kModel =
    "BU_: Zed Amy\n"
    "BO_ 5 A: 8 Amy\n SG_ S : 0|8@1+ (1,0) [0|0] \"\" X\n"
    "BO_ 9 A: 8 Amy\n SG_ T : 0|8@1+ (1,0) [0|0] \"\" X\n"
    "BO_ 2147483939 Ext: 8 Zed\n"
    "BO_ 1 Mux: 8 Zed\n SG_ M2 M : 0|8@1+ (1,0) [0|0] \"\" X\n SG_ M1 M : 8|8@1+ (1,0) [0|0] \"\" "
    "X\n";

TEST(Lookups, IdsNamesAndSignals) {
    auto db = dbctest::Load(kModel);
    EXPECT_EQ(db->FindMsg(std::string("0x80000123")), db->FindMsg(0x80000123u));
    EXPECT_EQ(db->FindMsg(std::string("011")), db->FindMsg(9));
    EXPECT_EQ(db->FindMsg(std::string("nonsense")), nullptr) << "text that is no number is id 0";
    EXPECT_EQ(db->FindMsg2("A"), db->FindMsg(9)) << "a shared name belongs to the higher id";
    uint64_t before = db->Impl()->GetAtoms().size();
    EXPECT_EQ(db->FindMsg2("Unseen"), nullptr);
    EXPECT_EQ(db->FindSignal(db->FindMsg(5), "Unseen"), nullptr);
    EXPECT_EQ(before, db->Impl()->GetAtoms().size()) << "lookups must not intern";
    EXPECT_EQ(db->FindSignal(nullptr, "S"), nullptr);
    EXPECT_NE(DBCImpl::GetMultiplexerSwitchSignal(db->FindMsg(1)), nullptr);
    EXPECT_EQ(DBCImpl::GetMultiplexerSwitchSignal(db->FindMsg(5)), nullptr);
}

TEST(Lookups, RawZeroTruncatesTowardZero) {
    // As two's complement; saturating; NaN is 0.
    const std::pair<double, uint64_t> cases[] = {{-5.0, static_cast<uint64_t>(-5)},
                                                 {2.9, 2},
                                                 {-2.9, static_cast<uint64_t>(-2)},
                                                 {9223372036854775808.0, uint64_t{1} << 63},
                                                 {1e300, std::numeric_limits<uint64_t>::max()},
                                                 {std::nan(""), 0}};
    for (const auto& [in, out] : cases) EXPECT_EQ(out, TruncateToU64(in)) << in;
}

struct Counter : IDBCListener {
    int calls = 0;
    void OnLoad() override { ++calls; }
};

bool CollectIds(void* ctx, uint64_t index, const Message& msg) {
    auto* ids = static_cast<std::vector<uint64_t>*>(ctx);
    EXPECT_EQ(ids->size(), index);
    ids->push_back(msg.id);
    return msg.id != 9;
}

// Unreadable files (missing, empty, a directory) fail, log and keep the
// model; a failed load without merging leaves a snapshot of live messages
// (ASan watches the reads), a failed merge keeps them; a cursor beyond a
// smaller reload stops; file loads reset the protocol, content loads do not.
TEST(DBCEx, LoadFailuresCursorAndProtocol) {
    dbctest::TempDir dir;
    std::string empty = dir.Write("empty.dbc", ""),
                two = dir.Write("m.dbc", "BO_ 1 A: 8 N\nBO_ 2 B: 8 N\n");
    dbctest::LogCapture log;
    DBCEx db;
    Counter counter;
    db.SetListener(&counter);
    Message out;
    EXPECT_FALSE(db.GetFirstMessage(&out));
    for (const std::string& bad :
         {std::string(), std::string("/nonexistent/x.dbc"), empty, dir.Path()})
        EXPECT_FALSE(db.Load(bad, false));
    ASSERT_TRUE(
        db.LoadContent(std::string(kModel) +
                       "BA_DEF_ \"ProtocolType\" STRING;\nBA_ \"ProtocolType\" \"J1939\";\n"));
    EXPECT_EQ(4u, db.GetMessageCount());
    std::vector<uint64_t> visited;
    db.ForEach(CollectIds, &visited);
    EXPECT_EQ((std::vector<uint64_t>{1, 5, 9}), visited);
    ASSERT_TRUE(db.GetFirstMessage(&out));
    while (db.GetNextMessage(&out)) {
    }
    EXPECT_TRUE(db.LoadContent("BO_ 1 A: 8 X\n"));
    EXPECT_EQ(0u, db.GetProtocol());
    EXPECT_FALSE(db.GetNextMessage(&out));

    EXPECT_FALSE(db.LoadContent("BO_ 7 A: 8 X\nBO_ 7 B: 8 X\n"));
    ASSERT_EQ(1u, db.GetMessageCount());
    ASSERT_TRUE(db.GetFirstMessage(&out));
    EXPECT_EQ(7u, out.id);
    ASSERT_TRUE(db.Load(two, false));
    EXPECT_EQ(2u, db.GetProtocol());
    EXPECT_FALSE(db.Load(two, true));
    EXPECT_EQ(2u, db.GetMessageCount());
    EXPECT_EQ(9, counter.calls);
    EXPECT_EQ((std::vector<std::string>{
                  "(0) Fail to load file: /nonexistent/x.dbc", "(0) Fail to load file: " + empty,
                  "(0) Fail to load file: " + dir.Path(), "(3) BO_ id not unique : 7",
                  "(3)ParseBO()", "(2) BO_ id not unique : 1", "(2)ParseBO()"}),
              log.Messages());
}

// Numbers print as printf's "%.7f" (its rounding included) less trailing zeros.
TEST(Double2String, IsPrintfSevenDecimalsTrimmed) {
    std::mt19937_64 rng(11);
    std::vector<double> values = {0.00000005, 0.00000006,  -0.0,    1e-8,     -1e-8,
                                  1e20,       123.4567891, -3276.8, HUGE_VAL, -HUGE_VAL};
    for (int i = 0; i < 20000; ++i) {
        double mantissa = static_cast<double>(rng() % 2000001) - 1000000.0;
        values.push_back(mantissa * std::pow(10.0, static_cast<int>(rng() % 16) - 10));
    }
    for (double v : values) {
        char buf[512];
        std::snprintf(buf, sizeof buf, "%.7f", v);
        std::string want = buf;
        if (want.find('.') != std::string::npos) {
            want.erase(want.find_last_not_of('0') + 1);
            if (want.back() == '.') want.pop_back();
        }
        EXPECT_EQ(want, Double2String(v)) << buf;
    }
    EXPECT_EQ("nan", Double2String(std::nan("")));
}

const char* const kFile =
    "BU_: ECU\n"
    "BO_ 200 Second: 8 ECU\n"
    " SG_ Sw M : 0|8@1+ (1,0) [0|255] \"\" ECU\n"
    " SG_ Mx m3 : 8|8@0- (0.1,-40) [-40|100] \"degC\" ECU,Other\n"
    " SG_ P m : 16|8@1+ (1,0) [0|0] \"\" ECU\n"
    "BO_ 100 First: 2 ECU\n"
    "CM_ \"network\";\nCM_ BO_ 100 \"say \\\"hi\\\"\";\nCM_ SG_ 200 Sw \"sw\";\n"
    "CM_ BU_ ECU \"node\";\nCM_ EV_ Var \"env\";\n"
    "BA_DEF_ BO_ \"Cycle\" INT 0 65535;\nBA_DEF_ \"Net\" STRING;\n"
    "BA_DEF_ SG_ \"Kind\" ENUM \"A\",\"B\";\nBA_DEF_ BU_ \"Addr\" HEX 0 255;\n"
    "BA_DEF_ \"Gain\" FLOAT 0.5 2;\n"
    "BA_DEF_DEF_ \"Cycle\" 100;\nBA_DEF_DEF_ \"Kind\" 1;\nBA_DEF_DEF_ \"Gain\" 1.25;\n"
    "BA_ \"Cycle\" BO_ 100 20;\nBA_ \"Net\" \"x\";\nBA_ \"Kind\" SG_ 200 Sw \"B\";\n"
    "BA_ \"Kind\" SG_ 200 Mx 0;\nBA_ \"Addr\" BU_ ECU 17;\nBA_ \"Gain\" 1.5;\n"
    "VAL_ 200 Sw 3 \"three\" 4 \"four\";\n";

const char* const kSecond =
    "BO_ 200 Second: 8 ECU\r\n"
    " SG_ Sw M : 0|8@1+ (1,0) [0|255] \"\" Vector__XXX\r\n"
    " SG_ Mx m3 : 8|8@0- (0.1,-40) [-40|100] \"degC\" Vector__XXX\r\n"
    " SG_ P m 0 : 16|8@1+ (1,0) [0|0] \"\" Vector__XXX\r\n"
    "\r\n";

std::string DumpOf(const std::string& text, bool ordered) {
    dbctest::LogCapture quiet;
    return dbctest::Load(text, ordered)->Impl()->DumpText();
}

// Without the record-order flag only messages (by id) are written; with it
// every section, in file order.
TEST(Writer, OutputLinesExactly) {
    EXPECT_EQ(std::string("BO_ 100 First: 2 ECU\r\n\r\n") + kSecond + "\r\n\r\n\r\n",
              DumpOf(kFile, false));
    EXPECT_EQ(std::string(kSecond) +
                  "BO_ 100 First: 2 ECU\r\n\r\n\r\n\r\n"
                  "CM_  \"network\";\r\n"
                  "CM_ BO_ 100 \"say \\\"hi\\\"\";\r\n"
                  "CM_ SG_ 200 Sw \"sw\";\r\n"
                  "CM_ BU_ ECU \"node\";\r\n"
                  "CM_ EV_ Var \"env\";\r\n"
                  "BA_DEF_ BO_  \"Cycle\" INT 0 65535;\r\n"
                  "BA_DEF_  \"Net\" STRING ;\r\n"
                  "BA_DEF_ SG_  \"Kind\" ENUM  \"A\",\"B\";\r\n"
                  "BA_DEF_ BU_  \"Addr\" HEX 0 255;\r\n"
                  "BA_DEF_  \"Gain\" FLOAT 0.5 2;\r\n"
                  "BA_DEF_DEF_  \"Cycle\" 100;\r\n"
                  "BA_DEF_DEF_  \"Net\" \"\";\r\n"
                  "BA_DEF_DEF_  \"Kind\" \"\";\r\n"
                  "BA_DEF_DEF_  \"Addr\" 0;\r\n"
                  "BA_DEF_DEF_  \"Gain\" 1.25;\r\n"
                  "BA_ \"Cycle\" BO_ 100 20;\r\n"
                  "BA_ \"Net\" \"x\";\r\n"
                  "BA_ \"Kind\" SG_ 200 Sw \"B\";\r\n"
                  "BA_ \"Kind\" SG_ 200 Mx 0;\r\n"
                  "BA_ \"Addr\" BU_ ECU 17;\r\n"
                  "BA_ \"Gain\" 1.5;\r\n"
                  "VAL_ 200 Sw 3 \"three\" 4 \"four\" ;\r\n"
                  "\r\n",
              DumpOf(kFile, true));
}

}  // namespace
