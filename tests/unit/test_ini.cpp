// INI reader: plain text search rules, bounded output, integer conversion.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

#include "legacy/ini.h"
#include "unit/stdout_capture.h"

namespace {

const char kIni[] =
    "[net]\nbitrate=500000\nname= can0 \ncrlf=42\r\n[other]\nlate=7\nxkey=tail\n"
    "[empty]\nblank=\nlast=end";

class IniTest : public ::testing::Test {
  protected:
    void Open(const std::string& text) {
        file.Write(text);
        ASSERT_TRUE(ini.Open(file.c_str()));
    }
    // The first `n` bytes GetString leaves in a buffer pre-filled with '#'.
    std::string Get(const char* section, const char* key, unsigned long size = 64,
                    const char* def = "DEF", size_t n = 0) {
        char out[128];
        std::memset(out, '#', sizeof(out));
        ini.GetString(section, key, out, size, def);
        return n ? std::string(out, n) : std::string(out, strnlen(out, sizeof(out)));
    }
    TempPath file{"ini"};
    CINI ini;
};

TEST_F(IniTest, FindsValuesByPlainTextSearchWithinTheOutputSize) {
    Open(kIni);
    // clang-format off
    const char* cases[][3] = {{"net", "bitrate", "500000"}, {"net", "nokey", "DEF"},
        {"missing", "bitrate", "DEF"}, {"net", "name", " can0 "}, {"net", "crlf", "42\r"},
        {"net", "late", "7"},         // keys are searched past later section headers...
        {"other", "bitrate", "DEF"},  // ...but never before the section asked for
        {"other", "key", "tail"},     // a key that ends a longer key matches it
        {"empty", "blank", ""},
        {"empty", "last", "en"}};     // without a final line feed the last byte is lost
    // clang-format on
    for (auto c : cases) EXPECT_EQ(Get(c[0], c[1]), c[2]) << c[0] << "." << c[1];
    // At most size characters plus a terminator; a long default is left unterminated.
    EXPECT_EQ(Get("net", "bitrate", 3, "", 5), std::string("500\0#", 5));
    EXPECT_EQ(Get("net", "nokey", 3, "abcdef", 5), "abcd#");
    Open("[s]\nk=" + std::string(70, '0') + "123\n");
    EXPECT_EQ(Get("s", "k", 6), "000000");
    EXPECT_EQ(ini.GetIntValue("s", "k", 0), 123u) << "the whole value is converted";
}

TEST_F(IniTest, GetIntValueConvertsPresentKeysAndKeepsFirstDigitOfMissingDefaults) {
    Open(kIni);
    // clang-format off
    const std::tuple<const char*, const char*, unsigned long, unsigned long> cases[] = {
        {"net", "bitrate", 0, 500000}, {"net", "crlf", 0, 42}, {"net", "late", 0, 7},
        {"net", "name", 9, 0}, {"net", "none", 7, 7}, {"net", "none", 42, 4},
        {"nosection", "x", 987, 9}, {"net", "none", static_cast<unsigned long>(-5), 0}};
    // clang-format on
    for (auto [section, key, def, expected] : cases)
        EXPECT_EQ(ini.GetIntValue(section, key, def), expected) << key << " " << def;
}

TEST_F(IniTest, UnopenedFailedOrEmptyFilesGiveDefaults) {
    EXPECT_EQ(Get("net", "bitrate"), "DEF");
    Open(kIni);
    EXPECT_FALSE(ini.Open("/nonexistent/tarn.ini"));  // forgets the earlier file
    EXPECT_EQ(Get("net", "bitrate"), "DEF");
    EXPECT_EQ(ini.GetIntValue("net", "bitrate", 7), 7u);
    Open("");
    EXPECT_EQ(ini.GetIntValue("s", "k", 3), 3u);
    Open("[s]\nk=");  // the key ends the file image
    EXPECT_EQ(Get("s", "k"), "");
}

}  // namespace
