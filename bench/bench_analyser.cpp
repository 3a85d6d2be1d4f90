// Single-frame decode of a 16-signal message into a DBCMessage, against the
// floor every decode pays: clearing the record's 256 signal slots.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "bench_dbc.h"
#include "legacy/analyser.h"

namespace {

bool LoadBenchDb(CAnalyser& a) {
    char path[] = "/tmp/tarn_bench_analyser_XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) return false;
    std::string text = bench::SixteenSignalDbc();
    bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    FileInfo info{};
    snprintf(info.path, sizeof info.path, "%s", path);
    bool ok = written && a.Load(&info);
    unlink(path);
    return ok;
}

void BM_DecodeSingleFrame(benchmark::State& state) {
    CAnalyser a;
    if (!LoadBenchDb(a)) {
        state.SkipWithError("could not load the benchmark database");
        return;
    }
    auto out = std::make_unique<DBCMessage>();
    VCI_CAN_OBJ frame{};
    frame.id = 418;
    frame.dataLen = 8;
    const uint8_t data[8] = {0x21, 0x43, 0x65, 0x87, 0xA9, 0xCB, 0xED, 0x0F};
    memcpy(frame.data, data, 8);
    for (auto _ : state) {
        bool ok = a.Decode(out.get(), &frame, 1, false);
        benchmark::DoNotOptimize(ok);
        benchmark::ClobberMemory();
    }
    if (out->signalCount != 16) state.SkipWithError("decode did not fill 16 signals");
}
BENCHMARK(BM_DecodeSingleFrame);

// The raw decode under a record decode, to see where time above the floor goes.
void BM_CoderDecodeOnly(benchmark::State& state) {
    CAnalyser a;
    if (!LoadBenchDb(a)) return state.SkipWithError("could not load the benchmark database");
    VCI_CAN_OBJ frame{};
    frame.id = 418;
    frame.dataLen = 8;
    const DecodePlan plan = DBCCoder::PlanFor(*a.Coder().FindMsg(418, false));
    std::vector<uint64_t> raws(plan.readers.size());
    for (auto _ : state) {
        bool ok = a.Coder().DecodeRaw(plan, &frame, 1, 0, raws.data());
        benchmark::DoNotOptimize(ok);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_CoderDecodeOnly);

// The full translation that message lookups do, for comparison.
void BM_TranslateOnly(benchmark::State& state) {
    CAnalyser a;
    if (!LoadBenchDb(a)) return state.SkipWithError("could not load the benchmark database");
    const Message* msg = a.Coder().FindMsg(418, false);
    auto out = std::make_unique<DBCMessage>();
    for (auto _ : state) {
        a.TranslateMsg(*msg, *out);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_TranslateOnly);

void BM_MemsetSignalSlots(benchmark::State& state) {
    auto out = std::make_unique<DBCMessage>();
    for (auto _ : state) {
        memset(out->signals, 0, sizeof out->signals);
        benchmark::DoNotOptimize(out->signals);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_MemsetSignalSlots);

}  // namespace

BENCHMARK_MAIN();
