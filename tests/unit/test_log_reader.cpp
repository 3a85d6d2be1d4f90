// The log readers: every format from a hand-written sample in log_samples/,
// lines each must refuse, bounded hostile input and the public logs (pipe
// streaming is shown through the tool, in tests/scripts/cli.sh).
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
    n += std::snprintf(s + n, sizeof s - n, " %s %X %c%s%s%s %u%s", name, f.id,
                       f.extended ? 'X' : 'S', f.flags & TARN_FRAME_FD ? "F" : "",
                       f.flags & TARN_FRAME_REMOTE ? "R" : "",
                       f.flags & TARN_FRAME_ERROR ? "E" : "", f.length, f.length ? " " : "");
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

// Hand-written samples: NAME.log, and NAME.frames holding the format that
// detection must find, then each frame as Describe() writes it.
const std::string kSampleDir = std::string(TARN_SOURCE_DIR) + "/tests/unit/log_samples/";

class LogSample : public ::testing::TestWithParam<std::string> {};

TEST_P(LogSample, ReadsEveryFrameAndDetectsTheFormat) {
    std::ifstream log(kSampleDir + GetParam() + ".log", std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(log), {}};
    std::ifstream expected(kSampleDir + GetParam() + ".frames");
    ASSERT_TRUE(log.is_open() && expected.is_open()) << kSampleDir << GetParam();
    std::string format;
    std::getline(expected, format);
    std::vector<std::string> frames;
    for (std::string l; std::getline(expected, l);) frames.push_back(l);
    Collected c = ReadText(text);
    EXPECT_EQ(c.frames, frames);
    EXPECT_EQ(tarn_log_format_name(c.info.format), format);
    EXPECT_EQ(c.info.malformed, 0u) << (c.problems.empty() ? "" : c.problems[0].excerpt);
    EXPECT_EQ(c.info.frames, frames.size());
    EXPECT_EQ(ReadText(text, c.info.format).frames, frames);
}

INSTANTIATE_TEST_SUITE_P(Formats, LogSample,
                         ::testing::Values("candump_log", "candump_screen", "asc_hex_absolute",
                                           "asc_dec_relative", "trc_1_1", "trc_2_0", "trc_2_1"),
                         [](const auto& info) { return info.param; });

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
