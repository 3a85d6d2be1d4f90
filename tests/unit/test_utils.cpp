// File, string and platform helpers, and the bounded copy used for records.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <utility>

#include "common/file_utils.h"
#include "common/func.h"
#include "common/platform.h"
#include "common/str_utils.h"
#include "unit/stdout_capture.h"

namespace {

using kq::FileUtils;
using kq::StrUtils;

// clang-format off
const char* kPaths[][3] = {  // path, dir, base
    {"a.dbc", "", "a.dbc"}, {"/a.dbc", "/", "a.dbc"}, {"", "", ""}, {"/x/y/", "/x/y/", ""},
    {"a\\b\\c.dbc", "a/b/", "c.dbc"}, {"C:\\d/e\\f", "C:/d/e/", "f"}};
const std::tuple<int, int, bool, const char*> kRanges[] = {  // offset, length, ok, read
    {0, -1, true, "0123456789"}, {3, 4, true, "3456"}, {7, 100, true, "789"}, {0, 0, true, ""},
    {10, -1, false, ""}, {-1, 3, false, ""}, {0, -5, false, ""}};
const std::pair<const char*, long> kInts[] = {{"0x1A", 26}, {"0X1f", 31}, {"12", 12}, {"-7", -7},
    {"ab0x10", 16}, {"10x5", 0}, {"", 0}, {"junk", 0}, {"0x100000001", 0x100000001L}};
const char* kReplacements[][4] = {  // text, from, to, result
    {"aaa", "a", "aa", "aaaaaa"}, {"a\\b\\c", "\\", "/", "a/b/c"}, {"abab", "ab", "", ""},
    {"aaaa", "aa", "a", "aa"}, {"abc", "", "x", "abc"}};
const std::tuple<const char*, size_t, const char*> kDups[] = {
    {"abcdef", 3, "abc"}, {"abcdef", 0, "abcdef"}, {"ab", 10, "ab"}, {"", 0, ""}};
// clang-format on

TEST(FileUtilsTest, DirAndBaseSplitTheNormalisedPath) {
    for (auto c : kPaths) {
        EXPECT_EQ(FileUtils::DirName(c[0]), c[1]) << c[0];
        EXPECT_EQ(FileUtils::BaseName(c[0]), c[2]) << c[0];
        EXPECT_EQ(FileUtils::ReplaceBaseName(c[0], "n.dbc"), std::string(c[1]) + "n.dbc");
    }
}

TEST(FileUtilsTest, ReadsTheClippedRangeAndRewritesBinaryBytes) {
    TempPath file("io");
    std::string data("a\r\nb\0c\xff", 7), out;
    ASSERT_TRUE(FileUtils::WriteFile(file.str(), "0123456789"));
    for (auto [offset, length, ok, expected] : kRanges) {
        out = "stale";
        EXPECT_EQ(FileUtils::ReadFile(file.str(), out, offset, length), ok) << offset;
        EXPECT_EQ(out, expected) << offset << "+" << length;
    }
    ASSERT_TRUE(FileUtils::WriteTextFile(file.str(), data));  // truncates
    ASSERT_TRUE(FileUtils::ReadTextFile(file.str(), out));
    EXPECT_EQ(out, data);
    EXPECT_EQ(FileUtils::FileSize(file.str()), 7u);
    ASSERT_TRUE(FileUtils::WriteFile(file.str(), ""));
    EXPECT_TRUE(FileUtils::FileExist(file.str()));
    EXPECT_FALSE(FileUtils::ReadTextFile(file.str(), out));  // an empty file reads as failure
    EXPECT_EQ(out, "");
    EXPECT_FALSE(FileUtils::ReadTextFile("/nonexistent/tarn.dbc", out));
    EXPECT_FALSE(FileUtils::WriteFile("", "x"));
    EXPECT_FALSE(FileUtils::WriteFile("/nonexistent-tarn-dir/f", "x"));
}

TEST(FileUtilsTest, ExistenceTestsOneModeBitSoASocketIsBothFileAndDir) {
    TempPath file("io");
    EXPECT_TRUE(FileUtils::DirExist("/tmp"));
    EXPECT_FALSE(FileUtils::FileExist("/tmp"));
    file.Write("abc");
    EXPECT_FALSE(FileUtils::DirExist(file.str()));
    EXPECT_TRUE(FileUtils::DeleteFile(file.str()));
    EXPECT_FALSE(FileUtils::FileExist(file.str()));
    EXPECT_TRUE(FileUtils::DeleteFile(file.str()));  // nothing left to remove: still true
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

// ToInt parses decimal or skips two characters for hex; Replace goes left to
// right without rescanning what it inserted; Dup copies a prefix or the whole
// string, always terminated; FormatString is bounded by 8195 characters.
TEST(StrUtilsTest, ParseReplaceDupAndFormat) {
    for (auto [text, value] : kInts) {
        EXPECT_EQ(StrUtils::ToInt(std::string(text)), value) << text;
        EXPECT_EQ(StrUtils::ToInt(text), static_cast<int>(value & 0xFFFFFFFF)) << text;
    }
    EXPECT_EQ(StrUtils::ToInt(static_cast<const char*>(nullptr)), 0);
    for (auto c : kReplacements) {
        std::string s = c[0];
        EXPECT_EQ(&StrUtils::Replace(s, c[1], c[2]), &s);
        EXPECT_EQ(s, c[3]) << c[0] << ": " << c[1] << " -> " << c[2];
    }
    for (auto [s, n, expected] : kDups) {
        std::unique_ptr<char, decltype(&std::free)> copy(StrUtils::Dup(s, n), &std::free);
        ASSERT_NE(copy, nullptr);
        EXPECT_STREQ(copy.get(), expected);
        EXPECT_NE(copy.get(), s);
    }
    EXPECT_EQ(StrUtils::Dup(nullptr, 4), nullptr);
    const std::string big(9000, 'q');
    EXPECT_EQ(StrUtils::FormatString("%s", big.c_str()), big.substr(0, 8195));
    EXPECT_EQ(StrUtils::FormatString("BO_ %u %s: %d", 100u, "M", 8), "BO_ 100 M: 8");
}

// Independent reference of the bounded copy: byte-for-byte what must land in dst.
std::string ReferenceCopy(unsigned size, const std::string& src) {
    return src.size() < size + 1u ? src + '\0' : src.substr(0, size + 1u);
}

TEST(Strcpy2s, WritesAtMostSizePlusOneBytesForEverySizeAndLength) {
    const std::string alphabet = "abcdefghij";
    for (unsigned size = 0; size < 12; ++size) {
        for (size_t len = 0; len <= alphabet.size(); ++len) {
            std::string src = alphabet.substr(0, len), expected = ReferenceCopy(size, src);
            char dst[32];
            std::memset(dst, '#', sizeof(dst));
            uint64_t stopped = strcpy2_s(dst, size, src.c_str());
            EXPECT_EQ(std::string(dst, expected.size()), expected) << size << "/" << len;
            EXPECT_EQ(dst[expected.size()], '#') << "wrote past the bound";
            EXPECT_EQ(stopped, expected.size() - 1);
        }
    }
}

TEST(PlatformTest, InitRecordsTheProgramAndTheDirOfARelativeName) {
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    if (std::strlen(cwd) >= 250) GTEST_SKIP() << "working directory too long";
    char rel[] = "sub/prog", abs[] = "/usr/bin/prog";
    char* argv[] = {rel, nullptr};
    EXPECT_TRUE(kq::Platform::Init(1, argv));
    EXPECT_EQ(kq::Platform::GetExeFileName(), std::string(cwd) + "//sub/prog");
    EXPECT_EQ(kq::Platform::GetExeDir(), std::string(cwd) + "/");
    argv[0] = abs;
    kq::Platform::Init(1, argv);
    argv[0] = rel;
    kq::Platform::Init(0, argv);  // no arguments: the absolute name stays
    EXPECT_EQ(kq::Platform::GetExeFileName(), "/usr/bin/prog");
    EXPECT_EQ(kq::Platform::GetExeDir(), "");
}

}  // namespace
