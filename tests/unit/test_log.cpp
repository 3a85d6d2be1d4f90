// Logger: prefix format, bare-name rule, threshold, targets and closing.
#include <gtest/gtest.h>

#include <string>

#include "common/log.h"
#include "tarn.h"
#include "unit/stdout_capture.h"

namespace {

// Must stay the first test: it sees the logger as static initialisation left it.
TEST(LogDefaults, DebugMessagesReachStdoutBeforeAnySetup) {
    StdoutCapture cap;
    kq::Log("dir/start.cpp", 9, kq::LOG_DEBUG, "hello %d\n", 5);
    EXPECT_EQ(cap.Text(), "start.cpp:9[0] hello 5\n");
}

struct NameCase {
    const char* file;
    const char* printed;
};

class BareName : public ::testing::TestWithParam<NameCase> {};

TEST_P(BareName, PrefixCarriesOnlyTheRuleSelectedName) {
    kq::LogInit(nullptr, kq::LOG_DEBUG);
    StdoutCapture cap;
    kq::Log(GetParam().file, 44, kq::LOG_WARN, "x\n");
    EXPECT_EQ(cap.Text(), std::string(GetParam().printed) + ":44[2] x\n");
}

INSTANTIATE_TEST_SUITE_P(
    Names, BareName,
    ::testing::Values(NameCase{"/a/b/c.cpp", "c.cpp"}, NameCase{"c.cpp", "c.cpp"},
                      NameCase{"C:\\src\\dbc\\x.cpp", "x.cpp"},
                      // The backslash is only looked for when there is no slash at all.
                      NameCase{"a/b\\c.cpp", "b\\c.cpp"}, NameCase{"dir/", ""}, NameCase{"", ""}));

struct ThresholdCase {
    kq::LogLevel threshold;
    int level;
    bool printed;
};

class Threshold : public ::testing::TestWithParam<ThresholdCase> {};

TEST_P(Threshold, MessageAtOrAboveThresholdIsPrintedWithItsOwnLevel) {
    const ThresholdCase& c = GetParam();
    kq::LogInit("", c.threshold);
    StdoutCapture cap;
    kq::Log("t.cpp", 1, static_cast<kq::LogLevel>(c.level), "m\n");
    std::string expected = c.printed ? "t.cpp:1[" + std::to_string(c.level) + "] m\n" : "";
    EXPECT_EQ(cap.Text(), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Levels, Threshold,
    ::testing::Values(ThresholdCase{kq::LOG_WARN, 0, false}, ThresholdCase{kq::LOG_WARN, 1, false},
                      ThresholdCase{kq::LOG_WARN, 2, true}, ThresholdCase{kq::LOG_WARN, 3, true},
                      ThresholdCase{kq::LOG_DEBUG, 0, true}, ThresholdCase{kq::LOG_ERROR, 2, false},
                      ThresholdCase{kq::LOG_ERROR, 3, true},
                      ThresholdCase{kq::LOG_INFO, 0, false}));

TEST(LogFile, AppendsToExistingContentAndStdoutStaysQuiet) {
    TempPath file("log");
    file.Write("old\n");
    StdoutCapture cap;
    kq::LogInit(file.c_str(), kq::LOG_INFO);
    kq::Log("x/y.cpp", 3, kq::LOG_DEBUG, "dropped\n");
    kq::Log("x/y.cpp", 4, kq::LOG_ERROR, "%s\n", "kept");
    kq::LogDeinit();
    EXPECT_EQ(cap.Text(), "");
    EXPECT_EQ(file.Read(), "old\ny.cpp:4[3] kept\n");
}

TEST(LogFile, DeinitAfterFileSilencesEverythingUntilNextInit) {
    TempPath file("log");
    kq::LogInit(file.c_str(), kq::LOG_DEBUG);
    kq::LogDeinit();
    StdoutCapture cap;
    kq::Log("a.cpp", 1, kq::LOG_ERROR, "lost\n");
    kq::LogInit(nullptr, kq::LOG_DEBUG);
    kq::Log("a.cpp", 2, kq::LOG_ERROR, "back\n");
    EXPECT_EQ(cap.Text(), "a.cpp:2[3] back\n");
    EXPECT_EQ(file.Read(), "");
}

TEST(LogFile, DeinitOnStdoutKeepsLoggingAndThreshold) {
    kq::LogInit(nullptr, kq::LOG_WARN);
    kq::LogDeinit();
    kq::LogDeinit();
    StdoutCapture cap;
    kq::Log("a.cpp", 1, kq::LOG_INFO, "below\n");
    kq::Log("a.cpp", 2, kq::LOG_WARN, "still on\n");
    EXPECT_EQ(cap.Text(), "a.cpp:2[2] still on\n");
}

TEST(LogFile, UnopenableFileFallsBackToStdoutWithRequestedThreshold) {
    kq::LogInit("/nonexistent-dir-for-tarn/x.log", kq::LOG_WARN);
    StdoutCapture cap;
    kq::Log("a.cpp", 1, kq::LOG_INFO, "below\n");
    kq::Log("a.cpp", 2, kq::LOG_ERROR, "shown\n");
    EXPECT_EQ(cap.Text(), "a.cpp:2[3] shown\n");
}

TEST(LogFile, ReinitClosesThePreviousFile) {
    TempPath first("log1");
    TempPath second("log2");
    kq::LogInit(first.c_str(), kq::LOG_DEBUG);
    kq::Log("a.cpp", 1, kq::LOG_INFO, "one\n");
    kq::LogInit(second.c_str(), kq::LOG_DEBUG);
    kq::Log("a.cpp", 2, kq::LOG_INFO, "two\n");
    kq::LogDeinit();
    EXPECT_EQ(first.Read(), "a.cpp:1[1] one\n");
    EXPECT_EQ(second.Read(), "a.cpp:2[1] two\n");
}

TEST(SetLogFile, EnableUsesThresholdOneAndDisableClosesTheFile) {
    TempPath file("log");
    TARN_SetLogFile(true, file.c_str());
    kq::Log("a.cpp", 1, kq::LOG_DEBUG, "thread notice\n");
    kq::Log("a.cpp", 2, kq::LOG_INFO, "info\n");
    TARN_SetLogFile(false, nullptr);
    kq::Log("a.cpp", 3, kq::LOG_ERROR, "after close\n");
    EXPECT_EQ(file.Read(), "a.cpp:2[1] info\n");
    kq::LogInit(nullptr, kq::LOG_DEBUG);
}

TEST(SetLogFile, DisableWhileOnStdoutLeavesLoggingOn) {
    kq::LogInit(nullptr, kq::LOG_DEBUG);
    TARN_SetLogFile(false, "ignored");
    StdoutCapture cap;
    kq::Log("a.cpp", 1, kq::LOG_DEBUG, "on\n");
    EXPECT_EQ(cap.Text(), "a.cpp:1[0] on\n");
}

TEST(LogFormat, LongMessagesAreWrittenWhole) {
    kq::LogInit(nullptr, kq::LOG_DEBUG);
    std::string big(20000, 'z');
    StdoutCapture cap;
    kq::Log("a.cpp", 1, kq::LOG_ERROR, "%s\n", big.c_str());
    EXPECT_EQ(cap.Text(), "a.cpp:1[3] " + big + "\n");
}

}  // namespace
