// Instance and model-query entry points: unknown handles, loading, message
// iteration and lookup, value tables, nodes and the protocol switch.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <tuple>

#include "api_support.h"

using namespace apitest;

namespace {

bool AllBytes(const void* p, size_t n, uint8_t value) {
    const auto* b = static_cast<const uint8_t*>(p);
    return std::all_of(b, b + n, [&](uint8_t x) { return x == value; });
}

// Every entry point, given a handle never issued or already released, gives
// its "none" result and leaves the caller's buffers alone.
TEST(ApiUnknownHandle, EveryEntryPointReturnsItsNoneResult) {
    TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    const uint32_t released = TARN_Init(true, false);
    TARN_Release(released);
    auto msg = NewMessage();
    std::memset(msg.get(), 0x5A, sizeof(DBCMessage));
    TarnCanFrame frames[4];
    DBCNetworkNode node;
    ValDescPair pairs[2];
    std::memset(frames, 0x5A, sizeof(frames));
    std::memset(&node, 0x5A, sizeof(node));
    std::memset(pairs, 0x5A, sizeof(pairs));
    const FileInfo info = MakeFileInfo("/nonexistent.dbc");
    auto shortMsg = NewMessage(), longMsg = NewMessage();
    shortMsg->size = 8;
    longMsg->size = 100;
    uint32_t n = 4;
    // Each row is zero for the "none" result.
#define NONE(expr) std::make_pair(#expr, [&](uint32_t h) -> uint64_t { return expr; })
    const std::vector<std::pair<const char*, std::function<uint64_t(uint32_t)>>> calls = {
        NONE(TARN_LoadFile(h, &info)),
        NONE(TARN_GetProtocol(h) - 1u),
        NONE(TARN_GetFirstMessage(h, msg.get())),
        NONE(TARN_GetNextMessage(h, msg.get())),
        NONE(TARN_GetMessageCount(h)),
        NONE(TARN_GetMessageById(h, 1, msg.get())),
        NONE(TARN_GetValDescPairCount(h, 1, "x")),
        NONE(TARN_GetNetworkNodeCount(h)),
        NONE(TARN_GetNetworkNodeAt(h, 0, &node)),
        NONE(TARN_Analyse(h, frames, 0, msg.get())),
        NONE(TARN_Decode(h, msg.get(), frames, 1)),
        NONE(TARN_Encode(h, frames, &n, msg.get())),
        NONE(TARN_AsyncAnalyse(h, frames, 0, 7)),
        NONE(TARN_Send(h, shortMsg.get(), 0) - TARN_SEND_FAILED),
        NONE(TARN_Send(h, shortMsg.get(), 1) - TARN_SEND_FAILED),
        NONE(TARN_Send(h, longMsg.get(), 0) - TARN_SEND_FAILED),
        NONE(TARN_Send(h, longMsg.get(), 1) - TARN_SEND_FAILED),
        NONE((TARN_SetProtocol(h, 0), 0)),
        NONE((TARN_GetValDescPair(h, 1, "x", pairs), 0)),
        NONE((TARN_OnReceive(h, frames, 0), 0)),
        NONE((TARN_SetSender(h, nullptr, nullptr), 0)),
        NONE((TARN_SetCANFDSender(h, nullptr, nullptr), 0)),
        NONE((TARN_SetAsyncAnalyseCallback(h, nullptr, nullptr), 0)),
        NONE((TARN_SetOnMultiTransDoneFunc(h, nullptr, nullptr), 0)),
        NONE((TARN_Release(h), 0)),
    };
#undef NONE
    for (uint32_t h : {0u, released, 0xFFFFFFFFu}) {
        for (const auto& c : calls) EXPECT_EQ(c.second(h), 0u) << c.first << " handle " << h;
    }
    EXPECT_TRUE(AllBytes(msg.get(), sizeof(DBCMessage), 0x5A));
    EXPECT_TRUE(AllBytes(&node, sizeof(node), 0x5A));
    EXPECT_TRUE(AllBytes(pairs, sizeof(pairs), 0x5A));
}

class ApiInstance : public ::testing::Test {
  protected:
    void SetUp() override {
        TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
        h = TARN_Init(true, false);
        ASSERT_TRUE(LoadPath(h, dbc.path()));
    }
    void TearDown() override { TARN_Release(h); }
    TempDbc dbc{kSmallDbc};
    uint32_t h = 0;
    std::unique_ptr<DBCMessage> msg = NewMessage();
};

TEST_F(ApiInstance, LoadRejectsBadInputAndMergeKeepsEarlierMessages) {
    const uint32_t fresh = TARN_Init(true, false);
    FileInfo unterminated;
    std::memset(&unterminated, 'a', sizeof(unterminated));
    const FileInfo missing = MakeFileInfo("/nonexistent/dir/none.dbc");
    const FileInfo* bad[] = {nullptr, &missing, &unterminated};
    for (const FileInfo* info : bad) EXPECT_FALSE(TARN_LoadFile(fresh, info));
    EXPECT_EQ(TARN_GetMessageCount(fresh), 0u);
    TARN_Release(fresh);

    TempDbc extra(
        "VERSION \"\"\n\nBU_: X\n\nBO_ 5 Extra: 1 X\n SG_ B : 0|1@1+ (1,0) [0|1] \"\" X\n");
    const FileInfo merge = MakeFileInfo(extra.path(), true);
    ASSERT_TRUE(TARN_LoadFile(h, &merge));
    EXPECT_EQ(TARN_GetMessageCount(h), 4u);
    ASSERT_TRUE(LoadPath(h, extra.path()));
    EXPECT_EQ(TARN_GetMessageCount(h), 1u);
}

// Iteration runs ascending by model id (extended ids carry bit 31, so come
// last); the record carries names, comments, attributes and multiplexing.
TEST_F(ApiInstance, IteratesAndTranslatesMessages) {
    std::vector<std::string> names;
    for (bool ok = TARN_GetFirstMessage(h, msg.get()); ok; ok = TARN_GetNextMessage(h, msg.get())) {
        names.push_back(msg->name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"Engine", "Long20", "Ext"}));
    EXPECT_FALSE(TARN_GetFirstMessage(h, nullptr));
    EXPECT_FALSE(TARN_GetNextMessage(h, nullptr));

    ASSERT_TRUE(TARN_GetMessageById(h, kEngineId, msg.get()));
    EXPECT_STREQ(msg->comment, "Engine data");
    EXPECT_EQ(msg->extended, 0);
    EXPECT_DOUBLE_EQ(msg->cycleTime, 100.0);
    ASSERT_EQ(msg->signalCount, 6u);
    for (uint32_t i = 1; i < msg->signalCount; ++i) {
        EXPECT_LT(msg->signals[i - 1].startBit, msg->signals[i].startBit);
    }
    const DBCSignal* speed = FindSignal(*msg, "Speed");
    EXPECT_STREQ(speed->unit, "km/h");
    EXPECT_STREQ(speed->comment, "Vehicle speed");
    const DBCSignal* temp = FindSignal(*msg, "Temp");
    // The raw value is that of physical 0.
    EXPECT_EQ(std::make_tuple(temp->factor, temp->offset, temp->minimum, temp->maximum,
                              temp->rawValue, temp->length, temp->startBit),
              std::make_tuple(1.0, -40.0, -168.0, 87.0, uint64_t{40}, 8u, 16u));
    const DBCSignal* torque = FindSignal(*msg, "Torque");
    EXPECT_EQ(torque->byteOrder, 0);
    EXPECT_EQ(torque->isSigned, 1);

    ASSERT_TRUE(TARN_GetMessageById(h, kExtId, msg.get()));
    EXPECT_EQ(msg->id, kExtId);
    EXPECT_EQ(msg->extended, 1);
    EXPECT_EQ(FindSignal(*msg, "Mode")->multiplexerType, TARN_MUX_SWITCH);
    EXPECT_EQ(FindSignal(*msg, "B")->multiplexerType, TARN_MUX_MULTIPLEXED);
    EXPECT_EQ(FindSignal(*msg, "B")->multiplexerValue, 2u);
}

TEST_F(ApiInstance, ValueTablesAndNodes) {
    const struct {
        uint32_t id;
        const char* signal;
        uint32_t count;
    } counts[] = {{kEngineId, "Gear", 4},
                  {kEngineId, "Speed", 0},
                  {kEngineId, "None", 0},
                  {0x7FF, "Gear", 0},
                  {kEngineId, nullptr, 0}};
    for (const auto& c : counts) {
        EXPECT_EQ(TARN_GetValDescPairCount(h, c.id, c.signal), c.count) << c.id;
    }
    ValDescPair pairs[5];
    std::memset(pairs, 0x5A, sizeof(pairs));
    TARN_GetValDescPair(h, kEngineId, nullptr, pairs);
    TARN_GetValDescPair(h, kEngineId, "Gear", pairs);
    const char* expected[] = {"Neutral", "First", "Second", "Third"};
    for (int i = 0; i < 4; ++i) {
        EXPECT_DOUBLE_EQ(pairs[i].value, i);
        EXPECT_STREQ(pairs[i].desc, expected[i]);
    }
    EXPECT_TRUE(AllBytes(&pairs[4], sizeof(pairs[4]), 0x5A)) << "nothing past the count";

    // A node without a station address leaves the caller's field alone.
    std::map<std::string, uint32_t> seen;
    for (uint32_t i = 0; i < TARN_GetNetworkNodeCount(h); ++i) {
        DBCNetworkNode node;
        std::memset(&node, 0, sizeof(node));
        node.stationAddress = 0xDEAD;
        ASSERT_TRUE(TARN_GetNetworkNodeAt(h, i, &node));
        seen[std::string(node.name, strnlen(node.name, sizeof(node.name)))] = node.stationAddress;
    }
    EXPECT_EQ(seen, (std::map<std::string, uint32_t>{
                        {"ECU1", 17}, {"Display", 42}, {"Gateway", 0xDEAD}}));
    DBCNetworkNode untouched;
    std::memset(&untouched, 0x5A, sizeof(untouched));
    EXPECT_FALSE(TARN_GetNetworkNodeAt(h, 3, &untouched));
    EXPECT_TRUE(AllBytes(&untouched, sizeof(untouched), 0x5A));
    EXPECT_FALSE(TARN_GetNetworkNodeAt(h, 0, nullptr));
}

// Any protocol value but J1939 (0) reads back as 1. Under J1939 rules lookups
// ignore priority, source address and the PDU1 destination byte (so any PDU1
// identifier of group 0 finds Engine); otherwise only bit 31 is ignored.
TEST_F(ApiInstance, LookupByIdFollowsTheProtocol) {
    EXPECT_EQ(TARN_GetProtocol(h), 1u);  // the database declares none
    const struct {
        uint8_t protocol;
        uint32_t id;
        bool found;
    } cases[] = {
        {1, 0x18FEF100, true},  {0xFF, 0x98FEF100, true}, {2, 0x18FEF1FE, false},
        {1, 0x0CFEF100, false}, {0, 0x18FEF1FE, true},    {0, 0x0CFEF1AA, true},
        {0, 0x18FEF200, false}, {0, kEngineId, true},     {0, 0x1C00AB55, true},
    };
    for (const auto& c : cases) {
        TARN_SetProtocol(h, c.protocol);
        EXPECT_EQ(TARN_GetProtocol(h), c.protocol == 0 ? 0u : 1u);
        EXPECT_EQ(TARN_GetMessageById(h, c.id, msg.get()), c.found)
            << "protocol " << int(c.protocol) << " id " << std::hex << c.id;
    }
}

}  // namespace
