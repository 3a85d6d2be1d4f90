// The scanner's token readers: quoted strings, identifiers and rollback marks.
#include "unit/dbc_test_util.h"

namespace {

TEST(Tokenizer, ReadStringValueCursorLineAndLog) {
    const struct {
        const char* name;
        std::string text, value;
        char after;  // character under the cursor afterwards
        uint32_t line;
        std::vector<std::string> logs;
    } cases[] = {
        {"Plain", " \t\"abc\";", "abc", ';', 1, {}},
        {"EscapedQuote", "\"a\\\"b\"x", "a\"b", 'x', 1, {}},
        {"EscapedBackslash", "\"\\\\\"", "\\", '\0', 1, {}},
        {"BackslashDropsBeforeLetter", "\"a\\nb\"", "anb", '\0', 1, {}},
        {"LineFeedsKeptAndCounted", "\"a\nb\r\nc\" ", "a\nb\r\nc", ' ', 3, {}},
        {"NoQuoteConsumesNothing", "  abc", "", 'a', 1, {}},
        {"Unterminated", "\"ab\ncd", "ab\ncd", '\0', 2, {"(2) string not match"}},
        {"BackslashAtEnd", "\"ab\\", "ab", '\0', 1, {"(1) string not match"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        dbctest::LogCapture log;
        DBCImpl impl;
        impl.BeginText(c.text.c_str());
        EXPECT_EQ(c.value, impl.ReadString());
        EXPECT_EQ(c.after, impl.CurrentChar());
        EXPECT_EQ(c.line, impl.Line());
        EXPECT_EQ(c.logs, log.Messages());
    }
}

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

TEST(Tokenizer, MarksRestorePositionAndEmptyStackLogs) {
    dbctest::LogCapture log;
    DBCImpl impl;
    impl.BeginText("one\ntwo three");
    impl.SetRollback();
    impl.ReadIdentifier();
    impl.IgnoreLine();
    EXPECT_EQ("two", impl.ReadIdentifier());
    EXPECT_TRUE(impl.Rollback());
    EXPECT_EQ(1u, impl.Line());
    EXPECT_EQ("one", impl.ReadIdentifier());
    EXPECT_EQ(0u, impl.MarkDepth());
    EXPECT_FALSE(impl.Rollback());
    EXPECT_EQ(std::vector<std::string>{"(2)!m_marks.empty()"}, log.Messages());
}

}  // namespace
