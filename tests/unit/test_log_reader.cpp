// The log readers: every format from a hand-written sample, lines each must
// refuse, bounded hostile input and the public logs (streaming from a pipe is
// shown through the tool, in tests/scripts/cli.sh).
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tarn/log.h"

namespace {

constexpr size_t kMiB = size_t{1} << 20;

struct Problem {
    uint64_t line;
    int kind;
    std::string excerpt;  // the reader's copy lives only during the call
};

struct Collected {
    std::vector<std::string> frames;
    std::vector<Problem> problems;
    tarn_log_info info{};
};

// "<time> <iface> <ID> <S|X>[F][R][E] <length> <hex data>", time "-" when NaN.
std::string Describe(const tarn_frame& f, const tarn_log_reader* r) {
    const char* name = "?";
    tarn_log_channel(r, f.channel, &name);
    char s[300] = "-";
    int n = std::isnan(f.time) ? 1 : std::snprintf(s, sizeof s, "%.6f", f.time);
    n += std::snprintf(s + n, sizeof s - n, " %s %X %c%s%s%s %u ", name, f.id,
                       f.extended ? 'X' : 'S', f.flags & TARN_FRAME_FD ? "F" : "",
                       f.flags & TARN_FRAME_REMOTE ? "R" : "",
                       f.flags & TARN_FRAME_ERROR ? "E" : "", f.length);
    for (unsigned i = 0; i < f.length; ++i) n += std::snprintf(s + n, 3, "%02X", f.data[i]);
    return s;
}

// Reads the whole of an open reader, then closes it.
Collected ReadAll(tarn_log_reader* r) {
    Collected c;
    tarn_log_set_problem_handler(
        r,
        [](void* user, const tarn_log_problem* p) {
            static_cast<Collected*>(user)->problems.push_back({p->line, p->kind, p->excerpt});
        },
        &c);
    tarn_frame frames[64];
    size_t n = 0;
    while (tarn_log_read(r, frames, 64, &n) == TARN_OK && n > 0)
        for (size_t i = 0; i < n; ++i) c.frames.push_back(Describe(frames[i], r));
    EXPECT_EQ(tarn_log_at_end(r), 1);
    tarn_log_get_info(r, &c.info);
    tarn_log_close(r);
    return c;
}

void WriteAll(int fd, const std::string& s) {
    for (size_t done = 0; done < s.size();) {
        ssize_t n = write(fd, s.data() + done, s.size() - done);
        ASSERT_GT(n, 0);
        done += static_cast<size_t>(n);
    }
}

// Reads `text` through a descriptor the test keeps, as callers of open_fd do.
Collected ReadText(const std::string& text, int format = TARN_LOG_FORMAT_AUTO) {
    int fd = memfd_create("log", 0);
    WriteAll(fd, text);
    lseek(fd, 0, SEEK_SET);
    tarn_log_reader* r = nullptr;
    EXPECT_EQ(tarn_log_open_fd(fd, format, &r), TARN_OK);
    Collected c = r ? ReadAll(r) : Collected{};
    EXPECT_EQ(lseek(fd, 0, SEEK_SET), 0) << "the descriptor stays open";
    close(fd);
    return c;
}

struct Sample {
    const char* name;
    int format;  // the one detection must find
    const char* text;
    std::vector<std::string> frames;
};

// Hand-written samples; each format's start is 2021-01-01 12:00:00 UTC.
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

void PrintTo(const Sample& s, std::ostream* os) {
    *os << s.name;
}

class LogSample : public ::testing::TestWithParam<Sample> {};

TEST_P(LogSample, ReadsEveryFrameAndDetectsTheFormat) {
    const Sample& s = GetParam();
    Collected c = ReadText(s.text);
    EXPECT_EQ(c.frames, s.frames);
    EXPECT_EQ(c.info.format, s.format);
    EXPECT_EQ(c.info.malformed, 0u) << (c.problems.empty() ? "" : c.problems[0].excerpt);
    EXPECT_EQ(c.info.frames, s.frames.size());
    EXPECT_EQ(ReadText(s.text, s.format).frames, s.frames);
}

INSTANTIATE_TEST_SUITE_P(Formats, LogSample, ::testing::ValuesIn(kSamples),
                         [](const auto& info) { return std::string(info.param.name); });

// Lines each format must refuse, after lines that settle the format: each is
// counted and reported as malformed with its number, and costs only itself.
const std::vector<std::pair<std::string, std::vector<std::string>>> kBadLines = {
    {"(1.0) can0 123#01",
     {"(1.0) can0 123#0", "(1.0) can0 123#010203040506070809", "(1.0) can0 1234#01",
      "(1.0) can0 800#01", "(1.0) can0 40000000#01", "(1.0) can0 123##1000102030405060708",
      "(1.0) can0 123#01 trailing", "(x) can0 123#01", "(1.0) can0", "   0.1 1  123  Rx d 1 01"}},
    {"  can0  123   [1]  01",
     {"  can0  123   [9]  01 02 03 04 05 06 07 08 09", "  can0  123   [8]  01 02",
      "  can0  RX B  123   [1]  01"}},
    {"base hex  timestamps absolute",
     {"   0.1 1  123  Rx d 8 01 02", "   0.1 1  800  Rx d 1 01", "   0.1 1  123  Rx q 1 01",
      "   0.1 CANFD 1 Rx 123 1 0 9 11 00", "(1.0) can0 123#01"}},
    {";$FILEVERSION=1.1", {"     1)  1.0  1  Rx  0300  8  00", "     1)  1.0  1  Xx  0300  1  00"}},
    {";$FILEVERSION=2.0", {"      1  1.0 DT 0300 Rx 8 00 01", "      1  1.0 QQ 0300 Rx 1 00"}},
    {"", {"just some text"}},
};

TEST(LogBadLines, AreCountedAndReportedWithTheirLineNumber) {
    for (const auto& [lead, lines] : kBadLines) {
        const size_t good = ReadText(lead).frames.size();
        for (const std::string& line : lines) {
            SCOPED_TRACE(line);
            Collected c = ReadText(lead.empty() ? line : lead + "\n" + line + "\n");
            EXPECT_EQ(c.info.malformed, 1u);
            ASSERT_EQ(c.problems.size(), 1u);
            EXPECT_EQ(c.problems[0].line, lead.empty() ? 1u : 2u);
            EXPECT_EQ(c.problems[0].kind, TARN_LOG_LINE_MALFORMED);
            EXPECT_EQ(c.problems[0].excerpt, line);
            EXPECT_EQ(c.frames.size(), good);
        }
    }
}

// Hostile lines between two good ones: each is counted once, its report is
// short and printable, and the good line after it is still read.
TEST(LogReaderHostile, StaysBoundedAndReportsShortEscapedExcerpts) {
    const std::string hexField = "(1.0) can0 123#" + std::string(kMiB / 2, 'A');
    const struct {
        std::string line;
        int kind;  // -1: a good line
    } cases[] = {
        {std::string("\x1b[2J(1.0)\0can0 \xff\\", 17), TARN_LOG_LINE_MALFORMED},
        {hexField, TARN_LOG_LINE_MALFORMED},
        {hexField + hexField + hexField, TARN_LOG_LINE_OVERLONG},
        {std::string(kMiB + 1, ' '), TARN_LOG_LINE_OVERLONG},
        {"(3.0) can0 123#03" + std::string(kMiB - 17, ' '), -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line.substr(0, 20));
        Collected got = ReadText("(1.0) can0 123#01\n" + c.line + "\n(2.0) can0 123#02\n");
        EXPECT_EQ(got.frames.size(), c.kind < 0 ? 3u : 2u);
        ASSERT_EQ(got.problems.size(), c.kind < 0 ? 0u : 1u);
        if (c.kind < 0) continue;
        EXPECT_EQ(got.problems[0].line, 2u);
        EXPECT_EQ(got.problems[0].kind, c.kind);
        const std::string& e = got.problems[0].excerpt;
        EXPECT_LE(e.size(), 80u * 4 + 3);
        for (char ch : e) EXPECT_TRUE(ch >= 0x20 && ch < 0x7F) << e;
    }
    EXPECT_EQ(ReadText(cases[0].line + "\n").problems.at(0).excerpt,
              "\\x1B[2J(1.0)\\x00can0 \\xFF\\x5C");
}

TEST(LogReaderHostile, AnEndlessLineThroughAPipeDoesNotGrowMemory) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    std::thread writer([fd = fds[1]] {
        const std::string chunk(kMiB, '7');
        for (int i = 0; i < 128; ++i) WriteAll(fd, chunk);
        WriteAll(fd, "\n(1.0) can0 123#01\n");
        close(fd);
    });
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    tarn_log_reader* r = nullptr;
    ASSERT_EQ(tarn_log_open_fd(fds[0], TARN_LOG_FORMAT_CANDUMP, &r), TARN_OK);
    Collected c = ReadAll(r);
    writer.join();
    close(fds[0]);
    getrusage(RUSAGE_SELF, &after);
    EXPECT_EQ(c.frames, std::vector<std::string>{"1.000000 can0 123 S 1 01"});
    EXPECT_EQ(c.info.overlong, 1u);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 32 * 1024) << "KiB grown by a 128 MiB line";
}

TEST(LogReaderApi, RefusesWhatItCannotRead) {
    tarn_log_reader* r = reinterpret_cast<tarn_log_reader*>(1);
    EXPECT_EQ(tarn_log_open("/nonexistent/log", TARN_LOG_FORMAT_AUTO, &r), TARN_ERR_IO);
    EXPECT_EQ(r, nullptr);
    EXPECT_EQ(tarn_log_open("/tmp", TARN_LOG_FORMAT_AUTO, &r), TARN_ERR_IO);
    EXPECT_EQ(tarn_log_open("/dev/null", 99, &r), TARN_ERR_ARGUMENT);
    ASSERT_EQ(tarn_log_open("/dev/null", TARN_LOG_FORMAT_AUTO, &r), TARN_OK);
    tarn_frame f;
    size_t n = 1;
    EXPECT_EQ(tarn_log_read(r, &f, 0, &n), TARN_ERR_ARGUMENT);
    EXPECT_EQ(tarn_log_read(r, &f, 1, &n), TARN_OK);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(tarn_log_at_end(r), 1);
    tarn_log_close(r);
}

TEST(LogReaderCorpus, PublicLogsReadWithoutMalformedLines) {
    const std::string dir = std::string(TARN_CORPUS_DIR) + "/logs";
    DIR* d = opendir(dir.c_str());
    if (!d) GTEST_SKIP() << "no public logs in " << dir;
    int files = 0;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        const std::string path = dir + "/" + e->d_name;
        SCOPED_TRACE(path);
        size_t lines = 0;  // non-blank lines: every one is a frame
        std::ifstream in(path);
        for (std::string l; std::getline(in, l);) lines += !l.empty();
        tarn_log_reader* r = nullptr;
        ASSERT_EQ(tarn_log_open(path.c_str(), TARN_LOG_FORMAT_AUTO, &r), TARN_OK);
        Collected c = ReadAll(r);
        EXPECT_EQ(c.info.format, TARN_LOG_FORMAT_CANDUMP);
        EXPECT_EQ(c.info.malformed, 0u);
        EXPECT_EQ(c.frames.size(), lines);
        ++files;
    }
    closedir(d);
    EXPECT_GT(files, 0);
}

}  // namespace
