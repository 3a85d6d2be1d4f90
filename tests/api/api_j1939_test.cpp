// J1939 transport through the C interface: instance A sends with TARN_Send,
// the test thread plays the peer frame by frame through TARN_OnReceive, and
// instance B reassembles every frame on the bus with TARN_Analyse.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>

#include "api_support.h"

using namespace apitest;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

constexpr uint8_t kSrc = 0xFE, kDst = 0x20;

struct Done {
    std::string name;
    std::vector<uint8_t> payload;
    uint8_t value;
    std::vector<uint64_t> raw;
};

// What A put on the bus, in order, and the transfers each end reported.
struct Bus {
    static bool Send(void* ctx, void* frame) {
        auto* bus = static_cast<Bus*>(ctx);
        std::lock_guard<std::mutex> lock(bus->mutex);
        bus->sent.push_back(FromWire(frame, bus->layout));
        bus->cv.notify_all();
        return true;
    }
    // Both ends report from within the test thread's own TARN_OnReceive or TARN_Analyse.
    template <bool kA>
    static void OnDone(void* ctx, DBCMessage* msg, uint8_t* data, uint16_t len, uint8_t value) {
        auto* bus = static_cast<Bus*>(ctx);
        (kA ? bus->doneA : bus->doneB)
            .push_back({msg->name, std::vector<uint8_t>(data, data + len), value, RawValues(*msg)});
    }
    // A's next unread frame, or false after `ms` without one.
    bool Next(Frame& out, int ms = 3000) {
        std::unique_lock<std::mutex> lock(mutex);
        const bool ready = cv.wait_for(lock, milliseconds(ms), [&] { return read < sent.size(); });
        if (ready) out = sent[read++];
        return ready;
    }

    uint32_t layout = 0;
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<Frame> sent;
    size_t read = 0;
    std::vector<Done> doneA, doneB;
};

// TP.CM frame: the leading bytes, 0xFF up to byte 4, then the group number.
Frame Cm(uint8_t from, uint8_t to, std::vector<uint8_t> bytes, uint32_t pgn) {
    bytes.resize(5, 0xFF);
    bytes.insert(bytes.end(), {uint8_t(pgn), uint8_t(pgn >> 8), uint8_t(pgn >> 16)});
    return MakeFrame(0x1CEC0000u | (to << 8) | from, true, bytes.data());
}

std::vector<uint32_t> Bytes(const Frame& f, size_t n = 8) {
    std::vector<uint32_t> out{f.id, f.extended, f.len};
    out.insert(out.end(), f.data, f.data + n);
    return out;
}

class ApiJ1939 : public LayoutTest {
  protected:
    void SetUp() override {
        UseLayout();
        bus.layout = layout();
        const TempDbc dbc(J1939Dbc());
        a = TARN_Init(false, false);
        b = TARN_Init(true, false);
        ASSERT_TRUE(LoadPath(a, dbc.path()));
        ASSERT_TRUE(LoadPath(b, dbc.path()));
        ASSERT_EQ(TARN_GetProtocol(a), 0u) << "the database declares J1939";
        TARN_SetSender(a, &Bus::Send, &bus);
        TARN_SetOnMultiTransDoneFunc(a, &Bus::OnDone<true>, &bus);
        TARN_SetOnMultiTransDoneFunc(b, &Bus::OnDone<false>, &bus);
    }
    void TearDown() override {
        TARN_Release(a);  // A's send thread must be gone before the bus it talks to
        TARN_Release(b);
    }
    // A's next frame, which B sees as well.
    bool Next(Frame& f, int ms = 3000) {
        if (!bus.Next(f, ms)) return false;
        TARN_Analyse(b, Wire(f).bytes, 0, seen.get());
        return true;
    }
    // A peer frame to both ends; in the SocketCAN layout every other one
    // reaches A as a 12-byte FD frame, which A must cut to its first 8 bytes.
    void Deliver(const Frame& f) {
        TARN_Analyse(b, Wire(f).bytes, 0, seen.get());
        if (layout() == TARN_FRAME_SOCKETCAN && ++delivered % 2) {
            std::vector<uint8_t> data(f.data, f.data + 8);
            data.resize(12, 0xAA);
            const TarnCanFdFrame fd = MakeFd(f.id | TARN_CAN_EFF_FLAG, data);
            TARN_OnReceive(a, &fd, 1);
        } else {
            TARN_OnReceive(a, Wire(f).bytes, 0);
        }
    }
    static uint32_t Pgn(uint32_t id) { return (id >> 8) & 0x3FF00; }
    // Queues the message with random values, checks its RTS, returns its payload.
    std::vector<uint8_t> StartLong(uint32_t id, uint64_t seed) {
        EXPECT_TRUE(TARN_GetMessageById(a, id, msg.get()));
        std::vector<uint8_t> payload = FillRandom(*msg, seed);
        EXPECT_EQ(TARN_Send(a, msg.get(), 0), TARN_SEND_QUEUED);
        const uint8_t size[] = {uint8_t(payload.size()), uint8_t(payload.size() >> 8)};
        Frame rts;
        EXPECT_TRUE(Next(rts));
        EXPECT_EQ(Bytes(rts), Bytes(Cm(kSrc, kDst, {0x10, size[0], size[1], Count()}, Pgn(id))));
        return payload;
    }
    uint8_t Count() const { return uint8_t((msg->size + 6) / 7); }
    // Grants `n` packets from `next` and collects the data bytes they carry.
    void Grant(uint8_t n, uint8_t next, std::vector<uint8_t>& wire) {
        Deliver(Cm(kDst, kSrc, {0x11, n, next}, Pgn(msg->id)));
        for (uint32_t seq = next; seq < next + n; ++seq) {
            Frame dt;
            ASSERT_TRUE(Next(dt)) << "packet " << seq;
            const std::vector<uint32_t> head{0x1CEB0000u | (kDst << 8) | kSrc, 1, 8, seq};
            ASSERT_EQ(Bytes(dt, 1), head);
            wire.insert(wire.end(), dt.data + 1, dt.data + 8);
        }
    }
    Frame Ack(size_t size, uint8_t count, uint32_t pgnDelta = 0) {
        const uint32_t pgn = Pgn(msg->id) + pgnDelta;
        return Cm(kDst, kSrc, {0x13, uint8_t(size), uint8_t(size >> 8), count}, pgn);
    }

    uint32_t a = 0, b = 0;
    unsigned delivered = 0;
    Bus bus;
    std::unique_ptr<DBCMessage> msg = NewMessage(), seen = NewMessage();
};

// Every grant moves the send thread back to sending, so the acknowledgement
// after the last of several grants completes the transfer on both ends.
TEST_P(ApiJ1939, GrantsCarryThePayloadInOrderAndBothEndsReport) {
    const struct {
        uint32_t id;
        unsigned step;   // packets per CTS
        bool holdFirst;  // a CTS granting 0 packets comes first
    } cases[] = {
        {kJ1785Id, 255, false}, {kJ100Id, 2, false}, {kJ9Id, 255, true}, {kJ1785Id, 16, true}};
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        SCOPED_TRACE(::testing::Message() << std::hex << c.id << std::dec << " by " << c.step);
        const std::vector<uint8_t> payload = StartLong(c.id, i);
        std::vector<uint8_t> wire;
        Frame f;
        if (c.holdFirst) {
            Grant(0, 1, wire);
            EXPECT_FALSE(Next(f, 300)) << "a hold must not release packets";
        }
        for (unsigned next = 1; next <= Count() && !HasFatalFailure(); next += c.step) {
            Grant(uint8_t(std::min(c.step, Count() - next + 1)), uint8_t(next), wire);
        }
        std::vector<uint8_t> padded(payload);
        padded.resize(size_t(Count()) * 7, 0xFF);
        ASSERT_EQ(wire, padded);
        Deliver(Ack(payload.size(), Count()));
        const std::vector<Done>&gotA = bus.doneA, &gotB = bus.doneB;
        ASSERT_EQ(gotA.size(), i + 1);
        ASSERT_EQ(gotB.size(), i + 1);
        EXPECT_EQ(gotA.back().name, msg->name);
        EXPECT_EQ(gotA.back().payload, payload);
        EXPECT_EQ(gotA.back().value, 0);
        EXPECT_EQ(gotB.back().name, msg->name);
        EXPECT_EQ(gotB.back().payload, payload);
        EXPECT_EQ(gotB.back().value, 1);
        EXPECT_EQ(gotB.back().raw, RawValues(*msg)) << "B decodes what A encoded";
        EXPECT_FALSE(Next(f, 50)) << "nothing follows an acknowledged transfer";
    }
}

// A short message leaves before Send returns; an instance with multi-packet
// sending disabled refuses anything longer (also as FD over 64 bytes).
TEST_P(ApiJ1939, SingleFramesLeaveAtOnceLongOnesNeedTheTransport) {
    ASSERT_TRUE(TARN_GetMessageById(a, kJShortId, msg.get()));
    const std::vector<uint8_t> payload = FillRandom(*msg, 4);
    ASSERT_EQ(TARN_Send(a, msg.get(), 0), TARN_SEND_OK);
    Frame f;
    ASSERT_TRUE(bus.Next(f, 0)) << "sent before Send returns";
    EXPECT_EQ(Bytes(f), Bytes(MakeFrame(kJShortId, true, payload.data())));
    EXPECT_EQ(TARN_Send(b, msg.get(), 0), TARN_SEND_FAILED) << "B has no sender";
    for (auto [id, fd] : {std::pair{kJ9Id, 0}, {kJ1785Id, 0}, {kJ1785Id, 1}}) {
        ASSERT_TRUE(TARN_GetMessageById(b, id, msg.get()));
        const bool noFd = fd && layout() == TARN_FRAME_VCI;
        EXPECT_EQ(TARN_Send(b, msg.get(), uint8_t(fd)), noFd ? TARN_SEND_FAILED : TARN_SEND_REFUSED)
            << std::hex << id;
    }
    auto unknown = NewMessage();
    unknown->size = 4;
    EXPECT_EQ(TARN_Send(a, unknown.get(), 0), TARN_SEND_FAILED) << "not in the database";
    EXPECT_EQ(TARN_Send(a, nullptr, 0), TARN_SEND_FAILED);
    EXPECT_FALSE(bus.Next(f, 50));
}

// Release cuts the CTS wait short: once it returns nothing more is sent or reported.
TEST_P(ApiJ1939, ReleaseMidTransferSilencesTheInstance) {
    StartLong(kJ100Id, 6);
    std::vector<uint8_t> wire;
    Grant(2, 1, wire);
    const auto start = Clock::now();
    TARN_Release(a);
    EXPECT_LT(Clock::now() - start, milliseconds(1000));
    Frame f;
    EXPECT_FALSE(bus.Next(f, 200));
    EXPECT_TRUE(bus.doneA.empty());
    EXPECT_EQ(TARN_Send(a, msg.get(), 0), TARN_SEND_FAILED) << "the handle is gone";
}

TARN_BOTH_LAYOUTS(ApiJ1939);

// A transfer the peer leaves hanging ends in our own Abort after the CTS wait
// of about 1250 ms; one the peer aborts ends quietly. A reports neither and
// goes on with the next message.
enum class Script { NoCts, GrantFromTheMiddle, WrongAcks, PeerAbort };

class ApiJ1939Failure : public ApiJ1939 {};

TEST_P(ApiJ1939Failure, EndsUnreportedAndTheNextTransferStarts) {
    for (Script script :
         {Script::NoCts, Script::GrantFromTheMiddle, Script::WrongAcks, Script::PeerAbort}) {
        SCOPED_TRACE(int(script));
        const std::vector<uint8_t> payload = StartLong(kJ9Id, 9);
        const uint32_t pgn = Pgn(kJ9Id);
        std::vector<uint8_t> wire;
        if (script == Script::GrantFromTheMiddle) {
            Grant(1, 2, wire);  // packet 2 only, and then no further CTS
            EXPECT_TRUE(std::equal(payload.begin() + 7, payload.end(), wire.begin()));
        } else if (script == Script::WrongAcks) {
            Grant(2, 1, wire);
            Frame acks[] = {Ack(10, 2), Ack(9, 3), Ack(9, 2, 0x100), Ack(9, 2)};
            acks[3].id += 1;  // from another node
            for (const Frame& ack : acks) Deliver(ack);
        } else if (script == Script::PeerAbort) {
            Deliver(Cm(kDst, kSrc, {0xFF}, pgn + 0x100));  // another group's: the transfer goes on
            Grant(2, 1, wire);
            Deliver(Cm(kDst, kSrc, {0xFF}, pgn));
        }
        const auto start = Clock::now();
        Frame f;
        if (script == Script::PeerAbort) {
            EXPECT_FALSE(Next(f, 1600)) << "no Abort of our own";
        } else {
            ASSERT_TRUE(Next(f, 6000));
            EXPECT_GE(Clock::now() - start, milliseconds(1100));
            EXPECT_EQ(Bytes(f), Bytes(Cm(kSrc, kDst, {0xFF}, pgn)));
        }
        EXPECT_TRUE(bus.doneA.empty());
    }
    StartLong(kJ100Id, 4);
}

INSTANTIATE_TEST_SUITE_P(SocketCan, ApiJ1939Failure,
                         ::testing::Values(uint32_t{TARN_FRAME_SOCKETCAN}));

// A peer that never answers holds the first message for 1250 ms; meanwhile
// at most 1,024 more wait, and every send beyond that is refused and logged.
TEST(ApiJ1939Queue, HoldsAtMost1024WaitingMessages) {
    TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    const TempDbc dbc(J1939Dbc()), log("");
    TARN_SetLogFile(true, log.path().c_str());
    const uint32_t h = TARN_Init(false, false);
    ASSERT_TRUE(LoadPath(h, dbc.path()));
    TARN_SetSender(
        h, [](void*, void*) { return true; }, nullptr);
    auto msg = NewMessage();
    ASSERT_TRUE(TARN_GetMessageById(h, kJ9Id, msg.get()));
    std::vector<uint32_t> results;
    for (int i = 0; i < 1100; ++i) results.push_back(TARN_Send(h, msg.get(), 0));
    TARN_Release(h);
    TARN_SetLogFile(false, nullptr);

    const auto queued = std::count(results.begin(), results.end(), TARN_SEND_QUEUED);
    EXPECT_GE(queued, 1024) << "the send thread takes at most one off in the meantime";
    EXPECT_LE(queued, 1025);
    const auto refused = results.size() - queued;
    EXPECT_EQ(std::count(results.begin() + queued, results.end(), TARN_SEND_REFUSED), refused);
    std::ifstream in(log.path());
    size_t lines = 0;
    for (std::string line; std::getline(in, line);) lines += line.find("refused") != line.npos;
    EXPECT_EQ(lines, size_t(refused));
}

}  // namespace
