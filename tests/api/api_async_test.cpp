// Asynchronous analysis: frames queued with TARN_AsyncAnalyse come back
// through the asynchronous callback, in order and with their tags; the queue
// is bounded; J1939 transfers completed this way carry the completing
// frame's tag; nothing is called back once TARN_Release returned; and an
// instance cannot be released from inside its own callbacks.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "api_support.h"

using namespace apitest;
using std::chrono::milliseconds;

namespace {

struct Report {
    uint64_t tag;
    std::string name;
    std::vector<uint64_t> raw;
};

// Collects asynchronous reports; can hold the analysis thread inside the
// callback until told to go on.
class Collector {
  public:
    static void OnAsync(void* ctx, DBCMessage* msg, uint64_t tag) {
        auto* self = static_cast<Collector*>(ctx);
        std::unique_lock<std::mutex> lock(self->m_mutex);
        self->m_reports.push_back({tag, msg->name, RawValues(*msg)});
        self->m_cv.notify_all();
        self->m_cv.wait(lock, [&] { return !self->m_hold; });
    }
    static void OnDone(void* ctx, DBCMessage*, uint8_t*, uint16_t, uint8_t) {
        static_cast<Collector*>(ctx)->doneCalls++;
    }
    void Hold(bool hold) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_hold = hold;
        m_cv.notify_all();
    }
    // Waits for n reports, then a moment more so that any extra one shows.
    std::vector<Report> Wait(size_t n, milliseconds timeout = milliseconds(30000)) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cv.wait_for(lock, timeout, [&] { return m_reports.size() >= n; });
        m_cv.wait_for(lock, milliseconds(30), [&] { return m_reports.size() > n; });
        return m_reports;
    }
    std::atomic<int> doneCalls{0};

  private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::vector<Report> m_reports;
    bool m_hold = false;
};

Frame EngineFrame(uint64_t bits) {
    return MakeFrame(kEngineId, false, reinterpret_cast<const uint8_t*>(&bits));
}

class ApiAsync : public LayoutTest {
  protected:
    void SetUp() override {
        UseLayout();
        h = TARN_Init(true, true);
        const TempDbc dbc(Text());
        ASSERT_TRUE(LoadPath(h, dbc.path()));
        TARN_SetAsyncAnalyseCallback(h, &Collector::OnAsync, &collector);
        TARN_SetOnMultiTransDoneFunc(h, &Collector::OnDone, &collector);
    }
    void TearDown() override {
        collector.Hold(false);
        TARN_Release(h);
    }
    virtual std::string Text() const { return kSmallDbc; }
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
        const uint64_t tag = 0xABCD000000000000ull + i;
        ASSERT_TRUE(Queue(f, tag));
        if (i % 3 == 0) continue;
        tags.push_back(tag);
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
    collector.Hold(true);
    ASSERT_TRUE(Queue(EngineFrame(0), 0));
    ASSERT_EQ(collector.Wait(1).size(), 1u);  // the thread is now held inside the callback
    for (uint64_t tag = 1; tag <= kCapacity + kExtra; ++tag) {
        ASSERT_TRUE(Queue(EngineFrame(tag), tag));
    }
    collector.Hold(false);
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
    const TarnCanFdFrame fd = MakeFd(kLong20Id, FillRandom(*msg, 9));
    EXPECT_EQ(TARN_AsyncAnalyse(h, &fd, 1, 77), layout() != TARN_FRAME_VCI);
    EXPECT_FALSE(TARN_AsyncAnalyse(h, nullptr, 0, 1));
    EXPECT_FALSE(TARN_AsyncAnalyse(h, w.bytes, 2, 1));
    if (layout() == TARN_FRAME_VCI) {
        EXPECT_FALSE(TARN_AsyncAnalyse(h, w.bytes, 1, 1)) << "no FD in this layout";
    } else {
        TarnCanFdFrame tooLong = MakeFd(kLong20Id, std::vector<uint8_t>(64));
        tooLong.len = 65;
        EXPECT_FALSE(TARN_AsyncAnalyse(h, &tooLong, 1, 1));
    }
    const uint32_t syncOnly = TARN_Init(true, false);
    EXPECT_FALSE(TARN_AsyncAnalyse(syncOnly, w.bytes, 0, 1));
    TARN_Release(syncOnly);
    const std::vector<Report> reports = collector.Wait(layout() == TARN_FRAME_VCI ? 0 : 1);
    ASSERT_EQ(reports.size(), layout() == TARN_FRAME_VCI ? 0u : 1u);
    if (!reports.empty()) {
        EXPECT_EQ(reports[0].tag, 77u);
        EXPECT_EQ(reports[0].raw, RawValues(*msg));
    }
}

// Release joins the analysis thread: once it returns, no callback runs, even
// with thousands of frames still queued.
TEST_P(ApiAsync, NoCallbackAfterRelease) {
    struct Probe {
        std::atomic<bool> released{false};
        std::atomic<int> calls{0}, late{0};
        static void OnAsync(void* ctx, DBCMessage*, uint64_t) {
            auto* p = static_cast<Probe*>(ctx);
            if (p->released) p->late++;
            p->calls++;
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    } probe;
    TARN_SetAsyncAnalyseCallback(h, &Probe::OnAsync, &probe);
    for (uint64_t tag = 0; tag < 20000; ++tag) ASSERT_TRUE(Queue(EngineFrame(tag), tag));
    while (probe.calls == 0) std::this_thread::sleep_for(milliseconds(1));
    TARN_Release(h);
    probe.released = true;
    const int calls = probe.calls;
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_EQ(probe.calls, calls);
    EXPECT_EQ(probe.late, 0);
    EXPECT_LT(calls, 20000);
    EXPECT_FALSE(Queue(EngineFrame(1), 1)) << "the handle is gone";
}

TARN_BOTH_LAYOUTS(ApiAsync);

// A whole transport session as the bus carries it, built here from the
// protocol: RTS/CTS/data/acknowledgement, or a broadcast announcement.
std::vector<Frame> Session(uint32_t msgId, const std::vector<uint8_t>& payload, bool broadcast) {
    const uint32_t src = msgId & 0xFF, dst = broadcast ? 0xFF : (msgId >> 8) & 0xFF;
    const uint8_t n = static_cast<uint8_t>((payload.size() + 6) / 7);
    const uint8_t lo = payload.size() & 0xFF, hi = static_cast<uint8_t>(payload.size() >> 8);
    auto cm = [&](uint32_t from, uint32_t to, std::vector<uint8_t> head) {
        // A PDU1 group: its number has no destination byte.
        head.insert(head.end(), {0, uint8_t(msgId >> 16), uint8_t((msgId >> 24) & 0x03)});
        return MakeFrame(0x1CEC0000u | (to << 8) | from, true, head.data());
    };
    std::vector<Frame> frames;
    if (broadcast) {
        frames.push_back(cm(src, dst, {0x20, lo, hi, n, 0xFF}));
    } else {
        frames.push_back(cm(src, dst, {0x10, lo, hi, n, 0xFF}));
        frames.push_back(cm(dst, src, {0x11, n, 1, 0xFF, 0xFF}));
    }
    for (uint8_t k = 1; k <= n; ++k) {
        Frame f = MakeFrame(0x1CEB0000u | (dst << 8) | src, true);
        f.data[0] = k;
        for (size_t i = 0; i < 7; ++i) {
            const size_t at = (k - 1) * 7u + i;
            f.data[1 + i] = at < payload.size() ? payload[at] : 0xFF;
        }
        frames.push_back(f);
    }
    if (!broadcast) frames.push_back(cm(dst, src, {0x13, lo, hi, n, 0xFF}));
    return frames;
}

class ApiAsyncJ1939 : public ApiAsync {
  protected:
    std::string Text() const override { return J1939Dbc(); }
};

// A transfer, RTS/CTS or broadcast, is reported through the asynchronous
// callback with the tag of the frame that completed it, not through the
// transfer-done callback; analysed synchronously it goes to the latter.
TEST_P(ApiAsyncJ1939, TransferCarriesTheCompletingFramesTag) {
    auto msg = NewMessage();
    auto out = NewMessage();
    for (bool broadcast : {false, true}) {
        SCOPED_TRACE(broadcast ? "broadcast" : "RTS/CTS");
        ASSERT_TRUE(TARN_GetMessageById(h, kJ100Id, msg.get()));
        const std::vector<Frame> session = Session(kJ100Id, FillRandom(*msg, broadcast), broadcast);
        const uint64_t base = broadcast ? 2000 : 1000;
        for (size_t i = 0; i < session.size(); ++i) ASSERT_TRUE(Queue(session[i], base + i));
        const std::vector<Report> reports = collector.Wait(broadcast ? 2 : 1);
        ASSERT_EQ(reports.size(), broadcast ? 2u : 1u);
        EXPECT_EQ(reports.back().tag, base + session.size() - 1);
        EXPECT_EQ(reports.back().name, "J100");
        EXPECT_EQ(reports.back().raw, RawValues(*msg));
        EXPECT_EQ(collector.doneCalls, broadcast ? 1 : 0);

        for (const Frame& f : session) TARN_Analyse(h, Wire(f).bytes, 0, out.get());
        EXPECT_EQ(collector.doneCalls, broadcast ? 2 : 1);
    }
}

INSTANTIATE_TEST_SUITE_P(SocketCan, ApiAsyncJ1939,
                         ::testing::Values(uint32_t{TARN_FRAME_SOCKETCAN}));

// Releasing an instance from inside any of its own callbacks would free it
// under the code that called back (or make its thread join itself): the
// release is refused and the instance keeps working.
TEST(ApiReleaseInCallback, IsRefusedForEveryCallbackKind) {
    TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    TempDbc dbc(J1939Dbc());
    struct Ctx {
        uint32_t h = 0;
        std::atomic<int> calls{0};
        static void Release(void* ctx) {
            auto* c = static_cast<Ctx*>(ctx);
            TARN_Release(c->h);
            c->calls++;
        }
        static bool OnSend(void* ctx, void*) { return Release(ctx), true; }
        static void OnDone(void* ctx, DBCMessage*, uint8_t*, uint16_t, uint8_t) { Release(ctx); }
        static void OnAsync(void* ctx, DBCMessage*, uint64_t) { Release(ctx); }
    };
    const std::vector<Frame> session = Session(kJ9Id, std::vector<uint8_t>(9, 0x42), false);
    for (const char* kind : {"sender", "transfer done", "async"}) {
        SCOPED_TRACE(kind);
        Ctx ctx;
        ctx.h = TARN_Init(true, kind[0] == 'a');
        ASSERT_TRUE(LoadPath(ctx.h, dbc.path()));
        auto msg = NewMessage();
        if (kind[0] == 's') {
            TARN_SetSender(ctx.h, &Ctx::OnSend, &ctx);
            ASSERT_TRUE(TARN_GetMessageById(ctx.h, kJShortId, msg.get()));
            EXPECT_EQ(TARN_Send(ctx.h, msg.get(), 0), TARN_SEND_OK);
        } else if (kind[0] == 't') {
            TARN_SetOnMultiTransDoneFunc(ctx.h, &Ctx::OnDone, &ctx);
            for (const Frame& f : session) {
                TARN_Analyse(ctx.h, ToWire(f, TARN_FRAME_SOCKETCAN).bytes, 0, msg.get());
            }
        } else {
            TARN_SetAsyncAnalyseCallback(ctx.h, &Ctx::OnAsync, &ctx);
            const WireFrame w = ToWire(MakeFrame(kJShortId, true), TARN_FRAME_SOCKETCAN);
            ASSERT_TRUE(TARN_AsyncAnalyse(ctx.h, w.bytes, 0, 1));
            for (int i = 0; i < 5000 && ctx.calls == 0; ++i) {
                std::this_thread::sleep_for(milliseconds(1));
            }
        }
        EXPECT_EQ(ctx.calls, 1);
        EXPECT_EQ(TARN_GetMessageCount(ctx.h), 4u) << "still alive";
        TARN_Release(ctx.h);
        EXPECT_EQ(TARN_GetMessageCount(ctx.h), 0u);
    }
}

}  // namespace
