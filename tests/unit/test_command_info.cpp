// The coder's key/value record: order, first-match lookup, C library text
// forms, growth and reset.
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
    // Every pair in order; the visit indexes must count from 0.
    Pairs Collect() const {
        Pairs pairs;
        cmd->ForEach(
            [](void* p, uint64_t index, const char* key, const char* value) {
                auto* out = static_cast<Pairs*>(p);
                EXPECT_EQ(index, out->size());
                out->emplace_back(key, value);
            },
            &pairs);
        return pairs;
    }

    CommandInfo* cmd = CommandInfo::Create();
    kq::AutoUnref<CommandInfo> guard{true, cmd};
};

// Names are cut at 31 characters; duplicate keys keep their order and the
// first one wins; nulls are refused.
TEST_F(CommandInfoTest, NamesKeysAndNulls) {
    const std::string long40(40, 'x');
    for (const std::string& name : {std::string("M"), std::string(), long40}) {
        ASSERT_TRUE(cmd->SetName(name.c_str()));
        EXPECT_EQ(name.substr(0, 31), cmd->GetName());
    }
    EXPECT_FALSE(cmd->SetName(nullptr));
    EXPECT_FALSE(cmd->Append(nullptr, "1"));
    EXPECT_FALSE(cmd->Append("k", nullptr));
    EXPECT_FALSE(cmd->AppendU64(nullptr, 1));
    EXPECT_FALSE(cmd->AppendDouble(nullptr, 1.0));
    EXPECT_EQ(0u, cmd->Used());
    ASSERT_TRUE(cmd->Append("a", "1") && cmd->Append("b", "") && cmd->Append("a", "2"));
    EXPECT_STREQ("1", cmd->GetValue("a"));
    EXPECT_STREQ("", cmd->GetValue("b"));
    EXPECT_EQ(nullptr, cmd->GetValue("A"));  // case-sensitive
    EXPECT_EQ(nullptr, cmd->GetValue(nullptr));
    EXPECT_EQ((Pairs{{"a", "1"}, {"b", ""}, {"a", "2"}}), Collect());
}

// Typed appends write printf text (doubles cut like snprintf into 64 bytes);
// the readers agree with strtol, strtod and a "%lu" scan, and read missing
// keys as 0.
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
        unsigned long scanned = 0;
        std::sscanf(text, "%lu", &scanned);
        EXPECT_EQ(std::strtol(text, nullptr, 10), cmd->GetInt("k")) << text;
        EXPECT_EQ(std::strtod(text, nullptr), cmd->GetDouble("k")) << text;
        EXPECT_EQ(scanned, cmd->GetU64("k")) << text;
    }
    EXPECT_EQ(0, cmd->GetInt("missing"));
    EXPECT_EQ(0.0, cmd->GetDouble("missing"));
    EXPECT_EQ(0u, cmd->GetU64("missing"));
}

// Growth loses nothing; Reset keeps the capacity, the name and the done function.
TEST_F(CommandInfoTest, GrowthKeepsEveryPairAndResetKeepsNameAndDoneFunction) {
    Pairs want;
    for (int i = 0; i < 200; ++i) {
        want.emplace_back("k" + std::to_string(i), std::to_string(i * 7));
        ASSERT_TRUE(cmd->Append(want.back().first.c_str(), want.back().second.c_str()));
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
    EXPECT_TRUE(cmd->Done());
    EXPECT_EQ(cmd, seen);
    cmd->Append("a", "1");
    cmd->Append("b", "2");
    testing::internal::CaptureStdout();
    cmd->Dump();
    EXPECT_EQ("Msg a=1 b=2 \n", testing::internal::GetCapturedStdout());
}

}  // namespace
