// The coder's key/value record: order, first-match lookup, printf and C
// library text forms, growth and reset.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "common/command_info.h"

namespace {

using kq::CommandInfo;
using Pairs = std::vector<std::pair<std::string, std::string>>;

class CommandInfoTest : public ::testing::Test {
  protected:
    // Every pair in order; also checks that the visit indexes count from 0.
    Pairs Collect() const {
        struct Ctx {
            Pairs pairs;
            bool ordered = true;
        } ctx;
        cmd->ForEach(
            [](void* p, uint64_t index, const char* key, const char* value) {
                auto* c = static_cast<Ctx*>(p);
                c->ordered = c->ordered && index == c->pairs.size();
                c->pairs.emplace_back(key, value);
            },
            &ctx);
        EXPECT_TRUE(ctx.ordered);
        return ctx.pairs;
    }

    CommandInfo* cmd = CommandInfo::Create();
    kq::AutoUnref<CommandInfo> guard{true, cmd};
};

// Names are cut at 31 characters; a shorter name leaves no trace of the old one.
TEST_F(CommandInfoTest, NameIsCutAt31Characters) {
    const std::string long40 = "0123456789012345678901234567890123456789";
    for (const std::string& name :
         {std::string("M"), std::string(), long40.substr(0, 31), long40}) {
        ASSERT_TRUE(cmd->SetName(name.c_str()));
        EXPECT_EQ(name.substr(0, 31), cmd->GetName());
    }
    cmd->SetName("ab");
    EXPECT_EQ(0, std::memcmp(cmd->GetName(), "ab\0\0\0\0\0\0", 8));
    EXPECT_FALSE(cmd->SetName(nullptr));
    EXPECT_STREQ("ab", cmd->GetName());
}

TEST_F(CommandInfoTest, DuplicateKeysKeepOrderAndFirstWinsAndNullsAreRefused) {
    EXPECT_FALSE(cmd->Append(nullptr, "1"));
    EXPECT_FALSE(cmd->Append("k", nullptr));
    EXPECT_FALSE(cmd->AppendU64(nullptr, 1));
    EXPECT_FALSE(cmd->AppendDouble(nullptr, 1.0));
    EXPECT_EQ(0u, cmd->Used());
    ASSERT_TRUE(cmd->Append("a", "1") && cmd->Append("b", "") && cmd->Append("a", "2"));
    EXPECT_STREQ("1", cmd->GetValue("a"));
    EXPECT_STREQ("", cmd->GetValue("b"));
    EXPECT_EQ(nullptr, cmd->GetValue("A"));  // case-sensitive
    EXPECT_EQ(nullptr, cmd->GetValue(""));
    EXPECT_EQ(nullptr, cmd->GetValue(nullptr));
    EXPECT_EQ((Pairs{{"a", "1"}, {"b", ""}, {"a", "2"}}), Collect());
}

// Typed appends write printf text (doubles cut like snprintf into 64 bytes;
// the formatting itself is proven against printf in test_num_text); the
// readers agree with strtol, strtod and a "%lu" scan.
TEST_F(CommandInfoTest, TextFormsFollowTheCLibrary) {
    volatile double big = 1e300;  // keeps the compiler from flagging the cut
    char buf[64];
    std::snprintf(buf, sizeof(buf), "%lf", double(big));
    cmd->AppendDouble("d", -0.5);
    cmd->AppendDouble("d", big);
    cmd->AppendU64("u", UINT64_MAX);
    cmd->AppendInt("i", INT32_MIN);
    EXPECT_EQ(
        (Pairs{
            {"d", "-0.500000"}, {"d", buf}, {"u", "18446744073709551615"}, {"i", "-2147483648"}}),
        Collect());
    for (const char* text : {"  -42xyz", "2.5e3abc", "18446744073709551615", "-1", "abc",
                             "99999999999999999999", "0x1F"}) {
        cmd->Reset();
        cmd->Append("k", text);
        SCOPED_TRACE(text);
        unsigned long scanned = 0;
        std::sscanf(text, "%lu", &scanned);
        EXPECT_EQ(std::strtol(text, nullptr, 10), cmd->GetInt("k"));
        EXPECT_EQ(std::strtod(text, nullptr), cmd->GetDouble("k"));
        EXPECT_EQ(scanned, cmd->GetU64("k"));
    }
    EXPECT_EQ(0, cmd->GetInt("missing"));
    EXPECT_EQ(0.0, cmd->GetDouble("missing"));
    EXPECT_EQ(0u, cmd->GetU64("missing"));
}

// Growth: needed + (used before the append) / 2, nothing lost; Reset keeps the
// capacity, the name and the done function.
TEST_F(CommandInfoTest, GrowthKeepsEveryPairAndResetKeepsNameAndDoneFunction) {
    uint64_t used = 0;
    Pairs want;
    for (int i = 0; i < 200; ++i) {
        want.emplace_back("k" + std::to_string(i), std::to_string(i * 7));
        const uint64_t needed = used + want.back().first.size() + want.back().second.size() + 2;
        const uint64_t before = cmd->Capacity();
        ASSERT_TRUE(cmd->Append(want.back().first.c_str(), want.back().second.c_str()));
        ASSERT_EQ(needed > before ? needed + used / 2 : before, cmd->Capacity());
        ASSERT_EQ(used = needed, cmd->Used());
    }
    EXPECT_EQ(want, Collect());
    const uint64_t capacity = cmd->Capacity();
    CommandInfo* seen = nullptr;
    cmd->SetName("Msg");
    cmd->SetDoneFunc([](void* ctx, CommandInfo* rec) { *static_cast<CommandInfo**>(ctx) = rec; },
                     &seen);
    ASSERT_TRUE(cmd->Reset());
    EXPECT_EQ(0u, cmd->Used());
    EXPECT_EQ(capacity, cmd->Capacity());
    EXPECT_EQ(nullptr, cmd->GetValue("k0"));
    EXPECT_STREQ("Msg", cmd->GetName());
    EXPECT_TRUE(cmd->Done());
    EXPECT_EQ(cmd, seen);
    cmd->Append("a", "1");
    cmd->Append("b", "2");
    testing::internal::CaptureStdout();
    cmd->Dump();
    EXPECT_EQ("Msg a=1 b=2 \n", testing::internal::GetCapturedStdout());
}

}  // namespace
