// Asynchronous analysis: frames queued with TARN_AsyncAnalyse come back
// through the asynchronous callback, in order and with their tags; the queue
// is bounded; J1939 transfers completed this way carry the completing
// frame's tag; and nothing is called back once TARN_Release returned.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "api_support.h"
#include "api_test_dbc.h"
#include "tarn.h"

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
        static_cast<Collector*>(ctx)->Add(msg, tag);
    }
    static void OnDone(void* ctx, DBCMessage*, uint8_t*, uint16_t, uint8_t) {
        static_cast<Collector*>(ctx)->m_doneCalls++;
    }

    void HoldFirst() { m_hold = true; }
    void Go() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_hold = false;
        }
        m_cv.notify_all();
    }
    bool WaitCount(size_t n, milliseconds timeout = milliseconds(30000)) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, timeout, [&] { return m_reports.size() >= n; });
    }
    std::vector<Report> Reports() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_reports;
    }
    size_t Count() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_reports.size();
    }
    int DoneCalls() const { return m_doneCalls; }

  private:
    void Add(DBCMessage* msg, uint64_t tag) {
        Report r{tag, msg->name, {}};
        for (uint32_t i = 0; i < msg->signalCount; ++i) r.raw.push_back(msg->signals[i].rawValue);
        std::unique_lock<std::mutex> lock(m_mutex);
        m_reports.push_back(std::move(r));
        m_cv.notify_all();
        m_cv.wait(lock, [&] { return !m_hold; });
    }

    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::vector<Report> m_reports;
    bool m_hold = false;
    std::atomic<int> m_doneCalls{0};
};

Frame EngineFrame(uint64_t bits) {
    Frame f;
    f.id = kEngineId;
    f.len = 8;
    std::memcpy(f.data, &bits, 8);
    return f;
}

class ApiAsync : public ::testing::TestWithParam<uint32_t> {
  protected:
    void SetUp() override {
        TARN_SetFrameType(GetParam());
        h = TARN_Init(true, true);
        TempDbc dbc(kSmallDbc);
        ASSERT_TRUE(LoadPath(h, dbc.path()));
        TARN_SetAsyncAnalyseCallback(h, &Collector::OnAsync, &collector);
    }
    void TearDown() override {
        collector.Go();
        TARN_Release(h);
        TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    }
    bool Queue(const Frame& f, uint64_t tag) {
        const WireFrame w = ToWire(f, GetParam());
        return TARN_AsyncAnalyse(h, w.bytes, 0, tag);
    }
    uint32_t h = 0;
    Collector collector;
};

// Every decodable frame is reported once, in queue order, with its own tag
// and the values the reference extraction reads from it.
TEST_P(ApiAsync, ReportsInOrderWithTags) {
    Rng rng(11);
    std::vector<uint64_t> expectedTags;
    std::vector<uint64_t> expectedSpeed;
    for (uint64_t i = 0; i < 600; ++i) {
        Frame f = EngineFrame(rng.Next());
        const bool decodable = i % 3 != 0;
        if (!decodable) f.id = 0x7AB;
        const uint64_t tag = 0xABCD000000000000ull + i;
        ASSERT_TRUE(Queue(f, tag));
        if (decodable) {
            expectedTags.push_back(tag);
            expectedSpeed.push_back(ExtractBits(f.data, 0, 16, false));
        }
    }
    ASSERT_TRUE(collector.WaitCount(expectedTags.size()));
    std::this_thread::sleep_for(milliseconds(30));
    const std::vector<Report> reports = collector.Reports();
    ASSERT_EQ(reports.size(), expectedTags.size());
    for (size_t i = 0; i < reports.size(); ++i) {
        EXPECT_EQ(reports[i].tag, expectedTags[i]);
        EXPECT_EQ(reports[i].name, "Engine");
        ASSERT_FALSE(reports[i].raw.empty());
        EXPECT_EQ(reports[i].raw[0], expectedSpeed[i]);  // Speed sorts first (bit 0)
    }
}

// A full queue drops its oldest frame, never the new one.
TEST_P(ApiAsync, FullQueueDropsTheOldest) {
    constexpr uint64_t kCapacity = 100000;
    constexpr uint64_t kExtra = 5;
    collector.HoldFirst();
    ASSERT_TRUE(Queue(EngineFrame(0), 0));
    ASSERT_TRUE(collector.WaitCount(1));  // the thread is now held inside the callback
    for (uint64_t tag = 1; tag <= kCapacity + kExtra; ++tag) {
        ASSERT_TRUE(Queue(EngineFrame(tag), tag));
    }
    collector.Go();
    ASSERT_TRUE(collector.WaitCount(kCapacity + 1, milliseconds(300000)));
    const std::vector<Report> reports = collector.Reports();
    ASSERT_EQ(reports.size(), kCapacity + 1);
    EXPECT_EQ(reports[0].tag, 0u);
    for (uint64_t i = 1; i <= kCapacity; ++i) {
        ASSERT_EQ(reports[i].tag, kExtra + i) << i;
    }
}

TEST_P(ApiAsync, RejectsWhatCannotBeQueued) {
    const WireFrame w = ToWire(EngineFrame(1), GetParam());
    EXPECT_FALSE(TARN_AsyncAnalyse(h, nullptr, 0, 1));
    EXPECT_FALSE(TARN_AsyncAnalyse(h, w.bytes, 2, 1));
    if (GetParam() == TARN_FRAME_VCI) {
        EXPECT_FALSE(TARN_AsyncAnalyse(h, w.bytes, 1, 1));  // no FD in this layout
    }
    const uint32_t syncOnly = TARN_Init(true, false);
    EXPECT_FALSE(TARN_AsyncAnalyse(syncOnly, w.bytes, 0, 1));
    TARN_Release(syncOnly);
}

// Release joins the analysis thread: once it returns, no callback runs, even
// with thousands of frames still queued.
TEST_P(ApiAsync, NoCallbackAfterRelease) {
    struct Probe {
        std::atomic<bool> released{false};
        std::atomic<int> calls{0};
        std::atomic<int> late{0};
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
    EXPECT_FALSE(Queue(EngineFrame(1), 1));  // the handle is gone
    h = TARN_Init(true, false);              // for TearDown
}

// The callback may not release its own instance (the thread cannot join
// itself); the call is refused instead of hanging.
TEST_P(ApiAsync, ReleaseFromOwnCallbackIsRefused) {
    struct Ctx {
        uint32_t h;
        std::atomic<bool> returned{false};
        static void OnAsync(void* ctx, DBCMessage*, uint64_t) {
            auto* c = static_cast<Ctx*>(ctx);
            TARN_Release(c->h);
            c->returned = true;
        }
    } ctx{h};
    TARN_SetAsyncAnalyseCallback(h, &Ctx::OnAsync, &ctx);
    ASSERT_TRUE(Queue(EngineFrame(1), 1));
    for (int i = 0; i < 5000 && !ctx.returned; ++i) std::this_thread::sleep_for(milliseconds(1));
    EXPECT_TRUE(ctx.returned);
    EXPECT_EQ(TARN_GetMessageCount(h), 3u);  // still alive
}

// FD frames exist only in the SocketCAN layout.
class ApiAsyncFd : public ApiAsync {};

TEST_P(ApiAsyncFd, FramesAreSplitLikeSynchronousOnes) {
    std::vector<uint8_t> payload(20);
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i * 13 + 1);
    const TarnCanFdFrame fd = MakeFd(kLong20Id, payload);
    ASSERT_TRUE(TARN_AsyncAnalyse(h, &fd, 1, 77));
    TarnCanFdFrame tooLong = fd;
    tooLong.len = 65;
    EXPECT_FALSE(TARN_AsyncAnalyse(h, &tooLong, 1, 78));
    const TarnCanFdFrame shortFd =
        MakeFd(kEngineId, std::vector<uint8_t>(payload.begin(), payload.begin() + 8));
    ASSERT_TRUE(TARN_AsyncAnalyse(h, &shortFd, 1, 79));
    ASSERT_TRUE(collector.WaitCount(2));
    const std::vector<Report> reports = collector.Reports();
    EXPECT_EQ(reports[0].tag, 77u);
    EXPECT_EQ(reports[0].name, "Long20");
    EXPECT_EQ(reports[0].raw[0], ExtractBits(payload.data(), 0, 32, false));
    EXPECT_EQ(reports[0].raw[2], ExtractBits(payload.data(), 128, 32, false));
    EXPECT_EQ(reports[1].tag, 79u);
    EXPECT_EQ(reports[1].name, "Engine");
}

INSTANTIATE_TEST_SUITE_P(BothLayouts, ApiAsync,
                         ::testing::Values(uint32_t{TARN_FRAME_SOCKETCAN},
                                           uint32_t{TARN_FRAME_VCI}),
                         [](const ::testing::TestParamInfo<uint32_t>& info) {
                             return info.param == TARN_FRAME_VCI ? "Vci" : "SocketCan";
                         });

INSTANTIATE_TEST_SUITE_P(SocketCan, ApiAsyncFd, ::testing::Values(uint32_t{TARN_FRAME_SOCKETCAN}));

// ---- J1939 transfers observed asynchronously ------------------------------

// A whole transport session as the bus carries it, built here from the
// protocol: RTS/CTS/data/acknowledgement, or a broadcast announcement.
std::vector<Frame> Session(uint32_t msgId, const std::vector<uint8_t>& payload, bool broadcast) {
    const uint8_t src = msgId & 0xFF;
    const uint8_t dst = broadcast ? 0xFF : (msgId >> 8) & 0xFF;
    // A PDU1 group: its number has no destination byte.
    const uint8_t pgn[3] = {0, static_cast<uint8_t>(msgId >> 16),
                            static_cast<uint8_t>((msgId >> 24) & 0x03)};
    const uint8_t n = static_cast<uint8_t>((payload.size() + 6) / 7);
    const uint8_t sizeLo = payload.size() & 0xFF, sizeHi = payload.size() >> 8;
    auto cm = [&](uint32_t from, uint32_t to, std::initializer_list<uint8_t> head) {
        Frame f;
        f.id = 0x1CEC0000u | (to << 8) | from;
        f.extended = true;
        f.len = 8;
        std::copy(head.begin(), head.end(), f.data);
        std::memcpy(f.data + 5, pgn, 3);
        return f;
    };
    std::vector<Frame> frames;
    if (broadcast) {
        frames.push_back(cm(src, dst, {0x20, sizeLo, sizeHi, n, 0xFF}));
    } else {
        frames.push_back(cm(src, dst, {0x10, sizeLo, sizeHi, n, 0xFF}));
        frames.push_back(cm(dst, src, {0x11, n, 1, 0xFF, 0xFF}));
    }
    for (uint8_t k = 1; k <= n; ++k) {
        Frame f;
        f.id = 0x1CEB0000u | (uint32_t{dst} << 8) | src;
        f.extended = true;
        f.len = 8;
        f.data[0] = k;
        for (int i = 0; i < 7; ++i) {
            const size_t at = (k - 1) * 7u + i;
            f.data[1 + i] = at < payload.size() ? payload[at] : 0xFF;
        }
        frames.push_back(f);
    }
    if (!broadcast) frames.push_back(cm(dst, src, {0x13, sizeLo, sizeHi, n, 0xFF}));
    return frames;
}

class ApiAsyncJ1939 : public ::testing::TestWithParam<bool> {
  protected:
    void SetUp() override {
        TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
        m_dbc = std::make_unique<TempDbc>(J1939Dbc());
        h = TARN_Init(true, true);
        ASSERT_TRUE(LoadPath(h, m_dbc->path()));
        TARN_SetAsyncAnalyseCallback(h, &Collector::OnAsync, &collector);
        TARN_SetOnMultiTransDoneFunc(h, &Collector::OnDone, &collector);
    }
    void TearDown() override { TARN_Release(h); }
    std::unique_ptr<TempDbc> m_dbc;
    uint32_t h = 0;
    Collector collector;
};

// The transfer is reported through the asynchronous callback with the tag of
// the frame that completed it, and not through the transfer-done callback.
TEST_P(ApiAsyncJ1939, TransferCarriesTheCompletingFramesTag) {
    const bool broadcast = GetParam();
    auto msg = NewMessage();
    ASSERT_TRUE(TARN_GetMessageById(h, kJ100Id, msg.get()));
    std::vector<uint8_t> payload(100);
    Rng rng(broadcast ? 3 : 4);
    for (uint32_t i = 0; i < msg->signalCount; ++i) {
        DBCSignal& s = msg->signals[i];
        s.rawValue = rng.Next() & Mask(s.length);
        PackBits(payload.data(), s.startBit, s.length, s.rawValue, false);
    }
    const std::vector<Frame> session = Session(kJ100Id, payload, broadcast);
    for (size_t i = 0; i < session.size(); ++i) {
        const WireFrame w = ToWire(session[i], TARN_FRAME_SOCKETCAN);
        ASSERT_TRUE(TARN_AsyncAnalyse(h, w.bytes, 0, 1000 + i));
    }
    ASSERT_TRUE(collector.WaitCount(1));
    std::this_thread::sleep_for(milliseconds(30));
    const std::vector<Report> reports = collector.Reports();
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].tag, 1000 + session.size() - 1);
    EXPECT_EQ(reports[0].name, "J100");
    std::vector<uint64_t> expected;
    for (uint32_t i = 0; i < msg->signalCount; ++i) expected.push_back(msg->signals[i].rawValue);
    EXPECT_EQ(reports[0].raw, expected);
    EXPECT_EQ(collector.DoneCalls(), 0);

    // The same session analysed synchronously goes to the transfer-done callback.
    auto out = NewMessage();
    for (const Frame& f : session) {
        const WireFrame w = ToWire(f, TARN_FRAME_SOCKETCAN);
        TARN_Analyse(h, w.bytes, 0, out.get());
    }
    EXPECT_EQ(collector.DoneCalls(), 1);
    EXPECT_EQ(collector.Count(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Sessions, ApiAsyncJ1939, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "Broadcast" : "RtsCts";
                         });

// Releasing an instance from inside any of its own callbacks would free it
// under the code that called back; the release is refused and the instance
// keeps working.
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
        static bool OnSend(void* ctx, void*) {
            Release(ctx);
            return true;
        }
        static void OnDone(void* ctx, DBCMessage*, uint8_t*, uint16_t, uint8_t) { Release(ctx); }
    };
    enum Kind { kSender, kTransferDone };
    for (Kind kind : {kSender, kTransferDone}) {
        SCOPED_TRACE(kind == kSender ? "sender" : "transfer done");
        Ctx ctx;
        ctx.h = TARN_Init(true, false);
        ASSERT_TRUE(LoadPath(ctx.h, dbc.path()));
        auto msg = NewMessage();
        if (kind == kSender) {
            TARN_SetSender(ctx.h, &Ctx::OnSend, &ctx);
            ASSERT_TRUE(TARN_GetMessageById(ctx.h, kJShortId, msg.get()));
            EXPECT_EQ(TARN_Send(ctx.h, msg.get(), 0), TARN_SEND_OK);
        } else {
            TARN_SetOnMultiTransDoneFunc(ctx.h, &Ctx::OnDone, &ctx);
            for (const Frame& f : Session(kJ9Id, std::vector<uint8_t>(9, 0x42), false)) {
                const WireFrame w = ToWire(f, TARN_FRAME_SOCKETCAN);
                TARN_Analyse(ctx.h, w.bytes, 0, msg.get());
            }
        }
        EXPECT_EQ(ctx.calls, 1);
        EXPECT_EQ(TARN_GetMessageCount(ctx.h), 4u);  // still alive
        TARN_Release(ctx.h);
        EXPECT_EQ(TARN_GetMessageCount(ctx.h), 0u);
    }
}

}  // namespace
