// The exported entry points under load: synchronous analysis and encoding of
// a classic frame (a 16-signal one against clearing its record's signal
// slots, the floor of every analysis), asynchronous analysis throughput through the queue to the
// callback, and a full 1785-byte J1939 transfer against an in-process peer.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "bench_dbc.h"
#include "tarn.h"

namespace {

const char* kDbc = R"(VERSION ""

NS_ :

BS_:

BU_: ECU Gateway

BO_ 291 Engine: 8 ECU
 SG_ Speed : 0|16@1+ (0.1,0) [0|6553.5] "km/h" Gateway
 SG_ Temp : 16|8@1- (1,-40) [-168|87] "degC" Gateway
 SG_ Gear : 24|4@1+ (1,0) [0|15] "" Gateway
 SG_ Flags : 28|4@1+ (1,0) [0|15] "" Gateway
 SG_ Torque : 39|12@0- (0.5,0) [-1024|1023.5] "Nm" Gateway
 SG_ Odo : 48|16@1+ (2,100) [100|131170] "km" Gateway

VAL_ 291 Gear 0 "Neutral" 1 "First" 2 "Second" 3 "Third" ;
)";

// A J1939 database with one 1785-byte message tiled by 64-bit signals,
// sent from address 0xFE to 0x20.
constexpr uint32_t kLongId = 0x18E220FE;

std::string LongJ1939Dbc() {
    std::string text = "VERSION \"\"\n\nNS_ :\n\nBS_:\n\nBU_: Tx Rx\n\n";
    text += "BO_ " + std::to_string(kLongId | 0x80000000u) + " Long: 1785 Tx\n";
    for (uint32_t start = 0, i = 0; start < 1785 * 8; start += 64, ++i) {
        const uint32_t len = 1785 * 8 - start < 64 ? 1785 * 8 - start : 64;
        text += " SG_ S" + std::to_string(i) + " : " + std::to_string(start) + "|" +
                std::to_string(len) + "@1+ (1,0) [0|0] \"\" Rx\n";
    }
    text += "\nBA_DEF_  \"ProtocolType\" STRING ;\nBA_ \"ProtocolType\" \"J1939\";\n";
    return text;
}

// Loads DBC text into a fresh instance through a temporary file.
uint32_t LoadInstance(const std::string& text, bool disableMultiSend, bool async) {
    char name[] = "/tmp/tarn_bench_XXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0) return 0;
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    const uint32_t h = TARN_Init(disableMultiSend, async);
    FileInfo info;
    std::memset(&info, 0, sizeof(info));
    std::snprintf(info.path, sizeof(info.path), "%s", name);
    const bool loaded = written && TARN_LoadFile(h, &info);
    std::remove(name);
    if (!loaded) {
        TARN_Release(h);
        return 0;
    }
    return h;
}

TarnCanFrame EngineFrame() {
    TarnCanFrame f;
    std::memset(&f, 0, sizeof(f));
    f.can_id = 291;
    f.len = 8;
    const uint8_t data[8] = {0x10, 0x27, 0x7A, 0x21, 0x8C, 0x40, 0xE8, 0x03};
    std::memcpy(f.data, data, 8);
    return f;
}

void BM_AnalyseClassicFrame(benchmark::State& state) {
    TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    const uint32_t h = LoadInstance(kDbc, true, false);
    if (h == 0) return state.SkipWithError("cannot load the database");
    auto msg = std::make_unique<DBCMessage>();
    const TarnCanFrame frame = EngineFrame();
    for (auto _ : state) {
        benchmark::DoNotOptimize(TARN_Analyse(h, &frame, 0, msg.get()));
    }
    state.SetItemsProcessed(state.iterations());
    TARN_Release(h);
}
BENCHMARK(BM_AnalyseClassicFrame);

void BM_AnalyseSixteenSignalFrame(benchmark::State& state) {
    TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    const uint32_t h = LoadInstance(bench::SixteenSignalDbc(), true, false);
    if (h == 0) return state.SkipWithError("cannot load the database");
    auto msg = std::make_unique<DBCMessage>();
    TarnCanFrame frame;
    std::memset(&frame, 0, sizeof(frame));
    frame.can_id = 418;
    frame.len = 8;
    const uint8_t data[8] = {0x21, 0x43, 0x65, 0x87, 0xA9, 0xCB, 0xED, 0x0F};
    std::memcpy(frame.data, data, 8);
    for (auto _ : state) {
        benchmark::DoNotOptimize(TARN_Analyse(h, &frame, 0, msg.get()));
        benchmark::ClobberMemory();
    }
    if (msg->signalCount != 16) state.SkipWithError("analysis did not fill 16 signals");
    TARN_Release(h);
}
BENCHMARK(BM_AnalyseSixteenSignalFrame);

void BM_MemsetSignalSlots(benchmark::State& state) {
    auto msg = std::make_unique<DBCMessage>();
    for (auto _ : state) {
        std::memset(msg->signals, 0, sizeof msg->signals);
        benchmark::DoNotOptimize(msg->signals);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_MemsetSignalSlots);

void BM_EncodeClassicFrame(benchmark::State& state) {
    TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    const uint32_t h = LoadInstance(kDbc, true, false);
    if (h == 0) return state.SkipWithError("cannot load the database");
    auto msg = std::make_unique<DBCMessage>();
    TARN_GetMessageById(h, 291, msg.get());
    for (uint32_t i = 0; i < msg->signalCount; ++i) msg->signals[i].rawValue = i + 3;
    TarnCanFrame frames[2];
    for (auto _ : state) {
        uint32_t count = 2;
        benchmark::DoNotOptimize(TARN_Encode(h, frames, &count, msg.get()));
    }
    state.SetItemsProcessed(state.iterations());
    TARN_Release(h);
}
BENCHMARK(BM_EncodeClassicFrame);

struct AsyncCounter {
    std::atomic<uint64_t> seen{0};
    static void OnAsync(void* ctx, DBCMessage*, uint64_t) {
        static_cast<AsyncCounter*>(ctx)->seen.fetch_add(1, std::memory_order_relaxed);
    }
};

// Frames per second from TARN_AsyncAnalyse to the asynchronous callback.
void BM_AsyncAnalyseThroughput(benchmark::State& state) {
    TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    const uint32_t h = LoadInstance(kDbc, true, true);
    if (h == 0) return state.SkipWithError("cannot load the database");
    AsyncCounter counter;
    TARN_SetAsyncAnalyseCallback(h, &AsyncCounter::OnAsync, &counter);
    const TarnCanFrame frame = EngineFrame();
    const uint64_t batch = static_cast<uint64_t>(state.range(0));
    uint64_t expected = 0;
    for (auto _ : state) {
        for (uint64_t i = 0; i < batch; ++i) TARN_AsyncAnalyse(h, &frame, 0, i);
        expected += batch;
        while (counter.seen.load(std::memory_order_relaxed) < expected) {
            std::this_thread::yield();
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(expected));
    TARN_Release(h);
}
BENCHMARK(BM_AsyncAnalyseThroughput)->Arg(10000)->UseRealTime()->Unit(benchmark::kMillisecond);

// The receiving node, answering inside the sender callback: a CTS for all
// packets after the RTS, the acknowledgement after the last packet.
struct ImmediatePeer {
    uint32_t h = 0;
    std::mutex mutex;
    std::condition_variable cv;
    uint64_t completed = 0;

    static bool Send(void* ctx, void* frame) {
        auto* peer = static_cast<ImmediatePeer*>(ctx);
        const auto* f = static_cast<const TarnCanFrame*>(frame);
        const uint8_t pf = (f->can_id >> 16) & 0xFF;
        if (pf == 0xEC && f->data[0] == 0x10) {
            peer->Answer(0x11, f->data[3], 1, 0xFF);
        } else if (pf == 0xEB && f->data[0] == 255) {
            peer->Answer(0x13, 1785 & 0xFF, 1785 >> 8, 255);
        }
        return true;
    }
    void Answer(uint8_t control, uint8_t b1, uint8_t b2, uint8_t b3) {
        TarnCanFrame reply;
        std::memset(&reply, 0, sizeof(reply));
        reply.can_id = TARN_CAN_EFF_FLAG | 0x1CEC0000u | (0xFEu << 8) | 0x20u;
        reply.len = 8;
        const uint8_t data[8] = {control, b1, b2, b3, 0xFF, 0x00, 0xE2, 0x00};
        std::memcpy(reply.data, data, 8);
        TARN_OnReceive(h, &reply, 0);
    }
    static void Done(void* ctx, DBCMessage*, uint8_t*, uint16_t, uint8_t) {
        auto* peer = static_cast<ImmediatePeer*>(ctx);
        {
            std::lock_guard<std::mutex> lock(peer->mutex);
            ++peer->completed;
        }
        peer->cv.notify_all();
    }
};

void BM_J1939Send1785(benchmark::State& state) {
    TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    const uint32_t h = LoadInstance(LongJ1939Dbc(), false, false);
    if (h == 0) return state.SkipWithError("cannot load the database");
    ImmediatePeer peer;
    peer.h = h;
    TARN_SetSender(h, &ImmediatePeer::Send, &peer);
    TARN_SetOnMultiTransDoneFunc(h, &ImmediatePeer::Done, &peer);
    auto msg = std::make_unique<DBCMessage>();
    TARN_GetMessageById(h, kLongId, msg.get());
    for (uint32_t i = 0; i < msg->signalCount; ++i) msg->signals[i].rawValue = 0x0123456789ull * i;
    uint64_t sent = 0;
    for (auto _ : state) {
        if (TARN_Send(h, msg.get(), 0) != TARN_SEND_QUEUED) {
            state.SkipWithError("send refused");
            break;
        }
        ++sent;
        std::unique_lock<std::mutex> lock(peer.mutex);
        if (!peer.cv.wait_for(lock, std::chrono::seconds(10),
                              [&] { return peer.completed >= sent; })) {
            state.SkipWithError("transfer did not complete");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(sent * 1785));
    TARN_Release(h);
}
BENCHMARK(BM_J1939Send1785)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
