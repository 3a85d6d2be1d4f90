// Several application threads on the C interface at once: a release waits
// for the calls in flight on its handle, each call keeps the frame layout it
// started with, and decodes on one handle never see each other's values.
// Each stress case runs for a bounded time; the sanitizer builds turn the
// faults these cases provoke into failures as well.
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

constexpr milliseconds kStressTime(1500);

// Runs body until it returns false or the stress time is over; the count of
// rounds it completed.
template <class Body>
int Repeat(Body body) {
    const Clock::time_point end = Clock::now() + kStressTime;
    int rounds = 0;
    while (Clock::now() < end && body()) ++rounds;
    return rounds;
}

uint32_t NewLoaded(bool disableMultiSend, bool async) {
    const uint32_t h = TARN_Init(disableMultiSend, async);
    const TempDbc dbc(kSmallDbc);
    EXPECT_TRUE(LoadPath(h, dbc.path()));
    return h;
}

Frame EngineFrame(uint8_t fill) {
    uint8_t data[8];
    std::memset(data, fill, sizeof(data));
    return MakeFrame(kEngineId, false, data);
}

// ---- release while calls are in flight -------------------------------------

// Blocks the sender callback until released, so that a TARN_Send stays in
// flight for as long as the test wants.
struct BlockingSender {
    std::mutex mutex;
    std::condition_variable cv;
    bool entered = false;
    bool go = false;
    static bool Send(void* ctx, void*) {
        auto* self = static_cast<BlockingSender*>(ctx);
        std::unique_lock<std::mutex> lock(self->mutex);
        self->entered = true;
        self->cv.notify_all();
        self->cv.wait(lock, [&] { return self->go; });
        return true;
    }
};

TEST(ApiRelease, WaitsForTheCallInFlightWhileNewCallsSeeAnUnknownHandle) {
    const uint32_t h = NewLoaded(true, false);
    auto msg = NewMessage();
    ASSERT_TRUE(TARN_GetMessageById(h, kEngineId, msg.get()));
    BlockingSender sender;
    TARN_SetSender(h, &BlockingSender::Send, &sender);

    std::atomic<uint32_t> sent{99};
    std::thread caller([&] { sent = TARN_Send(h, msg.get(), 0); });
    {
        std::unique_lock<std::mutex> lock(sender.mutex);
        sender.cv.wait(lock, [&] { return sender.entered; });
    }
    std::atomic<bool> released{false};
    std::thread releaser([&] {
        TARN_Release(h);
        released = true;
    });
    // The handle disappears as soon as the release begins...
    while (TARN_GetMessageCount(h) != 0) std::this_thread::yield();
    EXPECT_FALSE(TARN_GetMessageById(h, kEngineId, msg.get()));
    // ...but the release itself waits for the send in flight.
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_FALSE(released);
    {
        std::lock_guard<std::mutex> lock(sender.mutex);
        sender.go = true;
        sender.cv.notify_all();
    }
    caller.join();
    releaser.join();
    EXPECT_EQ(sent, uint32_t{TARN_SEND_OK});
    EXPECT_TRUE(released);
}

void IgnoreAsync(void*, DBCMessage*, uint64_t) {}
bool AcceptFrame(void*, void*) {
    return true;
}

// Two threads hammer a handle with every kind of call while a third
// releases it at a random moment; every call must finish on a live instance
// (or see an unknown handle) and report consistent results.
TEST(ApiRelease, RacingCallsNeverReachAReleasedInstance) {
    refpack::Rng rng(3);
    auto worker = [](uint32_t h, std::atomic<int>& bad) {
        auto msg = NewMessage();
        const WireFrame frame = ToWire(EngineFrame(0x11), TARN_FRAME_SOCKETCAN);
        for (;;) {
            const uint32_t count = TARN_GetMessageCount(h);
            if (count == 0) return;
            if (count != 3) ++bad;
            TARN_AsyncAnalyse(h, frame.bytes, 0, 7);
            if (TARN_Analyse(h, frame.bytes, 0, msg.get()) && msg->id != kEngineId) ++bad;
            TARN_OnReceive(h, frame.bytes, 0);
            if (TARN_GetMessageById(h, kEngineId, msg.get())) TARN_Send(h, msg.get(), 0);
        }
    };
    std::atomic<int> bad{0};
    bool async = false;
    const int rounds = Repeat([&] {
        // Without an analysis thread to join, a release is over in
        // microseconds, well inside a decode in flight.
        async = !async;
        const uint32_t h = NewLoaded(false, async);
        TARN_SetAsyncAnalyseCallback(h, &IgnoreAsync, nullptr);
        TARN_SetSender(h, &AcceptFrame, nullptr);
        std::thread a(worker, h, std::ref(bad));
        std::thread b(worker, h, std::ref(bad));
        std::this_thread::sleep_for(std::chrono::microseconds(rng.Next() % 2000));
        TARN_Release(h);
        const bool gone = TARN_GetMessageCount(h) == 0;
        a.join();
        b.join();
        return gone;
    });
    EXPECT_GT(rounds, 5);
    EXPECT_EQ(bad, 0);
}

// ---- the process-wide frame layout switched under running calls -----------

class LayoutFlipper {
  public:
    LayoutFlipper()
        : m_thread([this] {
              for (uint32_t i = 0; !m_stop; ++i) TARN_SetFrameType(i & 1);
          }) {}
    ~LayoutFlipper() {
        m_stop = true;
        m_thread.join();
        TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    }

  private:
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

// An FD send and an FD analysis each read the layout once: they either
// refuse (the VCI layout has no FD frames) or produce exactly what they
// produce without the switching.
TEST(ApiFrameLayout, EachCallKeepsTheLayoutItStartedWith) {
    const uint32_t h = NewLoaded(true, false);
    auto msg = NewMessage();
    auto out = NewMessage();
    ASSERT_TRUE(TARN_GetMessageById(h, kLong20Id, msg.get()));
    const std::vector<uint8_t> payload = FillRandom(*msg, 17);
    const TarnCanFdFrame fd = MakeFd(kLong20Id, payload);
    struct Capture {
        TarnCanFdFrame last{};
        static bool Send(void* ctx, void* frame) {
            std::memcpy(&static_cast<Capture*>(ctx)->last, frame, sizeof(TarnCanFdFrame));
            return true;
        }
    } capture;
    TARN_SetCANFDSender(h, &Capture::Send, &capture);

    int wrong = 0;
    LayoutFlipper flipper;
    Repeat([&] {
        std::memset(&capture.last, 0, sizeof(capture.last));
        if (TARN_Send(h, msg.get(), 1) == TARN_SEND_OK &&
            (capture.last.can_id != fd.can_id || capture.last.len != fd.len ||
             std::memcmp(capture.last.data, fd.data, fd.len) != 0))
            ++wrong;
        if (TARN_Analyse(h, &fd, 1, out.get()) && RawValues(*out) != RawValues(*msg)) ++wrong;
        return true;
    });
    EXPECT_EQ(wrong, 0);
    TARN_Release(h);
}

// ---- decodes on one handle from two threads --------------------------------

struct AsyncChecker {
    std::atomic<int> reports{0};
    std::atomic<int> wrong{0};
    std::vector<uint64_t> expected;
    static void OnAsync(void* ctx, DBCMessage* msg, uint64_t) {
        auto* self = static_cast<AsyncChecker*>(ctx);
        if (RawValues(*msg) != self->expected) ++self->wrong;
        ++self->reports;
    }
};

// The analysis thread decodes all-ones frames while the caller decodes
// all-zero frames on the same handle: each sees only its own raw values.
TEST(ApiDecodeRace, ConcurrentDecodesOnOneHandleKeepTheirOwnValues) {
    const uint32_t h = NewLoaded(true, true);
    auto msg = NewMessage();
    const WireFrame ones = ToWire(EngineFrame(0xFF), TARN_FRAME_SOCKETCAN);
    const WireFrame zeros = ToWire(EngineFrame(0x00), TARN_FRAME_SOCKETCAN);
    ASSERT_TRUE(TARN_Analyse(h, ones.bytes, 0, msg.get()));
    AsyncChecker checker;
    checker.expected = RawValues(*msg);
    ASSERT_TRUE(TARN_Analyse(h, zeros.bytes, 0, msg.get()));
    const std::vector<uint64_t> allZero(msg->signalCount, 0);
    ASSERT_EQ(RawValues(*msg), allZero);
    TARN_SetAsyncAnalyseCallback(h, &AsyncChecker::OnAsync, &checker);

    int wrong = 0;
    const int rounds = Repeat([&] {
        for (int i = 0; i < 4; ++i) TARN_AsyncAnalyse(h, ones.bytes, 0, 0);
        if (!TARN_Analyse(h, zeros.bytes, 0, msg.get()) || RawValues(*msg) != allZero) ++wrong;
        return true;
    });
    TARN_Release(h);
    EXPECT_EQ(wrong, 0) << "of " << rounds << " decodes";
    EXPECT_EQ(checker.wrong, 0) << "of " << checker.reports << " asynchronous decodes";
    EXPECT_GT(checker.reports, 0);
}

}  // namespace
