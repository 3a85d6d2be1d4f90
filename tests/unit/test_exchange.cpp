// The send side of the J1939 transport against a scripted peer: the sender
// callback hands every frame to the test thread, which answers with CTS,
// EndOfMsgAck or Abort through OnReceive as a node on the bus would. The
// end-to-end exchange through the C interface is tested in tests/api/; here
// are the frames on the wire and the answers the interface cannot script.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "j1939/exchange.h"
#include "analyser_test_util.h"
#include "support/ref_packer.h"
#include "legacy/tarn_frame.h"

namespace {

using Clock = std::chrono::steady_clock;

// Each message is a run of 64-bit little-endian signals, so any payload can
// be expressed as raw values and checked byte for byte on the wire.
std::string MessageText(const char* name, uint32_t dbcId, size_t size) {
    std::string out =
        "BO_ " + std::to_string(dbcId) + " " + name + ": " + std::to_string(size) + " Node\n";
    for (size_t bit = 0; bit < size * 8; bit += 64) {
        out += " SG_ S" + std::to_string(bit) + " : " + std::to_string(bit) + "|" +
               std::to_string(std::min<size_t>(64, size * 8 - bit)) + "@1+ (1,0) [0|0] \"\" Node\n";
    }
    return out + "\n";
}

std::vector<uint8_t> RandomBytes(size_t n, uint64_t seed) {
    refpack::Rng rng(seed);
    std::vector<uint8_t> out(n);
    for (auto& b : out) b = uint8_t(rng.Next());
    return out;
}

// The scripted peer's view of the bus: every frame the exchange sends, in
// order, and every transfer it reports as done.
struct Bus : IOnMultiTransDoneListener {
    struct Report {
        uint32_t id;
        size_t frames;
        std::vector<uint8_t> payload;
        uint8_t value;
    };
    static bool Sender(void* ctx, void* frame) {
        auto* self = static_cast<Bus*>(ctx);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->sent.push_back(*static_cast<VCI_CAN_OBJ*>(frame));
        self->cv.notify_all();
        return true;
    }
    void OnTransDone(uint32_t id, std::vector<VCI_CAN_OBJ>& frames, uint8_t* data, uint16_t length,
                     uint8_t value) override {
        std::lock_guard<std::mutex> lock(mutex);
        reports.push_back({id, frames.size(), std::vector<uint8_t>(data, data + length), value});
        cv.notify_all();
    }
    // The next unread frame, or false after `ms` without one.
    bool Next(VCI_CAN_OBJ& out, int ms = 3000) {
        std::unique_lock<std::mutex> lock(mutex);
        const bool ready =
            cv.wait_for(lock, std::chrono::milliseconds(ms), [&] { return read < sent.size(); });
        if (ready) out = sent[read++];
        return ready;
    }
    // The transfers reported so far, after waiting up to `ms` for the first.
    std::vector<Report> Reports(int ms) {
        std::unique_lock<std::mutex> lock(mutex);
        cv.wait_for(lock, std::chrono::milliseconds(ms), [&] { return !reports.empty(); });
        return reports;
    }

    std::mutex mutex;
    std::condition_variable cv;
    std::vector<VCI_CAN_OBJ> sent;
    size_t read = 0;
    std::vector<Report> reports;
};

// TP.CM frame: the leading bytes, 0xFF up to byte 4, then the PGN.
VCI_CAN_OBJ Cm(uint8_t from, uint8_t to, std::vector<uint8_t> bytes, uint32_t pgn) {
    VCI_CAN_OBJ f{};
    f.id = 0x1CEC0000u | (to << 8) | from;
    f.externFlag = 1;
    f.dataLen = 8;
    bytes.resize(5, 0xFF);
    bytes.insert(bytes.end(), {uint8_t(pgn), uint8_t(pgn >> 8), uint8_t(pgn >> 16)});
    std::copy(bytes.begin(), bytes.end(), f.data);
    return f;
}

// Identifier, extended flag, length and the first `n` data bytes of a frame.
std::vector<uint32_t> Wire(const VCI_CAN_OBJ& f, size_t n = 8) {
    std::vector<uint32_t> out{f.id, f.externFlag, f.dataLen};
    out.insert(out.end(), f.data, f.data + n);
    return out;
}

struct Target {
    const char* name;
    uint32_t id;  // as reported on completion
    size_t size;
    uint8_t src, dst;
    uint32_t pgn;
};
const Target kLong9{"Long9", 0x1CEF3320, 9, 0x20, 0x33, 0xEF00};
const Target kLong100{"Long100", 0x18FEF100, 100, 0x00, 0xF1, 0xFEF1};
const Target kLong1785{"Long1785", 0x18EF2A10, 1785, 0x10, 0x2A, 0xEF00};

class ExchangeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string text = atest::kJ1939Header;
        for (const Target* t : {&kLong9, &kLong100, &kLong1785}) {
            text += MessageText(t->name, t->id | 0x80000000u, t->size);
        }
        if (!atest::LoadText(analyser,
                             text + MessageText("Std4", 0x123, 4) + atest::kJ1939Footer)) {
            GTEST_SKIP() << "the J1939 test database did not load";
        }
        libdbc::Env::Instance().SetFrameType(1);
        ex.SetSender(&Bus::Sender, &bus);
        ex.SetListener(&bus);
    }
    void TearDown() override {
        ex.Stop();
        libdbc::Env::Instance().SetFrameType(0);
    }

    // The message record with its raw values set from `payload`.
    std::unique_ptr<DBCMessage> Message(const char* name, const std::vector<uint8_t>& payload) {
        auto msg = atest::NewMessage();
        bool found = analyser.GetFirstMessage(msg.get());
        while (found && std::strcmp(msg->name, name) != 0)
            found = analyser.GetNextMessage(msg.get());
        for (uint32_t i = 0; found && i < msg->signalCount; ++i) {
            DBCSignal& s = msg->signals[i];
            s.rawValue = refpack::Extract(payload.data(), s.startBit, s.length, false);
        }
        return found ? std::move(msg) : nullptr;
    }
    static uint8_t Count(const Target& t) { return uint8_t((t.size + 6) / 7); }

    // Queues the message and checks the RTS that announces it.
    std::vector<uint8_t> StartLong(const Target& t, unsigned seed) {
        std::vector<uint8_t> payload = RandomBytes(t.size, seed);
        EXPECT_EQ(ex.Send(Message(t.name, payload).get()), 2u);
        VCI_CAN_OBJ rts{};
        EXPECT_TRUE(bus.Next(rts));
        const uint8_t size[] = {uint8_t(t.size), uint8_t(t.size >> 8)};
        EXPECT_EQ(Wire(rts), Wire(Cm(t.src, t.dst, {0x10, size[0], size[1], Count(t)}, t.pgn)));
        return payload;
    }
    // Grants `n` packets from `next` and collects the data bytes they carry.
    void Grant(const Target& t, uint8_t n, uint8_t next, std::vector<uint8_t>& wire) {
        VCI_CAN_OBJ cts = Cm(t.dst, t.src, {0x11, n, next}, t.pgn);
        ex.OnReceive(&cts);
        for (uint32_t seq = next; seq < next + n; ++seq) {
            VCI_CAN_OBJ dt;
            ASSERT_TRUE(bus.Next(dt)) << "packet " << seq;
            const std::vector<uint32_t> head{0x1CEB0000u | (t.dst << 8) | t.src, 1, 8, seq};
            ASSERT_EQ(Wire(dt, 1), head);
            wire.insert(wire.end(), dt.data + 1, dt.data + 8);
        }
    }
    VCI_CAN_OBJ Ack(const Target& t, size_t size, uint8_t count, uint32_t pgnDelta = 0) {
        return Cm(t.dst, t.src, {0x13, uint8_t(size), uint8_t(size >> 8), count}, t.pgn + pgnDelta);
    }

    CAnalyser analyser;
    Bus bus;
    CExchange ex{&analyser, false};
};

struct GrantCase {
    const Target* target;
    uint8_t step;    // packets per CTS
    bool holdFirst;  // a CTS granting 0 packets comes first
};

class GrantTest : public ExchangeTest, public ::testing::WithParamInterface<GrantCase> {};

// Every grant moves the send thread back to sending, so the acknowledgement
// after the last of several grants still completes the transfer.
TEST_P(GrantTest, PayloadGoesOutInOrderAndCompletes) {
    const GrantCase c = GetParam();
    const Target& t = *c.target;
    const std::vector<uint8_t> payload = StartLong(t, unsigned(t.size) + c.step);
    const uint8_t count = Count(t);
    std::vector<uint8_t> wire;
    VCI_CAN_OBJ f;
    if (c.holdFirst) {
        Grant(t, 0, 1, wire);
        EXPECT_FALSE(bus.Next(f, 300)) << "a hold must not release packets";
    }
    for (unsigned next = 1; next <= count && !HasFatalFailure(); next += c.step) {
        Grant(t, uint8_t(std::min<unsigned>(c.step, count - next + 1)), uint8_t(next), wire);
    }
    ASSERT_EQ(wire.size(), size_t(count) * 7);
    std::vector<uint8_t> padded(payload);
    padded.resize(wire.size(), 0xFF);
    EXPECT_EQ(wire, padded);
    VCI_CAN_OBJ ack = Ack(t, t.size, count);
    ex.OnReceive(&ack);
    const std::vector<Bus::Report> reports = bus.Reports(3000);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].id, t.id);
    EXPECT_EQ(reports[0].frames, size_t(count));
    EXPECT_EQ(reports[0].payload, payload);
    EXPECT_EQ(reports[0].value, 0);
    // Nothing follows an acknowledged transfer, and the next one starts cleanly.
    EXPECT_FALSE(bus.Next(f, 100));
    StartLong(kLong9, 1);
}

INSTANTIATE_TEST_SUITE_P(Grants, GrantTest,
                         ::testing::Values(GrantCase{&kLong1785, 255, false},
                                           GrantCase{&kLong100, 2, false},
                                           GrantCase{&kLong9, 255, true},
                                           GrantCase{&kLong1785, 16, true}),
                         ([](const ::testing::TestParamInfo<GrantCase>& info) {
                             return std::string(info.param.target->name) + "By" +
                                    std::to_string(info.param.step) +
                                    (info.param.holdFirst ? "AfterHold" : "");
                         }));

// A transfer the peer leaves hanging ends in our own Abort after the CTS wait
// of about 1250 ms; one the peer aborts ends quietly. Neither is reported,
// and the send thread carries on with the next message.
enum class Script { NoCts, GrantFromTheMiddle, WrongAcks, PeerAbort };

class FailureTest : public ExchangeTest, public ::testing::WithParamInterface<Script> {};

TEST_P(FailureTest, EndsUnreportedAndTheNextTransferStarts) {
    const Target& t = kLong9;
    const std::vector<uint8_t> payload = StartLong(t, 9);
    std::vector<uint8_t> wire;
    if (GetParam() == Script::GrantFromTheMiddle) {
        Grant(t, 1, 2, wire);  // packet 2 only, and then no further CTS
        EXPECT_TRUE(std::equal(payload.begin() + 7, payload.end(), wire.begin()));
    } else if (GetParam() == Script::WrongAcks) {
        Grant(t, 2, 1, wire);
        VCI_CAN_OBJ acks[] = {Ack(t, 10, 2), Ack(t, 9, 3), Ack(t, 9, 2, 0x100), Ack(t, 9, 2)};
        acks[3].id += 1;  // from another node
        for (const VCI_CAN_OBJ& ack : acks) ex.OnReceive(&ack);
    } else if (GetParam() == Script::PeerAbort) {
        VCI_CAN_OBJ abort = Cm(t.dst, t.src, {0xFF}, t.pgn + 0x100);
        ex.OnReceive(&abort);  // another PGN's: the transfer goes on
        Grant(t, 2, 1, wire);
        abort = Cm(t.dst, t.src, {0xFF}, t.pgn);
        ex.OnReceive(&abort);
    }
    const auto start = Clock::now();
    VCI_CAN_OBJ f;
    if (GetParam() == Script::PeerAbort) {
        EXPECT_FALSE(bus.Next(f, 1600)) << "no Abort of our own";
    } else {
        ASSERT_TRUE(bus.Next(f, 6000));
        EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(1100));
        EXPECT_EQ(Wire(f), Wire(Cm(t.src, t.dst, {0xFF}, t.pgn)));
    }
    EXPECT_TRUE(bus.Reports(0).empty());
    StartLong(kLong100, 4);
}

INSTANTIATE_TEST_SUITE_P(Failures, FailureTest,
                         ::testing::Values(Script::NoCts, Script::GrantFromTheMiddle,
                                           Script::WrongAcks, Script::PeerAbort),
                         ([](const ::testing::TestParamInfo<Script>& info) {
                             static const char* const names[] = {"NoCts", "GrantFromTheMiddle",
                                                                 "WrongAcks", "PeerAbort"};
                             return std::string(names[int(info.param)]);
                         }));

TEST_F(ExchangeTest, StopEndsTheTransferWithoutAnotherFrame) {
    StartLong(kLong100, 6);
    const auto start = Clock::now();
    ex.Stop();
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(1000)) << "the CTS wait is cut short";
    VCI_CAN_OBJ f;
    EXPECT_FALSE(bus.Next(f, 200));
    EXPECT_EQ(ex.Send(Message("Long9", RandomBytes(9, 1)).get()), 1u) << "nobody would send it";
}

// A short message leaves before Send returns, a standard one as well; with
// multi-packet sending disabled a long one is refused (3) and nothing is sent.
TEST_F(ExchangeTest, ShortMessagesAtOnceLongOnesRefusedWhenDisabled) {
    const std::vector<uint8_t> p = RandomBytes(4, 4);
    ASSERT_EQ(ex.Send(Message("Std4", p).get()), 0u);
    VCI_CAN_OBJ f{};
    ASSERT_TRUE(bus.Next(f, 0)) << "sent before Send returns";
    EXPECT_EQ(Wire(f, 4), (std::vector<uint32_t>{0x123, 0, 4, p[0], p[1], p[2], p[3]}));
    CExchange single(&analyser, true);
    single.SetSender(&Bus::Sender, &bus);
    EXPECT_EQ(single.Send(Message("Long9", RandomBytes(9, 1)).get()), 3u);
    EXPECT_FALSE(bus.Next(f, 100));
    DBCMessage unknown{};
    unknown.size = 4;
    EXPECT_EQ(ex.Send(&unknown), 1u) << "not in the database";
    EXPECT_EQ(ex.Send(nullptr), 1u);
}

}  // namespace
