// Logger: prefix format, bare-name rule, threshold, targets and closing.
#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include "common/log.h"
#include "tarn.h"
#include "unit/stdout_capture.h"

namespace {

using kq::Log;

// Must stay the first test: it sees the logger as static initialisation left it.
TEST(LogDefaults, DebugMessagesReachStdoutWholeBeforeAnySetup) {
    const std::string big(20000, 'z');
    StdoutCapture cap;
    Log("dir/start.cpp", 9, kq::LOG_DEBUG, "hello %d\n", 5);
    Log("a.cpp", 1, kq::LOG_DEBUG, "%s\n", big.c_str());
    EXPECT_EQ(cap.Text(), "start.cpp:9[0] hello 5\na.cpp:1[0] " + big + "\n");
}

// The prefix carries the bare file name (a backslash counts only without any
// slash) and the message's own level, shown only at or above the threshold.
TEST(LogPrefix, BareFileNameAndLevelAtOrAboveTheThreshold) {
    const char* names[][2] = {{"/a/b/c.cpp", "c.cpp"},     {"c.cpp", "c.cpp"},         {"dir/", ""},
                              {"C:\\src\\x.cpp", "x.cpp"}, {"a/b\\c.cpp", "b\\c.cpp"}, {"", ""}};
    for (int threshold = kq::LOG_DEBUG; threshold <= kq::LOG_ERROR; ++threshold) {
        for (int level = kq::LOG_DEBUG; level <= kq::LOG_ERROR; ++level) {
            const auto* name = names[(threshold * 4 + level) % 6];
            kq::LogInit(threshold % 2 ? "" : nullptr, static_cast<kq::LogLevel>(threshold));
            StdoutCapture cap;
            Log(name[0], 44, static_cast<kq::LogLevel>(level), "m\n");
            const std::string shown = name[1] + (":44[" + std::to_string(level) + "] m\n");
            EXPECT_EQ(cap.Text(), level >= threshold ? shown : "") << threshold << "/" << level;
        }
    }
}

// A file is appended to and keeps stdout quiet; closing it silences the
// logger until the next init; an unopenable file falls back to stdout, which
// closing leaves on. The interface logs at threshold 1 and replaces the file.
TEST(LogFile, TargetsAndClosing) {
    TempPath first("log1"), second("log2");
    first.Write("old\n");
    StdoutCapture cap;
    kq::LogInit(first.c_str(), kq::LOG_INFO);
    Log("x/y.cpp", 3, kq::LOG_DEBUG, "dropped\n");
    Log("x/y.cpp", 4, kq::LOG_ERROR, "%s\n", "kept");
    kq::LogDeinit();
    Log("a.cpp", 1, kq::LOG_ERROR, "lost\n");
    kq::LogInit("/nonexistent-dir-for-tarn/x.log", kq::LOG_WARN);
    kq::LogDeinit();
    TARN_SetLogFile(false, "ignored");
    Log("a.cpp", 1, kq::LOG_INFO, "below\n");
    Log("a.cpp", 2, kq::LOG_WARN, "still on\n");
    EXPECT_EQ(cap.Text(), "a.cpp:2[2] still on\n");
    EXPECT_EQ(first.Read(), "old\ny.cpp:4[3] kept\n");
    TARN_SetLogFile(true, first.c_str());
    Log("a.cpp", 1, kq::LOG_DEBUG, "thread notice\n");
    Log("a.cpp", 2, kq::LOG_INFO, "one\n");
    TARN_SetLogFile(true, second.c_str());
    Log("a.cpp", 3, kq::LOG_INFO, "two\n");
    TARN_SetLogFile(false, nullptr);
    Log("a.cpp", 4, kq::LOG_ERROR, "after close\n");
    EXPECT_EQ(first.Read(), "old\ny.cpp:4[3] kept\na.cpp:2[1] one\n");
    EXPECT_EQ(second.Read(), "a.cpp:3[1] two\n");
    kq::LogInit(nullptr, kq::LOG_DEBUG);
}

// Two threads log while a third re-targets the logger between two files and
// switches it off: nothing is written to a closed stream, and every line is whole.
TEST(LogConcurrency, RetargetingWhileOthersLogKeepsEveryLineWhole) {
    TempPath first("log1"), second("log2");
    std::atomic<bool> stop{false};
    std::atomic<int> written{0};
    auto writer = [&](int id) {
        for (int i = 0; !stop; ++i, ++written)
            Log("w.cpp", id, kq::LOG_ERROR, "line %d of %d\n", i, id);
    };
    kq::LogInit(first.c_str(), kq::LOG_INFO);
    std::thread a(writer, 1), b(writer, 2);
    for (int i = 0; i < 2000 || written < 20000; ++i) {
        kq::LogInit((i % 2 ? first : second).c_str(), kq::LOG_INFO);
        if (i % 3 == 0) kq::LogDeinit();
    }
    // End on a file target and let the writers reach it, so the check below
    // never reads two files the retargeting left empty.
    kq::LogInit(first.c_str(), kq::LOG_INFO);
    for (const int mark = written + 100; written < mark;) std::this_thread::yield();
    stop = true;
    a.join();
    b.join();
    kq::LogInit(nullptr, kq::LOG_DEBUG);
    const std::regex whole(R"(w\.cpp:([12])\[3\] line \d+ of \1)");
    size_t lines = 0;
    for (const std::string& text : {first.Read(), second.Read()}) {
        std::istringstream in(text);
        for (std::string line; std::getline(in, line); ++lines)
            ASSERT_TRUE(std::regex_match(line, whole)) << line;
    }
    EXPECT_GT(lines, 0u);
}

}  // namespace
