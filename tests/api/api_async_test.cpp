// Asynchronous analysis and calls from several threads on the C interface.
// The stress cases run for a bounded time; the sanitizer builds turn what
// they provoke into failures as well.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "api_support.h"

using namespace apitest;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

uint32_t NewLoaded(bool disableMultiSend, bool async, const std::string& text = kSmallDbc) {
    const uint32_t h = TARN_Init(disableMultiSend, async);
    const TempDbc dbc(text);
    EXPECT_TRUE(LoadPath(h, dbc.path()));
    return h;
}

Frame EngineFrame(uint64_t bits) {
    return MakeFrame(kEngineId, false, reinterpret_cast<const uint8_t*>(&bits));
}

// Runs body until it returns false or 1.5 s are over; the rounds it completed.
template <class Body>
int Repeat(Body body) {
    const Clock::time_point end = Clock::now() + milliseconds(1500);
    int rounds = 0;
    while (Clock::now() < end && body()) ++rounds;
    return rounds;
}

// A broadcast transfer of `payload` from the source address of msgId.
std::vector<Frame> Broadcast(uint32_t msgId, const std::vector<uint8_t>& payload) {
    const uint8_t n = uint8_t((payload.size() + 6) / 7), src = msgId & 0xFF;
    const uint8_t bam[] = {0x20, uint8_t(payload.size()), uint8_t(payload.size() >> 8), n, 0xFF,
                           0,    uint8_t(msgId >> 16),    uint8_t((msgId >> 24) & 0x03)};
    std::vector<Frame> frames{MakeFrame(0x1CECFF00u | src, true, bam)};
    for (uint8_t k = 1; k <= n; ++k) {
        Frame f = MakeFrame(0x1CEBFF00u | src, true);
        f.data[0] = k;
        for (size_t i = 0, at = (k - 1) * 7u; i < 7; ++i, ++at)
            f.data[1 + i] = at < payload.size() ? payload[at] : 0xFF;
        frames.push_back(f);
    }
    return frames;
}

// Lets a callback hold its thread until the test opens the gate.
struct Gate {
    std::atomic<bool> entered{false}, open{true};
    void Pass() {
        entered = true;
        while (!open) std::this_thread::sleep_for(milliseconds(1));
    }
    void AwaitEntry() const {
        while (!entered) std::this_thread::sleep_for(milliseconds(1));
    }
};

struct Report {
    uint64_t tag;
    std::string name;
    std::vector<uint64_t> raw;
};

// Collects asynchronous reports behind a gate.
class Collector {
  public:
    static void OnAsync(void* ctx, DBCMessage* msg, uint64_t tag) {
        auto* self = static_cast<Collector*>(ctx);
        {
            std::lock_guard<std::mutex> lock(self->m_mutex);
            self->m_reports.push_back({tag, msg->name, RawValues(*msg)});
        }
        self->gate.Pass();
    }
    static void OnDone(void* ctx, DBCMessage*, uint8_t*, uint16_t, uint8_t) {
        static_cast<Collector*>(ctx)->doneCalls++;
    }
    // Waits for n reports, then a moment more so that any extra one shows.
    std::vector<Report> Wait(size_t n, milliseconds timeout = milliseconds(30000)) {
        for (auto end = Clock::now() + timeout; Count() < n && Clock::now() < end;)
            std::this_thread::sleep_for(milliseconds(1));
        std::this_thread::sleep_for(milliseconds(30));
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_reports;
    }
    Gate gate;
    std::atomic<int> doneCalls{0};

  private:
    size_t Count() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_reports.size();
    }
    std::mutex m_mutex;
    std::vector<Report> m_reports;
};

class ApiAsync : public LayoutTest {
  protected:
    void SetUp() override {
        UseLayout();
        h = NewLoaded(true, true);
        TARN_SetAsyncAnalyseCallback(h, &Collector::OnAsync, &collector);
    }
    void TearDown() override {
        collector.gate.open = true;
        TARN_Release(h);
    }
    bool Queue(const Frame& f, uint64_t tag) { return TARN_AsyncAnalyse(h, Wire(f).bytes, 0, tag); }
    uint32_t h = 0;
    Collector collector;
};

// Every decodable frame is reported once, in queue order, with its own tag
// and the values the reference extraction reads from it.
TEST_P(ApiAsync, ReportsInOrderWithTags) {
    refpack::Rng rng(11);
    std::vector<uint64_t> tags, speeds;
    for (uint64_t i = 0; i < 600; ++i) {
        Frame f = EngineFrame(rng.Next());
        if (i % 3 == 0) f.id = 0x7AB;  // not in the database
        ASSERT_TRUE(Queue(f, 0xABCD000000000000ull + i));
        if (i % 3 == 0) continue;
        tags.push_back(0xABCD000000000000ull + i);
        speeds.push_back(refpack::Extract(f.data, 0, 16, false));
    }
    const std::vector<Report> reports = collector.Wait(tags.size());
    ASSERT_EQ(reports.size(), tags.size());
    for (size_t i = 0; i < reports.size(); ++i) {
        EXPECT_EQ(reports[i].tag, tags[i]);
        EXPECT_EQ(reports[i].name, "Engine");
        EXPECT_EQ(reports[i].raw.at(0), speeds[i]);  // Speed sorts first (bit 0)
    }
}

// A full queue drops its oldest frame, never the new one.
TEST_P(ApiAsync, FullQueueDropsTheOldest) {
    constexpr uint64_t kCapacity = 100000, kExtra = 5;
    collector.gate.open = false;
    ASSERT_TRUE(Queue(EngineFrame(0), 0));
    collector.gate.AwaitEntry();  // the thread is now held inside the callback
    for (uint64_t tag = 1; tag <= kCapacity + kExtra; ++tag)
        ASSERT_TRUE(Queue(EngineFrame(tag), tag));
    collector.gate.open = true;
    const std::vector<Report> reports = collector.Wait(kCapacity + 1, milliseconds(300000));
    ASSERT_EQ(reports.size(), kCapacity + 1);
    EXPECT_EQ(reports[0].tag, 0u);
    for (uint64_t i = 1; i <= kCapacity; ++i) ASSERT_EQ(reports[i].tag, kExtra + i) << i;
}

// FD frames are split like synchronous ones; what cannot be queued is refused.
TEST_P(ApiAsync, QueuesFdFramesAndRefusesWhatCannotBeQueued) {
    const WireFrame w = Wire(EngineFrame(1));
    auto msg = NewMessage();
    ASSERT_TRUE(TARN_GetMessageById(h, kLong20Id, msg.get()));
    TarnCanFdFrame fd = MakeFd(kLong20Id, FillRandom(*msg, 9));
    const bool vci = layout() == TARN_FRAME_VCI;
    EXPECT_EQ(TARN_AsyncAnalyse(h, &fd, 1, 77), !vci) << "no FD in the VCI layout";
    EXPECT_FALSE(TARN_AsyncAnalyse(h, nullptr, 0, 1));
    EXPECT_FALSE(TARN_AsyncAnalyse(h, w.bytes, 2, 1));
    fd.len = 65;
    EXPECT_FALSE(TARN_AsyncAnalyse(h, &fd, 1, 1));
    const uint32_t syncOnly = TARN_Init(true, false);
    EXPECT_FALSE(TARN_AsyncAnalyse(syncOnly, w.bytes, 0, 1));
    TARN_Release(syncOnly);
    const std::vector<Report> reports = collector.Wait(vci ? 0 : 1);
    ASSERT_EQ(reports.size(), vci ? 0u : 1u);
    for (const Report& r : reports) EXPECT_EQ(r.tag, 77u);
    for (const Report& r : reports) EXPECT_EQ(r.raw, RawValues(*msg));
}

// The analysis thread decodes all-ones frames while the caller decodes
// all-zero frames on the same handle, and now and then reloads the database:
// each decode sees only its own raw values.
TEST_P(ApiAsync, ConcurrentDecodesOnOneHandleKeepTheirOwnValues) {
    auto msg = NewMessage();
    ASSERT_TRUE(TARN_Analyse(h, Wire(EngineFrame(~0ull)).bytes, 0, msg.get()));
    const std::vector<uint64_t> ones = RawValues(*msg), zeros(msg->signalCount, 0);
    const TempDbc dbc(kSmallDbc);
    int wrong = 0, round = 0;
    Repeat([&] {
        if (++round % 50 == 0) wrong += !LoadPath(h, dbc.path());
        for (int i = 0; i < 4; ++i) Queue(EngineFrame(~0ull), 0);
        wrong +=
            !TARN_Analyse(h, Wire(EngineFrame(0)).bytes, 0, msg.get()) || RawValues(*msg) != zeros;
        return true;
    });
    EXPECT_EQ(wrong, 0);
    const std::vector<Report> reports = collector.Wait(1);
    EXPECT_FALSE(reports.empty());
    for (const Report& r : reports) ASSERT_EQ(r.raw, ones);
}

TARN_BOTH_LAYOUTS(ApiAsync);

// A transfer analysed asynchronously is reported through the asynchronous
// callback with the tag of the frame that completed it; analysed
// synchronously it goes to the transfer-done callback.
TEST(ApiAsyncJ1939, TransferCarriesTheCompletingFramesTag) {
    TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    const uint32_t h = NewLoaded(true, true, J1939Dbc());
    Collector collector;
    TARN_SetAsyncAnalyseCallback(h, &Collector::OnAsync, &collector);
    TARN_SetOnMultiTransDoneFunc(h, &Collector::OnDone, &collector);
    auto msg = NewMessage(), out = NewMessage();
    ASSERT_TRUE(TARN_GetMessageById(h, kJ100Id, msg.get()));
    const std::vector<Frame> session = Broadcast(kJ100Id, FillRandom(*msg, 5));
    for (size_t i = 0; i < session.size(); ++i) {
        ASSERT_TRUE(TARN_AsyncAnalyse(h, ToWire(session[i], 0).bytes, 0, 1000 + i));
    }
    const std::vector<Report> reports = collector.Wait(1);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].tag, 1000 + session.size() - 1);
    EXPECT_EQ(reports[0].name, "J100");
    EXPECT_EQ(reports[0].raw, RawValues(*msg));
    EXPECT_EQ(collector.doneCalls, 0);
    for (const Frame& f : session) TARN_Analyse(h, ToWire(f, 0).bytes, 0, out.get());
    EXPECT_EQ(collector.doneCalls, 1);
    TARN_Release(h);
}

// Releasing an instance from inside any of its own callbacks would free it
// under the code that called back (or make its thread join itself): the
// release is refused and the instance keeps working.
TEST(ApiRelease, IsRefusedInsideEveryCallbackKind) {
    TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    struct Ctx {
        uint32_t h = 0;
        std::atomic<int> calls{0};
        static void Release(void* ctx) {
            TARN_Release(static_cast<Ctx*>(ctx)->h);
            static_cast<Ctx*>(ctx)->calls++;
        }
        static bool OnSend(void* ctx, void*) { return Release(ctx), true; }
        static void OnDone(void* ctx, DBCMessage*, uint8_t*, uint16_t, uint8_t) { Release(ctx); }
        static void OnAsync(void* ctx, DBCMessage*, uint64_t) { Release(ctx); }
    };
    const std::vector<Frame> session = Broadcast(kJ9Id, std::vector<uint8_t>(9, 0x42));
    for (const char kind : {'s', 't', 'a'}) {  // sender, transfer done, async
        SCOPED_TRACE(kind);
        Ctx ctx;
        ctx.h = NewLoaded(true, kind == 'a', J1939Dbc());
        auto msg = NewMessage();
        if (kind == 's') {
            TARN_SetSender(ctx.h, &Ctx::OnSend, &ctx);
            ASSERT_TRUE(TARN_GetMessageById(ctx.h, kJShortId, msg.get()));
            EXPECT_EQ(TARN_Send(ctx.h, msg.get(), 0), TARN_SEND_OK);
        } else if (kind == 't') {
            TARN_SetOnMultiTransDoneFunc(ctx.h, &Ctx::OnDone, &ctx);
            for (const Frame& f : session) TARN_Analyse(ctx.h, ToWire(f, 0).bytes, 0, msg.get());
        } else {
            TARN_SetAsyncAnalyseCallback(ctx.h, &Ctx::OnAsync, &ctx);
            ASSERT_TRUE(
                TARN_AsyncAnalyse(ctx.h, ToWire(MakeFrame(kJShortId, true), 0).bytes, 0, 1));
            for (int i = 0; i < 5000 && ctx.calls == 0; ++i)
                std::this_thread::sleep_for(milliseconds(1));
        }
        EXPECT_EQ(ctx.calls, 1);
        EXPECT_EQ(TARN_GetMessageCount(ctx.h), 4u) << "still alive";
        TARN_Release(ctx.h);
        EXPECT_EQ(TARN_GetMessageCount(ctx.h), 0u);
    }
}

TEST(ApiRelease, WaitsForTheCallInFlightWhileNewCallsSeeAnUnknownHandle) {
    const uint32_t h = NewLoaded(true, false);
    auto msg = NewMessage();
    ASSERT_TRUE(TARN_GetMessageById(h, kEngineId, msg.get()));
    Gate sender;
    sender.open = false;
    TARN_SetSender(
        h, [](void* gate, void*) { return static_cast<Gate*>(gate)->Pass(), true; }, &sender);
    std::atomic<uint32_t> sent{99};
    std::thread caller([&] { sent = TARN_Send(h, msg.get(), 0); });
    sender.AwaitEntry();
    std::atomic<bool> released{false};
    std::thread releaser([&] {
        TARN_Release(h);
        released = true;
    });
    // The handle disappears as soon as the release begins, but the release
    // itself waits for the send in flight.
    while (TARN_GetMessageCount(h) != 0) std::this_thread::yield();
    EXPECT_FALSE(TARN_GetMessageById(h, kEngineId, msg.get()));
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_FALSE(released);
    sender.open = true;
    caller.join();
    releaser.join();
    EXPECT_EQ(sent, uint32_t{TARN_SEND_OK});
}

// Two threads hammer a handle with every kind of call while a third releases
// it at a random moment; every call finishes on a live instance or sees an
// unknown handle, and the analysis thread, busy with a backlog, is joined:
// no callback runs once the release returned.
TEST(ApiRelease, RacingCallsNeverReachAReleasedInstance) {
    refpack::Rng rng(3);
    std::atomic<int> bad{0};
    static std::atomic<bool> released;
    static std::atomic<int> calls, late;
    auto worker = [&bad](uint32_t h) {
        auto msg = NewMessage();
        const WireFrame frame = ToWire(EngineFrame(0x1111111111111111), TARN_FRAME_SOCKETCAN);
        for (uint32_t count; (count = TARN_GetMessageCount(h)) != 0;) {
            if (count != 3) ++bad;
            TARN_AsyncAnalyse(h, frame.bytes, 0, 7);
            if (TARN_Analyse(h, frame.bytes, 0, msg.get()) && msg->id != kEngineId) ++bad;
            TARN_OnReceive(h, frame.bytes, 0);
            if (TARN_GetMessageById(h, kEngineId, msg.get())) TARN_Send(h, msg.get(), 0);
        }
    };
    bool async = false;
    const int rounds = Repeat([&] {
        // Without an analysis thread to join, a release is over in
        // microseconds, well inside a decode in flight.
        async = !async;
        const uint32_t h = NewLoaded(false, async);
        TARN_SetAsyncAnalyseCallback(
            h,
            [](void*, DBCMessage*, uint64_t) {
                calls++;
                std::this_thread::sleep_for(std::chrono::microseconds(50));
                late += released;  // still running, or started, after the release returned
            },
            nullptr);
        TARN_SetSender(
            h, [](void*, void*) { return true; }, nullptr);
        std::thread a(worker, h), b(worker, h);
        // On a loaded machine the analysis thread may not have run yet: let
        // it start its backlog, so the release meets a callback in flight.
        const int before = calls;
        for (auto end = Clock::now() + milliseconds(200); async && calls == before;) {
            if (Clock::now() > end) break;
            std::this_thread::yield();
        }
        std::this_thread::sleep_for(std::chrono::microseconds(rng.Next() % 2000));
        TARN_Release(h);
        released = true;
        const bool gone = TARN_GetMessageCount(h) == 0;
        a.join();
        b.join();
        std::this_thread::sleep_for(milliseconds(1));
        released = false;
        return gone;
    });
    EXPECT_GT(rounds, 5);
    EXPECT_EQ(bad, 0);
    EXPECT_GT(calls, 0);
    EXPECT_EQ(late, 0);
}

// While another thread flips the process-wide layout, an FD send and an FD
// analysis each read it once: they refuse (no FD in the VCI layout) or
// produce exactly what they produce without the switching.
TEST(ApiFrameLayout, EachCallKeepsTheLayoutItStartedWith) {
    const uint32_t h = NewLoaded(true, false);
    auto msg = NewMessage(), out = NewMessage();
    ASSERT_TRUE(TARN_GetMessageById(h, kLong20Id, msg.get()));
    const TarnCanFdFrame fd = MakeFd(kLong20Id, FillRandom(*msg, 17));
    static TarnCanFdFrame last;
    TARN_SetCANFDSender(
        h, [](void*, void* f) { return std::memcpy(&last, f, sizeof(last)), true; }, nullptr);
    std::atomic<bool> stop{false};
    std::thread flipper([&] {
        for (uint32_t i = 0; !stop; ++i) TARN_SetFrameType(i & 1);
    });
    int wrong = 0;
    Repeat([&] {
        std::memset(&last, 0, sizeof(last));
        if (TARN_Send(h, msg.get(), 1) == TARN_SEND_OK &&
            (last.can_id != fd.can_id || last.len != fd.len ||
             std::memcmp(last.data, fd.data, fd.len)))
            ++wrong;
        if (TARN_Analyse(h, &fd, 1, out.get()) && RawValues(*out) != RawValues(*msg)) ++wrong;
        return true;
    });
    stop = true;
    flipper.join();
    TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    EXPECT_EQ(wrong, 0);
    TARN_Release(h);
}

}  // namespace
