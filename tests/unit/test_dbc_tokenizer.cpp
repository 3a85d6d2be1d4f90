// The scanner's token readers and the load driver's line handling.
#include <algorithm>

#include "unit/dbc_test_util.h"

namespace {

struct StringCase {
    const char* name;
    std::string text;
    std::string value;
    char after;  // character under the cursor afterwards
    uint32_t line;
    std::vector<std::string> logs;
};

class ReadStringCases : public ::testing::TestWithParam<StringCase> {};

TEST_P(ReadStringCases, ValueCursorLineAndLog) {
    const StringCase& c = GetParam();
    dbctest::LogCapture log;
    DBCImpl impl;
    impl.BeginText(c.text.c_str());
    EXPECT_EQ(c.value, impl.ReadString());
    EXPECT_EQ(c.after, impl.CurrentChar());
    EXPECT_EQ(c.line, impl.Line());
    EXPECT_EQ(c.logs, log.Messages());
}

INSTANTIATE_TEST_SUITE_P(
    Tokenizer, ReadStringCases,
    ::testing::Values(
        StringCase{"Plain", " \t\"abc\";", "abc", ';', 1, {}},
        StringCase{"EscapedQuote", "\"a\\\"b\"x", "a\"b", 'x', 1, {}},
        StringCase{"EscapedBackslash", "\"\\\\\"", "\\", '\0', 1, {}},
        StringCase{"BackslashDropsBeforeLetter", "\"a\\nb\"", "anb", '\0', 1, {}},
        StringCase{"LineFeedsKeptAndCounted", "\"a\nb\r\nc\" ", "a\nb\r\nc", ' ', 3, {}},
        StringCase{"NoQuoteConsumesNothing", "  abc", "", 'a', 1, {}},
        StringCase{"Unterminated", "\"ab\ncd", "ab\ncd", '\0', 2, {"(2) string not match"}},
        StringCase{"BackslashAtEnd", "\"ab\\", "ab", '\0', 1, {"(1) string not match"}}),
    [](const ::testing::TestParamInfo<StringCase>& info) { return info.param.name; });

TEST(Tokenizer, IdentifiersStopAtAnythingButIdentifierCharacters) {
    DBCImpl impl;
    impl.BeginText("  $ab_9\r\n:x\xe9y");
    EXPECT_EQ("$ab_9", impl.ReadIdentifier());
    EXPECT_EQ('\r', impl.CurrentChar());
    EXPECT_EQ("", impl.ReadIdentifier()) << "a carriage return ends words";
    EXPECT_TRUE(impl.IgnoreLine());
    EXPECT_EQ(2u, impl.Line());
    EXPECT_EQ("", impl.ReadIdentifier());
    EXPECT_EQ(':', impl.CurrentChar());
    EXPECT_FALSE(impl.IgnoreLine());
    EXPECT_FALSE(impl.IgnoreWhiteSpace());
    EXPECT_EQ(impl.ReadIdentifierAtom(), impl.GetAtoms().intern(""));
}

TEST(Tokenizer, EnumSkipsEmptyTexts) {
    DBCImpl impl;
    impl.BeginText(" \"A\" , \"\",\"B\" ;");
    std::vector<const char*> e = impl.ReadEnum();
    ASSERT_EQ(2u, e.size());
    EXPECT_EQ(impl.GetAtoms().find("A"), e[0]);
    EXPECT_EQ(impl.GetAtoms().find("B"), e[1]);
    EXPECT_EQ(';', impl.CurrentChar());
}

TEST(Tokenizer, MarksRestorePositionAndEmptyStackLogs) {
    dbctest::LogCapture log;
    DBCImpl impl;
    impl.BeginText("one\ntwo three");
    impl.SetRollback();
    impl.ReadIdentifier();
    impl.IgnoreLine();
    EXPECT_EQ("two", impl.ReadIdentifier());
    EXPECT_EQ(2u, impl.Line());
    EXPECT_TRUE(impl.Rollback());
    EXPECT_EQ(1u, impl.Line());
    EXPECT_EQ("one", impl.ReadIdentifier());
    EXPECT_EQ(0u, impl.MarkDepth());
    EXPECT_FALSE(impl.Rollback());
    EXPECT_EQ(std::vector<std::string>{"(2)!m_marks.empty()"}, log.Messages());
}

// Everything the models of two texts agree on, as one comparable text.
std::string Describe(const DBC& db) {
    std::string out;
    std::vector<Message*> msgs;
    db.GetAllMessage(msgs);
    for (const Message* m : msgs) {
        out += std::to_string(m->id) + " " + m->name + " " + std::to_string(m->dlc) + " " +
               m->transmitter + " [" + m->comment + "]\n";
        for (const auto& kv : m->signals) {
            const Signal& s = kv.second;
            out += std::string("  ") + s.name + " " + s.multiplexer + " " +
                   std::to_string(s.startBit) + "|" + std::to_string(s.length) + " " +
                   std::to_string(s.factor) + " " + s.unit + " " + std::to_string(s.index) + " " +
                   std::to_string(s.valueDescs.size()) + " [" + s.comment + "]\n";
        }
    }
    std::vector<NetworkNode*> nodes;
    db.GetAllNetworkNode(nodes);
    for (const NetworkNode* n : nodes) out += std::string("node ") + n->name + "\n";
    return out + "protocol " + std::to_string(db.GetProtocol());
}

const char* const kSample =
    "VERSION \"1\"\n\nNS_ :\n\tBA_\n\tCM_\n\nBS_:\n\nBU_: A B\n\n"
    "BO_ 100 M1: 8 A\n SG_ S1 : 0|8@1+ (0.5,0) [0|100] \"km/h\" B\n"
    " SG_ S2 M : 8|8@1+ (1,0) [0|0] \"\" B\n SG_ S3 m1 : 16|8@1+ (1,0) [0|0] \"\" B\n\n"
    "BO_TX_BU_ 100 : B;\n"
    "BO_ 2147483905 M2: 8 B\n SG_ T : 0|16@0- (1,-10) [0|0] \"\" A\n\n"
    "CM_ SG_ 100 S1 \"speed\";\nBA_DEF_ \"ProtocolType\" STRING;\n"
    "BA_ \"ProtocolType\" \"J1939\";\nVAL_ 100 S1 0 \"zero\" 1 \"one\";\n";

std::string ToCrLf(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\n') out += '\r';
        out += c;
    }
    return out;
}

std::string LowerKeywords(std::string text) {
    for (const char* kw : {"BO_ ", "SG_ ", "BU_:", "CM_ ", "BA_DEF_ ", "BA_ ", "VAL_ ", "NS_ "}) {
        std::string lower(kw);
        std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
        for (size_t at = text.find(kw); at != std::string::npos; at = text.find(kw, at + 1)) {
            // Only keywords that start a line (after optional blanks): object
            // words inside statements are matched with their case.
            size_t lead = text.find_last_not_of(' ', at == 0 ? 0 : at - 1);
            if (at == 0 || lead == std::string::npos || text[lead] == '\n')
                text.replace(at, lower.size(), lower);
        }
    }
    return text;
}

// Line ends and keyword case do not change what a file means.
TEST(Driver, CrLfAndLowerCaseKeywordsGiveTheSameModel) {
    dbctest::LogCapture log;
    auto plain = dbctest::Load(kSample);
    std::string expect = Describe(*plain);
    ASSERT_NE(plain->FindMsg(100), nullptr);
    EXPECT_EQ(3u, plain->FindMsg(100)->signals.size());
    EXPECT_EQ(0u, plain->GetProtocol());
    EXPECT_EQ(expect, Describe(*dbctest::Load(ToCrLf(kSample))));
    std::string lowered = LowerKeywords(kSample);
    ASSERT_NE(lowered, kSample);
    auto low = dbctest::Load(lowered);
    EXPECT_EQ(expect, Describe(*low));
    // Only the once-per-load warning about signed signals, no parse errors.
    EXPECT_EQ(std::vector<std::string>(3, "signed signal... "), log.Messages());
}

TEST(Driver, EmptyTextNulAndWholeWordKeywords) {
    dbctest::LogCapture log;
    bool ok = false;
    auto empty = dbctest::Load("", false, &ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ("protocol 2", Describe(*empty));

    std::string text = "BO_ 1 A: 8 X\n";
    text += '\0';
    text += "BO_ 2 B: 8 X\n";
    auto cut = dbctest::Load(text, false, &ok);
    EXPECT_TRUE(ok);
    EXPECT_NE(cut->FindMsg(1), nullptr);
    EXPECT_EQ(cut->FindMsg(2), nullptr) << "the scan ends at the first NUL";

    auto words = dbctest::Load("BO_X 1 A: 8 X\nVERSION \"\"\nvErsion\n;\n BO_ 3 C: 8 X\n");
    EXPECT_EQ(words->FindMsg(1), nullptr);
    EXPECT_NE(words->FindMsg(3), nullptr) << "leading blanks before a keyword are skipped";
    EXPECT_NE(words->Impl()->GetAtoms().find("VERSION"), nullptr) << "first words are interned";
    EXPECT_NE(words->Impl()->GetAtoms().find("vErsion"), nullptr) << "also as written";
    EXPECT_TRUE(log.Messages().empty());
}

TEST(Driver, NamespaceSectionEndsAtFirstUnindentedLine) {
    auto db = dbctest::Load("NS_ :\n\tBO_ 1 Hidden: 8 X\n    CM_\n\nBO_ 2 Seen: 8 X\n");
    EXPECT_EQ(db->FindMsg(1), nullptr);
    EXPECT_NE(db->FindMsg(2), nullptr);
    auto direct = dbctest::Load("NS_ :\n\tCM_\nBO_ 3 Next: 8 X\n");
    EXPECT_NE(direct->FindMsg(3), nullptr);
}

TEST(Driver, ErrorLinesFollowCrLfText) {
    dbctest::LogCapture log;
    dbctest::Load("VERSION \"\"\r\n\r\nBU_ A\r\nCM_ BO_ 5 \"x\";\r\n");
    EXPECT_EQ((std::vector<std::string>{"(3) loss ':' behind BU ", "(4)NULL!=msg"}),
              log.Messages());
}

}  // namespace
