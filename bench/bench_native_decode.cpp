// Native decode and encode speed: one 16-signal classic frame with the
// identifier lookup included, a batch of 10-signal frames, and an encode.
// The database has 200 other messages so that the lookup is not trivial.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "tarn/db.h"

namespace {

std::string Dbc() {
    std::string t = "VERSION \"\"\nNS_ :\nBS_:\nBU_: ECU\n";
    for (int m = 0; m < 200; ++m) {
        t += "BO_ " + std::to_string(0x400 + m) + " Other" + std::to_string(m) + ": 8 ECU\n";
        for (int s = 0; s < 4; ++s)
            t += " SG_ O" + std::to_string(m) + "_" + std::to_string(s) + " : " +
                 std::to_string(s * 16) + "|16@1+ (0.1,0) [0|0] \"\" ECU\n";
    }
    // 16 signals of 4 bits, alternating byte orders, a quarter with value tables.
    t += "BO_ 291 Sixteen: 8 ECU\n";
    for (int s = 0; s < 16; ++s) {
        const bool motorola = s % 2;
        const int start = motorola ? (s / 2) * 8 + 7 : (s / 2) * 8;
        t += " SG_ S" + std::to_string(s) + " : " + std::to_string(start) + "|4@" +
             (motorola ? "0" : "1") + (s % 3 ? "+" : "-") + " (0.5,-2) [0|0] \"u\" ECU\n";
    }
    for (int s = 0; s < 16; s += 4)
        t += "VAL_ 291 S" + std::to_string(s) + " 0 \"zero\" 1 \"one\" 5 \"five\" ;\n";
    t += "BO_ 512 Ten: 8 ECU\n";
    for (int s = 0; s < 10; ++s)
        t += " SG_ T" + std::to_string(s) + " : " + std::to_string(s * 6) +
             "|6@1+ (2,1) [0|0] \"\" ECU\n";
    return t;
}

struct Db {
    tarn_db* db = nullptr;
    Db() {
        const std::string text = Dbc();
        if (tarn_db_open_buffer(text.data(), text.size(), 0, &db, nullptr, 0) != TARN_OK)
            db = nullptr;
    }
    ~Db() { tarn_db_close(db); }
};

std::vector<std::vector<uint8_t>> Payloads() {
    std::vector<std::vector<uint8_t>> out(256, std::vector<uint8_t>(8));
    uint32_t x = 12345;
    for (auto& p : out)
        for (auto& b : p) b = static_cast<uint8_t>((x = x * 1103515245 + 12345) >> 16);
    return out;
}

void BM_NativeDecode16Signals(benchmark::State& state) {
    Db db;
    if (!db.db) return state.SkipWithError("open failed");
    const auto payloads = Payloads();
    tarn_value values[16];
    tarn_decoded out;
    size_t i = 0;
    for (auto _ : state) {
        const auto& p = payloads[i++ & 255];
        tarn_decode(db.db, 291, 0, p.data(), 8, values, 16, &out);
        benchmark::DoNotOptimize(values);
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["signals"] = out.count;
}
BENCHMARK(BM_NativeDecode16Signals);

void BM_NativeDecodeBatch10Signals(benchmark::State& state) {
    Db db;
    if (!db.db) return state.SkipWithError("open failed");
    const auto payloads = Payloads();
    std::vector<tarn_frame> frames(1024);
    for (size_t i = 0; i < frames.size(); ++i) {
        frames[i] = tarn_frame{};
        frames[i].id = 512;
        frames[i].length = 8;
        std::copy(payloads[i & 255].begin(), payloads[i & 255].end(), frames[i].data);
    }
    std::vector<tarn_value> values(frames.size() * 10);
    std::vector<tarn_batch_result> results(frames.size());
    for (auto _ : state) {
        size_t done = 0;
        tarn_decode_batch(db.db, frames.data(), frames.size(), values.data(), values.size(),
                          results.data(), &done);
        benchmark::DoNotOptimize(values.data());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(frames.size()));
}
BENCHMARK(BM_NativeDecodeBatch10Signals);

void BM_NativeEncode16Signals(benchmark::State& state) {
    Db db;
    if (!db.db) return state.SkipWithError("open failed");
    const tarn_message* msg = nullptr;
    tarn_db_find_message(db.db, 291, 0, &msg);
    tarn_input in[16];
    for (uint32_t s = 0; s < 16; ++s) {
        in[s] = tarn_input{};
        in[s].signal = s;
        in[s].physical = 1.5;
    }
    uint8_t out[8];
    for (auto _ : state) {
        size_t written = 0, failed = 0;
        tarn_encode(msg, in, 16, 0, out, 8, &written, &failed);
        benchmark::DoNotOptimize(out);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_NativeEncode16Signals);

}  // namespace

BENCHMARK_MAIN();
