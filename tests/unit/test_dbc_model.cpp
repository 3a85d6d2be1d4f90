// The database model: interning, lookups, the name index, DBCEx snapshots
// and cursor, merging, and the load entry points.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <set>

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

TEST(Atoms, EqualTextsShareOnePointerAndFindNeverInserts) {
    Atoms atoms;
    const char* empty = atoms.intern("");
    ASSERT_NE(empty, nullptr);
    EXPECT_STREQ("", empty);
    EXPECT_EQ(empty, atoms.intern(std::string()));
    const char* aa = atoms.intern("Aa");
    const char* bb = atoms.intern(std::string("BB"));
    EXPECT_NE(aa, bb);
    EXPECT_EQ(aa, atoms.find("Aa"));
    EXPECT_EQ(bb, atoms.intern("BB", 2));
    uint64_t before = atoms.size();
    EXPECT_EQ(nullptr, atoms.find("never"));
    EXPECT_EQ(before, atoms.size());
}

// Growth moves nodes between buckets: every atom must keep its pointer and
// its text, and the table must double once the count exceeds the buckets.
TEST(Atoms, GrowthKeepsEveryAtom) {
    Atoms atoms;
    std::vector<std::pair<std::string, const char*>> seen;
    std::mt19937 rng(7);
    for (int i = 0; i < 40000; ++i) {
        std::string s = "n" + std::to_string(rng()) + std::string(rng() % 40, 'x');
        seen.emplace_back(s, atoms.intern(s));
    }
    EXPECT_EQ(Atoms::kInitialBuckets * 4, atoms.bucket_count());
    for (const auto& entry : seen) {
        EXPECT_EQ(entry.second, atoms.find(entry.first));
        EXPECT_EQ(entry.first, entry.second);
    }
    std::string big(100000, 'z');  // larger than an arena block's share
    const char* atom = atoms.intern(big);
    EXPECT_EQ(big, atom);
    EXPECT_EQ(atom, atoms.find(big));
}

const char* const kModel =
    "BU_: Zed Amy\n"
    "BO_ 5 A: 8 Amy\n SG_ S : 0|8@1+ (1,0) [0|0] \"\" X\n"
    "BO_ 9 A: 8 Amy\n SG_ T : 0|8@1+ (1,0) [0|0] \"\" X\n"
    "BO_ 2147483939 Ext: 8 Zed\n"
    "BO_ 1 Mux: 8 Zed\n SG_ M1 M : 0|8@1+ (1,0) [0|0] \"\" X\n SG_ M2 M : 8|8@1+ (1,0) [0|0] \"\" "
    "X\n";

TEST(Lookups, IdsNamesAndSignals) {
    auto db = dbctest::Load(kModel);
    EXPECT_NE(db->FindMsg(0x80000123u), nullptr);
    EXPECT_EQ(db->FindMsg(0x123u), nullptr);
    EXPECT_EQ(db->FindMsg(std::string("0x80000123")), db->FindMsg(0x80000123u));
    EXPECT_EQ(db->FindMsg(std::string("011")), db->FindMsg(9));
    EXPECT_EQ(db->FindMsg(std::string("nonsense")), nullptr) << "text that is no number is id 0";
    // A shared name belongs to the message with the higher id.
    EXPECT_EQ(db->FindMsg2("A"), db->FindMsg(9));
    uint64_t before = db->Impl()->GetAtoms().size();
    EXPECT_EQ(db->FindMsg2("Unseen"), nullptr);
    EXPECT_EQ(db->FindSignal(db->FindMsg(5), "Unseen"), nullptr);
    EXPECT_EQ(before, db->Impl()->GetAtoms().size()) << "lookups must not intern";
    EXPECT_EQ(db->FindSignal(nullptr, "S"), nullptr);
    uint64_t id = 0;
    EXPECT_EQ(db->Impl()->FindSignal("A", "T", id), db->FindSignal(db->FindMsg(9), "T"));
    EXPECT_EQ(9u, id);
    EXPECT_EQ(db->Impl()->FindSignal("A", "S", id), nullptr) << "S lives in the id-5 message";
}

TEST(Lookups, AllMessagesAscendAndNodesFollowPointerOrder) {
    auto db = dbctest::Load(kModel);
    std::vector<Message*> msgs;
    db->GetAllMessage(msgs);
    ASSERT_EQ(4u, msgs.size());
    EXPECT_EQ(1u, msgs[0]->id);
    EXPECT_EQ(0x80000123u, msgs[3]->id) << "extended ids follow standard ones";
    std::vector<NetworkNode*> nodes;
    db->GetAllNetworkNode(nodes);
    ASSERT_EQ(2u, nodes.size());
    EXPECT_LT(reinterpret_cast<uintptr_t>(nodes[0]->name),
              reinterpret_cast<uintptr_t>(nodes[1]->name));
}

TEST(Lookups, SwitchSignalAndValueDescriptions) {
    auto db = dbctest::Load(kModel);
    Message* mux = db->FindMsg(1);
    const Signal* sw = DBCImpl::GetMultiplexerSwitchSignal(mux);
    ASSERT_NE(sw, nullptr);
    const char* m1 = db->FindSignal(mux, "M1")->name;
    const char* m2 = db->FindSignal(mux, "M2")->name;
    EXPECT_EQ(std::less<const char*>()(m1, m2) ? m1 : m2, sw->name);
    EXPECT_EQ(DBCImpl::GetMultiplexerSwitchSignal(db->FindMsg(5)), nullptr);

    std::vector<ValPair> pairs(2);
    pairs[0].value = 3.0;
    pairs[1].value = std::nan("");
    EXPECT_TRUE(DBCImpl::FindValDescPair(pairs, 3.0));
    EXPECT_FALSE(DBCImpl::FindValDescPair(pairs, 3.0000001));
    EXPECT_FALSE(DBCImpl::FindValDescPair(pairs, std::nan("")));
    EXPECT_FALSE(DBCImpl::FindValDescPair({}, 0.0));
}

TEST(RawZero, TruncatesTowardZeroAsTwosComplement) {
    const struct {
        double in;
        uint64_t out;
    } cases[] = {
        {80.0, 80},
        {-5.0, static_cast<uint64_t>(-5)},
        {2.9, 2},
        {-2.9, static_cast<uint64_t>(-2)},
        {9223372036854775808.0, uint64_t{1} << 63},
        {1e300, std::numeric_limits<uint64_t>::max()},
        {std::nan(""), 0},
    };
    for (const auto& c : cases) EXPECT_EQ(c.out, TruncateToU64(c.in)) << c.in;
}

struct Counter : IDBCListener {
    int calls = 0;
    void OnLoad() override { ++calls; }
};

TEST(Loading, ListenerHearsEveryLoadAndMissingFilesLogLineZero) {
    dbctest::LogCapture log;
    DBC db;
    Counter counter;
    db.SetListener(&counter);
    EXPECT_FALSE(db.Load("", false));
    EXPECT_FALSE(db.Load("/nonexistent/x.dbc", false));
    EXPECT_TRUE(db.LoadContent(""));
    EXPECT_EQ(3, counter.calls);
    EXPECT_EQ(std::vector<std::string>{"(0) Fail to load file: /nonexistent/x.dbc"},
              log.Messages());
}

// Files that cannot be read whole (empty, a directory) fail like a missing
// one and leave the model as it was.
TEST(Loading, UnreadableFilesFailAndKeepTheModel) {
    char dir[] = "/tmp/tarn_dbc_empty_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string empty = std::string(dir) + "/empty.dbc";
    std::fclose(std::fopen(empty.c_str(), "w"));
    dbctest::LogCapture log;
    DBCEx db;
    ASSERT_TRUE(db.LoadContent("BO_ 1 A: 8 X\n"));
    EXPECT_FALSE(db.Load(empty, false));
    EXPECT_FALSE(db.Load(dir, false));
    EXPECT_NE(db.FindMsg(1), nullptr);
    EXPECT_EQ(1u, db.GetMessageCount());
    EXPECT_EQ((std::vector<std::string>{"(2) Fail to load file: " + empty,
                                        "(2) Fail to load file: " + std::string(dir)}),
              log.Messages());
    unlink(empty.c_str());
    rmdir(dir);
}

TEST(Loading, FileLoadResetsProtocolButContentLoadDoesNot) {
    char path[] = "/tmp/tarn_dbc_model_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    const char text[] = "BO_ 1 A: 8 X\n";
    ASSERT_EQ(static_cast<ssize_t>(sizeof text - 1), write(fd, text, sizeof text - 1));
    close(fd);
    DBC db;
    ASSERT_TRUE(
        db.LoadContent("BA_DEF_ \"ProtocolType\" STRING;\nBA_ \"ProtocolType\" \"J1939\";\n"));
    EXPECT_EQ(0u, db.GetProtocol());
    EXPECT_TRUE(db.LoadContent("BO_ 1 A: 8 X\n"));
    EXPECT_EQ(0u, db.GetProtocol());
    EXPECT_TRUE(db.Load(path, false));
    EXPECT_EQ(2u, db.GetProtocol());
    EXPECT_NE(db.FindMsg(1), nullptr);
    unlink(path);
}

bool CollectIds(void* ctx, uint64_t index, const Message& msg) {
    auto* ids = static_cast<std::vector<uint64_t>*>(ctx);
    EXPECT_EQ(ids->size(), index);
    ids->push_back(msg.id);
    return msg.id != 9;
}

TEST(DBCExCursor, FirstNextAndForEach) {
    DBCEx db;
    Message out;
    EXPECT_FALSE(db.GetFirstMessage(&out));
    ASSERT_TRUE(db.LoadContent(kModel));
    ASSERT_EQ(4u, db.GetMessageCount());
    std::vector<uint64_t> walked;
    for (bool more = db.GetFirstMessage(&out); more; more = db.GetNextMessage(&out))
        walked.push_back(out.id);
    EXPECT_EQ((std::vector<uint64_t>{1, 5, 9, 0x80000123u}), walked);
    EXPECT_FALSE(db.GetNextMessage(&out));
    ASSERT_TRUE(db.GetFirstMessage(&out));
    ASSERT_TRUE(db.GetNextMessage(&out));
    EXPECT_EQ(5u, out.id) << "a restart resumes at index 1";
    EXPECT_EQ(1u, out.signals.size()) << "copies carry the signals";

    std::vector<uint64_t> visited;
    db.ForEach(CollectIds, &visited);
    EXPECT_EQ((std::vector<uint64_t>{1, 5, 9}), visited) << "stops after the false result";
}

TEST(DBCExCursor, CursorBeyondASmallerReloadStopsSafely) {
    DBCEx db;
    Message out;
    ASSERT_TRUE(db.LoadContent(kModel));
    ASSERT_TRUE(db.GetFirstMessage(&out));
    while (db.GetNextMessage(&out)) {
    }
    ASSERT_TRUE(db.LoadContent("BO_ 1 A: 8 X\n"));
    EXPECT_FALSE(db.GetNextMessage(&out));
}

// A failed load without merging must leave a snapshot of live messages;
// a failed merge keeps the earlier snapshot. ASan watches the reads.
TEST(DBCExCursor, SnapshotAfterFailedLoads) {
    dbctest::LogCapture log;
    DBCEx db;
    ASSERT_TRUE(db.LoadContent(kModel));
    EXPECT_FALSE(db.LoadContent("BO_ 7 A: 8 X\nBO_ 7 B: 8 X\n"));
    ASSERT_EQ(1u, db.GetMessageCount());
    Message out;
    ASSERT_TRUE(db.GetFirstMessage(&out));
    EXPECT_EQ(7u, out.id);
}

TEST(Merging, SecondFileAddsOrFailsOnRepeatedId) {
    char path[] = "/tmp/tarn_dbc_merge_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    const char text[] = "BU_: N\nBO_ 1 A: 8 N\nBO_ 2 B: 8 N\n";
    ASSERT_EQ(static_cast<ssize_t>(sizeof text - 1), write(fd, text, sizeof text - 1));
    close(fd);
    dbctest::LogCapture log;
    DBCEx db;
    ASSERT_TRUE(db.Load(path, false));
    ASSERT_TRUE(db.Load(path, false));
    EXPECT_EQ(2u, db.GetMessageCount()) << "a plain reload replaces the model";
    EXPECT_FALSE(db.Load(path, true));
    EXPECT_EQ(2u, db.GetMessageCount());
    EXPECT_EQ((std::vector<std::string>{"(2) BU_ name not unique N", "(3) BO_ id not unique : 1",
                                        "(3)ParseBO()"}),
              log.Messages());
    ASSERT_TRUE(db.LoadContent("BO_ 3 C: 8 N\n"));  // still merging: adds
    EXPECT_EQ(3u, db.GetMessageCount());
    unlink(path);
}

}  // namespace
