// The database model: interning, lookups, DBCEx snapshots and cursor, and the
// load entry points. Iteration and merging through the C interface are
// covered by the interface tests; this keeps what only the model shows.
#include <cmath>
#include <limits>
#include <random>

#include "unit/dbc_test_util.h"

namespace {

using dbc_detail::Atoms;

// Texts made of "Aa"/"BB" blocks all share one value of the classic x31
// string hash; a table keyed on such a hash would chain them all in one
// bucket and intern in quadratic time. They must spread out instead.
TEST(Atoms, CollidingTextsSpreadOverBuckets) {
    Atoms atoms;
    for (unsigned bits = 0; bits < 4096; ++bits) {
        std::string s;
        for (int b = 0; b < 12; ++b) s += (bits >> b) & 1 ? "BB" : "Aa";
        ASSERT_NE(atoms.intern(s), nullptr);
    }
    EXPECT_EQ(4096u, atoms.size());
    EXPECT_LE(atoms.LongestChain(), 12u);
}

// Growth moves nodes between buckets: every atom must keep its pointer and
// its text, equal texts share one pointer, and find never inserts.
TEST(Atoms, GrowthKeepsEveryAtom) {
    Atoms atoms;
    std::vector<std::pair<std::string, const char*>> seen;
    std::mt19937 rng(7);
    for (int i = 0; i < 40000; ++i) {
        std::string s = "n" + std::to_string(rng()) + std::string(rng() % 40, 'x');
        seen.emplace_back(s, atoms.intern(s));
    }
    seen.emplace_back(std::string(100000, 'z'), atoms.intern(std::string(100000, 'z')));
    for (const auto& [text, atom] : seen) {
        EXPECT_EQ(atom, atoms.intern(text.c_str(), text.size()));
        EXPECT_EQ(text, atom);
    }
    uint64_t before = atoms.size();
    EXPECT_EQ(nullptr, atoms.find("never"));
    EXPECT_EQ(before, atoms.size());
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
    uint64_t id = 0;
    EXPECT_EQ(db->Impl()->FindSignal("A", "T", id), dbctest::Sig(*db, 9, "T"));
    EXPECT_EQ(9u, id);
    EXPECT_EQ(db->Impl()->FindSignal("A", "S", id), nullptr) << "S lives in the id-5 message";

    EXPECT_NE(DBCImpl::GetMultiplexerSwitchSignal(db->FindMsg(1)), nullptr);
    EXPECT_EQ(DBCImpl::GetMultiplexerSwitchSignal(db->FindMsg(5)), nullptr);
}

TEST(Lookups, ValueDescriptionsAndRawZeroTruncation) {
    std::vector<ValPair> pairs(2);
    pairs[0].value = 3.0;
    pairs[1].value = std::nan("");
    EXPECT_TRUE(DBCImpl::FindValDescPair(pairs, 3.0));
    EXPECT_FALSE(DBCImpl::FindValDescPair(pairs, 3.0000001));
    EXPECT_FALSE(DBCImpl::FindValDescPair(pairs, std::nan("")));
    // Toward zero, as two's complement; saturating; NaN is 0.
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

// Files that cannot be read whole (missing, empty, a directory) fail with a
// log line and leave the model as it was; a file load resets the protocol,
// a content load does not; the listener hears every load.
TEST(Loading, FailuresKeepTheModelAndProtocolResetsOnFileLoads) {
    dbctest::TempDir dir;
    std::string empty = dir.Write("empty.dbc", ""), plain = dir.Write("a.dbc", "BO_ 1 A: 8 X\n");
    dbctest::LogCapture log;
    DBCEx db;
    Counter counter;
    db.SetListener(&counter);
    EXPECT_FALSE(db.Load("", false));
    EXPECT_FALSE(db.Load("/nonexistent/x.dbc", false));
    ASSERT_TRUE(
        db.LoadContent("BA_DEF_ \"ProtocolType\" STRING;\nBA_ \"ProtocolType\" \"J1939\";\n"));
    EXPECT_TRUE(db.LoadContent("BO_ 2 B: 8 X\n"));
    EXPECT_EQ(0u, db.GetProtocol());
    EXPECT_FALSE(db.Load(empty, false));
    EXPECT_FALSE(db.Load(dir.Path(), false));
    EXPECT_NE(db.FindMsg(2), nullptr);
    EXPECT_EQ(1u, db.GetMessageCount());
    EXPECT_TRUE(db.Load(plain, false));
    EXPECT_EQ(2u, db.GetProtocol());
    EXPECT_EQ(7, counter.calls);
    EXPECT_EQ((std::vector<std::string>{"(0) Fail to load file: /nonexistent/x.dbc",
                                        "(2) Fail to load file: " + empty,
                                        "(2) Fail to load file: " + dir.Path()}),
              log.Messages());
}

bool CollectIds(void* ctx, uint64_t index, const Message& msg) {
    auto* ids = static_cast<std::vector<uint64_t>*>(ctx);
    EXPECT_EQ(ids->size(), index);
    ids->push_back(msg.id);
    return msg.id != 9;
}

// ForEach stops after a false result; a cursor beyond a smaller reload
// stops safely; a failed load without merging leaves a snapshot of live
// messages (ASan watches the reads); a failed merge logs and keeps them.
TEST(DBCExCursor, ForEachReloadsAndFailedLoads) {
    dbctest::LogCapture log;
    DBCEx db;
    Message out;
    EXPECT_FALSE(db.GetFirstMessage(&out));
    ASSERT_TRUE(db.LoadContent(kModel));
    std::vector<uint64_t> visited;
    db.ForEach(CollectIds, &visited);
    EXPECT_EQ((std::vector<uint64_t>{1, 5, 9}), visited);

    ASSERT_TRUE(db.GetFirstMessage(&out));
    while (db.GetNextMessage(&out)) {
    }
    ASSERT_TRUE(db.LoadContent("BO_ 1 A: 8 X\n"));
    EXPECT_FALSE(db.GetNextMessage(&out));

    EXPECT_FALSE(db.LoadContent("BO_ 7 A: 8 X\nBO_ 7 B: 8 X\n"));
    ASSERT_EQ(1u, db.GetMessageCount());
    ASSERT_TRUE(db.GetFirstMessage(&out));
    EXPECT_EQ(7u, out.id);

    dbctest::TempDir dir;
    std::string path = dir.Write("m.dbc", "BU_: N\nBO_ 1 A: 8 N\nBO_ 2 B: 8 N\n");
    ASSERT_TRUE(db.Load(path, false));
    EXPECT_FALSE(db.Load(path, true));
    EXPECT_EQ(2u, db.GetMessageCount());
    ASSERT_TRUE(db.GetFirstMessage(&out) && db.GetNextMessage(&out));
    EXPECT_EQ(2u, out.id);
    EXPECT_EQ((std::vector<std::string>{"(3) BO_ id not unique : 7", "(3)ParseBO()",
                                        "(2) BU_ name not unique N", "(3) BO_ id not unique : 1",
                                        "(3)ParseBO()"}),
              log.Messages());
}

}  // namespace
