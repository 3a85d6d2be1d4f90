// Every log format read from a small hand-written sample, and a table of
// lines each format must refuse: the frames expected were written by hand.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "log_test_util.h"

namespace {

using logtest::ReadText;

struct Sample {
    const char* name;
    int format;  // the one detection must find
    const char* text;
    std::vector<std::string> frames;
};

// 2021-01-01 12:00:00 UTC, as each format writes a start.
const std::vector<Sample> kSamples = {
    {"candump_log",
     TARN_LOG_FORMAT_CANDUMP,
     "(1436509052.249713) can0 18FEF100#0102030405060708\n"
     "(1436509052.250000) can1 123#\r\n"
     "\n"
     "(1436509052.3) can0 7FF#R\n"
     "(1436509052.4) can0 123#R5\n"
     "(14.9447040558) vcan0 18FEF100##1000102030405060708090A0B\n"
     "(1436509052.6) can0 20000080#0000000000000000\n"
     "(1436509052.7) can0 123#11.22.33\n"
     "(1436509052.8) can0 123#0102030405060708_F",
     {"1436509052.249713 can0 18FEF100 X 8 0102030405060708", "1436509052.250000 can1 123 S 0 ",
      "1436509052.300000 can0 7FF SR 0 ", "1436509052.400000 can0 123 SR 5 0000000000",
      "14.944704 vcan0 18FEF100 XF 12 000102030405060708090A0B",
      "1436509052.600000 can0 80 SE 8 0000000000000000", "1436509052.700000 can0 123 S 3 112233",
      "1436509052.800000 can0 123 S 8 0102030405060708"}},
    {"candump_screen",
     TARN_LOG_FORMAT_CANDUMP_SCREEN,
     "  can0  123   [8]  01 02 03 04 05 06 07 08\n"
     "  can1  18FEF100   [2]  AA BB                     '..'\n"
     "(1436509052.249713)  can0  123   [2]  01 02\n"
     "(000.000123)  can0  7FF   [0] \n"
     "(2021-01-01 12:00:00.250000)  can0  123   [4]  remote request\n"
     "  can0  RX - -  123   [1]  11\n"
     "  can0  TX B E  456  [12]  00 01 02 03 04 05 06 07 08 09 0A 0B\n"
     "  can0  456  [08]  00 01 02 03 04 05 06 07\n"
     "  can0  20000004   [8]  00 04 00 00 00 00 00 00   ERRORFRAME\n",
     {"- can0 123 S 8 0102030405060708", "- can1 18FEF100 X 2 AABB",
      "1436509052.249713 can0 123 S 2 0102", "0.000123 can0 7FF S 0 ",
      "1609502400.250000 can0 123 SR 4 00000000", "- can0 123 S 1 11",
      "- can0 456 SF 12 000102030405060708090A0B", "- can0 456 SF 8 0001020304050607",
      "- can0 4 SE 8 0004000000000000"}},
    {"asc_hex_absolute",
     TARN_LOG_FORMAT_ASC,
     "date Fri Jan 1 12:00:00.000 pm 2021\n"
     "base hex  timestamps absolute\n"
     "internal events logged\n"
     "// version 13.0.0\n"
     "Begin Triggerblock Fri Jan 1 12:00:00.000 pm 2021\n"
     "   0.000000 Start of measurement\n"
     "   0.100000 1  123             Rx   d 8 01 02 03 04 05 06 07 08  Length = 240015 "
     "BitCount = 124 ID = 291\n"
     "   0.200000 2  18FEF100x       Tx   d 2 AA BB\n"
     "   0.250000 1  321             Rx   r 4\n"
     "   0.300000 CANFD   1 Rx        18FEF100x  EngineData    1 0 9 12 00 01 02 03 04 05 06 "
     "07 08 09 0a 0b   130000  130  3000  1a2b3c  1000000 2000000 0 0\n"
     "   0.400000 CANFD   1 Tx        123         0 0 2 2 aa bb   23000  60  0  1234  500000 0 "
     "0 0\n"
     "   0.500000 1  ErrorFrame\n"
     "   0.600000 1  Statistic: D 0 R 0 XD 0 XR 0 E 0 O 0 B 0.00%\n"
     "   0.700000 CAN 1 Status:chip status error active\n"
     "End TriggerBlock\n",
     {"1609502400.100000 1 123 S 8 0102030405060708", "1609502400.200000 2 18FEF100 X 2 AABB",
      "1609502400.250000 1 321 SR 4 00000000",
      "1609502400.300000 1 18FEF100 XF 12 000102030405060708090A0B",
      "1609502400.400000 1 123 S 2 AABB", "1609502400.500000 1 0 SE 0 "}},
    {"asc_dec_relative",
     TARN_LOG_FORMAT_ASC,
     "base dec  timestamps relative\n"
     "   0.500000 1  291             Rx   d 2 1 255\n"
     "   0.250000 1  Statistic: D 0 R 0 XD 0 XR 0 E 0 O 0 B 0.00%\n"
     "   0.250000 3  419430400x      Rx   d 1 16\n",
     {"0.500000 1 123 S 2 01FF", "1.000000 3 19000000 X 1 10"}},
    {"trc_1_1",
     TARN_LOG_FORMAT_TRC1,
     ";$FILEVERSION=1.1\n"
     ";$STARTTIME=44197.5\n"
     ";   Message Number\n"
     ";---+--   ----+----  --+--  ----+---  +  -+ -- -- -- -- -- -- --\n"
     "     1)      1059.9    1  Rx         0300  8  00 00 00 00 04 00 00 00\n"
     "     2)      1060.0    1  Tx     18FEF100  2  01 02\n"
     "     3)      1061.5    2  Rx         0301  4  RTR\n"
     "     4)      1062.0    1  Warng  FFFFFFFF  4  00 00 00 08 BUSHEAVY\n",
     {"1609502401.059900 1 300 S 8 0000000004000000", "1609502401.060000 1 18FEF100 X 2 0102",
      "1609502401.061500 2 301 SR 4 00000000"}},
    {"trc_2_0",
     TARN_LOG_FORMAT_TRC2,
     ";$FILEVERSION=2.0\n"
     ";$STARTTIME=44197.5\n"
     "      1      1059.900 DT     0300 Rx 8  00 00 00 00 04 00 00 00\n"
     "      2      1100.000 FD     0400 Tx 12 00 01 02 03 04 05 06 07 08 09 0A 0B\n"
     "      3      1200.000 FB 18FEF100 Tx 9  00 01 02 03 04 05 06 07 08 09 0A 0B\n",
     {"1609502401.059900  300 S 8 0000000004000000",
      "1609502401.100000  400 SF 12 000102030405060708090A0B",
      "1609502401.200000  18FEF100 XF 12 000102030405060708090A0B"}},
    {"trc_2_1",
     TARN_LOG_FORMAT_TRC2,
     ";$FILEVERSION=2.1\n"
     ";$STARTTIME=44197.5\n"
     ";$COLUMNS=N,O,T,B,I,d,R,L,D\n"
     ";\n"
     "      1      1000.000 DT 1      0300 Rx -  8    00 01 02 03 04 05 06 07\n"
     "      2      1500.250 FB 2  18FEF100 Tx -  9    00 01 02 03 04 05 06 07 08 09 0A 0B\n"
     "      3      1600.000 RR 1      0301 Rx -  2\n"
     "      4      1700.000 ST 1    Rx 00 00 00 08\n"
     "      5      1800.000 ER 1         - Rx -  5    00 01 02 03 04\n",
     {"1609502401.000000 1 300 S 8 0001020304050607",
      "1609502401.500250 2 18FEF100 XF 12 000102030405060708090A0B",
      "1609502401.600000 1 301 SR 2 0000", "1609502401.800000 1 0 SE 5 0001020304"}},
};

class LogSample : public ::testing::TestWithParam<Sample> {};

TEST_P(LogSample, ReadsEveryFrameAndDetectsTheFormat) {
    const Sample& s = GetParam();
    logtest::Collected c = ReadText(s.text);
    EXPECT_EQ(c.frames, s.frames);
    EXPECT_EQ(c.info.format, s.format);
    EXPECT_EQ(c.info.malformed, 0u) << (c.excerpts.empty() ? "" : c.excerpts[0]);
    EXPECT_EQ(c.info.frames, s.frames.size());
    // Named explicitly, the format gives the same frames.
    EXPECT_EQ(ReadText(s.text, s.format).frames, s.frames);
}

INSTANTIATE_TEST_SUITE_P(Formats, LogSample, ::testing::ValuesIn(kSamples),
                         [](const auto& info) { return std::string(info.param.name); });

struct BadLine {
    const char* lead;  // lines that settle the format first
    const char* line;
};

// Each `line` must be counted and reported as malformed, with its number.
const std::vector<BadLine> kBadLines = {
    {"(1.0) can0 123#01", "(1.0) can0 123#0"},
    {"(1.0) can0 123#01", "(1.0) can0 123#010203040506070809"},
    {"(1.0) can0 123#01", "(1.0) can0 1234#01"},
    {"(1.0) can0 123#01", "(1.0) can0 800#01"},
    {"(1.0) can0 123#01", "(1.0) can0 40000000#01"},
    {"(1.0) can0 123#01", "(1.0) can0 123##1000102030405060708"},
    {"(1.0) can0 123#01", "(1.0) can0 123#01 trailing"},
    {"(1.0) can0 123#01", "(x) can0 123#01"},
    {"(1.0) can0 123#01", "(1.0) can0"},
    {"(1.0) can0 123#01", "   0.1 1  123  Rx d 1 01"},
    {"  can0  123   [1]  01", "  can0  123   [9]  01 02 03 04 05 06 07 08 09"},
    {"  can0  123   [1]  01", "  can0  123   [8]  01 02"},
    {"  can0  123   [1]  01", "  can0  RX B  123   [1]  01"},
    {"base hex  timestamps absolute", "   0.1 1  123  Rx d 8 01 02"},
    {"base hex  timestamps absolute", "   0.1 1  800  Rx d 1 01"},
    {"base hex  timestamps absolute", "   0.1 1  123  Rx q 1 01"},
    {"base hex  timestamps absolute", "   0.1 CANFD 1 Rx 123 1 0 9 11 00"},
    {"base hex  timestamps absolute", "(1.0) can0 123#01"},
    {";$FILEVERSION=1.1", "     1)  1.0  1  Rx  0300  8  00"},
    {";$FILEVERSION=1.1", "     1)  1.0  1  Xx  0300  1  00"},
    {";$FILEVERSION=2.0", "      1  1.0 DT 0300 Rx 8 00 01"},
    {";$FILEVERSION=2.0", "      1  1.0 QQ 0300 Rx 1 00"},
    {"", "just some text"},
};

TEST(LogBadLines, AreCountedAndReportedWithTheirLineNumber) {
    for (const BadLine& b : kBadLines) {
        std::string lead = b.lead;
        std::string text = lead.empty() ? b.line : lead + "\n" + b.line + "\n";
        logtest::Collected c = ReadText(text);
        SCOPED_TRACE(b.line);
        EXPECT_EQ(c.info.malformed, 1u);
        ASSERT_EQ(c.problems.size(), 1u);
        EXPECT_EQ(c.problems[0].line, lead.empty() ? 1u : 2u);
        EXPECT_EQ(c.problems[0].kind, TARN_LOG_LINE_MALFORMED);
        EXPECT_EQ(c.excerpts[0], b.line);
        EXPECT_EQ(c.frames.size(), ReadText(lead).frames.size());  // it costs only itself
    }
}

}  // namespace
