// The send side of the J1939 transport against a scripted peer: the sender
// callback hands every frame to the test thread, which answers with CTS,
// EndOfMsgAck or Abort through OnReceive as a node on the bus would.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "Analyser.h"
#include "Exchange.h"
#include "tarn_frame.h"

namespace {

using Clock = std::chrono::steady_clock;

// Each message is a run of 64-bit little-endian signals, so any payload can
// be expressed as raw values and checked byte for byte on the wire.
std::string MessageText(const char* name, uint32_t dbcId, size_t size) {
    std::string out =
        "BO_ " + std::to_string(dbcId) + " " + name + ": " + std::to_string(size) + " ECU1\n";
    for (size_t bit = 0, i = 0; bit < size * 8; bit += 64, ++i) {
        size_t len = std::min<size_t>(64, size * 8 - bit);
        out += " SG_ S" + std::to_string(i) + " : " + std::to_string(bit) + "|" +
               std::to_string(len) + "@1+ (1,0) [0|0] \"\" ECU2\n";
    }
    return out + "\n";
}

class Database {
  public:
    Database() {
        char path[] = "/tmp/tarn_exchange_XXXXXX.dbc";
        int fd = mkstemps(path, 4);
        if (fd >= 0) close(fd);
        m_path = path;
        std::ofstream(m_path) << "VERSION \"\"\n\nNS_ :\n\nBS_:\n\nBU_: ECU1 ECU2\n\n"
                              << MessageText("Short8", 0x98FEF200, 8)
                              << MessageText("Std4", 0x123, 4)
                              << MessageText("Long9", 0x9CEF3320, 9)
                              << MessageText("Long100", 0x98FEF100, 100)
                              << MessageText("Long1785", 0x98EF2A10, 1785)
                              << "BA_DEF_  \"ProtocolType\" STRING ;\n"
                              << "BA_DEF_DEF_  \"ProtocolType\" \"\";\n"
                              << "BA_ \"ProtocolType\" \"J1939\";\n";
        FileInfo info{};
        std::strncpy(info.path, m_path.c_str(), sizeof info.path - 1);
        m_loaded = analyser.Load(&info);
    }
    ~Database() { unlink(m_path.c_str()); }
    bool Loaded() const { return m_loaded; }

    // The message record with its raw values set from `payload`.
    std::unique_ptr<DBCMessage> Message(const char* name, const std::vector<uint8_t>& payload) {
        auto msg = std::make_unique<DBCMessage>();
        bool found = analyser.GetFirstMessage(msg.get());
        while (found && std::strcmp(msg->name, name) != 0)
            found = analyser.GetNextMessage(msg.get());
        if (!found) return nullptr;
        for (uint32_t i = 0; i < msg->signalCount; ++i) {
            DBCSignal& s = msg->signals[i];
            s.rawValue = 0;
            for (uint32_t b = 0; b < s.length / 8; ++b) {
                s.rawValue |= uint64_t(payload[s.startBit / 8 + b]) << (8 * b);
            }
        }
        return msg;
    }

    CAnalyser analyser;

  private:
    std::string m_path;
    bool m_loaded = false;
};

// Frames the exchange sends, whatever the layout, as VCI records.
class Peer {
  public:
    static bool Sender(void* ctx, void* frame) {
        auto* self = static_cast<Peer*>(ctx);
        VCI_CAN_OBJ obj;
        TarnCanFrame raw{};
        if (libdbc::Env::Instance().GetFrameType() == 0) {
            raw = *static_cast<TarnCanFrame*>(frame);
            obj = CanFrameToVci(raw);
        } else {
            obj = *static_cast<VCI_CAN_OBJ*>(frame);
        }
        std::lock_guard<std::mutex> lock(self->m_mutex);
        self->m_frames.push_back(obj);
        self->m_raw.push_back(raw);
        self->m_cv.notify_all();
        return self->accept;
    }
    // The next unread frame, or false after `ms` without one.
    bool Next(VCI_CAN_OBJ& out, int ms = 3000) {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_cv.wait_for(lock, std::chrono::milliseconds(ms),
                           [this] { return m_read < m_frames.size(); })) {
            return false;
        }
        out = m_frames[m_read++];
        return true;
    }
    size_t Count() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_frames.size();
    }
    TarnCanFrame Raw(size_t i) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_raw.at(i);
    }
    bool accept = true;

  private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::vector<VCI_CAN_OBJ> m_frames;
    std::vector<TarnCanFrame> m_raw;  // SocketCAN frames as they arrived
    size_t m_read = 0;
};

struct Completion : IOnMultiTransDoneListener {
    void OnTransDone(uint32_t id_, std::vector<VCI_CAN_OBJ>& frames_, uint8_t* data,
                     uint16_t length, uint8_t value_) override {
        std::lock_guard<std::mutex> lock(mutex);
        id = id_;
        frames = frames_;
        payload.assign(data, data + length);
        value = value_;
        ++calls;
        cv.notify_all();
    }
    bool Wait(int ms = 3000) {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, std::chrono::milliseconds(ms), [this] { return calls > 0; });
    }
    std::mutex mutex;
    std::condition_variable cv;
    int calls = 0;
    uint32_t id = 0;
    uint8_t value = 0xAA;
    std::vector<VCI_CAN_OBJ> frames;
    std::vector<uint8_t> payload;
};

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

std::vector<uint8_t> RandomBytes(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::vector<uint8_t> out(n);
    for (auto& b : out) b = uint8_t(gen());
    return out;
}

struct Target {
    const char* name;
    size_t size;
    uint8_t src, dst;
    uint32_t pgn;
    uint32_t reportedId;
};
const Target kLong9{"Long9", 9, 0x20, 0x33, 0xEF00, 0x1CEF3320};
const Target kLong100{"Long100", 100, 0x00, 0xF1, 0xFEF1, 0x18FEF100};
const Target kLong1785{"Long1785", 1785, 0x10, 0x2A, 0xEF00, 0x18EF2A10};

class ExchangeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!db.Loaded()) GTEST_SKIP() << "the J1939 test database did not load";
        libdbc::Env::Instance().SetFrameType(1);
        ex.SetSender(&Peer::Sender, &peer);
        ex.SetListener(&done);
    }
    void TearDown() override {
        ex.Stop();
        libdbc::Env::Instance().SetFrameType(0);
    }

    // Queues the message and checks the RTS that announces it.
    std::vector<uint8_t> StartLong(const Target& t, unsigned seed) {
        std::vector<uint8_t> payload = RandomBytes(t.size, seed);
        auto msg = db.Message(t.name, payload);
        EXPECT_NE(msg, nullptr);
        if (!msg) return payload;
        EXPECT_EQ(ex.Send(msg.get()), 2u);
        VCI_CAN_OBJ rts;
        EXPECT_TRUE(peer.Next(rts));
        const uint8_t count = uint8_t((t.size + 6) / 7);
        EXPECT_EQ(rts.id, 0x1CEC0000u | (t.dst << 8) | t.src);
        std::vector<uint8_t> want{
            0x10, uint8_t(t.size), uint8_t(t.size >> 8), count,
            0xFF, uint8_t(t.pgn),  uint8_t(t.pgn >> 8),  uint8_t(t.pgn >> 16)};
        EXPECT_EQ(std::vector<uint8_t>(rts.data, rts.data + 8), want);
        EXPECT_EQ(rts.externFlag, 1);
        EXPECT_EQ(rts.dataLen, 8);
        return payload;
    }
    // Grants `n` packets from `next` and collects the data bytes they carry.
    void Grant(const Target& t, uint8_t n, uint8_t next, std::vector<uint8_t>& wire) {
        VCI_CAN_OBJ cts = Cm(t.dst, t.src, {0x11, n, next}, t.pgn);
        ex.OnReceive(&cts);
        for (uint8_t i = 0; i < n; ++i) {
            VCI_CAN_OBJ dt;
            ASSERT_TRUE(peer.Next(dt)) << "packet " << int(next + i);
            ASSERT_EQ(dt.id, 0x1CEB0000u | (t.dst << 8) | t.src);
            ASSERT_EQ(dt.data[0], next + i);
            ASSERT_EQ(dt.dataLen, 8);
            wire.insert(wire.end(), dt.data + 1, dt.data + 8);
        }
    }
    void Ack(const Target& t, size_t size, uint8_t count) {
        VCI_CAN_OBJ ack =
            Cm(t.dst, t.src, {0x13, uint8_t(size), uint8_t(size >> 8), count, 0}, t.pgn);
        ex.OnReceive(&ack);
    }
    void ExpectAbort(const Target& t, VCI_CAN_OBJ& f) {
        EXPECT_EQ(f.id, 0x1CEC0000u | (t.dst << 8) | t.src);
        std::vector<uint8_t> want{0xFF,
                                  0xFF,
                                  0xFF,
                                  0xFF,
                                  0xFF,
                                  uint8_t(t.pgn),
                                  uint8_t(t.pgn >> 8),
                                  uint8_t(t.pgn >> 16)};
        EXPECT_EQ(std::vector<uint8_t>(f.data, f.data + 8), want);
    }

    Database db;
    Peer peer;
    Completion done;
    CExchange ex{&db.analyser, false};
};

struct GrantCase {
    const Target* target;
    uint8_t step;    // packets per CTS
    bool holdFirst;  // a CTS granting 0 packets comes first
};

class GrantTest : public ExchangeTest, public ::testing::WithParamInterface<GrantCase> {};

TEST_P(GrantTest, PayloadGoesOutInOrderAndCompletes) {
    const GrantCase c = GetParam();
    const Target& t = *c.target;
    std::vector<uint8_t> payload = StartLong(t, unsigned(t.size) + c.step);
    const uint8_t count = uint8_t((t.size + 6) / 7);
    std::vector<uint8_t> wire;
    if (c.holdFirst) {
        Grant(t, 0, 1, wire);
        VCI_CAN_OBJ none;
        EXPECT_FALSE(peer.Next(none, 300)) << "a hold must not release packets";
    }
    for (unsigned next = 1; next <= count && !HasFatalFailure(); next += c.step) {
        Grant(t, uint8_t(std::min<unsigned>(c.step, count - next + 1)), uint8_t(next), wire);
    }
    ASSERT_EQ(wire.size(), size_t(count) * 7);
    EXPECT_TRUE(std::equal(payload.begin(), payload.end(), wire.begin()));
    EXPECT_TRUE(
        std::all_of(wire.begin() + t.size, wire.end(), [](uint8_t b) { return b == 0xFF; }));
    Ack(t, t.size, count);
    ASSERT_TRUE(done.Wait());
    EXPECT_EQ(done.id, t.reportedId);
    EXPECT_EQ(done.payload, payload);
    EXPECT_EQ(done.value, 0);
    EXPECT_EQ(done.frames.size(), size_t(count));
    // Nothing follows an acknowledged transfer, and the next one starts cleanly.
    VCI_CAN_OBJ extra;
    EXPECT_FALSE(peer.Next(extra, 100));
    StartLong(kLong9, 1);
}

INSTANTIATE_TEST_SUITE_P(
    Grants, GrantTest,
    ::testing::Values(GrantCase{&kLong9, 255, false}, GrantCase{&kLong100, 255, false},
                      GrantCase{&kLong100, 2, false}, GrantCase{&kLong100, 255, true},
                      GrantCase{&kLong1785, 255, false}, GrantCase{&kLong1785, 16, true}));

// A CTS asking for packets 3 and 4 gets exactly those.
TEST_F(ExchangeTest, GrantFromTheMiddle) {
    std::vector<uint8_t> payload = StartLong(kLong100, 5);
    std::vector<uint8_t> wire;
    Grant(kLong100, 2, 3, wire);
    EXPECT_TRUE(std::equal(wire.begin(), wire.end(), payload.begin() + 14));
    VCI_CAN_OBJ f;
    EXPECT_TRUE(peer.Next(f));  // no further CTS: the transfer is given up
    ExpectAbort(kLong100, f);
}

// Failures: what the peer does after the RTS, and when the Abort must come.
struct FailureCase {
    const char* what;
    int script;  // 0 silence, 1 wrong-size ack, 2 wrong-count ack
};

class FailureTest : public ExchangeTest, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(FailureTest, AbortsAfterTheCtsWait) {
    const Target& t = kLong9;
    StartLong(t, 9);
    std::vector<uint8_t> wire;
    if (GetParam().script > 0) {
        Grant(t, 2, 1, wire);
        Ack(t, GetParam().script == 1 ? 10 : 9, GetParam().script == 2 ? 3 : 2);
    }
    auto start = Clock::now();
    VCI_CAN_OBJ f;
    ASSERT_TRUE(peer.Next(f, 6000));
    auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    EXPECT_GE(waited.count(), 1100) << GetParam().what;
    ExpectAbort(t, f);
    EXPECT_EQ(done.calls, 0);
}

INSTANTIATE_TEST_SUITE_P(Failures, FailureTest,
                         ::testing::Values(FailureCase{"NoCts", 0}, FailureCase{"AckWrongSize", 1},
                                           FailureCase{"AckWrongCount", 2}),
                         [](const ::testing::TestParamInfo<FailureCase>& info) {
                             return std::string(info.param.what);
                         });

TEST_F(ExchangeTest, PeerAbortEndsQuietly) {
    StartLong(kLong100, 3);
    std::vector<uint8_t> wire;
    Grant(kLong100, 2, 1, wire);
    VCI_CAN_OBJ other = Cm(kLong100.dst, kLong100.src, {0xFF}, 0xFEF2);
    ex.OnReceive(&other);  // another PGN: not ours to end
    VCI_CAN_OBJ abort = Cm(kLong100.dst, kLong100.src, {0xFF}, kLong100.pgn);
    ex.OnReceive(&abort);
    VCI_CAN_OBJ f;
    EXPECT_FALSE(peer.Next(f, 1600)) << "no Abort of our own";
    EXPECT_EQ(done.calls, 0);
    StartLong(kLong9, 4);  // the send thread carries on with the next message
}

TEST_F(ExchangeTest, StopEndsTheTransferWithoutAnotherFrame) {
    StartLong(kLong100, 6);
    auto start = Clock::now();
    ex.Stop();
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(1000));
    VCI_CAN_OBJ f;
    EXPECT_FALSE(peer.Next(f, 200));
    EXPECT_EQ(ex.Send(db.Message("Long9", RandomBytes(9, 1)).get()), 1u) << "nobody would send it";
}

TEST_F(ExchangeTest, MultiSendDisabledRefusesLongMessages) {
    CExchange single(&db.analyser, true);
    single.SetSender(&Peer::Sender, &peer);
    EXPECT_EQ(single.Send(db.Message("Long9", RandomBytes(9, 1)).get()), 3u);
    EXPECT_EQ(single.Send(db.Message("Short8", RandomBytes(8, 1)).get()), 0u);
    EXPECT_EQ(peer.Count(), 1u);
}

// Short messages leave at once, as one frame in the selected layout.
TEST_F(ExchangeTest, ShortMessagesInBothLayouts) {
    struct Case {
        uint32_t frameType;
        const char* name;
        size_t size;
        uint32_t wantId;  // VCI id, or SocketCAN can_id with flags
    } cases[] = {{1, "Short8", 8, 0x18FEF200},
                 {1, "Std4", 4, 0x123},
                 {0, "Short8", 8, 0x98FEF200},
                 {0, "Std4", 4, 0x123}};
    for (const Case& c : cases) {
        libdbc::Env::Instance().SetFrameType(c.frameType);
        std::vector<uint8_t> payload = RandomBytes(c.size, c.frameType);
        size_t before = peer.Count();
        ASSERT_EQ(ex.Send(db.Message(c.name, payload).get()), 0u) << c.name;
        ASSERT_EQ(peer.Count(), before + 1) << "sent synchronously";
        VCI_CAN_OBJ f;
        ASSERT_TRUE(peer.Next(f, 0));
        TarnCanFrame raw = peer.Raw(before);
        EXPECT_EQ(c.frameType == 0 ? raw.can_id : f.id, c.wantId) << c.name;
        EXPECT_EQ(f.dataLen, c.size);
        EXPECT_TRUE(std::equal(payload.begin(), payload.end(), f.data));
    }
    peer.accept = false;
    EXPECT_EQ(ex.Send(db.Message("Short8", RandomBytes(8, 1)).get()), 1u) << "sender refused";
    ex.SetSender(nullptr, nullptr);
    EXPECT_EQ(ex.Send(db.Message("Short8", RandomBytes(8, 1)).get()), 1u) << "no sender";
    DBCMessage unknown{};
    unknown.size = 4;
    EXPECT_EQ(ex.Send(&unknown), 1u) << "not in the database";
    EXPECT_EQ(ex.Send(nullptr), 1u);
}

}  // namespace
