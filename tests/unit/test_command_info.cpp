// The key/value record the analyser hands the coder: name, pairs in order
// through growth, and the unsigned reading of value texts.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "common/command_info.h"

namespace {

using kq::CommandInfo;
using Pairs = std::vector<std::pair<std::string, std::string>>;

// Every pair in order; the visit indexes must count from 0.
Pairs Collect(const CommandInfo& cmd) {
    Pairs pairs;
    cmd.ForEach(
        [](void* p, uint64_t index, const char* key, const char* value) {
            auto* out = static_cast<Pairs*>(p);
            EXPECT_EQ(index, out->size());
            out->emplace_back(key, value);
        },
        &pairs);
    return pairs;
}

// Names are cut at 31 characters; pairs, duplicates included, survive growth
// in order; nulls are refused.
TEST(CommandInfo, KeepsNameAndEveryPairInOrder) {
    CommandInfo* cmd = CommandInfo::Create();
    kq::AutoUnref<CommandInfo> guard(true, cmd);
    for (const std::string& name : {std::string("M"), std::string(), std::string(40, 'x')}) {
        ASSERT_TRUE(cmd->SetName(name.c_str()));
        EXPECT_EQ(name.substr(0, 31), cmd->GetName());
    }
    EXPECT_FALSE(cmd->SetName(nullptr));
    EXPECT_FALSE(cmd->Append(nullptr, "1"));
    EXPECT_FALSE(cmd->Append("k", nullptr));
    EXPECT_FALSE(cmd->AppendU64(nullptr, 1));
    Pairs want;
    for (uint64_t i = 0; i < 200; ++i) {
        want.emplace_back(i % 7 ? "k" + std::to_string(i) : "dup", std::to_string(i * 7919));
        ASSERT_TRUE(cmd->AppendU64(want.back().first.c_str(), i * 7919));
    }
    cmd->AppendU64("max", UINT64_MAX);
    want.emplace_back("max", "18446744073709551615");
    EXPECT_EQ(want, Collect(*cmd));
}

// Value texts read as a "%lu" scan reads them.
TEST(CommandInfo, ReadsUnsignedLikeTheCLibrary) {
    for (const char* text : {"  -42xyz", "2.5e3abc", "18446744073709551615", "-1", "abc",
                             "99999999999999999999", "0x1F", ""}) {
        unsigned long scanned = 0;
        std::sscanf(text, "%lu", &scanned);
        EXPECT_EQ(scanned, CommandInfo::ToUint64(text)) << text;
    }
}

}  // namespace
