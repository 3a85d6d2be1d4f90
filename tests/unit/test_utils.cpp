// File, string and platform helpers, and the bounded copy used for records.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "common/file_utils.h"
#include "common/func.h"
#include "common/platform.h"
#include "common/str_utils.h"
#include "unit/stdout_capture.h"

namespace {

using kq::FileUtils;
using kq::StrUtils;

struct PathCase {
    const char* path;
    const char* dir;
    const char* base;
};

class PathSplit : public ::testing::TestWithParam<PathCase> {};

TEST_P(PathSplit, DirAndBaseRecomposeTheNormalisedPath) {
    const PathCase& c = GetParam();
    EXPECT_EQ(FileUtils::DirName(c.path), c.dir);
    EXPECT_EQ(FileUtils::BaseName(c.path), c.base);
    EXPECT_EQ(FileUtils::DirName(c.path) + FileUtils::BaseName(c.path),
              FileUtils::NormalizeFileName(c.path));
}

INSTANTIATE_TEST_SUITE_P(Paths, PathSplit,
                         ::testing::Values(PathCase{"a.dbc", "", "a.dbc"},
                                           PathCase{"/a.dbc", "/", "a.dbc"},
                                           PathCase{"a\\b\\c.dbc", "a/b/", "c.dbc"},
                                           PathCase{"/x/y/", "/x/y/", ""}, PathCase{"", "", ""},
                                           PathCase{"C:\\d/e\\f", "C:/d/e/", "f"}));

TEST(FileUtilsTest, ReplaceBaseNameKeepsDriveTextAndNormalises) {
    EXPECT_EQ(FileUtils::ReplaceBaseName("C:\\d\\a.dbc", "b.dbc"), "C:/d/b.dbc");
    EXPECT_EQ(FileUtils::ReplaceBaseName("plain.dbc", "b.dbc"), "b.dbc");
}

class FileIo : public ::testing::Test {
  protected:
    TempPath file{"io"};
};

struct ReadCase {
    int32_t offset;
    int32_t length;
    bool ok;
    const char* expected;
};

class ReadRanges : public FileIo, public ::testing::WithParamInterface<ReadCase> {};

TEST_P(ReadRanges, ReadsTheClippedRangeOrNothing) {
    file.Write("0123456789");
    const ReadCase& c = GetParam();
    std::string out = "stale";
    EXPECT_EQ(FileUtils::ReadFile(file.str(), out, c.offset, c.length), c.ok);
    EXPECT_EQ(out, c.expected);
}

INSTANTIATE_TEST_SUITE_P(Ranges, ReadRanges,
                         ::testing::Values(ReadCase{0, -1, true, "0123456789"},
                                           ReadCase{3, 4, true, "3456"},
                                           ReadCase{7, 100, true, "789"},
                                           ReadCase{9, -1, true, "9"}, ReadCase{10, -1, false, ""},
                                           ReadCase{-1, 3, false, ""}, ReadCase{0, 0, true, ""},
                                           ReadCase{0, -5, false, ""}));

TEST_F(FileIo, ReadingAnEmptyOrMissingFileFails) {
    file.Write("");
    std::string out = "x";
    EXPECT_FALSE(FileUtils::ReadTextFile(file.str(), out));
    EXPECT_EQ(out, "");
    EXPECT_FALSE(FileUtils::ReadTextFile("/nonexistent/tarn.dbc", out));
}

TEST_F(FileIo, WriteThenReadRoundTripsBinaryBytes) {
    std::string data("a\r\nb\0c\xff", 7);
    ASSERT_TRUE(FileUtils::WriteTextFile(file.str(), data));
    std::string out;
    ASSERT_TRUE(FileUtils::ReadTextFile(file.str(), out));
    EXPECT_EQ(out, data);
    EXPECT_EQ(FileUtils::FileSize(file.str()), 7u);
    // Rewriting truncates.
    ASSERT_TRUE(FileUtils::WriteFile(file.str(), "z"));
    EXPECT_EQ(file.Read(), "z");
}

TEST_F(FileIo, WritingEmptyDataCreatesAnEmptyFile) {
    EXPECT_TRUE(FileUtils::WriteFile(file.str(), ""));
    EXPECT_TRUE(FileUtils::FileExist(file.str()));
    EXPECT_EQ(FileUtils::FileSize(file.str()), 0u);
}

TEST(FileUtilsTest, WriteFailsForEmptyPathOrMissingDirectory) {
    EXPECT_FALSE(FileUtils::WriteFile("", "x"));
    EXPECT_FALSE(FileUtils::WriteFile("/nonexistent-tarn-dir/f", "x"));
}

TEST_F(FileIo, ExistenceSizeAndDelete) {
    file.Write("abc");
    EXPECT_TRUE(FileUtils::FileExist(file.str()));
    EXPECT_FALSE(FileUtils::DirExist(file.str()));
    EXPECT_TRUE(FileUtils::DirExist("/tmp"));
    EXPECT_FALSE(FileUtils::FileExist("/tmp"));
    EXPECT_TRUE(FileUtils::DeleteFile(file.str()));
    EXPECT_FALSE(FileUtils::FileExist(file.str()));
    EXPECT_EQ(FileUtils::FileSize(file.str()), 0u);
    EXPECT_TRUE(FileUtils::DeleteFile(file.str()));  // nothing left to remove: still true
}

TEST_F(FileIo, SocketCountsAsFileBecauseOnlyOneModeBitIsTested) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, file.c_str(), sizeof(addr.sun_path) - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    EXPECT_TRUE(FileUtils::FileExist(file.str()));
    EXPECT_TRUE(FileUtils::DirExist(file.str()));  // socket type bits 0xC000 hold 0x4000 too
    close(fd);
}

struct ToIntCase {
    const char* text;
    long value;
};

class ToInt : public ::testing::TestWithParam<ToIntCase> {};

TEST_P(ToInt, ParsesDecimalOrSkipsTwoCharactersForHex) {
    EXPECT_EQ(StrUtils::ToInt(std::string(GetParam().text)), GetParam().value);
    EXPECT_EQ(StrUtils::ToInt(GetParam().text), static_cast<int>(GetParam().value));
}

INSTANTIATE_TEST_SUITE_P(Texts, ToInt,
                         ::testing::Values(ToIntCase{"0x1A", 26}, ToIntCase{"0X1f", 31},
                                           ToIntCase{"12", 12}, ToIntCase{"-7", -7},
                                           ToIntCase{"ab0x10", 16}, ToIntCase{"10x5", 0},
                                           ToIntCase{"", 0}, ToIntCase{"junk", 0}));

TEST(StrUtilsTest, ToIntOfNullIsZeroAndWideValuesAreCut) {
    EXPECT_EQ(StrUtils::ToInt(static_cast<const char*>(nullptr)), 0);
    EXPECT_EQ(StrUtils::ToInt(std::string("0x100000001")), 0x100000001L);
    EXPECT_EQ(StrUtils::ToInt("0x100000001"), 1);
}

TEST(StrUtilsTest, NumberTexts) {
    EXPECT_EQ(StrUtils::FromInt(-2147483647 - 1), "-2147483648");
    EXPECT_EQ(StrUtils::FromFloat(1.5f), "1.500000");
    EXPECT_EQ(StrUtils::FromFloat(0.1f), "0.100000");
    EXPECT_FLOAT_EQ(StrUtils::ToFloat("2.25e1"), 22.5f);
    EXPECT_FLOAT_EQ(StrUtils::ToFloat("x"), 0.0f);
}

struct StartCase {
    const char* s;
    const char* prefix;
    bool starts;
};

class StartWith : public ::testing::TestWithParam<StartCase> {};

TEST_P(StartWith, MatchesOnlyAtPositionZero) {
    EXPECT_EQ(StrUtils::StartWith(GetParam().s, GetParam().prefix), GetParam().starts);
}

INSTANTIATE_TEST_SUITE_P(Cases, StartWith,
                         ::testing::Values(StartCase{"BO_ 1", "BO_", true},
                                           StartCase{"xBO_", "BO_", false},
                                           StartCase{"abc", "", true},
                                           StartCase{"ab", "abc", false}, StartCase{"", "", true}));

struct ReplaceCase {
    const char* s;
    const char* from;
    const char* to;
    const char* result;
};

class Replace : public ::testing::TestWithParam<ReplaceCase> {};

TEST_P(Replace, ReplacesLeftToRightWithoutRescanningInsertedText) {
    std::string s = GetParam().s;
    std::string& ref = StrUtils::Replace(s, GetParam().from, GetParam().to);
    EXPECT_EQ(&ref, &s);
    EXPECT_EQ(s, GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(Cases, Replace,
                         ::testing::Values(ReplaceCase{"aaa", "a", "aa", "aaaaaa"},
                                           ReplaceCase{"a\\b\\c", "\\", "/", "a/b/c"},
                                           ReplaceCase{"abab", "ab", "", ""},
                                           ReplaceCase{"xyz", "q", "r", "xyz"},
                                           ReplaceCase{"aaaa", "aa", "a", "aa"},
                                           ReplaceCase{"abc", "", "", "abc"}));

TEST(StrUtilsTest, DupCopiesPrefixOrWholeAndAlwaysTerminates) {
    struct {
        const char* s;
        size_t n;
        const char* expected;
    } cases[] = {{"abcdef", 3, "abc"}, {"abcdef", 0, "abcdef"}, {"ab", 10, "ab"}, {"", 0, ""}};
    for (const auto& c : cases) {
        char* copy = StrUtils::Dup(c.s, c.n);
        ASSERT_NE(copy, nullptr);
        EXPECT_STREQ(copy, c.expected);
        EXPECT_NE(copy, c.s);
        std::free(copy);
    }
    EXPECT_EQ(StrUtils::Dup(nullptr, 4), nullptr);
}

TEST(StrUtilsTest, FormatStringIsBoundedBy8195Characters) {
    std::string big(9000, 'q');
    std::string out = StrUtils::FormatString("%s", big.c_str());
    EXPECT_EQ(out, big.substr(0, 8195));
    EXPECT_EQ(StrUtils::FormatString("%s", std::string(8195, 'a').c_str()).size(), 8195u);
    EXPECT_EQ(StrUtils::FormatString("BO_ %u %s: %d", 100u, "M", 8), "BO_ 100 M: 8");
    EXPECT_EQ(StrUtils::FormatString("%s", ""), "");
}

// Independent reference of the bounded copy: byte-for-byte what must land in dst.
std::string ReferenceCopy(unsigned size, const std::string& src) {
    if (src.size() < size + 1u) return src + '\0';
    return src.substr(0, size + 1u);
}

TEST(Strcpy2s, WritesAtMostSizePlusOneBytesForEverySizeAndLength) {
    const std::string alphabet = "abcdefghij";
    for (unsigned size = 0; size < 12; ++size) {
        for (size_t len = 0; len <= alphabet.size(); ++len) {
            std::string src = alphabet.substr(0, len);
            char dst[32];
            std::memset(dst, '#', sizeof(dst));
            uint64_t stopped = strcpy2_s(dst, size, src.c_str());
            std::string expected = ReferenceCopy(size, src);
            EXPECT_EQ(std::string(dst, expected.size()), expected) << size << "/" << len;
            EXPECT_EQ(dst[expected.size()], '#') << "wrote past the bound";
            EXPECT_EQ(stopped, expected.size() - 1);
        }
    }
}

TEST(PlatformTest, NowTracksWallClockMilliseconds) {
    uint64_t before = static_cast<uint64_t>(time(nullptr)) * 1000u;
    uint64_t now = kq::Platform::Now();
    uint64_t after = static_cast<uint64_t>(time(nullptr) + 1) * 1000u;
    EXPECT_GE(now, before);
    EXPECT_LE(now, after);
}

TEST(PlatformTest, InitWithRelativeNameReportsWorkingDirectory) {
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    if (std::strlen(cwd) >= 250) GTEST_SKIP() << "working directory too long";
    char name[] = "sub/prog";
    char* argv[] = {name, nullptr};
    EXPECT_TRUE(kq::Platform::Init(1, argv));
    EXPECT_EQ(kq::Platform::GetExeFileName(), std::string(cwd) + "//sub/prog");
    EXPECT_EQ(kq::Platform::GetExeDir(), std::string(cwd) + "/");
}

TEST(PlatformTest, InitWithAbsoluteNameOrNoArgumentsLeavesDirectoryEmpty) {
    char name[] = "/usr/bin/prog";
    char* argv[] = {name, nullptr};
    kq::Platform::Init(1, argv);
    EXPECT_EQ(kq::Platform::GetExeFileName(), "/usr/bin/prog");
    EXPECT_EQ(kq::Platform::GetExeDir(), "");
    char other[] = "ignored";
    char* none[] = {other, nullptr};
    kq::Platform::Init(0, none);
    EXPECT_EQ(kq::Platform::GetExeFileName(), "/usr/bin/prog");  // unchanged
    EXPECT_EQ(kq::Platform::GetExeDir(), "");
}

}  // namespace
