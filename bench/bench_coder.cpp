// Coder speed: per-signal bit work, whole-frame raw decode and encode, for
// one 8-byte frame of 16 signals and a 1785-byte J1939 payload.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "coder/dbc_coder.h"
#include "common/command_info.h"
#include "common/num_text.h"
#include "dbc/dbc.h"

namespace {

constexpr int kFrameSignals = 16;
constexpr int kLongSignals = 255;

// Sixteen 4-bit signals filling 8 bytes, alternating byte order, half of them
// plain integers and half scaled (the two text forms).
std::string FrameSignals() {
    std::string text;
    char line[160];
    for (int i = 0; i < kFrameSignals; ++i) {
        int byte = i / 2, nibble = i % 2;
        bool motorola = (i / 2) % 2 == 1;
        int start = byte * 8 + nibble * 4 + (motorola ? 3 : 0);
        bool scaled = i % 4 >= 2;
        std::snprintf(line, sizeof(line), " SG_ F%02d : %d|4@%d%c (%s) [0|0] \"\" N\n", i, start,
                      motorola ? 0 : 1, scaled ? '-' : '+', scaled ? "0.25,-1.5" : "1,0");
        text += line;
    }
    return text;
}

// 255 16-bit signals, one starting in each 7-byte packet, across packet
// boundaries for every seventh one, alternating byte order and scaling.
std::string LongSignals() {
    std::string text;
    char line[160];
    for (int i = 0; i < kLongSignals; ++i) {
        bool motorola = i % 2 == 1;
        int byte = 7 * i + (i % 7 == 6 ? 6 : 2);
        int start = motorola ? byte * 8 + 7 : byte * 8;
        std::snprintf(line, sizeof(line), " SG_ L%03d : %d|16@%d+ (%s) [0|0] \"\" N\n", i, start,
                      motorola ? 0 : 1, i % 3 == 0 ? "0.1,0" : "1,0");
        text += line;
    }
    return text;
}

struct Fixture {
    DBC db;
    DBCCoder coder{&db};
    Message* frameMsg = nullptr;
    Message* longMsg = nullptr;
    std::vector<VCI_CAN_OBJ> frame, packets;
    kq::CommandInfo* frameRec = kq::CommandInfo::Create();
    kq::CommandInfo* longRec = kq::CommandInfo::Create();

    Fixture() {
        std::string text = "BU_: N\nBO_ 2566844672 Frame: 8 N\n" + FrameSignals() +
                           "BO_ 2565472510 Long: 1785 N\n" + LongSignals();
        if (!db.LoadContent(text)) std::fprintf(stderr, "bench DBC did not load\n");
        coder.SetProtocol(TARN_PROTOCOL_J1939);
        frameMsg = db.FindMsg2("Frame");
        longMsg = db.FindMsg2("Long");
        Fill(frameRec, frameMsg, 1);
        Fill(longRec, longMsg, 2);
        frame = coder.Encode(frameRec);
        packets = coder.Encode(longRec);
    }
    ~Fixture() {
        frameRec->Release();
        longRec->Release();
    }
    static void Fill(kq::CommandInfo* rec, const Message* msg, unsigned seed) {
        std::mt19937_64 rng(seed);
        rec->SetName(msg->name);
        for (const auto& entry : msg->signals)
            rec->AppendU64(entry.first, rng() & ((1ull << entry.second.length) - 1));
    }
};

Fixture& Fx() {
    static Fixture fx;
    return fx;
}

void PerSignal(benchmark::State& state, int signals) {
    state.counters["per_signal"] = benchmark::Counter(
        signals, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// Extraction and scaling only: no record, no text.
void BitWork(benchmark::State& state, const Message* msg, const std::vector<VCI_CAN_OBJ>& frames) {
    DBCCoder& coder = Fx().coder;
    std::vector<uint8_t> buf(DBCCoder::kDecodeBufSize, 0);
    if (frames.size() == 1) {
        std::memcpy(buf.data(), frames[0].data, 8);
    } else {
        for (size_t i = 0; i < frames.size(); ++i)
            std::memcpy(buf.data() + 7 * i, frames[i].data + 1, 7);
    }
    std::vector<const Signal*> sigs;
    for (const auto& entry : msg->signals) sigs.push_back(&entry.second);
    for (auto _ : state) {
        for (const Signal* sig : sigs) {
            uint64_t raw = coder.GetRawValue(buf.data(), *sig);
            benchmark::DoNotOptimize(DBCCoder::RawToPhysical(raw, *sig));
        }
    }
    PerSignal(state, static_cast<int>(sigs.size()));
}

void BM_BitWorkFrame(benchmark::State& state) {
    BitWork(state, Fx().frameMsg, Fx().frame);
}
void BM_BitWorkLong(benchmark::State& state) {
    BitWork(state, Fx().longMsg, Fx().packets);
}

void Decode(benchmark::State& state, const std::vector<VCI_CAN_OBJ>& frames, int signals) {
    Fixture& fx = Fx();
    const DecodePlan plan = DBCCoder::PlanFor(*fx.coder.FindMsg(frames[0].id, false));
    std::vector<uint64_t> raws(plan.readers.size());
    for (auto _ : state) {
        bool ok = fx.coder.DecodeRaw(plan, frames.data(), frames.size(), 0, raws.data());
        benchmark::DoNotOptimize(ok);
        benchmark::ClobberMemory();
    }
    PerSignal(state, signals);
}

void BM_DecodeFrame(benchmark::State& state) {
    Decode(state, Fx().frame, kFrameSignals);
}
void BM_DecodeLong(benchmark::State& state) {
    Decode(state, Fx().packets, kLongSignals);
}

void Encode(benchmark::State& state, kq::CommandInfo* rec, int signals) {
    Fixture& fx = Fx();
    for (auto _ : state) {
        std::vector<VCI_CAN_OBJ> frames = fx.coder.Encode(rec);
        benchmark::DoNotOptimize(frames.data());
    }
    PerSignal(state, signals);
}

void BM_EncodeFrame(benchmark::State& state) {
    Encode(state, Fx().frameRec, kFrameSignals);
}
void BM_EncodeLong(benchmark::State& state) {
    Encode(state, Fx().longRec, kLongSignals);
}

// The "%lf" text by hand against the C library.
void BM_FixedText(benchmark::State& state) {
    char buf[kq::kFixedTextSize];
    double v = 1234.56789;
    for (auto _ : state) {
        benchmark::DoNotOptimize(kq::FormatFixed6(v, buf));
        v += 0.001;
    }
}

void BM_FixedTextSnprintf(benchmark::State& state) {
    char buf[kq::kFixedTextSize];
    double v = 1234.56789;
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::snprintf(buf, sizeof(buf), "%lf", v));
        v += 0.001;
    }
}

}  // namespace

BENCHMARK(BM_BitWorkFrame);
BENCHMARK(BM_BitWorkLong);
BENCHMARK(BM_DecodeFrame);
BENCHMARK(BM_DecodeLong);
BENCHMARK(BM_EncodeFrame);
BENCHMARK(BM_EncodeLong);
BENCHMARK(BM_FixedText);
BENCHMARK(BM_FixedTextSnprintf);

BENCHMARK_MAIN();
