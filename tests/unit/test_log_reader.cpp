// The log reader as a stream: frames leave a pipe as soon as their line is
// written, hostile input stays bounded in memory and message size, and the
// public logs read without a malformed line.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "log_test_util.h"

namespace {

constexpr size_t kMiB = size_t{1} << 20;

// Writes `text` to a pipe from another thread while the test reads it.
class PipeWriter {
  public:
    PipeWriter() { EXPECT_EQ(pipe(m_fds), 0); }
    ~PipeWriter() {
        Join();
        close(m_fds[0]);
    }
    void Join() {
        if (m_thread.joinable()) m_thread.join();
    }
    int ReadEnd() const { return m_fds[0]; }
    template <typename F>
    void Run(F body) {
        m_thread = std::thread([this, body] {
            body(m_fds[1]);
            close(m_fds[1]);
        });
    }

  private:
    int m_fds[2];
    std::thread m_thread;
};

void WriteAll(int fd, const std::string& s) {
    for (size_t done = 0; done < s.size();) {
        ssize_t n = write(fd, s.data() + done, s.size() - done);
        ASSERT_GT(n, 0);
        done += static_cast<size_t>(n);
    }
}

long MaxRssKiB() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_maxrss;
}

TEST(LogReaderStream, ReturnsTheFirstFrameBeforeTheWriterGoesOn) {
    PipeWriter pipe;
    std::mutex m;
    std::condition_variable cv;
    bool firstRead = false, waitedInVain = false;
    pipe.Run([&](int fd) {
        WriteAll(fd, "(1.0) can0 123#01\n(2.0) can0 12");  // one line and a half
        std::unique_lock<std::mutex> lock(m);
        waitedInVain = !cv.wait_for(lock, std::chrono::seconds(10), [&] { return firstRead; });
        lock.unlock();
        WriteAll(fd, "3#02\n");
    });
    tarn_log_reader* r = nullptr;
    ASSERT_EQ(tarn_log_open_fd(pipe.ReadEnd(), TARN_LOG_FORMAT_AUTO, &r), TARN_OK);
    tarn_frame frames[16];
    size_t n = 0;
    ASSERT_EQ(tarn_log_read(r, frames, 16, &n), TARN_OK);
    {
        std::lock_guard<std::mutex> lock(m);
        firstRead = true;
    }
    cv.notify_one();
    EXPECT_EQ(n, 1u);
    EXPECT_EQ(frames[0].data[0], 0x01);
    logtest::Collected rest = logtest::ReadAll(r);
    pipe.Join();
    EXPECT_FALSE(waitedInVain);
    EXPECT_EQ(rest.frames, std::vector<std::string>{"2.000000 can0 123 S 1 02"});
}

// Hostile lines between two good ones: each is counted once, its report is
// short and printable, and the good line after it is still read.
TEST(LogReaderHostile, StaysBoundedAndReportsShortEscapedExcerpts) {
    struct Case {
        const char* name;
        std::string line;
        int kind;
    };
    const std::string hexField = "(1.0) can0 123#" + std::string(kMiB / 2, 'A');
    const std::vector<Case> cases = {
        {"escape and NUL bytes", std::string("\x1b[2J(1.0)\0can0 \xff\\", 17),
         TARN_LOG_LINE_MALFORMED},
        {"huge hex field", hexField, TARN_LOG_LINE_MALFORMED},
        {"hex field over the cap", hexField + hexField + hexField, TARN_LOG_LINE_OVERLONG},
        {"one byte over the cap", std::string(kMiB + 1, ' '), TARN_LOG_LINE_OVERLONG},
        {"padded to the cap", "(3.0) can0 123#03" + std::string(kMiB - 17, ' '), -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        logtest::Collected got =
            logtest::ReadText("(1.0) can0 123#01\n" + c.line + "\n(2.0) can0 123#02\n");
        EXPECT_EQ(got.frames.size(), c.kind < 0 ? 3u : 2u);
        ASSERT_EQ(got.problems.size(), c.kind < 0 ? 0u : 1u);
        if (c.kind < 0) continue;
        EXPECT_EQ(got.problems[0].line, 2u);
        EXPECT_EQ(got.problems[0].kind, c.kind);
        const std::string& e = got.excerpts[0];
        EXPECT_LE(e.size(), 80u * 4 + 3);
        for (char ch : e) EXPECT_TRUE(ch >= 0x20 && ch < 0x7F) << e;
    }
    EXPECT_EQ(logtest::ReadText(cases[0].line + "\n").excerpts.at(0),
              "\\x1B[2J(1.0)\\x00can0 \\xFF\\x5C");
}

TEST(LogReaderHostile, AnEndlessLineThroughAPipeDoesNotGrowMemory) {
    PipeWriter pipe;
    const size_t total = 128 * kMiB;
    pipe.Run([&](int fd) {
        std::string chunk(kMiB, '7');
        for (size_t sent = 0; sent < total; sent += chunk.size()) WriteAll(fd, chunk);
        WriteAll(fd, "\n(1.0) can0 123#01\n");
    });
    long before = MaxRssKiB();
    tarn_log_reader* r = nullptr;
    ASSERT_EQ(tarn_log_open_fd(pipe.ReadEnd(), TARN_LOG_FORMAT_CANDUMP, &r), TARN_OK);
    logtest::Collected c = logtest::ReadAll(r);
    EXPECT_EQ(c.frames, std::vector<std::string>{"1.000000 can0 123 S 1 01"});
    EXPECT_EQ(c.info.overlong, 1u);
    EXPECT_LT(MaxRssKiB() - before, 32 * 1024) << "KiB grown while reading a 128 MiB line";
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

// The descriptor stays the caller's: still open after the reader is closed.
TEST(LogReaderApi, LeavesTheCallersDescriptorOpen) {
    logtest::TempLog log("(1.0) can0 123#01\n");
    int fd = open(log.Path(), O_RDONLY);
    tarn_log_reader* r = nullptr;
    ASSERT_EQ(tarn_log_open_fd(fd, TARN_LOG_FORMAT_AUTO, &r), TARN_OK);
    EXPECT_EQ(logtest::ReadAll(r).frames.size(), 1u);
    EXPECT_EQ(lseek(fd, 0, SEEK_SET), 0);
    close(fd);
}

TEST(LogReaderCorpus, PublicLogsReadWithoutMalformedLines) {
    const std::string dir = std::string(TARN_CORPUS_DIR) + "/logs";
    DIR* d = opendir(dir.c_str());
    if (!d) GTEST_SKIP() << "no public logs in " << dir;
    int files = 0;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        std::string path = dir + "/" + e->d_name;
        size_t lines = 0;  // non-blank lines: every one is a frame
        std::ifstream in(path);
        for (std::string l; std::getline(in, l);) lines += !l.empty();
        tarn_log_reader* r = nullptr;
        ASSERT_EQ(tarn_log_open(path.c_str(), TARN_LOG_FORMAT_AUTO, &r), TARN_OK);
        logtest::Collected c = logtest::ReadAll(r);
        SCOPED_TRACE(path);
        EXPECT_EQ(c.info.format, TARN_LOG_FORMAT_CANDUMP);
        EXPECT_EQ(c.info.malformed, 0u);
        EXPECT_EQ(c.frames.size(), lines);
        ++files;
    }
    closedir(d);
    EXPECT_GT(files, 0);
}

}  // namespace
