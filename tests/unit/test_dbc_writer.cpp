// The DBC writer: number formatting and exact output lines. Reloading the
// output of real files is covered by the corpus test.
#include <limits.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>

#include "unit/dbc_test_util.h"

namespace {

// Rounding is printf's: 0.00000005 is stored just below the half and so
// prints as 0, while 0.00000006 rounds up to the seventh decimal.
TEST(Double2String, ShortestFixedPoint) {
    const struct {
        double in;
        const char* out;
    } cases[] = {
        {1.5, "1.5"},
        {2.0, "2"},
        {0.1, "0.1"},
        {1e-8, "0"},
        {0.00000006, "0.0000001"},
        {-0.0, "-0"},
        {-40.0, "-40"},
        {100.0, "100"},
        {0.125, "0.125"},
        {123.4567891, "123.4567891"},
        {1e20, "100000000000000000000"},
        {-3276.8, "-3276.8"},
        {HUGE_VAL, "inf"},
        {std::nan(""), "nan"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.out, Double2String(c.in)) << c.in;
}

std::string DumpOf(const std::string& text, bool ordered) {
    dbctest::LogCapture quiet;
    return dbctest::Load(text, ordered)->Impl()->DumpText();
}

const char* const kFile =
    "BU_: ECU\n"
    "BO_ 200 Second: 8 ECU\n"
    " SG_ Sw M : 0|8@1+ (1,0) [0|255] \"\" ECU\n"
    " SG_ Mx m3 : 8|8@0- (0.1,-40) [-40|100] \"degC\" ECU,Other\n"
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

TEST(Writer, NormalUseHoldsMessagesAndSignalsOnly) {
    std::string expected =
        "BO_ 100 First: 2 ECU\r\n"
        "\r\n"
        "BO_ 200 Second: 8 ECU\r\n"
        " SG_ Sw M : 0|8@1+ (1,0) [0|255] \"\" Vector__XXX\r\n"
        " SG_ Mx m3 : 8|8@0- (0.1,-40) [-40|100] \"degC\" Vector__XXX\r\n"
        "\r\n"
        "\r\n\r\n"
        "\r\n";
    EXPECT_EQ(expected, DumpOf(kFile, false));
}

TEST(Writer, RecordOrderSectionsExactly) {
    std::string expected =
        "BO_ 200 Second: 8 ECU\r\n"
        " SG_ Sw M : 0|8@1+ (1,0) [0|255] \"\" Vector__XXX\r\n"
        " SG_ Mx m3 : 8|8@0- (0.1,-40) [-40|100] \"degC\" Vector__XXX\r\n"
        "\r\n"
        "BO_ 100 First: 2 ECU\r\n"
        "\r\n"
        "\r\n\r\n"
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
        "\r\n";
    EXPECT_EQ(expected, DumpOf(kFile, true));
}

TEST(Writer, PlainMultiplexIndicatorPrintsItsValue) {
    Signal s;
    Message m;
    m.id = 0x80000001u;
    m.dlc = 8;
    m.name = "N";
    m.transmitter = "T";
    s.name = "S";
    s.unit = "";
    s.multiplexer = "m";
    s.multiplexerValue = 7;
    s.factor = 1;
    m.signals[s.name] = s;
    EXPECT_EQ("BO_ 2147483649 N: 8 T\r\n SG_ S m 7 : 0|0@1+ (1,0) [0|0] \"\" Vector__XXX\r\n",
              m.Dump());
}

TEST(Writer, DumpWritesDumpTxtInTheWorkingDirectory) {
    char dir[] = "/tmp/tarn_dbc_dump_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    char cwd[PATH_MAX];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(0, chdir(dir));
    dbctest::LogCapture quiet;
    auto db = dbctest::Load(kFile);
    db->Impl()->Dump();
    std::ifstream in("dump.txt", std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    EXPECT_EQ(db->Impl()->DumpText(), ss.str());
    unlink("dump.txt");
    EXPECT_EQ(0, chdir(cwd));
    rmdir(dir);
}

}  // namespace
