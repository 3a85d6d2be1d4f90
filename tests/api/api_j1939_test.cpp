// J1939 transport end to end on a simulated bus: instance A sends long
// messages with TARN_Send, a scripted peer answers with clear-to-send grants
// and acknowledgements, and instance B watches every frame with TARN_Analyse
// and reports each transfer it reassembles.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <fstream>
#include <mutex>
#include <thread>

#include "api_support.h"

using namespace apitest;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

constexpr uint8_t kSenderAddr = 0xFE, kPeerAddr = 0x20;
constexpr uint8_t kRts = 0x10, kCts = 0x11, kAck = 0x13, kAbort = 0xFF;

bool IsTpCm(const Frame& f, uint8_t control) {
    return ((f.id >> 16) & 0xFF) == 0xEC && f.data[0] == control;
}
bool IsTpDt(const Frame& f) {
    return ((f.id >> 16) & 0xFF) == 0xEB;
}

enum class Script {
    AllAtOnce,   // one CTS for every packet
    TwoAtATime,  // a CTS for each pair of packets
    HoldFirst,   // a CTS granting 0 packets, then after a pause a real grant
    Silent,      // never answers
    AbortRts,    // answers the RTS with an Abort
};

// The receiving node: answers an RTS addressed to it as its script says and
// acknowledges once the last packet arrived. A real node needs a moment to
// answer, so every reply carries a delay.
class Peer {
  public:
    struct Reply {
        Frame frame;
        milliseconds delay;
    };
    Script script = Script::AllAtOnce;  // guarded by the bus

    std::vector<Reply> OnFrame(const Frame& f) {
        if (((f.id >> 8) & 0xFF) != kPeerAddr) return {};
        const milliseconds first(5), next(2);
        if (IsTpCm(f, kRts)) {
            m_size = static_cast<uint16_t>(f.data[1] | f.data[2] << 8);
            m_packets = f.data[3];
            std::memcpy(m_pgn, f.data + 5, 3);
            switch (script) {
                case Script::Silent:
                    return {};
                case Script::AbortRts:
                    return {{Cm({kAbort, 0xFF, 0xFF, 0xFF, 0xFF}), first}};
                case Script::HoldFirst:
                    return {{Cts(0, 1), first}, {Cts(m_packets, 1), milliseconds(300)}};
                case Script::TwoAtATime:
                    return {{Cts(Grant(1), 1), first}};
                case Script::AllAtOnce:
                    return {{Cts(m_packets, 1), first}};
            }
        }
        if (!IsTpDt(f)) return {};
        const uint8_t seq = f.data[0];
        if (seq == m_packets) {
            return {{Cm({kAck, uint8_t(m_size), uint8_t(m_size >> 8), m_packets, 0xFF}), next}};
        }
        if (script == Script::TwoAtATime && seq % 2 == 0) {
            return {{Cts(Grant(seq + 1), static_cast<uint8_t>(seq + 1)), next}};
        }
        return {};
    }

  private:
    uint8_t Grant(int from) const {
        return static_cast<uint8_t>(std::min(2, m_packets - from + 1));
    }
    Frame Cts(uint8_t count, uint8_t next) { return Cm({kCts, count, next, 0xFF, 0xFF}); }
    Frame Cm(std::vector<uint8_t> data) {
        data.insert(data.end(), m_pgn, m_pgn + 3);
        return MakeFrame(0x1CEC0000u | (uint32_t{kSenderAddr} << 8) | kPeerAddr, true, data.data());
    }

    uint16_t m_size = 0;
    uint8_t m_packets = 0;
    uint8_t m_pgn[3] = {};
};

struct Completed {
    std::string name;
    std::vector<uint8_t> payload;
    uint8_t value;
    std::vector<uint64_t> raw;
};

// The bus: A's sender puts frames on it; one thread delivers every frame to
// B's TARN_Analyse, A's frames to the peer and the peer's answers to A's
// TARN_OnReceive (in the SocketCAN layout every other one as a 12-byte FD
// frame, which A must cut to its first 8 bytes).
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
        bus->Put(FromWire(frame, bus->m_layout), true, milliseconds(0));
        return true;
    }
    template <bool kA>
    static void Done(void* ctx, DBCMessage* msg, uint8_t* data, uint16_t len, uint8_t value) {
        auto* bus = static_cast<Bus*>(ctx);
        std::lock_guard<std::mutex> lock(bus->m_mutex);
        (kA ? bus->doneA : bus->doneB)
            .push_back({msg->name, std::vector<uint8_t>(data, data + len), value, RawValues(*msg)});
        bus->m_cv.notify_all();
    }

    void SetScript(Script s) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_peer.script = s;
    }
    // Waits until pred() holds under the bus lock, or the time runs out.
    template <class Pred>
    bool Wait(Pred pred, milliseconds timeout = milliseconds(20000)) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, timeout, [&] { return pred(*this); });
    }
    bool Sent(bool (*pred)(const Frame&)) const {
        return std::any_of(fromA.begin(), fromA.end(),
                           [&](const auto& f) { return pred(f.first); });
    }
    template <class T>
    T Get(T Bus::*member) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return this->*member;
    }

    std::vector<std::pair<Frame, Clock::time_point>> fromA;  // guarded by the bus lock
    std::vector<Completed> doneA, doneB;

  private:
    struct Item {
        Frame frame;
        bool fromA;
        milliseconds delay;
    };

    void Put(const Frame& f, bool isA, milliseconds delay) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_items.push_back({f, isA, delay});
        if (isA) fromA.emplace_back(f, Clock::now());
        m_cv.notify_all();
    }

    void Run() {
        auto seen = NewMessage();
        for (unsigned n = 0;; ++n) {
            Item item;
            std::vector<Peer::Reply> replies;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_cv.wait(lock, [&] { return m_stop || !m_items.empty(); });
                if (m_stop) return;
                item = m_items.front();
                m_items.pop_front();
                if (item.fromA) replies = m_peer.OnFrame(item.frame);
            }
            std::this_thread::sleep_for(item.delay);
            const WireFrame w = ToWire(item.frame, m_layout);
            TARN_Analyse(m_b, w.bytes, 0, seen.get());
            if (!item.fromA && m_layout == TARN_FRAME_SOCKETCAN && n % 2) {
                std::vector<uint8_t> data(item.frame.data, item.frame.data + 8);
                data.resize(12, 0xAA);
                const TarnCanFdFrame fd = MakeFd(item.frame.id | TARN_CAN_EFF_FLAG, data);
                TARN_OnReceive(m_a, &fd, 1);
            } else if (!item.fromA) {
                TARN_OnReceive(m_a, w.bytes, 0);
            }
            for (const Peer::Reply& r : replies) Put(r.frame, false, r.delay);
        }
    }

    const uint32_t m_layout, m_a, m_b;
    Peer m_peer;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::deque<Item> m_items;
    bool m_stop = false;
    std::thread m_thread;
};

class ApiJ1939 : public LayoutTest {
  protected:
    void SetUp() override {
        UseLayout();
        const TempDbc dbc(J1939Dbc());
        a = TARN_Init(false, false);
        b = TARN_Init(true, false);
        ASSERT_TRUE(LoadPath(a, dbc.path()));
        ASSERT_TRUE(LoadPath(b, dbc.path()));
        ASSERT_EQ(TARN_GetProtocol(a), 0u) << "the database declares J1939";
        bus = std::make_unique<Bus>(layout(), a, b);
        TARN_SetSender(a, &Bus::SendFromA, bus.get());
        TARN_SetOnMultiTransDoneFunc(a, &Bus::Done<true>, bus.get());
        TARN_SetOnMultiTransDoneFunc(b, &Bus::Done<false>, bus.get());
    }
    void TearDown() override {
        TARN_Release(a);  // A's send thread must be gone before the bus it talks to
        bus.reset();
        TARN_Release(b);
    }
    // Queues the message with random signal values and returns its payload.
    std::vector<uint8_t> Send(uint32_t id, uint64_t seed) {
        EXPECT_TRUE(TARN_GetMessageById(a, id, msg.get()));
        std::vector<uint8_t> payload = FillRandom(*msg, seed);
        EXPECT_EQ(TARN_Send(a, msg.get(), 0), TARN_SEND_QUEUED);
        return payload;
    }
    static auto BothReported(size_t n) {
        return [n](const Bus& bus) { return bus.doneA.size() >= n && bus.doneB.size() >= n; };
    }
    uint32_t a = 0, b = 0;
    std::unique_ptr<Bus> bus;
    std::unique_ptr<DBCMessage> msg = NewMessage();
};

// Each message size under each clear-to-send pattern: both ends report the
// exact payload, B decodes the signal values A sent, and A sends each packet
// exactly once, in order, from itself to the peer, never aborting.
TEST_P(ApiJ1939, TransfersCompleteOnBothEnds) {
    const struct {
        uint32_t id;
        Script script;
    } cases[] = {
        {kJ9Id, Script::AllAtOnce},   {kJ100Id, Script::AllAtOnce},  {kJ1785Id, Script::AllAtOnce},
        {kJ9Id, Script::TwoAtATime},  {kJ100Id, Script::TwoAtATime}, {kJ1785Id, Script::TwoAtATime},
        {kJ100Id, Script::HoldFirst}, {kJ1785Id, Script::HoldFirst},
    };
    for (size_t done = 0; done < std::size(cases); ++done) {
        const auto& c = cases[done];
        SCOPED_TRACE(::testing::Message() << std::hex << c.id << " script " << int(c.script));
        bus->SetScript(c.script);
        const size_t before = bus->Get(&Bus::fromA).size();
        const std::vector<uint8_t> payload = Send(c.id, c.id + done);
        ASSERT_TRUE(bus->Wait(BothReported(done + 1))) << "A and B report every transfer";
        const Completed gotA = bus->Get(&Bus::doneA).back();
        const Completed gotB = bus->Get(&Bus::doneB).back();
        EXPECT_EQ(gotA.name, msg->name);
        EXPECT_EQ(gotA.value, 0);
        EXPECT_EQ(gotA.payload, payload);
        EXPECT_EQ(gotB.name, msg->name);
        EXPECT_EQ(gotB.value, 1);
        EXPECT_EQ(gotB.payload, payload);
        EXPECT_EQ(gotB.raw, RawValues(*msg));
        const auto sent = bus->Get(&Bus::fromA);
        std::vector<size_t> order, expected((payload.size() + 6) / 7);
        for (size_t i = 0; i < expected.size(); ++i) expected[i] = i + 1;
        for (size_t i = before; i < sent.size(); ++i) {
            const Frame& f = sent[i].first;
            EXPECT_TRUE(f.extended);
            EXPECT_EQ(f.id & 0xFFFF, (uint32_t{kPeerAddr} << 8) | kSenderAddr);
            EXPECT_FALSE(IsTpCm(f, kAbort));
            if (IsTpDt(f)) order.push_back(f.data[0]);
        }
        EXPECT_EQ(order, expected);
    }
}

TEST_P(ApiJ1939, SilentPeerGetsAnAbortAfterTheWait) {
    bus->SetScript(Script::Silent);
    Send(kJ9Id, 1);
    ASSERT_TRUE(bus->Wait(
        [](const Bus& b) { return b.Sent([](const Frame& f) { return IsTpCm(f, kAbort); }); }));
    const auto frames = bus->Get(&Bus::fromA);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_TRUE(IsTpCm(frames[0].first, kRts));
    EXPECT_EQ(frames[0].first.data[1], 9) << "size";
    EXPECT_EQ(frames[0].first.data[3], 2) << "packets";
    EXPECT_EQ(std::memcmp(frames[1].first.data + 5, frames[0].first.data + 5, 3), 0)
        << "the abort names the group of the refused transfer";
    const auto waited = frames[1].second - frames[0].second;
    EXPECT_GE(waited, milliseconds(1200));
    EXPECT_LT(waited, milliseconds(5000));
    EXPECT_TRUE(bus->Get(&Bus::doneA).empty());
    EXPECT_TRUE(bus->Get(&Bus::doneB).empty());
}

TEST_P(ApiJ1939, PeerAbortEndsTheSendQuietly) {
    bus->SetScript(Script::AbortRts);
    Send(kJ100Id, 2);
    // Let the first RTS meet the abort before the peer changes its script.
    std::this_thread::sleep_for(milliseconds(100));
    bus->SetScript(Script::AllAtOnce);
    const std::vector<uint8_t> payload = Send(kJ9Id, 3);
    ASSERT_TRUE(bus->Wait(BothReported(1)));
    EXPECT_EQ(bus->Get(&Bus::doneA).size(), 1u);
    EXPECT_EQ(bus->Get(&Bus::doneA).back().payload, payload);
    int rts = 0;
    for (const auto& f : bus->Get(&Bus::fromA)) {
        EXPECT_FALSE(IsTpCm(f.first, kAbort));
        rts += IsTpCm(f.first, kRts);
        EXPECT_TRUE(!IsTpDt(f.first) || f.first.data[0] <= 2)
            << "only the second message's packets";
    }
    EXPECT_EQ(rts, 2);
}

// Release stops the send thread mid-transfer: once it returns, the sender
// is not called again and nothing is reported.
TEST_P(ApiJ1939, ReleaseMidTransferSilencesTheInstance) {
    bus->SetScript(Script::TwoAtATime);
    Send(kJ1785Id, 8);
    auto tenth = [](const Frame& f) { return IsTpDt(f) && f.data[0] == 10; };
    ASSERT_TRUE(bus->Wait([&](const Bus& b) { return b.Sent(tenth); }));
    TARN_Release(a);
    const size_t sent = bus->Get(&Bus::fromA).size();
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_EQ(bus->Get(&Bus::fromA).size(), sent);
    EXPECT_TRUE(bus->Get(&Bus::doneA).empty());
    EXPECT_LT(sent, 255u);
}

TARN_BOTH_LAYOUTS(ApiJ1939);

bool RefuseAll(void*, void*) {
    return false;
}
bool AcceptAll(void*, void*) {
    return true;
}

// A peer that never answers holds the first message for 1250 ms; meanwhile
// at most 1,024 more wait, and every send beyond that is refused and logged.
TEST(ApiJ1939Queue, HoldsAtMost1024WaitingMessages) {
    const TempDbc dbc(J1939Dbc());
    const TempDbc log("");
    TARN_SetLogFile(true, log.path().c_str());
    const uint32_t h = TARN_Init(false, false);
    ASSERT_TRUE(LoadPath(h, dbc.path()));
    TARN_SetSender(h, &AcceptAll, nullptr);
    auto msg = NewMessage();
    ASSERT_TRUE(TARN_GetMessageById(h, kJ9Id, msg.get()));
    std::vector<uint32_t> results;
    for (int i = 0; i < 1100; ++i) results.push_back(TARN_Send(h, msg.get(), 0));
    TARN_Release(h);
    TARN_SetLogFile(false, nullptr);

    const auto queued = std::count(results.begin(), results.end(), TARN_SEND_QUEUED);
    EXPECT_GE(queued, 1024) << "the send thread takes at most one off in the meantime";
    EXPECT_LE(queued, 1025);
    const auto firstRefused = std::find(results.begin(), results.end(), TARN_SEND_REFUSED);
    EXPECT_EQ(firstRefused - results.begin(), queued);
    EXPECT_EQ(std::count(firstRefused, results.end(), TARN_SEND_REFUSED),
              results.end() - firstRefused);
    std::ifstream in(log.path());
    size_t lines = 0;
    for (std::string line; std::getline(in, line);) lines += line.find("refused") != line.npos;
    EXPECT_EQ(lines, static_cast<size_t>(results.end() - firstRefused));
}

// With multi-send disabled, anything longer than one frame is refused (also
// as FD over 64 bytes); a single frame goes straight to the sender.
TEST(ApiJ1939Disabled, LongMessagesAreRefused) {
    TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    const TempDbc dbc(J1939Dbc());
    const uint32_t h = TARN_Init(true, false);
    ASSERT_TRUE(LoadPath(h, dbc.path()));
    TARN_SetSender(h, &RefuseAll, nullptr);
    auto msg = NewMessage();
    const struct {
        uint32_t id;
        uint8_t fd;
        uint32_t result;
    } cases[] = {{kJ9Id, 0, TARN_SEND_REFUSED},
                 {kJ1785Id, 0, TARN_SEND_REFUSED},
                 {kJ1785Id, 1, TARN_SEND_REFUSED},
                 {kJShortId, 0, TARN_SEND_FAILED}};  // the sender refused
    for (const auto& c : cases) {
        ASSERT_TRUE(TARN_GetMessageById(h, c.id, msg.get()));
        EXPECT_EQ(TARN_Send(h, msg.get(), c.fd), c.result) << std::hex << c.id;
    }
    TARN_Release(h);
}

}  // namespace
