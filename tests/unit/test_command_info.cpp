#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "common/command_info.h"

namespace {

using kq::AutoUnref;
using kq::CommandInfo;
using Pairs = std::vector<std::pair<std::string, std::string>>;

Pairs Collect(const CommandInfo& cmd) {
    struct Ctx {
        Pairs pairs;
        uint64_t nextIndex = 0;
        bool ordered = true;
    } ctx;
    cmd.ForEach(
        [](void* p, uint64_t index, const char* key, const char* value) {
            auto* c = static_cast<Ctx*>(p);
            c->ordered = c->ordered && index == c->nextIndex++;
            c->pairs.emplace_back(key, value);
        },
        &ctx);
    EXPECT_TRUE(ctx.ordered);
    return ctx.pairs;
}

class CommandInfoTest : public ::testing::Test {
  protected:
    CommandInfo* cmd = CommandInfo::Create();
    AutoUnref<CommandInfo> guard{true, cmd};
};

TEST_F(CommandInfoTest, NameIsCutAt31Characters) {
    struct {
        const char* in;
        std::string want;
    } cases[] = {{"M", "M"},
                 {"", ""},
                 {"0123456789012345678901234567890123456789", "0123456789012345678901234567890"},
                 {"0123456789012345678901234567890", "0123456789012345678901234567890"}};
    for (const auto& c : cases) {
        ASSERT_TRUE(cmd->SetName(c.in));
        EXPECT_EQ(c.want, cmd->GetName());
    }
    // A shorter name after a long one leaves no trace of the old text.
    cmd->SetName("0123456789012345678901234567890123456789");
    cmd->SetName("ab");
    EXPECT_EQ(0, std::memcmp(cmd->GetName(), "ab\0\0\0\0\0\0", 8));
    EXPECT_FALSE(cmd->SetName(nullptr));
    EXPECT_STREQ("ab", cmd->GetName());
}

TEST_F(CommandInfoTest, DuplicateKeysKeepOrderAndFirstWins) {
    ASSERT_TRUE(cmd->Append("a", "1"));
    ASSERT_TRUE(cmd->Append("b", ""));
    ASSERT_TRUE(cmd->Append("a", "2"));
    EXPECT_STREQ("1", cmd->GetValue("a"));
    ASSERT_NE(nullptr, cmd->GetValue("b"));
    EXPECT_STREQ("", cmd->GetValue("b"));
    EXPECT_EQ(nullptr, cmd->GetValue("A"));  // case-sensitive
    EXPECT_EQ(nullptr, cmd->GetValue(""));
    EXPECT_EQ((Pairs{{"a", "1"}, {"b", ""}, {"a", "2"}}), Collect(*cmd));
}

TEST_F(CommandInfoTest, NullArgumentsAreRefused) {
    EXPECT_FALSE(cmd->Append(nullptr, "1"));
    EXPECT_FALSE(cmd->Append("k", nullptr));
    EXPECT_FALSE(cmd->AppendU64(nullptr, 1));
    EXPECT_FALSE(cmd->AppendDouble(nullptr, 1.0));
    EXPECT_EQ(nullptr, cmd->GetValue(nullptr));
    EXPECT_EQ(0u, cmd->Used());
}

TEST_F(CommandInfoTest, TypedAppendsUsePrintfTextForms) {
    cmd->AppendDouble("d1", 1.5);
    cmd->AppendDouble("d2", -0.0);
    cmd->AppendDouble("d3", 1e20);
    cmd->AppendU64("u1", UINT64_MAX);
    cmd->AppendU64("u2", 0);
    cmd->AppendInt("i1", -7);
    cmd->AppendInt("i2", INT32_MIN);
    EXPECT_EQ((Pairs{{"d1", "1.500000"},
                     {"d2", "-0.000000"},
                     {"d3", "100000000000000000000.000000"},
                     {"u1", "18446744073709551615"},
                     {"u2", "0"},
                     {"i1", "-7"},
                     {"i2", "-2147483648"}}),
              Collect(*cmd));
}

TEST_F(CommandInfoTest, HugeDoublesAreCutLikeSnprintfIntoSixtyFourBytes) {
    volatile double big = 1e300;  // keeps the compiler from flagging the cut
    cmd->AppendDouble("d", big);
    char want[64];
    std::snprintf(want, sizeof(want), "%lf", big);
    EXPECT_STREQ(want, cmd->GetValue("d"));
    EXPECT_EQ(63u, std::strlen(cmd->GetValue("d")));
}

TEST_F(CommandInfoTest, NumericReadersFollowTheCLibrary) {
    cmd->Append("int", "  -42xyz");
    cmd->Append("dbl", "2.5e3abc");
    cmd->Append("u64", "18446744073709551615");
    cmd->Append("neg", "-1");
    cmd->Append("txt", "abc");
    struct {
        const char* key;
        int64_t i;
        double d;
        uint64_t u;
    } cases[] = {{"int", -42, -42.0, UINT64_MAX - 41},
                 {"dbl", 2, 2500.0, 2},
                 {"u64", INT64_MAX, 18446744073709551615.0, UINT64_MAX},
                 {"neg", -1, -1.0, UINT64_MAX},
                 {"txt", 0, 0.0, 0},
                 {"missing", 0, 0.0, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.key);
        EXPECT_EQ(c.i, cmd->GetInt(c.key));
        EXPECT_EQ(c.d, cmd->GetDouble(c.key));
        EXPECT_EQ(c.u, cmd->GetU64(c.key));
    }
    EXPECT_EQ(0, CommandInfo::ToInt(nullptr));
    EXPECT_EQ(0.0, CommandInfo::ToDouble(nullptr));
    EXPECT_EQ(0u, CommandInfo::ToUint64(nullptr));
}

// Growth rule: needed + (used before the append) / 2, and nothing lost.
TEST_F(CommandInfoTest, GrowthKeepsEveryPairAndFollowsTheRule) {
    uint64_t used = 0;
    for (int i = 0; i < 200; ++i) {
        std::string key = "k" + std::to_string(i);
        std::string value = std::to_string(i * 7);
        uint64_t needed = used + key.size() + value.size() + 2;
        uint64_t before = cmd->Capacity();
        ASSERT_TRUE(cmd->Append(key.c_str(), value.c_str()));
        uint64_t want = needed > before ? needed + used / 2 : before;
        ASSERT_EQ(want, cmd->Capacity());
        used = needed;
        ASSERT_EQ(used, cmd->Used());
    }
    Pairs pairs = Collect(*cmd);
    ASSERT_EQ(200u, pairs.size());
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ("k" + std::to_string(i), pairs[i].first);
        EXPECT_EQ(std::to_string(i * 7), pairs[i].second);
    }
    uint64_t capacity = cmd->Capacity();
    ASSERT_TRUE(cmd->Reset());
    EXPECT_EQ(0u, cmd->Used());
    EXPECT_EQ(capacity, cmd->Capacity());
    EXPECT_EQ(nullptr, cmd->GetValue("k0"));
}

TEST_F(CommandInfoTest, ResetKeepsNameAndDoneFunction) {
    int calls = 0;
    CommandInfo* seen = nullptr;
    cmd->SetName("Msg");
    cmd->SetDoneFunc(
        [](void* ctx, CommandInfo* record) {
            ++*static_cast<int*>(ctx);
            (void)record;
        },
        &calls);
    cmd->Reset();
    EXPECT_STREQ("Msg", cmd->GetName());
    EXPECT_TRUE(cmd->Done());
    EXPECT_EQ(1, calls);
    cmd->SetDoneFunc(
        [](void* ctx, CommandInfo* record) { *static_cast<CommandInfo**>(ctx) = record; }, &seen);
    cmd->Done();
    EXPECT_EQ(cmd, seen);
}

TEST_F(CommandInfoTest, DumpPrintsNameAndPairs) {
    cmd->SetName("M");
    cmd->Append("a", "1");
    cmd->Append("b", "2");
    testing::internal::CaptureStdout();
    cmd->Dump();
    EXPECT_EQ("M a=1 b=2 \n", testing::internal::GetCapturedStdout());
}

}  // namespace
