// The legacy writer: numbers as printf prints them, and exact output lines.
#include <cmath>
#include <cstdio>
#include <random>

#include "unit/dbc_test_util.h"

namespace {

// Numbers print as printf's "%.7f" (its rounding included) less trailing zeros.
TEST(Double2String, IsPrintfSevenDecimalsTrimmed) {
    std::mt19937_64 rng(11);
    std::vector<double> values = {0.00000005, 0.00000006,  -0.0,    1e-8,     -1e-8,
                                  1e20,       123.4567891, -3276.8, HUGE_VAL, -HUGE_VAL};
    for (int i = 0; i < 20000; ++i) {
        double mantissa = static_cast<double>(rng() % 2000001) - 1000000.0;
        values.push_back(mantissa * std::pow(10.0, static_cast<int>(rng() % 16) - 10));
    }
    for (double v : values) {
        char buf[512];
        std::snprintf(buf, sizeof buf, "%.7f", v);
        std::string want = buf;
        if (want.find('.') != std::string::npos) {
            want.erase(want.find_last_not_of('0') + 1);
            if (want.back() == '.') want.pop_back();
        }
        EXPECT_EQ(want, Double2String(v)) << buf;
    }
    EXPECT_EQ("nan", Double2String(std::nan("")));
}

const char* const kFile =
    "BU_: ECU\n"
    "BO_ 200 Second: 8 ECU\n"
    " SG_ Sw M : 0|8@1+ (1,0) [0|255] \"\" ECU\n"
    " SG_ Mx m3 : 8|8@0- (0.1,-40) [-40|100] \"degC\" ECU,Other\n"
    " SG_ P m : 16|8@1+ (1,0) [0|0] \"\" ECU\n"
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

const char* const kSecond =
    "BO_ 200 Second: 8 ECU\r\n"
    " SG_ Sw M : 0|8@1+ (1,0) [0|255] \"\" Vector__XXX\r\n"
    " SG_ Mx m3 : 8|8@0- (0.1,-40) [-40|100] \"degC\" Vector__XXX\r\n"
    " SG_ P m 0 : 16|8@1+ (1,0) [0|0] \"\" Vector__XXX\r\n"
    "\r\n";

std::string DumpOf(const std::string& text, bool ordered) {
    dbctest::LogCapture quiet;
    return dbctest::Load(text, ordered)->Impl()->DumpText();
}

// Without the record-order flag only messages (by id) are written; with it
// every section, in file order.
TEST(Writer, OutputLinesExactly) {
    EXPECT_EQ(std::string("BO_ 100 First: 2 ECU\r\n\r\n") + kSecond + "\r\n\r\n\r\n",
              DumpOf(kFile, false));
    EXPECT_EQ(std::string(kSecond) +
                  "BO_ 100 First: 2 ECU\r\n\r\n\r\n\r\n"
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
                  "\r\n",
              DumpOf(kFile, true));
}

}  // namespace
