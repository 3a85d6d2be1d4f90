// Reassembly of J1939 transport transfers, driven frame by frame as a bus
// would deliver them, with the clock injected; payloads are compared with
// the bytes that went in.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "j1939/multi_frm_listener.h"
#include "support/ref_packer.h"

namespace {

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

class ListenerTest : public ::testing::Test, IOnMultiTransDoneListener {
  protected:
    struct Done {
        uint32_t id;
        std::vector<uint8_t> payload;
        uint8_t value;
    };
    void SetUp() override {
        g_now = 100000;
        rx.SetClock([] { return g_now; });
        rx.SetListener(this);
    }
    void OnTransDone(uint32_t id, std::vector<VCI_CAN_OBJ>&, uint8_t* data, uint16_t length,
                     uint8_t value) override {
        done.push_back({id, std::vector<uint8_t>(data, data + length), value});
    }
    // Each frame with the result Push must give for it, then the state left.
    void Script(const std::vector<std::pair<VCI_CAN_OBJ, int>>& steps, uint32_t state) {
        for (size_t i = 0; i < steps.size(); ++i)
            EXPECT_EQ(rx.Push(steps[i].first), steps[i].second) << "step " << i;
        EXPECT_EQ(rx.GetState(), state);
    }
    CMultiFrmListener rx;
    std::vector<Done> done;
};

// Shuffled and repeated packets, broadcast or by connection, come out byte
// for byte, addressed as the announcement was (not as the CTS).
TEST_F(ListenerTest, PayloadMatchesInputInAnyPacketOrder) {
    const uint8_t src = 0x31;
    refpack::Rng rng(7);
    for (size_t size : {9, 100, 1785}) {
        for (bool broadcast : {true, false}) {
            SCOPED_TRACE(::testing::Message() << size << (broadcast ? " broadcast" : " by RTS"));
            const uint8_t dst = broadcast ? 0xFF : 0x42;
            const std::vector<uint8_t> payload = RandomBytes(size, size);
            const std::vector<VCI_CAN_OBJ> packets = Packets(src, dst, payload);
            const uint8_t n = uint8_t(packets.size());
            // A broadcast completes on its last-numbered packet: that one stays last.
            std::vector<VCI_CAN_OBJ> order(packets);
            for (size_t i = order.size() - (broadcast ? 2 : 1); i > 0; --i)
                std::swap(order[i], order[rng.Next() % (i + 1)]);
            if (size > 9) order.insert(order.begin(), packets.begin(), packets.end() - 1);
            ASSERT_EQ(rx.Push(Cm(src, dst, broadcast ? 0x20 : 0x10, uint16_t(size), n, 0xFEE3)), 1);
            const VCI_CAN_OBJ cts = Cm(dst, src, 0x11, uint16_t(n | 0x100), 0xFF, 0xFEE3);
            ASSERT_TRUE(broadcast || rx.Push(cts) == 1);
            for (const VCI_CAN_OBJ& f : order) EXPECT_NE(rx.Push(f), 0);
            if (!broadcast) {
                EXPECT_TRUE(done.empty()) << "a connection transfer waits for the acknowledgement";
                EXPECT_EQ(rx.Push(Cm(dst, src, 0x13, uint16_t(size), n, 0xFEE3)), 1);
            }
            ASSERT_EQ(done.size(), 1u);
            EXPECT_EQ(done[0].payload, payload);
            EXPECT_EQ(done[0].value, 1);
            EXPECT_EQ(done[0].id, 0x1CFEE300u | src);
            EXPECT_EQ(rx.GetState(), 0u);
            done.clear();
        }
    }
}

TEST_F(ListenerTest, FramesThatDoNotFitAreIgnored) {
    auto p = Packets(0x10, 0x20, RandomBytes(14, 3));
    VCI_CAN_OBJ seq0 = p[0], seq3 = p[0];
    seq0.data[0] = 0;
    seq3.data[0] = 3;
    Script({{Cm(0x10, 0x20, 0x10, 14, 2, 0xEF00), 1},
            {p[0], 0},                                // data before any CTS
            {Cm(0x20, 0x10, 0x11, 2, 1, 0xEF01), 0},  // CTS for another group
            {Cm(0x20, 0x10, 0x11, 2, 1, 0xEF00), 1},
            {seq0, 0},
            {seq3, 0},  // past the count
            {p[0], 1},
            {p[1], 1},
            {Cm(0x20, 0x10, 0x13, 14, 2, 0xEF01), 0},  // ack for another group
            {Cm(0x20, 0x10, 0x13, 15, 2, 0xEF00), 0},  // ack with another size
            {Cm(0x20, 0x10, 0x13, 14, 3, 0xEF00), 0},  // ack with another count
            {Cm(0x20, 0x10, 0x21, 14, 2, 0xEF00), 0},  // unknown control byte
            {Frame(0x18FEF100, {1, 2, 3}), 0}},
           4);
    EXPECT_TRUE(done.empty());
    Script({{Cm(0x20, 0x10, 0x13, 14, 2, 0xEF00), 1}}, 0);
    EXPECT_EQ(done.size(), 1u);
    // A broadcast whose last packet comes early stays open until aborted.
    p = Packets(0x25, 0xFF, RandomBytes(20, 1));
    Script({{Cm(0x25, 0xFF, 0x20, 20, 3, 0xFEF1), 1},
            {p[2], 0},  // incomplete: not done
            {p[0], 1},
            {p[1], 1},                                 // complete, but not the last-numbered packet
            {Cm(0x25, 0xFF, 0x20, 20, 3, 0xFEF1), 0},  // a second BAM is ignored
            {Cm(0x25, 0xFF, 0xFF, 0, 0, 0xFEF2), 0}},  // abort of another group
           4);
    Script({{Cm(0x25, 0xFF, 0xFF, 0, 0, 0xFEF1), 1}}, 0);
    EXPECT_EQ(done.size(), 1u);
}

// An RTS replaces a transfer in progress (a broadcast too) only once the
// last RTS is five seconds old; a BAM never replaces anything.
TEST_F(ListenerTest, RtsRestartsOnlyAfterFiveSeconds) {
    for (auto [advance, taken] :
         {std::pair{0, 1}, {1000, 0}, {3999, 0}, {1, 1}, {4999, 0}, {6000, 1}}) {
        g_now += advance;
        EXPECT_EQ(rx.Push(Cm(0x10, 0x20, 0x10, 14, 2, 0xEF00)), taken) << "after +" << advance;
    }
    Script({{Cm(0x10, 0xFF, 0xFF, 0, 0, 0xEF00), 1}, {Cm(0x10, 0xFF, 0x20, 14, 2, 0xFEF1), 1}}, 2);
    g_now += 60000;
    Script({{Cm(0x10, 0xFF, 0x20, 14, 2, 0xFEF1), 0}, {Cm(0x10, 0x20, 0x10, 14, 2, 0xEF00), 1}}, 1);
}

// Counts that disagree with the size never read or write past either; the
// identifier takes priority, data page and addresses from the announcement,
// and a PDU1 group keeps the destination. Without a listener a transfer
// completes quietly.
TEST_F(ListenerTest, SizeCountMismatchAndReportedIdentifier) {
    const struct {
        uint32_t announceId, pgn;
        uint16_t size;
        uint8_t count;
        uint32_t want;
    } cases[] = {{0x18ECFF25, 0xFEF1, 10, 5, 0x18FEF125},
                 {0x1CEC3349, 0xEF00, 20, 2, 0x1CEF3349},
                 {0x18ECFF25, 0x1FEF1, 0, 1, 0x19FEF125}};
    CMultiFrmListener bare;
    for (const auto& c : cases) {
        const std::vector<uint8_t> bytes = RandomBytes(size_t(c.count) * 7, c.size);
        VCI_CAN_OBJ bam = Cm(0, 0, 0x20, c.size, c.count, c.pgn);
        bam.id = c.announceId;
        rx.Push(bam);
        bare.Push(bam);
        for (const VCI_CAN_OBJ& f : Packets(0x25, 0xFF, bytes)) {
            rx.Push(f);
            bare.Push(f);
        }
        EXPECT_EQ(bare.GetState(), 0u);
        ASSERT_FALSE(done.empty());
        std::vector<uint8_t> want(c.size, 0);
        std::copy_n(bytes.begin(), std::min<size_t>(c.size, bytes.size()), want.begin());
        EXPECT_EQ(done.back().payload, want) << c.size << " bytes in " << int(c.count);
        EXPECT_EQ(done.back().id, c.want);
    }
}

// A logged broadcast session ("(time) iface ID#DATA") against its own data packets.
TEST_F(ListenerTest, LoggedBroadcastSession) {
    const std::string path = refpack::CorpusFile("logs/pretty_j1939__multipacket_bam.txt");
    if (path.empty()) GTEST_SKIP() << "corpus not available";
    std::ifstream in(path);
    std::vector<uint8_t> want;
    for (std::string stamp, iface, frame; in >> stamp >> iface >> frame;) {
        const size_t hash = frame.find('#');
        std::vector<uint8_t> bytes;
        for (size_t i = hash + 1; i + 1 < frame.size(); i += 2)
            bytes.push_back(uint8_t(std::stoul(frame.substr(i, 2), nullptr, 16)));
        const VCI_CAN_OBJ f =
            Frame(uint32_t(std::stoul(frame.substr(0, hash), nullptr, 16)), bytes);
        if ((f.id & 0xFF0000) == 0xEB0000) want.insert(want.end(), f.data + 1, f.data + 8);
        rx.Push(f);
    }
    want.resize(34);
    ASSERT_EQ(done.size(), 1u);
    EXPECT_EQ(done[0].id, 0x1CFEE300u);
    EXPECT_EQ(done[0].payload, want);
}

}  // namespace
