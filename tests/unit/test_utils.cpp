// The bounded copy used for records and the bounded string formatting.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "common/func.h"
#include "common/str_utils.h"

namespace {

// Independent reference of the bounded copy: byte for byte what must land in dst.
std::string ReferenceCopy(unsigned size, const std::string& src) {
    return src.size() < size + 1u ? src + '\0' : src.substr(0, size + 1u);
}

TEST(Strcpy2s, WritesAtMostSizePlusOneBytesForEverySizeAndLength) {
    const std::string alphabet = "abcdefghij";
    for (unsigned size = 0; size < 12; ++size) {
        for (size_t len = 0; len <= alphabet.size(); ++len) {
            const std::string src = alphabet.substr(0, len), expected = ReferenceCopy(size, src);
            char dst[32];
            std::memset(dst, '#', sizeof(dst));
            const uint64_t stopped = strcpy2_s(dst, size, src.c_str());
            EXPECT_EQ(std::string(dst, expected.size()), expected) << size << "/" << len;
            EXPECT_EQ(dst[expected.size()], '#') << "wrote past the bound";
            EXPECT_EQ(stopped, expected.size() - 1);
        }
    }
}

TEST(StrUtilsTest, FormatStringIsBoundedBy8195Characters) {
    const std::string big(9000, 'q');
    EXPECT_EQ(kq::StrUtils::FormatString("%s", big.c_str()), big.substr(0, 8195));
    EXPECT_EQ(kq::StrUtils::FormatString("BO_ %u %s: %d", 100u, "M", 8), "BO_ 100 M: 8");
}

}  // namespace
