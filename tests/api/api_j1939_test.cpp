// J1939 transport end to end on a simulated bus: instance A sends long
// messages with TARN_Send, a scripted peer answers with clear-to-send grants
// and acknowledgements, and instance B watches every frame with TARN_Analyse
// and reports each transfer it reassembles.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "api_support.h"
#include "api_test_dbc.h"
#include "tarn.h"

using namespace apitest;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

constexpr uint8_t kSenderAddr = 0xFE;
constexpr uint8_t kPeerAddr = 0x20;
constexpr uint8_t kRts = 0x10, kCts = 0x11, kAck = 0x13, kAbort = 0xFF;

uint8_t PduFormat(const Frame& f) {
    return static_cast<uint8_t>(f.id >> 16);
}
uint8_t Dest(const Frame& f) {
    return static_cast<uint8_t>(f.id >> 8);
}
bool IsTpCm(const Frame& f) {
    return PduFormat(f) == 0xEC;
}
bool IsTpDt(const Frame& f) {
    return PduFormat(f) == 0xEB;
}

// Connection management frame from the peer to the sender.
Frame PeerCm(const uint8_t (&data)[8]) {
    Frame f;
    f.id = 0x1CEC0000u | (uint32_t{kSenderAddr} << 8) | kPeerAddr;
    f.extended = true;
    f.len = 8;
    std::memcpy(f.data, data, 8);
    return f;
}

enum class Script {
    AllAtOnce,   // one CTS for every packet
    TwoAtATime,  // a CTS for each pair of packets
    HoldFirst,   // a CTS granting 0 packets, then after a pause a real grant
    Silent,      // never answers
    AbortRts,    // answers the RTS with an Abort
};

// The receiving node: answers an RTS addressed to it as its script says and
// acknowledges once every packet arrived.
class Peer {
  public:
    struct Reply {
        Frame frame;
        milliseconds delay;
    };

    void SetScript(Script s) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_script = s;
    }

    std::vector<Reply> OnFrame(const Frame& f) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (Dest(f) != kPeerAddr) return {};
        if (IsTpCm(f) && f.data[0] == kRts) return OnRts(f);
        if (IsTpDt(f)) return OnData(f);
        return {};
    }

  private:
    std::vector<Reply> OnRts(const Frame& f) {
        m_size = f.data[1] | (f.data[2] << 8);
        m_packets = f.data[3];
        std::memcpy(m_pgn, f.data + 5, 3);
        m_received.assign(m_packets, false);
        m_next = 1;
        switch (m_script) {
            case Script::Silent:
                return {};
            case Script::AbortRts:
                return {{Cm({kAbort, 0xFF, 0xFF, 0xFF, 0xFF}), kFirstDelay}};
            case Script::HoldFirst:
                return {{Cts(0, 1), kFirstDelay}, {Cts(m_packets, 1), milliseconds(300)}};
            case Script::TwoAtATime:
                return {{Cts(Grant(), 1), kFirstDelay}};
            case Script::AllAtOnce:
                break;
        }
        return {{Cts(m_packets, 1), kFirstDelay}};
    }

    std::vector<Reply> OnData(const Frame& f) {
        const uint8_t seq = f.data[0];
        if (seq == 0 || seq > m_packets) return {};
        m_received[seq - 1] = true;
        if (seq == m_packets) {
            return {
                {Cm({kAck, uint8_t(m_size), uint8_t(m_size >> 8), m_packets, 0xFF}), kReplyDelay}};
        }
        if (m_script == Script::TwoAtATime && seq % 2 == 0) {
            m_next = static_cast<uint8_t>(seq + 1);
            return {{Cts(Grant(), m_next), kReplyDelay}};
        }
        return {};
    }

    uint8_t Grant() const { return static_cast<uint8_t>(std::min(2, m_packets - m_next + 1)); }
    Frame Cts(uint8_t count, uint8_t next) { return Cm({kCts, count, next, 0xFF, 0xFF}); }
    Frame Cm(std::initializer_list<uint8_t> head) {
        uint8_t data[8] = {};
        std::copy(head.begin(), head.end(), data);
        std::memcpy(data + 5, m_pgn, 3);
        return PeerCm(data);
    }

    // A real node needs a moment to answer; answering within microseconds
    // would only test how fast threads can be scheduled.
    static constexpr milliseconds kFirstDelay{5};
    static constexpr milliseconds kReplyDelay{2};

    std::mutex m_mutex;
    Script m_script = Script::AllAtOnce;
    uint16_t m_size = 0;
    uint8_t m_packets = 0;
    uint8_t m_next = 1;
    uint8_t m_pgn[3] = {};
    std::vector<bool> m_received;
};

struct Completed {
    std::string name;
    std::vector<uint8_t> payload;
    uint8_t value = 0;
    std::vector<uint64_t> raw;
};

// The bus: A's sender puts frames on it; one thread delivers every frame to
// B's TARN_Analyse, A's frames to the peer and the peer's answers to A's
// TARN_OnReceive.
class Bus {
  public:
    Bus(uint32_t layout, uint32_t a, uint32_t b) : m_layout(layout), m_a(a), m_b(b) {
        m_thread = std::thread([this] { Run(); });
    }
    ~Bus() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_cv.notify_all();
        m_thread.join();
    }

    static bool SendFromA(void* ctx, void* frame) {
        auto* bus = static_cast<Bus*>(ctx);
        bus->Put(FromWire(frame, bus->m_layout), true);
        return true;
    }
    static void DoneA(void* ctx, DBCMessage* msg, uint8_t* data, uint16_t len, uint8_t value) {
        static_cast<Bus*>(ctx)->Record(true, msg, data, len, value);
    }
    static void DoneB(void* ctx, DBCMessage* msg, uint8_t* data, uint16_t len, uint8_t value) {
        static_cast<Bus*>(ctx)->Record(false, msg, data, len, value);
    }

    Peer& peer() { return m_peer; }

    // Waits until A and B each reported `count` transfers, or the time runs out.
    bool WaitCompleted(size_t count, milliseconds timeout) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, timeout,
                             [&] { return m_doneA.size() >= count && m_doneB.size() >= count; });
    }
    // Waits until A put a frame satisfying `pred` on the bus.
    template <class Pred>
    bool WaitFromA(Pred pred, milliseconds timeout) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, timeout, [&] {
            for (const auto& f : m_fromA) {
                if (pred(f.first)) return true;
            }
            return false;
        });
    }
    std::vector<std::pair<Frame, Clock::time_point>> FromA() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_fromA;
    }
    // What A sent and who reported what, for failure messages.
    std::string Describe() {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::string text = "A reported " + std::to_string(m_doneA.size()) + ", B reported " +
                           std::to_string(m_doneB.size()) + "; A sent:";
        char buf[40];
        for (const auto& f : m_fromA) {
            std::snprintf(buf, sizeof(buf), " %08X:%02X%02X%02X%02X", f.first.id, f.first.data[0],
                          f.first.data[1], f.first.data[2], f.first.data[3]);
            text += buf;
        }
        return text;
    }
    std::vector<Completed> DoneA() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_doneA;
    }
    std::vector<Completed> DoneB() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_doneB;
    }

  private:
    struct Item {
        Frame frame;
        bool fromA;
        milliseconds delay;
    };

    void Put(const Frame& f, bool fromA, milliseconds delay = milliseconds(0)) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_items.push_back({f, fromA, delay});
            if (fromA) m_fromA.emplace_back(f, Clock::now());
        }
        m_cv.notify_all();
    }

    void Record(bool a, DBCMessage* msg, uint8_t* data, uint16_t len, uint8_t value) {
        Completed c;
        c.name = msg->name;
        c.payload.assign(data, data + len);
        c.value = value;
        for (uint32_t i = 0; i < msg->signalCount; ++i) c.raw.push_back(msg->signals[i].rawValue);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            (a ? m_doneA : m_doneB).push_back(std::move(c));
        }
        m_cv.notify_all();
    }

    void Run() {
        auto seen = NewMessage();
        for (;;) {
            Item item;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_cv.wait(lock, [&] { return m_stop || !m_items.empty(); });
                if (m_stop) return;
                item = m_items.front();
                m_items.pop_front();
            }
            std::this_thread::sleep_for(item.delay);
            const WireFrame w = ToWire(item.frame, m_layout);
            TARN_Analyse(m_b, w.bytes, 0, seen.get());
            if (!item.fromA) {
                TARN_OnReceive(m_a, w.bytes, 0);
                continue;
            }
            for (const Peer::Reply& r : m_peer.OnFrame(item.frame)) Put(r.frame, false, r.delay);
        }
    }

    const uint32_t m_layout;
    const uint32_t m_a, m_b;
    Peer m_peer;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::deque<Item> m_items;
    std::vector<std::pair<Frame, Clock::time_point>> m_fromA;
    std::vector<Completed> m_doneA, m_doneB;
    bool m_stop = false;
    std::thread m_thread;
};

// Fills every signal of the message with a random raw value and returns the
// payload those values make: the signals tile the payload little-endian.
std::vector<uint8_t> FillRandom(DBCMessage& msg, uint64_t seed) {
    Rng rng(seed);
    std::vector<uint8_t> payload(msg.size);
    for (uint32_t i = 0; i < msg.signalCount; ++i) {
        DBCSignal& s = msg.signals[i];
        s.rawValue = rng.Next() & Mask(s.length);
        PackBits(payload.data(), s.startBit, s.length, s.rawValue, false);
    }
    return payload;
}

class ApiJ1939 : public ::testing::TestWithParam<uint32_t> {
  protected:
    void SetUp() override {
        TARN_SetFrameType(GetParam());
        m_dbc = std::make_unique<TempDbc>(J1939Dbc());
        a = TARN_Init(false, false);
        b = TARN_Init(true, false);
        ASSERT_TRUE(LoadPath(a, m_dbc->path()));
        ASSERT_TRUE(LoadPath(b, m_dbc->path()));
        ASSERT_EQ(TARN_GetProtocol(a), 0u);
        bus = std::make_unique<Bus>(GetParam(), a, b);
        TARN_SetSender(a, &Bus::SendFromA, bus.get());
        TARN_SetOnMultiTransDoneFunc(a, &Bus::DoneA, bus.get());
        TARN_SetOnMultiTransDoneFunc(b, &Bus::DoneB, bus.get());
    }
    void TearDown() override {
        // A's send thread must be gone before the bus it talks to.
        TARN_Release(a);
        bus.reset();
        TARN_Release(b);
        TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    }
    std::unique_ptr<DBCMessage> Message(uint32_t id) {
        auto msg = NewMessage();
        EXPECT_TRUE(TARN_GetMessageById(a, id, msg.get()));
        return msg;
    }

    std::unique_ptr<TempDbc> m_dbc;
    uint32_t a = 0, b = 0;
    std::unique_ptr<Bus> bus;
};

std::vector<uint64_t> RawValues(const DBCMessage& msg) {
    std::vector<uint64_t> raw;
    for (uint32_t i = 0; i < msg.signalCount; ++i) raw.push_back(msg.signals[i].rawValue);
    return raw;
}

// Each message size under each clear-to-send pattern: both ends report the
// exact payload, and B decodes the same signal values that A sent.
TEST_P(ApiJ1939, TransfersCompleteOnBothEnds) {
    const struct {
        uint32_t id;
        Script script;
    } cases[] = {
        {kJ9Id, Script::AllAtOnce},   {kJ100Id, Script::AllAtOnce},  {kJ1785Id, Script::AllAtOnce},
        {kJ9Id, Script::TwoAtATime},  {kJ100Id, Script::TwoAtATime}, {kJ1785Id, Script::TwoAtATime},
        {kJ100Id, Script::HoldFirst}, {kJ1785Id, Script::HoldFirst},
    };
    size_t done = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << std::hex << c.id << " script " << int(c.script));
        bus->peer().SetScript(c.script);
        auto msg = Message(c.id);
        const std::vector<uint8_t> payload = FillRandom(*msg, c.id + done);
        ASSERT_EQ(TARN_Send(a, msg.get(), 0), TARN_SEND_QUEUED);
        ++done;
        ASSERT_TRUE(bus->WaitCompleted(done, std::chrono::seconds(20))) << bus->Describe();
        const Completed gotA = bus->DoneA().back();
        const Completed gotB = bus->DoneB().back();
        EXPECT_EQ(gotA.name, msg->name);
        EXPECT_EQ(gotA.value, 0);
        EXPECT_EQ(gotA.payload, payload);
        EXPECT_EQ(gotB.name, msg->name);
        EXPECT_EQ(gotB.value, 1);
        EXPECT_EQ(gotB.payload, payload);
        EXPECT_EQ(gotB.raw, RawValues(*msg));
    }
    // The packets went out addressed from A to the peer, and A never aborted.
    for (const auto& f : bus->FromA()) {
        EXPECT_TRUE(f.first.extended);
        EXPECT_EQ(f.first.id & 0xFFFF, (uint32_t{kPeerAddr} << 8) | kSenderAddr);
        if (IsTpCm(f.first)) {
            EXPECT_NE(f.first.data[0], kAbort);
        }
    }
}

TEST_P(ApiJ1939, GrantCoversOnlyThePacketsItNames) {
    bus->peer().SetScript(Script::TwoAtATime);
    auto msg = Message(kJ100Id);
    FillRandom(*msg, 5);
    ASSERT_EQ(TARN_Send(a, msg.get(), 0), TARN_SEND_QUEUED);
    ASSERT_TRUE(bus->WaitCompleted(1, std::chrono::seconds(20))) << bus->Describe();
    std::vector<int> order;
    for (const auto& f : bus->FromA()) {
        if (IsTpDt(f.first)) order.push_back(f.first.data[0]);
    }
    std::vector<int> expected(15);
    for (int i = 0; i < 15; ++i) expected[i] = i + 1;
    EXPECT_EQ(order, expected);  // each packet exactly once, in order
}

TEST_P(ApiJ1939, SilentPeerGetsAnAbortAfterTheWait) {
    bus->peer().SetScript(Script::Silent);
    auto msg = Message(kJ9Id);
    FillRandom(*msg, 1);
    ASSERT_EQ(TARN_Send(a, msg.get(), 0), TARN_SEND_QUEUED);
    auto isAbort = [](const Frame& f) { return IsTpCm(f) && f.data[0] == kAbort; };
    ASSERT_TRUE(bus->WaitFromA(isAbort, std::chrono::seconds(10)));
    const auto frames = bus->FromA();
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].first.data[0], kRts);
    EXPECT_EQ(frames[0].first.data[1], 9);
    EXPECT_EQ(frames[0].first.data[3], 2);
    // The abort names the group of the refused transfer.
    EXPECT_EQ(std::memcmp(frames[1].first.data + 5, frames[0].first.data + 5, 3), 0);
    const auto waited = frames[1].second - frames[0].second;
    EXPECT_GE(waited, milliseconds(1200));
    EXPECT_LT(waited, milliseconds(5000));
    EXPECT_TRUE(bus->DoneA().empty());
    EXPECT_TRUE(bus->DoneB().empty());
}

TEST_P(ApiJ1939, PeerAbortEndsTheSendQuietly) {
    bus->peer().SetScript(Script::AbortRts);
    auto first = Message(kJ100Id);
    FillRandom(*first, 2);
    ASSERT_EQ(TARN_Send(a, first.get(), 0), TARN_SEND_QUEUED);
    // Let the first RTS meet the abort before the peer changes its script.
    std::this_thread::sleep_for(milliseconds(100));
    bus->peer().SetScript(Script::AllAtOnce);
    auto second = Message(kJ9Id);
    const std::vector<uint8_t> payload = FillRandom(*second, 3);
    ASSERT_EQ(TARN_Send(a, second.get(), 0), TARN_SEND_QUEUED);
    ASSERT_TRUE(bus->WaitCompleted(1, std::chrono::seconds(20))) << bus->Describe();
    EXPECT_EQ(bus->DoneA().size(), 1u);
    EXPECT_EQ(bus->DoneA().back().payload, payload);
    int rts = 0;
    for (const auto& f : bus->FromA()) {
        if (IsTpCm(f.first)) {
            EXPECT_NE(f.first.data[0], kAbort);
        }
        if (IsTpCm(f.first) && f.first.data[0] == kRts) ++rts;
        if (IsTpDt(f.first)) {
            EXPECT_LE(f.first.data[0], 2);  // only the second message's packets
        }
    }
    EXPECT_EQ(rts, 2);
}

// Release stops the send thread mid-transfer: once it returns, the sender
// is not called again and nothing is reported.
TEST_P(ApiJ1939, ReleaseMidTransferSilencesTheInstance) {
    bus->peer().SetScript(Script::TwoAtATime);
    auto msg = Message(kJ1785Id);
    FillRandom(*msg, 8);
    ASSERT_EQ(TARN_Send(a, msg.get(), 0), TARN_SEND_QUEUED);
    auto tenthPacket = [](const Frame& f) { return IsTpDt(f) && f.data[0] == 10; };
    ASSERT_TRUE(bus->WaitFromA(tenthPacket, std::chrono::seconds(20))) << bus->Describe();
    TARN_Release(a);
    const size_t sent = bus->FromA().size();
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_EQ(bus->FromA().size(), sent);
    EXPECT_TRUE(bus->DoneA().empty());
    EXPECT_LT(sent, 255u);
}

TEST_P(ApiJ1939, ShortMessagesGoOutAsOneFrame) {
    auto msg = Message(kJShortId);
    const std::vector<uint8_t> payload = FillRandom(*msg, 9);
    ASSERT_EQ(TARN_Send(a, msg.get(), 0), TARN_SEND_OK);
    const auto frames = bus->FromA();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].first.id, kJShortId);
    EXPECT_TRUE(frames[0].first.extended);
    EXPECT_EQ(std::vector<uint8_t>(frames[0].first.data, frames[0].first.data + 8), payload);
    TARN_SetSender(a, nullptr, nullptr);
    EXPECT_EQ(TARN_Send(a, msg.get(), 0), TARN_SEND_FAILED);
}

INSTANTIATE_TEST_SUITE_P(BothLayouts, ApiJ1939,
                         ::testing::Values(uint32_t{TARN_FRAME_SOCKETCAN},
                                           uint32_t{TARN_FRAME_VCI}),
                         [](const ::testing::TestParamInfo<uint32_t>& info) {
                             return info.param == TARN_FRAME_VCI ? "Vci" : "SocketCan";
                         });

bool RefuseAll(void*, void*) {
    return false;
}

TEST(ApiJ1939Disabled, LongMessagesAreRefused) {
    TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    TempDbc dbc(J1939Dbc());
    const uint32_t h = TARN_Init(true, false);
    ASSERT_TRUE(LoadPath(h, dbc.path()));
    auto msg = NewMessage();
    ASSERT_TRUE(TARN_GetMessageById(h, kJ9Id, msg.get()));
    TARN_SetSender(h, &RefuseAll, nullptr);
    EXPECT_EQ(TARN_Send(h, msg.get(), 0), TARN_SEND_REFUSED);
    ASSERT_TRUE(TARN_GetMessageById(h, kJ1785Id, msg.get()));
    EXPECT_EQ(TARN_Send(h, msg.get(), 0), TARN_SEND_REFUSED);
    // Over 64 bytes, the FD request goes the transport way as well.
    EXPECT_EQ(TARN_Send(h, msg.get(), 1), TARN_SEND_REFUSED);
    ASSERT_TRUE(TARN_GetMessageById(h, kJShortId, msg.get()));
    EXPECT_EQ(TARN_Send(h, msg.get(), 0), TARN_SEND_FAILED);  // the sender refused
    TARN_Release(h);
}

// A CTS delivered as an FD frame is cut to its first 8 bytes; one shorter
// than 8 bytes is no CTS at all.
TEST(ApiJ1939Fd, OnReceiveCutsFdFramesToClassic) {
    TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    TempDbc dbc(J1939Dbc());
    const uint32_t h = TARN_Init(false, false);
    ASSERT_TRUE(LoadPath(h, dbc.path()));
    struct Capture {
        std::mutex mutex;
        std::vector<Frame> frames;
        std::condition_variable cv;
        static bool Send(void* ctx, void* frame) {
            auto* self = static_cast<Capture*>(ctx);
            std::lock_guard<std::mutex> lock(self->mutex);
            self->frames.push_back(FromWire(frame, TARN_FRAME_SOCKETCAN));
            self->cv.notify_all();
            return true;
        }
        bool WaitCount(size_t n) {
            std::unique_lock<std::mutex> lock(mutex);
            return cv.wait_for(lock, std::chrono::seconds(10), [&] { return frames.size() >= n; });
        }
    } cap;
    TARN_SetSender(h, &Capture::Send, &cap);
    auto msg = NewMessage();
    ASSERT_TRUE(TARN_GetMessageById(h, kJ9Id, msg.get()));
    ASSERT_EQ(TARN_Send(h, msg.get(), 0), TARN_SEND_QUEUED);
    ASSERT_TRUE(cap.WaitCount(1));
    const Frame rts = cap.frames[0];
    std::vector<uint8_t> cts = {kCts, 2, 1, 0xFF, 0xFF, rts.data[5], rts.data[6], rts.data[7]};
    const uint32_t ctsId =
        TARN_CAN_EFF_FLAG | 0x1CEC0000u | (uint32_t{kSenderAddr} << 8) | kPeerAddr;
    TarnCanFdFrame shortCts = MakeFd(ctsId, std::vector<uint8_t>(cts.begin(), cts.begin() + 7));
    TARN_OnReceive(h, &shortCts, 1);
    std::this_thread::sleep_for(milliseconds(100));
    {
        std::lock_guard<std::mutex> lock(cap.mutex);
        EXPECT_EQ(cap.frames.size(), 1u);  // nothing granted yet
    }
    std::vector<uint8_t> longCts = cts;
    longCts.resize(12, 0xAA);
    TarnCanFdFrame fdCts = MakeFd(ctsId, longCts);
    TARN_OnReceive(h, &fdCts, 1);
    ASSERT_TRUE(cap.WaitCount(3));
    EXPECT_EQ(cap.frames[1].data[0], 1);  // TP.DT packets 1 and 2
    EXPECT_EQ(cap.frames[2].data[0], 2);
    TARN_Release(h);
}

// ---- A recorded session -----------------------------------------------

// Frames of a candump log ("(time) iface ID#DATA").
std::vector<Frame> ReadCandump(const std::string& path) {
    std::vector<Frame> frames;
    std::ifstream in(path);
    std::string time, iface, body;
    while (in >> time >> iface >> body) {
        const size_t hash = body.find('#');
        if (hash == std::string::npos) continue;
        Frame f;
        f.id = static_cast<uint32_t>(std::stoul(body.substr(0, hash), nullptr, 16));
        f.extended = hash > 3;
        for (size_t p = hash + 1; f.len < 8 && p + 1 < body.size(); p += 2) {
            f.data[f.len++] = static_cast<uint8_t>(std::stoul(body.substr(p, 2), nullptr, 16));
        }
        frames.push_back(f);
    }
    return frames;
}

class ApiJ1939Log : public ::testing::TestWithParam<uint32_t> {};

struct Reported {
    std::string name;
    std::vector<uint8_t> payload;
    int calls = 0;
    uint8_t value = 0;
    static void Done(void* ctx, DBCMessage* msg, uint8_t* data, uint16_t len, uint8_t value) {
        auto* self = static_cast<Reported*>(ctx);
        self->name = msg->name;
        self->payload.assign(data, data + len);
        self->value = value;
        ++self->calls;
    }
};

// A logged RTS/CTS session of a 22-byte group, replayed into an instance
// holding a public J1939 database, is reported with the payload the logged
// data packets carry.
TEST_P(ApiJ1939Log, RecordedSessionIsReassembled) {
    const std::string dbc = CorpusFile("can-dbc__j1939.dbc");
    const std::string log = CorpusFile("logs/pretty_j1939__multipacket_cts.txt");
    if (dbc.empty() || log.empty()) GTEST_SKIP() << "corpus absent";
    TARN_SetFrameType(GetParam());
    const std::vector<Frame> frames = ReadCandump(log);
    ASSERT_EQ(frames.size(), 7u);
    std::vector<uint8_t> expected;
    for (const Frame& f : frames) {
        if (IsTpDt(f)) expected.insert(expected.end(), f.data + 1, f.data + 8);
    }
    expected.resize(frames[0].data[1]);  // the size the RTS announced

    const uint32_t h = TARN_Init(true, false);
    ASSERT_TRUE(LoadPath(h, dbc));
    Reported got;
    TARN_SetOnMultiTransDoneFunc(h, &Reported::Done, &got);
    auto out = NewMessage();
    for (const Frame& f : frames) {
        const WireFrame w = ToWire(f, GetParam());
        TARN_Analyse(h, w.bytes, 0, out.get());
    }
    EXPECT_EQ(got.calls, 1);
    EXPECT_EQ(got.value, 1);
    EXPECT_EQ(got.name, "VI");
    EXPECT_EQ(got.payload, expected);
    TARN_Release(h);
    TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
}

INSTANTIATE_TEST_SUITE_P(BothLayouts, ApiJ1939Log,
                         ::testing::Values(uint32_t{TARN_FRAME_SOCKETCAN},
                                           uint32_t{TARN_FRAME_VCI}),
                         [](const ::testing::TestParamInfo<uint32_t>& info) {
                             return info.param == TARN_FRAME_VCI ? "Vci" : "SocketCan";
                         });

}  // namespace
