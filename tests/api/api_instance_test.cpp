// Instance and model-query entry points: unknown handles, loading, message
// iteration and lookup, value tables, nodes and the protocol switch.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "api_support.h"
#include "api_test_dbc.h"
#include "tarn.h"

using namespace apitest;

namespace {

class ApiInstance : public ::testing::Test {
  protected:
    void SetUp() override {
        TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
        h = TARN_Init(true, false);
        ASSERT_NE(h, 0u);
    }
    void TearDown() override { TARN_Release(h); }
    void LoadSmall() {
        TempDbc dbc(kSmallDbc);
        ASSERT_FALSE(dbc.path().empty());
        ASSERT_TRUE(LoadPath(h, dbc.path()));
    }
    uint32_t h = 0;
};

// Every handle-taking entry point, called with a handle that was never given
// out and with one that was released, returns its "none" result and leaves
// the caller's buffers alone.
TEST(ApiUnknownHandle, EveryEntryPointReturnsItsNoneResult) {
    TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    const uint32_t released = TARN_Init(true, false);
    TARN_Release(released);
    auto msg = NewMessage();
    std::memset(msg.get(), 0x5A, sizeof(DBCMessage));
    TarnCanFrame frames[4];
    std::memset(frames, 0x5A, sizeof(frames));
    DBCNetworkNode node;
    std::memset(&node, 0x5A, sizeof(node));
    ValDescPair pairs[2];
    std::memset(pairs, 0x5A, sizeof(pairs));
    const FileInfo info = MakeFileInfo("/nonexistent.dbc");
    DBCMessage sendMsg;
    std::memset(&sendMsg, 0, sizeof(sendMsg));
    sendMsg.size = 8;

    struct Case {
        const char* name;
        std::function<uint64_t(uint32_t)> call;
        uint64_t none;
    };
    const std::vector<Case> cases = {
        {"LoadFile", [&](uint32_t h) { return TARN_LoadFile(h, &info); }, 0},
        {"GetProtocol", [&](uint32_t h) { return TARN_GetProtocol(h); }, 1},
        {"GetFirstMessage", [&](uint32_t h) { return TARN_GetFirstMessage(h, msg.get()); }, 0},
        {"GetNextMessage", [&](uint32_t h) { return TARN_GetNextMessage(h, msg.get()); }, 0},
        {"GetMessageCount", [&](uint32_t h) { return TARN_GetMessageCount(h); }, 0},
        {"GetMessageById", [&](uint32_t h) { return TARN_GetMessageById(h, 1, msg.get()); }, 0},
        {"GetValDescPairCount", [&](uint32_t h) { return TARN_GetValDescPairCount(h, 1, "x"); }, 0},
        {"GetNetworkNodeCount", [&](uint32_t h) { return TARN_GetNetworkNodeCount(h); }, 0},
        {"GetNetworkNodeAt", [&](uint32_t h) { return TARN_GetNetworkNodeAt(h, 0, &node); }, 0},
        {"Analyse", [&](uint32_t h) { return TARN_Analyse(h, frames, 0, msg.get()); }, 0},
        {"Decode", [&](uint32_t h) { return TARN_Decode(h, msg.get(), frames, 1); }, 0},
        {"Encode",
         [&](uint32_t h) {
             uint32_t n = 4;
             return TARN_Encode(h, frames, &n, msg.get());
         },
         0},
        {"AsyncAnalyse", [&](uint32_t h) { return TARN_AsyncAnalyse(h, frames, 0, 7); }, 0},
        {"Send", [&](uint32_t h) { return TARN_Send(h, &sendMsg, 0); }, TARN_SEND_FAILED},
        {"SendLong",
         [&](uint32_t h) {
             DBCMessage* m = &sendMsg;
             m->size = 100;
             const uint32_t r = TARN_Send(h, m, 1);
             m->size = 8;
             return r;
         },
         TARN_SEND_FAILED},
        {"SendFd", [&](uint32_t h) { return TARN_Send(h, &sendMsg, 1); }, TARN_SEND_FAILED},
        {"SetProtocol",
         [&](uint32_t h) {
             TARN_SetProtocol(h, 0);
             return 0;
         },
         0},
        {"GetValDescPair",
         [&](uint32_t h) {
             TARN_GetValDescPair(h, 1, "x", pairs);
             return 0;
         },
         0},
        {"OnReceive",
         [&](uint32_t h) {
             TARN_OnReceive(h, frames, 0);
             return 0;
         },
         0},
        {"Setters",
         [&](uint32_t h) {
             TARN_SetSender(h, nullptr, nullptr);
             TARN_SetAsyncAnalyseCallback(h, nullptr, nullptr);
             TARN_SetOnMultiTransDoneFunc(h, nullptr, nullptr);
             TARN_Release(h);
             return 0;
         },
         0},
    };
    for (uint32_t h : {0u, released, 0xFFFFFFFFu}) {
        for (const Case& c : cases) EXPECT_EQ(c.call(h), c.none) << c.name << " handle " << h;
    }
    const uint8_t* bytes = reinterpret_cast<const uint8_t*>(msg.get());
    EXPECT_TRUE(
        std::all_of(bytes, bytes + sizeof(DBCMessage), [](uint8_t b) { return b == 0x5A; }));
    const uint8_t* nodeBytes = reinterpret_cast<const uint8_t*>(&node);
    EXPECT_TRUE(
        std::all_of(nodeBytes, nodeBytes + sizeof(node), [](uint8_t b) { return b == 0x5A; }));
    EXPECT_EQ(reinterpret_cast<const uint8_t*>(pairs)[0], 0x5A);
}

TEST_F(ApiInstance, LoadRejectsMissingFileAndUnterminatedPath) {
    EXPECT_FALSE(TARN_LoadFile(h, nullptr));
    const FileInfo missing = MakeFileInfo("/nonexistent/dir/none.dbc");
    EXPECT_FALSE(TARN_LoadFile(h, &missing));
    FileInfo unterminated;
    std::memset(&unterminated, 'a', sizeof(unterminated));
    EXPECT_FALSE(TARN_LoadFile(h, &unterminated));
    EXPECT_EQ(TARN_GetMessageCount(h), 0u);
}

TEST_F(ApiInstance, IteratesMessagesAscendingById) {
    LoadSmall();
    ASSERT_EQ(TARN_GetMessageCount(h), 3u);
    auto msg = NewMessage();
    std::vector<std::string> names;
    for (bool ok = TARN_GetFirstMessage(h, msg.get()); ok; ok = TARN_GetNextMessage(h, msg.get())) {
        names.push_back(msg->name);
    }
    // Extended identifiers carry bit 31 in the model, so they come last.
    EXPECT_EQ(names, (std::vector<std::string>{"Engine", "Long20", "Ext"}));
    EXPECT_FALSE(TARN_GetFirstMessage(h, nullptr));
    EXPECT_FALSE(TARN_GetNextMessage(h, nullptr));
}

TEST_F(ApiInstance, TranslatesMessageRecord) {
    LoadSmall();
    auto msg = NewMessage();
    ASSERT_TRUE(TARN_GetMessageById(h, kEngineId, msg.get()));
    EXPECT_STREQ(msg->name, "Engine");
    EXPECT_STREQ(msg->comment, "Engine data");
    EXPECT_EQ(msg->size, 8u);
    EXPECT_EQ(msg->extended, 0);
    EXPECT_DOUBLE_EQ(msg->cycleTime, 100.0);
    ASSERT_EQ(msg->signalCount, 6u);
    for (uint32_t i = 1; i < msg->signalCount; ++i) {
        EXPECT_LT(msg->signals[i - 1].startBit, msg->signals[i].startBit);
    }
    const DBCSignal* speed = FindSignal(*msg, "Speed");
    ASSERT_NE(speed, nullptr);
    EXPECT_STREQ(speed->unit, "km/h");
    EXPECT_STREQ(speed->comment, "Vehicle speed");
    EXPECT_DOUBLE_EQ(speed->factor, 0.1);
    const DBCSignal* torque = FindSignal(*msg, "Torque");
    ASSERT_NE(torque, nullptr);
    EXPECT_EQ(torque->byteOrder, 0);
    EXPECT_EQ(torque->isSigned, 1);
    EXPECT_EQ(torque->length, 12u);

    ASSERT_TRUE(TARN_GetMessageById(h, kExtId, msg.get()));
    EXPECT_STREQ(msg->name, "Ext");
    EXPECT_EQ(msg->id, kExtId);
    EXPECT_EQ(msg->extended, 1);
    EXPECT_EQ(FindSignal(*msg, "Mode")->multiplexerType, TARN_MUX_SWITCH);
    EXPECT_EQ(FindSignal(*msg, "B")->multiplexerType, TARN_MUX_MULTIPLEXED);
    EXPECT_EQ(FindSignal(*msg, "B")->multiplexerValue, 2u);
    EXPECT_FALSE(TARN_GetMessageById(h, 0x7FF, msg.get()));
}

TEST_F(ApiInstance, ValueTablesAreCopiedInOrder) {
    LoadSmall();
    ASSERT_EQ(TARN_GetValDescPairCount(h, kEngineId, "Gear"), 4u);
    EXPECT_EQ(TARN_GetValDescPairCount(h, kEngineId, "Speed"), 0u);
    EXPECT_EQ(TARN_GetValDescPairCount(h, kEngineId, "NoSuchSignal"), 0u);
    EXPECT_EQ(TARN_GetValDescPairCount(h, 0x7FF, "Gear"), 0u);
    // A null signal name is a caller error: it must not escape as a crash.
    EXPECT_EQ(TARN_GetValDescPairCount(h, kEngineId, nullptr), 0u);
    ValDescPair pairs[5];
    std::memset(pairs, 0x5A, sizeof(pairs));
    TARN_GetValDescPair(h, kEngineId, nullptr, pairs);
    TARN_GetValDescPair(h, kEngineId, "Gear", pairs);
    const char* expected[] = {"Neutral", "First", "Second", "Third"};
    for (int i = 0; i < 4; ++i) {
        EXPECT_DOUBLE_EQ(pairs[i].value, i);
        EXPECT_STREQ(pairs[i].desc, expected[i]);
    }
    EXPECT_EQ(reinterpret_cast<const uint8_t*>(&pairs[4])[0], 0x5A);  // nothing past the count
}

TEST_F(ApiInstance, NodesCarryStationAddresses) {
    LoadSmall();
    const uint32_t count = TARN_GetNetworkNodeCount(h);
    ASSERT_EQ(count, 3u);
    std::map<std::string, uint32_t> seen;
    for (uint32_t i = 0; i < count; ++i) {
        DBCNetworkNode node;
        std::memset(&node, 0, sizeof(node));
        node.stationAddress = 0xDEAD;
        ASSERT_TRUE(TARN_GetNetworkNodeAt(h, i, &node));
        seen[std::string(node.name, strnlen(node.name, sizeof(node.name)))] = node.stationAddress;
    }
    const std::map<std::string, uint32_t> expected = {
        {"ECU1", 17}, {"Display", 42}, {"Gateway", 0xDEAD}};
    EXPECT_EQ(seen, expected);
    DBCNetworkNode untouched;
    std::memset(&untouched, 0x5A, sizeof(untouched));
    EXPECT_FALSE(TARN_GetNetworkNodeAt(h, count, &untouched));
    EXPECT_EQ(untouched.name[0], 0x5A);
    EXPECT_FALSE(TARN_GetNetworkNodeAt(h, 0, nullptr));
}

// The protocol travels as one byte: only its low eight bits count, and any
// value but J1939 reads back as 1.
TEST_F(ApiInstance, ProtocolTakesTheLowByte) {
    LoadSmall();
    EXPECT_EQ(TARN_GetProtocol(h), 1u);  // the database declares none
    auto setWide = [&](unsigned value) { TARN_SetProtocol(h, static_cast<uint8_t>(value)); };
    const struct {
        unsigned value;
        uint8_t expected;
    } cases[] = {{0, 0}, {1, 1}, {2, 1}, {0x100, 0}, {0x1FF, 1}, {0xFF, 1}, {0x200, 0}};
    for (const auto& c : cases) {
        setWide(c.value);
        EXPECT_EQ(TARN_GetProtocol(h), c.expected) << c.value;
    }
}

// Under J1939 rules lookups ignore priority and source address, and the
// destination byte of PDU1 groups; otherwise only bit 31 is ignored.
TEST_F(ApiInstance, LookupByIdFollowsTheProtocol) {
    LoadSmall();
    auto msg = NewMessage();
    const struct {
        uint8_t protocol;
        uint32_t id;
        bool found;
    } cases[] = {
        {1, 0x18FEF100, true},  {1, 0x98FEF100, true}, {1, 0x18FEF1FE, false},
        {1, 0x0CFEF100, false}, {0, 0x18FEF1FE, true}, {0, 0x0CFEF1AA, true},
        {0, 0x18FEF200, false}, {0, kEngineId, true},  {0, 0x18FEF100, true},
    };
    for (const auto& c : cases) {
        TARN_SetProtocol(h, c.protocol);
        msg->name[0] = 0;
        EXPECT_EQ(TARN_GetMessageById(h, c.id, msg.get()), c.found)
            << "protocol " << int(c.protocol) << " id " << std::hex << c.id;
        if (c.found) {
            EXPECT_STRNE(msg->name, "");
        }
    }
}

TEST_F(ApiInstance, MergeKeepsEarlierMessages) {
    LoadSmall();
    TempDbc extra(
        "VERSION \"\"\n\nBU_: X\n\nBO_ 5 Extra: 1 X\n SG_ Bit : 0|1@1+ (1,0) [0|1] \"\" X\n");
    const FileInfo merge = MakeFileInfo(extra.path(), true);
    ASSERT_TRUE(TARN_LoadFile(h, &merge));
    EXPECT_EQ(TARN_GetMessageCount(h), 4u);
    const FileInfo replace = MakeFileInfo(extra.path(), false);
    ASSERT_TRUE(TARN_LoadFile(h, &replace));
    EXPECT_EQ(TARN_GetMessageCount(h), 1u);
}

// ---- Real DBC files -------------------------------------------------------

// Distinct BO_ identifiers of a DBC file, read with a scanner of our own.
std::set<uint64_t> ScanMessageIds(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::set<uint64_t> ids;
    std::string line;
    while (std::getline(in, line)) {
        size_t i = line.find_first_not_of(" \t");
        if (i == std::string::npos || line.compare(i, 4, "BO_ ") != 0) continue;
        std::istringstream fields(line.substr(i + 4));
        uint64_t id;
        if (fields >> id) ids.insert(id);
    }
    return ids;
}

class ApiCorpus : public ::testing::TestWithParam<const char*> {
  protected:
    void SetUp() override { TARN_SetFrameType(TARN_FRAME_SOCKETCAN); }
};

TEST_P(ApiCorpus, EveryMessageIsListedAndFoundAgain) {
    const std::string path = CorpusFile(GetParam());
    if (path.empty()) GTEST_SKIP() << "corpus file absent: " << GetParam();
    const uint32_t h = TARN_Init(true, false);
    ASSERT_TRUE(LoadPath(h, path));
    const std::set<uint64_t> ids = ScanMessageIds(path);
    EXPECT_EQ(TARN_GetMessageCount(h), ids.size());

    TARN_SetProtocol(h, TARN_PROTOCOL_OTHER);  // exact lookups for this walk
    auto msg = NewMessage();
    auto again = NewMessage();
    std::vector<uint64_t> walked;
    for (bool ok = TARN_GetFirstMessage(h, msg.get()); ok; ok = TARN_GetNextMessage(h, msg.get())) {
        const uint64_t modelId = msg->id | (msg->extended ? 0x80000000u : 0u);
        walked.push_back(modelId);
        EXPECT_LE(msg->signalCount, static_cast<uint32_t>(TARN_MAX_SIGNALS));
        ASSERT_TRUE(TARN_GetMessageById(h, static_cast<uint32_t>(modelId), again.get()));
        EXPECT_EQ(std::strncmp(again->name, msg->name, TARN_NAME_LEN), 0);
    }
    EXPECT_EQ(walked, std::vector<uint64_t>(ids.begin(), ids.end()));
    TARN_Release(h);
}

INSTANTIATE_TEST_SUITE_P(RealFiles, ApiCorpus,
                         ::testing::Values("can-dbc__sample.dbc", "can-go__example.dbc",
                                           "cantools__abs.dbc", "SavvyCAN__ThinkCity.dbc",
                                           "canmatrix__test_frame_decoding.dbc",
                                           "cantools__floating_point.dbc", "canmatrix__testfd.dbc",
                                           "JiapengLi-dbc__libobdii.dbc", "canmatrix__j1939.dbc"));

TEST(ApiCorpusJ1939, DeclaredProtocolSwitchesLookupRules) {
    TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    const std::string path = CorpusFile("can-dbc__j1939.dbc");
    if (path.empty()) GTEST_SKIP() << "corpus absent";
    const uint32_t h = TARN_Init(true, false);
    ASSERT_TRUE(LoadPath(h, path));
    EXPECT_EQ(TARN_GetProtocol(h), 0u);
    auto msg = NewMessage();
    auto other = NewMessage();
    int checked = 0;
    for (bool ok = TARN_GetFirstMessage(h, msg.get()); ok && checked < 50;
         ok = TARN_GetNextMessage(h, msg.get())) {
        if (!msg->extended) continue;
        // Another priority and source address name the same group.
        const uint32_t moved = (msg->id & 0x03FFFF00u) | (7u << 26) | 0x5Bu;
        ASSERT_TRUE(TARN_GetMessageById(h, moved, other.get())) << std::hex << msg->id;
        EXPECT_EQ(other->id & 0x03FF0000u, msg->id & 0x03FF0000u);
        ++checked;
    }
    EXPECT_GT(checked, 0);
    TARN_Release(h);
}

}  // namespace
