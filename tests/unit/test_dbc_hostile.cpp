// Hostile text through DBC::LoadContent: every input must come back with
// true or false, without a crash, a hang or a leak (the sanitizer builds
// watch the memory side), and leave a model that is still consistent.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "common/log.h"
#include "dbc.h"
#include "dbc_impl.h"

namespace {

// Routes the logger into a temporary file for the lifetime of the object.
class LogCapture {
  public:
    LogCapture() {
        char tmpl[] = "/tmp/tarn_hostile_log_XXXXXX";
        int fd = mkstemp(tmpl);
        if (fd >= 0) close(fd);
        path_ = tmpl;
        kq::LogInit(path_.c_str(), kq::LOG_DEBUG);
    }
    ~LogCapture() {
        kq::LogInit(nullptr, kq::LOG_DEBUG);
        std::remove(path_.c_str());
    }
    std::string Text() const {
        std::ifstream in(path_, std::ios::binary);
        std::ostringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

  private:
    std::string path_;
};

size_t CountOf(const std::string& s, char c) {
    return static_cast<size_t>(std::count(s.begin(), s.end(), c));
}

// What must hold after any load, whatever the input was.
void ExpectConsistentModel(DBC& db, bool ok, const std::string& text) {
    std::vector<Message*> all;
    db.GetAllMessage(all);
    uint64_t lastId = 0;
    for (size_t i = 0; i < all.size(); ++i) {
        const Message* m = all[i];
        ASSERT_NE(m, nullptr);
        if (i) {
            EXPECT_LT(lastId, m->id) << "messages must come in ascending id order";
        }
        lastId = m->id;
        EXPECT_EQ(0u, m->id & 0x60000000u) << "ids with bit 29 or 30 are dropped";
        EXPECT_EQ(m, db.FindMsg(m->id));
        ASSERT_NE(m->name, nullptr);
        ASSERT_NE(m->transmitter, nullptr);
        // Positions are 0..n-1: repeats keep the slot of their first definition.
        std::set<uint32_t> slots;
        for (const auto& kv : m->signals) {
            EXPECT_EQ(kv.first, kv.second.name);
            slots.insert(kv.second.index);
        }
        EXPECT_EQ(m->signals.size(), slots.size());
        if (!slots.empty()) {
            EXPECT_EQ(m->signals.size() - 1, *slots.rbegin());
        }
        if (ok) {
            const Message* byName = db.FindMsg2(m->name);
            ASSERT_NE(byName, nullptr);
            EXPECT_STREQ(m->name, byName->name);
            EXPECT_LE(m->id, byName->id) << "the highest id owns a shared name";
        }
    }
    // A completed pass has counted every line feed up to the first NUL. The
    // cursor starts on the first byte without stepping onto it, so whether a
    // leading line feed counts is left open.
    if (ok) {
        std::string visible = text.substr(0, text.find('\0'));
        size_t feeds = CountOf(visible, '\n');
        if (visible[0] == '\n') {
            EXPECT_GE(db.Impl()->Line(), feeds);
            EXPECT_LE(db.Impl()->Line(), feeds + 1);
        } else {
            EXPECT_EQ(1 + feeds, db.Impl()->Line());
        }
    }
}

bool LoadChecked(const std::string& text) {
    DBC db;
    bool ok = db.LoadContent(text);
    ExpectConsistentModel(db, ok, text);
    return ok;
}

class Silenced : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { kq::LogInit("/dev/null", kq::LOG_ERROR); }
    static void TearDownTestSuite() { kq::LogInit(nullptr, kq::LOG_DEBUG); }
};

// ---------------------------------------------------------------------------
// Generated inputs
// ---------------------------------------------------------------------------

const char* const kSample =
    "VERSION \"\"\n"
    "NS_ :\n\tCM_\n\tBA_DEF_\n\n"
    "BS_:\n"
    "BU_: ECU1 ECU2\n"
    "BO_ 100 Engine: 8 ECU1\n"
    " SG_ Speed : 0|16@1+ (0.1,0) [0|6553.5] \"km/h\" ECU2\n"
    " SG_ Mode M : 16|4@1+ (1,0) [0|15] \"\" ECU2\n"
    " SG_ A m1 : 20|4@0- (1,-8) [-8|7] \"\" ECU2\n"
    "\n"
    "BO_ 2147484000 Ext: 16 ECU2\n"
    " SG_ X : 7|12@0+ (1e-3,-1.5) [0|1] \"V\" ECU1\n"
    "\n"
    "CM_ BO_ 100 \"multi\nline\";\n"
    "BA_DEF_ BO_ \"GenMsgCycleTime\" INT 0 65535;\n"
    "BA_DEF_ \"ProtocolType\" STRING ;\n"
    "BA_DEF_DEF_ \"GenMsgCycleTime\" 100;\n"
    "BA_ \"ProtocolType\" \"J1939\";\n"
    "BA_ \"GenMsgCycleTime\" BO_ 100 20;\n"
    "VAL_ 100 Mode 0 \"Off\" 1 \"On\" ;\n"
    "SIG_VALTYPE_ 100 Speed : 1;\n";

const char* const kTokens[] = {"BO_",
                               "SG_",
                               "BU_",
                               "CM_",
                               "VAL_",
                               "BA_",
                               "BA_DEF_",
                               "BA_DEF_DEF_",
                               "NS_",
                               "SIG_VALTYPE_",
                               "EV_",
                               "bo_",
                               "sg_",
                               "BO_TX_BU_",
                               " ",
                               " ",
                               "\t",
                               "\n",
                               "\n",
                               "\r\n",
                               ":",
                               ";",
                               "|",
                               "@",
                               "(",
                               ")",
                               "[",
                               "]",
                               ",",
                               "+",
                               "-",
                               "\"",
                               "\\",
                               "M",
                               "m1",
                               "m4294967296",
                               "0",
                               "1",
                               "8",
                               "0x7FF",
                               "2147483648",
                               "3221225472",
                               "99999999999999999999",
                               "1e309",
                               "-1e309",
                               "nan",
                               "0.5",
                               "Name",
                               "Vector__XXX",
                               "INT",
                               "HEX",
                               "FLOAT",
                               "STRING",
                               "ENUM",
                               "\"J1939\"",
                               "\"ProtocolType\"",
                               "0|8@1+ (1,0) [0|255]",
                               " SG_ S : 0|8@1+ (1,0) [0|1] \"\" X\n",
                               "\xff",
                               "\x80"};

std::string RandomBytes(unsigned seed) {
    std::mt19937 rng(seed);
    std::string s(rng() % 4096, '\0');
    // Odd seeds avoid NUL so that the scanner sees the whole buffer.
    int low = seed % 2 ? 1 : 0;
    std::uniform_int_distribution<int> byte(low, 255);
    for (char& c : s) c = static_cast<char>(byte(rng));
    return s;
}

std::string RandomTokens(unsigned seed) {
    std::mt19937 rng(seed);
    size_t count = rng() % 600;
    std::string s;
    for (size_t i = 0; i < count; ++i) s += kTokens[rng() % (sizeof kTokens / sizeof *kTokens)];
    return s;
}

std::string MutatedSample(unsigned seed) {
    std::mt19937 rng(seed);
    std::string s = kSample;
    for (int edits = 1 + rng() % 8; edits > 0 && !s.empty(); --edits) {
        size_t at = rng() % s.size();
        switch (rng() % 4) {
            case 0:
                s[at] = static_cast<char>(rng());
                break;
            case 1:
                s.erase(at, rng() % 16);
                break;
            case 2:
                s.insert(at, s.substr(rng() % s.size(), rng() % 64));
                break;
            default:
                s.insert(at, kTokens[rng() % (sizeof kTokens / sizeof *kTokens)]);
        }
    }
    return s;
}

struct Generator {
    const char* name;
    std::function<std::string(unsigned)> make;
    unsigned cases;
    friend void PrintTo(const Generator& g, std::ostream* os) { *os << g.name; }
};

class Generated : public Silenced, public ::testing::WithParamInterface<Generator> {};

TEST_P(Generated, EveryInputLoadsIntoAConsistentModel) {
    const Generator& g = GetParam();
    for (unsigned seed = 1; seed <= g.cases; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::string text = g.make(seed);
        LoadChecked(text);
        if (HasFatalFailure()) return;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeded, Generated,
                         ::testing::Values(Generator{"RandomBytes", RandomBytes, 300},
                                           Generator{"RandomTokens", RandomTokens, 400},
                                           Generator{"MutatedSample", MutatedSample, 600}),
                         [](const ::testing::TestParamInfo<Generator>& info) {
                             return std::string(info.param.name);
                         });

// ---------------------------------------------------------------------------
// Hand-made hostile texts
// ---------------------------------------------------------------------------

// A string literal with its embedded NUL bytes.
template <size_t N>
std::string Lit(const char (&s)[N]) {
    return std::string(s, N - 1);
}

std::string Repeat(const std::string& s, size_t n) {
    std::string out;
    out.reserve(s.size() * n);
    for (size_t i = 0; i < n; ++i) out += s;
    return out;
}

const std::string kLong(10000, 'N');
const std::string kMsg = "BO_ 100 M: 8 X\n";

struct Hostile {
    const char* name;
    std::string text;
    friend void PrintTo(const Hostile& h, std::ostream* os) { *os << h.name; }
};

std::vector<Hostile> HostileTexts() {
    return {
        {"NulInsideMessageLine", Lit("BO_ 1 A\0B: 8 X\n SG_ S : 0|8@1+ (1,0) [0|1] \"\" X\n")},
        {"NulInsideSignalDefinition", kMsg + Lit(" SG_ S : 0|8@1+ (1,\0) [0|1] \"\" X\n")},
        {"NulInsideQuotedText", Lit("CM_ \"ab\0cd\";\nBO_ 1 A: 8 X\n")},
        {"HugeDecimalId",
         "BO_ " + std::string(400, '9') + " A: 8 X\n SG_ S : 0|8@1+ (1,0) [0|1] \"\" X\n"},
        {"HugeHexId", "BO_ 0x" + std::string(300, 'F') + " A: 8 X\n"},
        {"IdAbove32Bits", "BO_ 4294967296 A: 8 X\nBO_ 0 B: 8 X\n"},
        {"HugeDlc", "BO_ 1 A: 999999999999999999999999 X\n"},
        {"HugeStartBitAndLength", kMsg + " SG_ S : 4294967295|4294967295@1+ (1,0) [0|1] \"\" X\n"},
        {"HugeFactors", kMsg + " SG_ S : 0|8@1+ (1e308,1e308) [-1e308|1e308] \"\" X\n"},
        {"FactorsBeyondDouble",
         kMsg + " SG_ S : 0|8@1+ (1e999,-1e999) [-1e99999|1e99999] \"\" X\n"},
        {"RawZeroOverflow", kMsg + " SG_ S : 0|8@1+ (1e-320,1e300) [0|1] \"\" X\n"},
        {"NanAndInfScaling", kMsg + " SG_ S : 0|8@1+ (nan,inf) [-inf|nan] \"\" X\n"},
        {"ZeroFactorHugeOffset", kMsg + " SG_ S : 0|8@1+ (0,-1e300) [0|1] \"\" X\n"},
        {"LongMessageName", "BO_ 1 " + kLong + ": 8 " + kLong + "\n"},
        {"LongSignalNameRepeated",
         kMsg + Repeat(" SG_ " + kLong + " : 0|8@1+ (1,0) [0|1] \"\" X\n", 3)},
        {"LongUnitAndMux", kMsg + " SG_ S m" + std::string(10000, '7') +
                               " : 0|8@1+ (1,0) [0|1] \"" + kLong + "\" X\n"},
        {"LongIdRepeated", Repeat("BO_ " + std::string(10000, '0') + "1 A: 8 X\n", 2)},
        {"LongNodeNames", "BU_: " + kLong + " " + kLong + " " + kLong + "\n"},
        {"LongAttributeNames", "BA_DEF_ \"" + kLong + "\" INT 0 1;\nBA_DEF_ \"" + kLong +
                                   "\" INT 0 1;\nBA_ \"" + kLong + "x\" 1;\n"},
        {"LongCommentTargets",
         kMsg + "CM_ SG_ 100 " + kLong + " \"" + kLong + "\";\nCM_ BO_ 7 \"x\";\n"},
        {"LongValueTable", kMsg + "VAL_ 100 " + kLong + Repeat(" 1 \"" + kLong + "\"", 5) + " ;\n"},
        {"UnterminatedComment", kMsg + "CM_ BO_ 100 \"never closed\n\n\n"},
        {"UnterminatedUnit", kMsg + " SG_ S : 0|8@1+ (1,0) [0|1] \"km/h"},
        {"UnterminatedAttrName", "BA_DEF_ BO_ \"abc INT 0 1;\n"},
        {"UnterminatedEnum", "BA_DEF_ \"E\" ENUM \"a\",\"b"},
        {"UnterminatedValue", kMsg + "VAL_ 100 S 1 \"one"},
        {"BackslashAtEnd", "CM_ \"abc\\"},
        {"MissingBracketAtEnd", kMsg + " SG_ S : 0|8@1+ (1,0) [0|255"},
        {"MissingBracketBeforeMoreText",
         kMsg + " SG_ S : 0|8@1+ (1,0) [0|255 \"\" X\nBO_ 200 N: 8 X\n"},
        {"SignalAtEndWithoutColon", kMsg + " SG_ S"},
        {"MessageAtEnd", "BO_"},
        {"MessageWithoutSeparator", "BO_ 1"},
        {"MultiplexerValueOverflow", kMsg + " SG_ Sw M : 0|8@1+ (1,0) [0|1] \"\" X\n SG_ A "
                                            "m99999999999999999999 : 8|8@1+ (1,0) [0|1] \"\" X\n"},
        {"RepeatedMessageKeyword", Repeat("BO_ ", 100000) + "\n"},
        {"RepeatedSignalKeyword", kMsg + Repeat(" SG_", 100000) + "\n"},
        {"RepeatedCommentKeyword", Repeat("CM_ ", 100000) + "\n"},
        {"RepeatedAttrKeywords", Repeat("BA_DEF_ BA_DEF_DEF_ BA_ ", 30000) + "\n"},
        {"RepeatedQuotes", Repeat("\"", 100001)},
        {"RepeatedBackslashes", "CM_ \"" + Repeat("\\", 100001)},
        {"ManyEnumValues", "BA_DEF_ \"E\" ENUM " + Repeat("\"a\",", 100000) + "\"b\";\n"},
        {"ManyValuePairs", kMsg + " SG_ S : 0|8@1+ (1,0) [0|1] \"\" X\n\nVAL_ 100 S" +
                               Repeat(" 0 \"a\"", 100000) + " ;\n"},
        {"ManyRepeatedIds", Repeat("BO_ 5 A: 8 X\n", 10000)},
        {"ManySignalRepeats", kMsg + Repeat(" SG_ S : 0|8@1+ (1,0) [0|1] \"\" X\n", 50000)},
        {"ManyMuxValues", kMsg + " SG_ Sw M : 0|8@1+ (1,0) [0|1] \"\" X\n" +
                              [] {
                                  std::string s;
                                  for (int i = 0; i < 5000; ++i)
                                      s += " SG_ A" + std::to_string(i) + " m" + std::to_string(i) +
                                           " : 8|8@1+ (1,0) [0|1] \"\" X\n";
                                  return s;
                              }()},
        {"LongNamespace", "NS_ :\n" + Repeat("\tX\n", 100000) + "BO_ 1 A: 8 X\n"},
        {"OnlyCarriageReturns", Repeat("\r", 100000)},
        {"ManyEmptyCrLfLinesInsideMessage",
         kMsg + Repeat(" SG_ S : 0|8@1+ (1,0) [0|1] \"\" X\r\n\r\n\r\n", 1000)},
        {"HighBytes", "BO_ 1 \xff\xfe: 8 \x80\n SG_ \xc3\xa9 : 0|8@1+ (1,0) [0|1] \"\xff\" X\n"},
    };
}

class HandMade : public Silenced, public ::testing::WithParamInterface<Hostile> {};

TEST_P(HandMade, LoadsWithoutHarm) {
    LoadChecked(GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Texts, HandMade, ::testing::ValuesIn(HostileTexts()),
                         [](const ::testing::TestParamInfo<Hostile>& info) {
                             return std::string(info.param.name);
                         });

// ---------------------------------------------------------------------------
// Signal definitions: the loader's numbers must be the ones sscanf gives
// ---------------------------------------------------------------------------

struct Scanned {
    int fields = 0;
    unsigned startBit = 0, length = 0;
    int byteOrder = 0;
    char sign = 0;
    double factor = 0, offset = 0, minimum = 0, maximum = 0;
};

Scanned ScanDefinition(const std::string& def) {
    std::string compact;
    for (char c : def)
        if (c != ' ' && c != '\t') compact += c;
    Scanned s;
    s.fields = std::sscanf(compact.c_str(), "%u|%u@%d%c(%lf,%lf)[%lf|%lf]", &s.startBit, &s.length,
                           &s.byteOrder, &s.sign, &s.factor, &s.offset, &s.minimum, &s.maximum);
    return s;
}

::testing::AssertionResult SameDouble(const char* what, double want, double got) {
    bool same = std::isnan(want) ? std::isnan(got) && std::signbit(want) == std::signbit(got)
                                 : std::memcmp(&want, &got, sizeof want) == 0;
    if (same) return ::testing::AssertionSuccess();
    char buf[160];
    std::snprintf(buf, sizeof buf, "%s: want %.17g (%a), got %.17g (%a)", what, want, want, got,
                  got);
    return ::testing::AssertionFailure() << buf;
}

class SignalDefinition : public Silenced, public ::testing::WithParamInterface<const char*> {};

TEST_P(SignalDefinition, MatchesSscanf) {
    std::string def = GetParam();
    Scanned want = ScanDefinition(def);
    DBC db;
    ASSERT_TRUE(db.LoadContent(kMsg + " SG_ S : " + def + " \"u\" X\n"));
    const Message* m = db.FindMsg(100);
    ASSERT_NE(m, nullptr);
    const Signal* s = db.FindSignal(m, "S");
    if (want.fields < 8) {
        EXPECT_EQ(s, nullptr) << "only " << want.fields << " fields convert";
        return;
    }
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(want.startBit, s->startBit);
    EXPECT_EQ(want.length, s->length);
    EXPECT_EQ(want.byteOrder == 0, s->bigEndian);
    EXPECT_EQ(want.sign == '-', s->isSigned);
    EXPECT_TRUE(SameDouble("factor", want.factor, s->factor));
    EXPECT_TRUE(SameDouble("offset", want.offset, s->offset));
    EXPECT_TRUE(SameDouble("minimum", want.minimum, s->minimum));
    EXPECT_TRUE(SameDouble("maximum", want.maximum, s->maximum));
    // Text after the closing bracket stands where the unit should be.
    if (def.back() == ']') {
        EXPECT_STREQ("u", s->unit);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Texts, SignalDefinition,
    ::testing::Values(
        "0|8@1+ (1,0) [0|255]", "0 | 8 @ 1 + ( 0.5 , -40 ) [ 0 | 100 ]", "0|8@1+(1,0)[0|1]",
        "99999999999|8@1+ (1,0) [0|1]", "4294967296|4294967297@1+ (1,0) [0|1]",
        "18446744073709551615|8@1+ (1,0) [0|1]", "18446744073709551616|8@1+ (1,0) [0|1]",
        "-1|-8@1+ (1,0) [0|1]", "-4294967297|8@1+ (1,0) [0|1]", "+3|+8@+1+ (+1,+0) [+0|+1]",
        "00010|0008@00+ (1,0) [0|1]", "0|0x8@1+ (1,0) [0|1]", "0|8@99999999999+ (1,0) [0|1]",
        "0|8@-1+ (1,0) [0|1]", "0|8@2+ (1,0) [0|1]", "0|8@0x (1,0) [0|1]", "0|8@1- (1,0) [0|1]",
        "0|8@1(1,0)[0|1]", "0|8@1+ (1e308,0) [0|1]", "0|8@1+ (1e309,-1e309) [0|1]",
        "0|8@1+ (1e-400,5) [0|1]", "0|8@1+ (4.9e-324,2.4e-324) [2.5e-324|1e-310]",
        "0|8@1+ (1.7976931348623157e308,1.7976931348623159e308) [0|1]",
        "0|8@1+ (0.1000000000000000055511151231257827,9007199254740993) [0|1]",
        "0|8@1+ (2.2250738585072011e-308,123456789012345678901234567890) [0|1]",
        "0|8@1+ (inf,nan) [-inf|infinity]", "0|8@1+ (INF,NAN) [-Infinity|-nan]",
        "0|8@1+ (nan(123),0) [0|1]", "0|8@1+ (0x1p3,0X10) [0x.8|-0x1.8p-2]", "0|8@1+ (0x,0) [0|1]",
        "0|8@1+ (.5,5.) [1E+2|-1e-2]", "0|8@1+ (1e,0) [0|1]", "0|8@1+ (1,0) [0|1e]",
        "0|8@1+ (1,0) [0|1.5e+]", "0|8@1+ (1e+,0) [0|1]", "0|8@1+ (-0,-0) [-0.0|0]",
        "0|8@1+ (1,0) [0|]", "0|8@1+ (1,0) [|1]", "|8@1+ (1,0) [0|1]", "0|8@1]",
        "0|8@1+ (1;0) [0|1]", "0|8@1+ (1,0) [0|1]junk", "0|8@1+ (\v1,\f0) [0|\r1]",
        "0|8@1+ (1,0) [0|1\n]", "0|8@1+ (\xef\xbc\x91,0) [0|1]", "0|8@1+ (1,0)\n[0|1]",
        "0|8@1+ (0001.2500,-000.0) [1_0|2]", "0|8@1+ (1,0) [0x1g|1]", "0|8@1+ (+-1,0) [0|1]",
        "0|8@1+ (1,0) [0|"
        "1"
        "00000000000000000000000000000000000000000000000000000000000000"
        "0000000000000000000000000000000000000000000000000000000000000000000000000000000000000"
        "0000000000000000000000000000000000000000000000000000000000000000000000000000000000000"
        "0000000000000000000000000000000000000000000000000000000000000000000000000000000000000"
        "00000000000000]"));

// ---------------------------------------------------------------------------
// Concrete outcomes
// ---------------------------------------------------------------------------

TEST(HostileOutcome, MissingBracketAtEndLogsAndLoadCompletes) {
    LogCapture log;
    DBC db;
    EXPECT_TRUE(
        db.LoadContent(kMsg + " SG_ A : 0|8@1+ (1,0) [0|1] \"\" X\n SG_ B : 8|8@1+ (1,0) [0|255"));
    EXPECT_NE(log.Text().find("(3)n==8"), std::string::npos) << log.Text();
    const Message* m = db.FindMsg(100);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(1u, m->signals.size());
    EXPECT_NE(db.FindSignal(m, "A"), nullptr);
}

TEST(HostileOutcome, TextEndsAtTheFirstNul) {
    DBC db;
    EXPECT_TRUE(db.LoadContent(Lit("BO_ 1 A: 8 X\n\0BO_ 2 B: 8 X\n")));
    EXPECT_NE(db.FindMsg(1), nullptr);
    EXPECT_EQ(db.FindMsg(2), nullptr);
}

TEST(HostileOutcome, LongNamesAreKeptWholeAndLogLinesStayBounded) {
    LogCapture log;
    DBC db;
    std::string sig = " SG_ " + kLong + " : 0|8@1+ (1,0) [0|1] \"\" X\n";
    EXPECT_TRUE(db.LoadContent("BO_ 1 " + kLong + ": 8 X\n" + sig + sig));
    const Message* m = db.FindMsg2(kLong);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(kLong.size(), std::strlen(m->name));
    ASSERT_EQ(1u, m->signals.size());
    EXPECT_EQ(kLong.size(), std::strlen(m->signals.begin()->second.name));

    std::string text = log.Text();
    EXPECT_NE(text.find("SG_ name not unique NNNN"), std::string::npos);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) EXPECT_LT(line.size(), 8400u);
}

TEST(HostileOutcome, OversizedIdsAreDroppedOrKeptByTheirBits) {
    DBC db;
    // strtoul saturates to all ones (bits 29/30 set: dropped); 2^32 has neither bit.
    EXPECT_TRUE(db.LoadContent("BO_ " + std::string(40, '9') + " A: 8 X\nBO_ 4294967296 B: 8 X\n"));
    std::vector<Message*> all;
    db.GetAllMessage(all);
    ASSERT_EQ(1u, all.size());
    EXPECT_EQ(4294967296ull, all[0]->id);
    EXPECT_STREQ("B", all[0]->name);
}

TEST(HostileOutcome, UnterminatedStringsLogAndComplete) {
    for (const char* tail : {"CM_ BO_ 100 \"open", "VAL_ 100 S 1 \"open", "BA_DEF_ \"open",
                             " SG_ S : 0|8@1+ (1,0) [0|1] \"open"}) {
        SCOPED_TRACE(tail);
        LogCapture log;
        DBC db;
        EXPECT_TRUE(db.LoadContent(kMsg + tail));
        EXPECT_NE(log.Text().find("string not match"), std::string::npos);
        EXPECT_NE(db.FindMsg(100), nullptr);
    }
}

TEST(HostileOutcome, MillionShortLines) {
    kq::LogInit("/dev/null", kq::LOG_ERROR);
    const char* const kinds[] = {";", "", "x", " SG_ o", "EV_ e", "\t", "BO_TX_BU_ 1 : A;", "}"};
    std::string text;
    text.reserve(9u << 20);
    for (size_t i = 0; i < 1000000; ++i) {
        text += kinds[i % 8];
        text += '\n';
    }
    text += "BO_ 7 Last: 8 X\n SG_ S : 0|8@1+ (1,0) [0|1] \"\" X\n";
    DBC db;
    EXPECT_TRUE(db.LoadContent(text));
    kq::LogInit(nullptr, kq::LOG_DEBUG);
    const Message* m = db.FindMsg(7);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(1u, m->signals.size());
    EXPECT_EQ(1000003u, db.Impl()->Line());
}

// Files whose text ends exactly at a page boundary leave the scanner no
// terminating byte inside the file; endings that keep scanning to the end
// must stop there all the same.
TEST(HostileOutcome, FilesEndingAtPageBoundariesLoad) {
    kq::LogInit("/dev/null", kq::LOG_ERROR);
    char dir[] = "/tmp/tarn_hostile_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string path = std::string(dir) + "/edge.dbc";
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    for (const char* tail :
         {" SG_ S : 0|8@1+ (1,0) [0|255", "CM_ \"open", "BU_: NodeName", "CM_ \"a\\"}) {
        for (size_t size : {page - 1, page, page + 1, 2 * page}) {
            SCOPED_TRACE(std::string(tail) + " / " + std::to_string(size));
            std::string text = kMsg + " SG_ A : 0|8@1+ (1,0) [0|1] \"\" X\n";
            text += std::string(size - text.size() - std::strlen(tail), '\n') + tail;
            ASSERT_EQ(size, text.size());
            std::ofstream(path, std::ios::binary) << text;
            DBCEx db;
            EXPECT_TRUE(db.Load(path, false));
            const Message* m = db.FindMsg(100);
            ASSERT_NE(m, nullptr);
            EXPECT_NE(db.FindSignal(m, "A"), nullptr);
        }
    }
    std::remove(path.c_str());
    rmdir(dir);
    kq::LogInit(nullptr, kq::LOG_DEBUG);
}

TEST(HostileOutcome, RepeatedIdStopsTheLoadButKeepsEarlierMessages) {
    DBC db;
    EXPECT_FALSE(db.LoadContent(Repeat("BO_ 5 A: 8 X\nBO_ 6 B: 8 X\n", 1000)));
    std::vector<Message*> all;
    db.GetAllMessage(all);
    EXPECT_EQ(2u, all.size());
}

}  // namespace
