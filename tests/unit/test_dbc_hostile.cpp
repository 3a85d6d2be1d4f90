// Hostile text through both readers: no crash, hang or leak (the sanitizer
// builds watch memory), and a legacy model that is still consistent.
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "common/file_utils.h"
#include "dbc/network.h"
#include "unit/dbc_test_util.h"

namespace {

// What must hold after any load, whatever the input was.
void ExpectConsistentModel(const DBC& db, bool ok, const std::string& text) {
    uint64_t lastId = 0;
    for (const Message* m : dbctest::Messages(db)) {
        ASSERT_TRUE(m && m->name && m->transmitter);
        EXPECT_TRUE(lastId == 0 || lastId < m->id) << "messages come in ascending id order";
        lastId = m->id;
        EXPECT_EQ(0u, m->id & 0x60000000u) << "ids with bit 29 or 30 are dropped";
        EXPECT_EQ(m, db.FindMsg(m->id));
        std::set<uint32_t> slots;
        for (const auto& kv : m->signals) {
            EXPECT_EQ(kv.first, kv.second.name);
            slots.insert(kv.second.index);
        }
        EXPECT_EQ(m->signals.size(), slots.size());
        EXPECT_EQ(m->signals.size(), slots.empty() ? 0 : *slots.rbegin() + 1);
        if (ok) {
            const Message* byName = db.FindMsg2(m->name);
            ASSERT_NE(byName, nullptr);
            EXPECT_LE(m->id, byName->id) << "the highest id owns a shared name";
        }
    }
    // Every line feed up to the first NUL is counted; a leading one may not be.
    if (ok) {
        std::string visible = text.substr(0, text.find('\0'));
        size_t feeds = static_cast<size_t>(std::count(visible.begin(), visible.end(), '\n'));
        EXPECT_LE(db.Impl()->Line(), feeds + 1);
        EXPECT_GE(db.Impl()->Line(), feeds + (visible[0] == '\n' ? 0 : 1));
    }
}

void LoadChecked(const std::string& text) {
    DBC db;
    bool ok = db.LoadContent(text);
    ExpectConsistentModel(db, ok, text);
    tarn::net::Network net;  // the native reader takes the same input
    tarn::net::Read(text, {}, net);
}

const std::string kMsg = "BO_ 100 M: 8 X\n";
const std::string kSig = " SG_ S : 0|8@1+ (1,0) [0|1] \"\" X\n";
const std::string kLong(10000, 'N');

// A string literal with its embedded NUL bytes.
template <size_t N>
std::string Lit(const char (&s)[N]) {
    return std::string(s, N - 1);
}

std::string Repeat(const std::string& s, size_t n) {
    std::string out;
    for (size_t i = 0; i < n; ++i) out += s;
    return out;
}

class Hostile : public dbctest::Quiet {};

TEST_F(Hostile, HandMadeTextsLoadIntoAConsistentModel) {
    const std::string texts[] = {
        Lit("BO_ 1 A\0B: 8 X\n") + kSig,
        kMsg + Lit(" SG_ S : 0|8@1+ (1,\0) [0|1] \"\" X\n"),
        Lit("CM_ \"ab\0cd\";\nBO_ 1 A: 8 X\n"),
        "BO_ 1 \xff\xfe: 8 \x80\n SG_ \xc3\xa9 : 0|8@1+ (1,0) [0|1] \"\xff\" X\n",
        "BO_ 1 A: 999999999999999999999999 X\n SG_ S : 4294967295|4294967295@1+ (1e999,-1e999) "
        "[nan|inf] \"\" X\n SG_ A m99999999999999999999 : 8|8@1+ (1,0) [0|1] \"\" X\n",
        "BU_: " + kLong + "\nBO_ 1 " + kLong + ": 8 " + kLong + "\n SG_ S m" +
            std::string(10000, '7') + " : 0|8@1+ (1,0) [0|1] \"" + kLong + "\" X\nBA_DEF_ \"" +
            kLong + "\" INT 0 1;\nBA_ \"" + kLong + "x\" 1;\nCM_ SG_ 1 " + kLong + " \"" + kLong +
            "\";\nVAL_ 1 " + kLong + " 1 \"" + kLong + "\";\n",
        kMsg + " SG_ S : 0|8@1+ (1,0) [0|255 \"\" X\nBO_ 2 N: 8 X\n",
        kMsg + " SG_ S\nBO_",
        Repeat("BO_ ", 100000) + "\n" + kMsg + Repeat(" SG_", 100000) + "\n" +
            Repeat("CM_ BA_DEF_ BA_DEF_DEF_ BA_ ", 30000) + "\n",
        Repeat("\"", 100001),
        std::string(100, 'w') + "\n" + std::string(1000, 'w') + ":\n" + kLong + " 1\n",
        "CM_ \"" + Repeat("\\", 100001),
        "BA_DEF_ \"E\" ENUM " + Repeat("\"a\",", 100000) + "\"b\";\n",
        kMsg + kSig + "VAL_ 100 S" + Repeat(" 0 \"a\"", 100000) + " ;\n",
        Repeat("BO_ 5 A: 8 X\n", 10000),
        kMsg + Repeat(kSig + " SG_ T : 8|8@1+ (1,0) [0|1] \"\" X\n", 50000),
        "NS_ :\n" + Repeat("\tX\n", 100000) + "BO_ 1 A: 8 X\n",
        Repeat(";\n\nx\n SG_ o\nEV_ e\n\t\nBO_TX_BU_ 1 : A;\n}\n", 125000) + kMsg + kSig,
    };
    for (const std::string& text : texts) LoadChecked(text);
}

TEST(HostileOutcome, TextEndsAtTheFirstNulAndOversizedIdsGoByTheirBits) {
    DBC db;
    // strtoul saturates to all ones, dropped with ids of bit 29 or 30; 2^32 has neither.
    EXPECT_TRUE(
        db.LoadContent(Lit("BO_ 99999999999999999999 A: 8 X\nBO_ 4294967296 B: 8 X\n"
                           "BO_ 1073741824 C: 8 X\nBO_ 536870912 D: 8 X\n"
                           "\0BO_ 2 C: 8 X\n")));
    ASSERT_EQ(1u, dbctest::Messages(db).size());
    EXPECT_STREQ("B", db.FindMsg(4294967296ull)->name);
}

TEST(HostileOutcome, LongNamesAreKeptWholeAndLogLinesStayBounded) {
    dbctest::LogCapture log;
    DBC db;
    std::string sig = " SG_ " + kLong + " : 0|8@1+ (1,0) [0|1] \"\" X\n";
    EXPECT_TRUE(db.LoadContent("BO_ 1 " + kLong + ": 8 X\n" + sig + sig));
    const Message* m = db.FindMsg2(kLong);
    ASSERT_NE(m, nullptr);
    ASSERT_EQ(1u, m->signals.size());
    EXPECT_EQ(kLong, m->signals.begin()->second.name);
    std::istringstream lines(log.Raw());
    for (std::string line; std::getline(lines, line);) EXPECT_LT(line.size(), 8400u);
}

// Text that ends inside a statement logs and completes, also when a file ends
// exactly at a page boundary and leaves no terminating byte after the text.
TEST(HostileOutcome, UnfinishedEndingsLogAndComplete) {
    const std::pair<std::string, const char*> tails[] = {
        {" SG_ B : 8|8@1+ (1,0) [0|255", "n==8"},
        {"CM_ BO_ 100 \"open\n\n", "string not match"},
        {"VAL_ 100 S 1 \"open", "string not match"},
        {"BA_DEF_ \"E\" ENUM \"a\",\"b", "string not match"},
        {" SG_ T : 8|8@1+ (1,0) [0|1] \"open", "string not match"},
        {"CM_ \"a\\", "string not match"},
        {"BU_: Node", ""}};
    dbctest::TempDir dir;
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    for (const auto& [tail, logged] : tails) {
        for (size_t size : {size_t{0}, page - 1, page, page + 1}) {
            SCOPED_TRACE(tail + " / " + std::to_string(size));
            dbctest::LogCapture log;
            std::string text = kMsg + kSig + tail;
            text.insert(0, size ? size - text.size() : 0, '\n');
            DBCEx db;
            EXPECT_TRUE(db.Load(dir.Write("edge.dbc", text), false));
            EXPECT_NE(dbctest::Sig(db, 100, "S"), nullptr);
            EXPECT_NE(log.Raw().find(logged), std::string::npos);
        }
    }
}

long StatusKiB(const std::string& key) {
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);)
        if (line.compare(0, key.size(), key) == 0) return std::atol(line.c_str() + key.size());
    return -1;
}

// Sparse files: 2 GiB are refused by every reader; 2 GiB less one byte whose
// text ends at its first NUL cost memory for the text only.
TEST(HostileOutcome, SparseFilesCostTheirTextNotTheirDeclaredSize) {
    dbctest::LogCapture log;
    dbctest::TempDir dir;
    const std::string text = kMsg + kSig;
    const std::string path = dir.Write("sparse.dbc", text + '\0');
    ASSERT_EQ(truncate(path.c_str(), off_t{INT32_MAX} + 1), 0);
    DBCEx db;
    std::string read;
    tarn::net::Network net;
    EXPECT_EQ(tarn::net::ReadStatus::TooLarge, tarn::net::ReadFile(path, {}, net));
    EXPECT_FALSE(db.Load(path, false));
    EXPECT_FALSE(kq::FileUtils::ReadText(path, read));
    EXPECT_TRUE(read.empty());

    ASSERT_EQ(truncate(path.c_str(), INT32_MAX), 0);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    if (st.st_blocks > (64 << 20) / 512) GTEST_SKIP() << "no sparse files in /tmp";
    // Writing 5 resets the peak resident size to the current one.
    if (!(std::ofstream("/proc/self/clear_refs") << "5").flush() || StatusKiB("VmHWM:") < 0)
        GTEST_SKIP() << "the peak resident size cannot be reset";
    const long before = StatusKiB("VmRSS:");
    EXPECT_TRUE(db.Load(path, false));
    EXPECT_NE(dbctest::Sig(db, 100, "S"), nullptr);
    EXPECT_TRUE(kq::FileUtils::ReadText(path, read));
    EXPECT_EQ(read.c_str(), text);
    EXPECT_LE(read.size(), 1u << 20);
    EXPECT_LT(StatusKiB("VmHWM:") - before, 64 << 10);
}

}  // namespace
