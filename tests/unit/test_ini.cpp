// INI reader: plain text search rules, bounded output, integer conversion.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "INI.h"
#include "unit/stdout_capture.h"

namespace {

const char kIni[] =
    "[net]\n"
    "bitrate=500000\n"
    "name= can0 \n"
    "crlf=42\r\n"
    "[other]\n"
    "late=7\n"
    "xkey=tail\n"
    "[empty]\n"
    "blank=\n"
    "last=end";

class IniTest : public ::testing::Test {
  protected:
    void SetUp() override {
        file.Write(kIni);
        ASSERT_TRUE(ini.Open(file.c_str()));
    }
    std::string Get(const char* section, const char* key, unsigned long size = 64,
                    const char* def = "DEF") {
        char out[128];
        std::memset(out, '#', sizeof(out));
        ini.GetString(section, key, out, size, def);
        return std::string(out, strnlen(out, sizeof(out)));
    }
    TempPath file{"ini"};
    CINI ini;
};

struct StringCase {
    const char* section;
    const char* key;
    const char* value;
};

class IniStrings : public IniTest, public ::testing::WithParamInterface<StringCase> {};

TEST_P(IniStrings, FindsValueByTextSearch) {
    EXPECT_EQ(Get(GetParam().section, GetParam().key), GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, IniStrings,
    ::testing::Values(StringCase{"net", "bitrate", "500000"},
                      StringCase{"net", "name", " can0 "},  // blanks stay
                      StringCase{"net", "crlf", "42\r"},    // the carriage return stays
                      // Keys are searched past later section headers...
                      StringCase{"net", "late", "7"},
                      // ...but never before the section asked for.
                      StringCase{"other", "bitrate", "DEF"},
                      // A key that is the tail of a longer key matches it.
                      StringCase{"other", "key", "tail"}, StringCase{"missing", "bitrate", "DEF"},
                      StringCase{"net", "nokey", "DEF"}, StringCase{"empty", "blank", ""},
                      // The last line has no line feed: its last byte is lost.
                      StringCase{"empty", "last", "en"}));

TEST(IniBasics, BeforeOpenOrAfterFailedOpenReturnsDefault) {
    CINI ini;
    char out[16] = {};
    ini.GetString("a", "b", out, sizeof(out) - 1, "dflt");
    EXPECT_STREQ(out, "dflt");
    EXPECT_FALSE(ini.Open("/nonexistent/tarn.ini"));
    EXPECT_EQ(ini.GetIntValue("a", "b", 7), 7u);
}

TEST_F(IniTest, FailedReopenForgetsTheEarlierFile) {
    EXPECT_FALSE(ini.Open("/nonexistent/tarn.ini"));
    EXPECT_EQ(Get("net", "bitrate"), "DEF");
}

TEST_F(IniTest, ValueIsCutToOutSizeCharactersPlusTerminator) {
    char out[16];
    std::memset(out, '#', sizeof(out));
    ini.GetString("net", "bitrate", out, 3, "");
    EXPECT_STREQ(out, "500");
    EXPECT_EQ(out[4], '#');
}

TEST_F(IniTest, DefaultLongerThanOutSizeKeepsSizePlusOneCharacters) {
    char out[16];
    std::memset(out, '#', sizeof(out));
    ini.GetString("net", "nokey", out, 3, "abcdef");
    EXPECT_EQ(std::string(out, 5), "abcd#");
}

struct IntCase {
    const char* section;
    const char* key;
    unsigned long def;
    unsigned long expected;
};

class IniInts : public IniTest, public ::testing::WithParamInterface<IntCase> {};

TEST_P(IniInts, ConvertsPresentValuesAndKeepsFirstDigitOfMissingDefaults) {
    const IntCase& c = GetParam();
    EXPECT_EQ(ini.GetIntValue(c.section, c.key, c.def), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, IniInts,
    ::testing::Values(IntCase{"net", "bitrate", 0, 500000}, IntCase{"net", "crlf", 0, 42},
                      IntCase{"net", "late", 0, 7}, IntCase{"net", "missing", 7, 7},
                      IntCase{"net", "missing", 42, 4}, IntCase{"net", "missing", 25, 2},
                      IntCase{"nosection", "x", 987, 9},
                      IntCase{"net", "missing", (unsigned long)-5, 0},
                      IntCase{"net", "name", 0, 0}));

TEST(IniBasics, LongValueIsConvertedWhole) {
    TempPath file("ini");
    std::string digits = "00000000000000000000000000000000000000000000000000000000000000123";
    file.Write("[s]\nk=" + digits + "\n");
    CINI ini;
    ASSERT_TRUE(ini.Open(file.c_str()));
    EXPECT_EQ(ini.GetIntValue("s", "k", 0), 123u);
    char small[8];
    ini.GetString("s", "k", small, 6, "");
    EXPECT_STREQ(small, "000000");
}

TEST(IniBasics, EmptyFileAndKeyAtEndOfImageAreSafe) {
    TempPath file("ini");
    CINI ini;
    file.Write("");
    ASSERT_TRUE(ini.Open(file.c_str()));
    EXPECT_EQ(ini.GetIntValue("s", "k", 3), 3u);
    file.Write("[s]\nk=");
    ASSERT_TRUE(ini.Open(file.c_str()));
    char out[8] = "zzzzzzz";
    ini.GetString("s", "k", out, 7, "d");
    EXPECT_STREQ(out, "");
}

}  // namespace
