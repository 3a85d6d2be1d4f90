// The legacy model beneath the C interface: interning, lookups, load
// failures and the message cursor across reloads.
#include <cmath>
#include <limits>

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

}  // namespace
