// Reassembly of J1939 transport transfers, driven frame by frame as a bus
// would deliver them; payloads are compared with the bytes that went in.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "j1939/multi_frm_listener.h"
#include "support/ref_packer.h"

namespace {

struct Recorder : IOnMultiTransDoneListener {
    struct Done {
        uint32_t id;
        std::vector<uint8_t> payload;
        uint8_t value;
    };
    std::vector<Done> done;
    void OnTransDone(uint32_t id, std::vector<VCI_CAN_OBJ>&, uint8_t* data, uint16_t length,
                     uint8_t value) override {
        done.push_back({id, std::vector<uint8_t>(data, data + length), value});
    }
};

uint64_t g_now = 0;

VCI_CAN_OBJ Frame(uint32_t id, std::vector<uint8_t> bytes) {
    VCI_CAN_OBJ f{};
    f.id = id;
    f.externFlag = 1;
    f.dataLen = 8;
    bytes.resize(8, 0xFF);
    std::copy(bytes.begin(), bytes.end(), f.data);
    return f;
}

// TP.CM from `src` to `dst` (0xFF for broadcast) at priority 7.
VCI_CAN_OBJ Cm(uint8_t src, uint8_t dst, uint8_t ctl, uint16_t size, uint8_t count, uint32_t pgn) {
    return Frame(0x1CEC0000u | (dst << 8) | src,
                 {ctl, uint8_t(size), uint8_t(size >> 8), count, 0xFF, uint8_t(pgn),
                  uint8_t(pgn >> 8), uint8_t(pgn >> 16)});
}

// Reference split: packet k carries sequence k + 1 and payload bytes 7k..7k+6.
std::vector<VCI_CAN_OBJ> Packets(uint8_t src, uint8_t dst, const std::vector<uint8_t>& payload) {
    std::vector<VCI_CAN_OBJ> out;
    for (size_t k = 0; k * 7 < payload.size(); ++k) {
        std::vector<uint8_t> bytes{uint8_t(k + 1)};
        bytes.insert(bytes.end(), payload.begin() + k * 7,
                     payload.begin() + std::min(payload.size(), k * 7 + 7));
        out.push_back(Frame(0x1CEB0000u | (dst << 8) | src, bytes));
    }
    return out;
}

std::vector<uint8_t> RandomBytes(size_t n, uint64_t seed) {
    refpack::Rng rng(seed);
    std::vector<uint8_t> out(n);
    for (auto& b : out) b = uint8_t(rng.Next());
    return out;
}

class ListenerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        g_now = 100000;
        rx.SetClock([] { return g_now; });
        rx.SetListener(&rec);
    }
    int PushAll(const std::vector<VCI_CAN_OBJ>& frames) {
        int taken = 0;
        for (const auto& f : frames) taken += rx.Push(f) != 0;
        return taken;
    }
    CMultiFrmListener rx;
    Recorder rec;
};

enum class Order { InOrder, Shuffled, Repeated };
struct TransferCase {
    bool broadcast;
    size_t size;
    Order order;
};

class TransferTest : public ListenerTest, public ::testing::WithParamInterface<TransferCase> {};

TEST_P(TransferTest, PayloadMatchesInputByteForByte) {
    const TransferCase c = GetParam();
    const uint32_t pgn = 0xFEE3;
    const uint8_t src = 0x31, dst = c.broadcast ? 0xFF : 0x42;
    const std::vector<uint8_t> payload = RandomBytes(c.size, c.size);
    const std::vector<VCI_CAN_OBJ> packets = Packets(src, dst, payload);
    const uint8_t count = uint8_t(packets.size());

    // A broadcast completes on its last-numbered packet: that one stays last.
    std::vector<VCI_CAN_OBJ> order(packets);
    refpack::Rng rng(7);
    for (size_t i = order.size() - (c.broadcast ? 2 : 1); c.order != Order::InOrder && i > 0; --i) {
        std::swap(order[i], order[rng.Next() % (i + 1)]);
    }
    if (c.order == Order::Repeated) order.insert(order.begin(), packets.begin(), packets.end() - 1);
    ASSERT_EQ(rx.Push(Cm(src, dst, c.broadcast ? 0x20 : 0x10, uint16_t(c.size), count, pgn)), 1);
    if (!c.broadcast) {
        ASSERT_EQ(rx.Push(Cm(dst, src, 0x11, uint16_t(count | 0x100), 0xFF, pgn)), 1);
    }
    EXPECT_EQ(PushAll(order), int(order.size()));
    if (!c.broadcast) {
        EXPECT_TRUE(rec.done.empty()) << "a connection transfer waits for the acknowledgement";
        EXPECT_EQ(rx.Push(Cm(dst, src, 0x13, uint16_t(c.size), count, pgn)), 1);
    }
    ASSERT_EQ(rec.done.size(), 1u);
    EXPECT_EQ(rec.done[0].payload, payload);
    EXPECT_EQ(rec.done[0].value, 1);
    EXPECT_EQ(rec.done[0].id, 0x1CFEE300u | src) << "addressed as the announcement, not the CTS";
    EXPECT_EQ(rx.GetState(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Transfers, TransferTest,
    ::testing::Values(
        TransferCase{true, 9, Order::InOrder}, TransferCase{true, 100, Order::Shuffled},
        TransferCase{true, 1785, Order::Repeated}, TransferCase{false, 21, Order::InOrder},
        TransferCase{false, 100, Order::Shuffled}, TransferCase{false, 1785, Order::Repeated}),
    ([](const ::testing::TestParamInfo<TransferCase>& info) {
        static const char* const orders[] = {"InOrder", "Shuffled", "Repeated"};
        return std::string(info.param.broadcast ? "Bam" : "RtsCts") +
               std::to_string(info.param.size) + orders[int(info.param.order)];
    }));

TEST_F(ListenerTest, BroadcastWithLastPacketEarlyStaysOpenUntilAbort) {
    auto packets = Packets(0x25, 0xFF, RandomBytes(20, 1));
    rx.Push(Cm(0x25, 0xFF, 0x20, 20, 3, 0xFEF1));
    EXPECT_EQ(rx.Push(packets[2]), 0);  // incomplete: not done
    EXPECT_EQ(rx.Push(packets[0]), 1);
    EXPECT_EQ(rx.Push(packets[1]), 1);  // complete, but not the last-numbered packet
    EXPECT_TRUE(rec.done.empty());
    EXPECT_EQ(rx.Push(Cm(0x25, 0xFF, 0x20, 20, 3, 0xFEF1)), 0) << "second BAM ignored";
    EXPECT_EQ(rx.Push(Cm(0x25, 0xFF, 0xFF, 0, 0, 0xFEF2)), 0) << "abort of another PGN";
    EXPECT_EQ(rx.GetState(), 4u);
    EXPECT_EQ(rx.Push(Cm(0x25, 0xFF, 0xFF, 0, 0, 0xFEF1)), 1);
    EXPECT_EQ(rx.GetState(), 0u);
}

TEST_F(ListenerTest, RtsRestartsOnlyAfterFiveSeconds) {
    struct Step {
        uint64_t advance;
        int taken;
    } steps[] = {{0, 1}, {1000, 0}, {3999, 0}, {1, 1}, {4999, 0}, {6000, 1}};
    for (const Step& s : steps) {
        g_now += s.advance;
        EXPECT_EQ(rx.Push(Cm(0x10, 0x20, 0x10, 14, 2, 0xEF00)), s.taken) << "after +" << s.advance;
    }
    // A stale RTS also replaces a broadcast in progress; a BAM never replaces anything.
    rx.Push(Cm(0x10, 0xFF, 0xFF, 0, 0, 0xEF00));
    rx.Push(Cm(0x10, 0xFF, 0x20, 14, 2, 0xFEF1));
    g_now += 60000;
    EXPECT_EQ(rx.Push(Cm(0x10, 0xFF, 0x20, 14, 2, 0xFEF1)), 0);
    EXPECT_EQ(rx.Push(Cm(0x10, 0x20, 0x10, 14, 2, 0xEF00)), 1);
    EXPECT_EQ(rx.GetState(), 1u);
}

TEST_F(ListenerTest, FramesThatDoNotFitAreIgnored) {
    const uint32_t pgn = 0xEF00;
    auto packets = Packets(0x10, 0x20, RandomBytes(14, 3));
    ASSERT_EQ(rx.Push(Cm(0x10, 0x20, 0x10, 14, 2, pgn)), 1);
    EXPECT_EQ(rx.Push(packets[0]), 0) << "data before any CTS";
    EXPECT_EQ(rx.Push(Cm(0x20, 0x10, 0x11, 2, 1, pgn + 1)), 0) << "CTS for another PGN";
    EXPECT_EQ(rx.Push(Cm(0x20, 0x10, 0x11, 2, 1, pgn)), 1);
    VCI_CAN_OBJ seq0 = packets[0], seq3 = packets[0];
    seq0.data[0] = 0;
    seq3.data[0] = 3;
    EXPECT_EQ(rx.Push(seq0), 0) << "sequence number 0";
    EXPECT_EQ(rx.Push(seq3), 0) << "sequence number past the count";
    PushAll(packets);
    EXPECT_EQ(rx.Push(Cm(0x20, 0x10, 0x13, 14, 2, pgn + 1)), 0) << "ack for another PGN";
    EXPECT_EQ(rx.Push(Cm(0x20, 0x10, 0x13, 15, 2, pgn)), 0) << "ack with another size";
    EXPECT_EQ(rx.Push(Cm(0x20, 0x10, 0x13, 14, 3, pgn)), 0) << "ack with another count";
    EXPECT_EQ(rx.Push(Cm(0x20, 0x10, 0x21, 14, 2, pgn)), 0) << "unknown control byte";
    EXPECT_EQ(rx.Push(Frame(0x18FEF100, {1, 2, 3})), 0) << "ordinary frame";
    EXPECT_TRUE(rec.done.empty());
    EXPECT_EQ(rx.Push(Cm(0x20, 0x10, 0x13, 14, 2, pgn)), 1);
    EXPECT_EQ(rec.done.size(), 1u);
}

// Announced counts that disagree with the size: never read or write past either.
TEST_F(ListenerTest, PacketCountAndSizeMismatch) {
    struct Case {
        uint16_t size;
        uint8_t count;
    } cases[] = {{10, 5}, {20, 2}, {0, 1}};
    for (const Case& c : cases) {
        std::vector<uint8_t> bytes = RandomBytes(size_t(c.count) * 7, c.size);
        rx.Push(Cm(0x25, 0xFF, 0x20, c.size, c.count, 0xFEF1));
        PushAll(Packets(0x25, 0xFF, bytes));
        ASSERT_FALSE(rec.done.empty());
        std::vector<uint8_t> want(c.size, 0);
        std::copy_n(bytes.begin(), std::min<size_t>(c.size, bytes.size()), want.begin());
        EXPECT_EQ(rec.done.back().payload, want) << c.size << " bytes in " << int(c.count);
    }
    EXPECT_EQ(rec.done.size(), 3u);
}

// Priority, data page and addresses come from the announcing frame; a PDU1
// group keeps the destination. Without a listener a transfer completes quietly.
TEST_F(ListenerTest, ReportedIdentifier) {
    struct Case {
        uint32_t announceId, pgn, want;
    } cases[] = {
        {0x18ECFF25, 0xFEF1, 0x18FEF125},
        {0x1CEC3349, 0xEF00, 0x1CEF3349},
        {0x18ECFF25, 0x1FEF1, 0x19FEF125},
    };
    CMultiFrmListener bare;
    const VCI_CAN_OBJ packet = Packets(0x25, 0xFF, {1, 2, 3, 4, 5, 6, 7})[0];
    for (const Case& c : cases) {
        VCI_CAN_OBJ bam = Cm(0, 0, 0x20, 7, 1, c.pgn);
        bam.id = c.announceId;
        rx.Push(bam);
        rx.Push(packet);
        ASSERT_FALSE(rec.done.empty());
        EXPECT_EQ(rec.done.back().id, c.want);
        bare.Push(bam);
        EXPECT_EQ(bare.Push(packet), 1);
        EXPECT_EQ(bare.GetState(), 0u);
    }
}

// A logged broadcast session ("(time) iface ID#DATA"), against the bytes of
// its own data packets.
TEST_F(ListenerTest, LoggedBroadcastSession) {
    const std::string path = refpack::CorpusFile("logs/pretty_j1939__multipacket_bam.txt");
    if (path.empty()) GTEST_SKIP() << "corpus not available";
    std::ifstream in(path);
    std::string stamp, iface, frame;
    std::vector<uint8_t> want;
    while (in >> stamp >> iface >> frame) {
        const size_t hash = frame.find('#');
        std::vector<uint8_t> bytes;
        for (size_t i = hash + 1; i + 1 < frame.size(); i += 2) {
            bytes.push_back(uint8_t(std::stoul(frame.substr(i, 2), nullptr, 16)));
        }
        const VCI_CAN_OBJ f =
            Frame(uint32_t(std::stoul(frame.substr(0, hash), nullptr, 16)), bytes);
        if ((f.id & 0xFF0000) == 0xEB0000) want.insert(want.end(), f.data + 1, f.data + 8);
        rx.Push(f);
    }
    want.resize(34);
    ASSERT_EQ(rec.done.size(), 1u);
    EXPECT_EQ(rec.done[0].id, 0x1CFEE300u);
    EXPECT_EQ(rec.done[0].payload, want);
}

}  // namespace
