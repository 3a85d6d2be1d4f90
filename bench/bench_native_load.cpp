// Read speed and memory of the native DBC reader (tarn::net::Read) on the
// generated 5 MB file and on the largest public corpus file, plus a
// scaling check on one message with many signals.
//
// Memory is reported as multiples of the file size: `held_x` is the heap
// an open Network keeps (malloc's count, containers included) and
// `bytes_held_x` what Network::BytesHeld says; `peak_rss_x` is the growth
// of the process's peak resident size during one ReadFile, file text
// included.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/stat.h>

#include <dirent.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "bench_inputs.h"
#include "dbc/network.h"
#include "tarn/db.h"

namespace {

using bench::FileSize;
using bench::GeneratedFile;
using bench::LargestCorpusFile;
using bench::Slurp;
using tarn::net::Network;
using tarn::net::ReadOptions;
using tarn::net::ReadStatus;

void ReadFromMemory(benchmark::State& state, const std::string& path) {
    std::string text = path.empty() ? std::string() : Slurp(path);
    if (text.empty()) {
        state.SkipWithError("input missing: no corpus, or python3 or the generator is missing");
        return;
    }
    size_t signals = 0;
    for (auto _ : state) {
        auto net = std::make_unique<Network>();
        if (tarn::net::Read(text, ReadOptions{}, *net) != ReadStatus::Ok) {
            state.SkipWithError("read failed");
            return;
        }
        signals = net->signals.size();
        state.PauseTiming();  // tearing the model down is not part of a read
        net.reset();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
    state.counters["signals"] = static_cast<double>(signals);
    state.SetLabel(path.substr(path.find_last_of('/') + 1));
}

void BM_NativeReadGenerated(benchmark::State& state) {
    ReadFromMemory(state, GeneratedFile());
}

void BM_NativeReadLargestCorpusFile(benchmark::State& state) {
    ReadFromMemory(state, LargestCorpusFile());
}

size_t HeapInUse() {
    struct mallinfo2 mi = mallinfo2();
    return mi.uordblks + mi.hblkhd;
}

// VmRSS or VmHWM of this process, in bytes.
int64_t StatusBytes(const char* key) {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, std::strlen(key), key) == 0)
            return std::atoll(line.c_str() + std::strlen(key) + 1) * 1024;
    }
    return -1;
}

void ResetPeakRss() {
    std::ofstream("/proc/self/clear_refs") << "5";
}

void Memory(benchmark::State& state, const std::string& path) {
    if (path.empty()) {
        state.SkipWithError("input missing: no corpus, or python3 or the generator is missing");
        return;
    }
    double size = static_cast<double>(FileSize(path));
    double held = 0, bytesHeld = 0, peak = 0;
    for (auto _ : state) {
        malloc_trim(0);
        size_t heapBefore = HeapInUse();
        ResetPeakRss();
        int64_t rssBefore = StatusBytes("VmRSS:");
        Network net;
        tarn::net::ReadFile(path, ReadOptions{}, net);
        peak = static_cast<double>(StatusBytes("VmHWM:") - rssBefore);
        held = static_cast<double>(HeapInUse() - heapBefore);
        bytesHeld = static_cast<double>(net.BytesHeld());
    }
    state.counters["held_x"] = held / size;
    state.counters["bytes_held_x"] = bytesHeld / size;
    state.counters["peak_rss_x"] = peak / size;
    state.counters["file_MB"] = size / 1e6;
    state.SetLabel(path.substr(path.find_last_of('/') + 1));
}

// The whole open through the C interface: reading plus the decode plans and
// handles, and the heap a database holds once open.
void BM_NativeOpenGenerated(benchmark::State& state) {
    const std::string path = GeneratedFile();
    std::string text = path.empty() ? std::string() : Slurp(path);
    if (text.empty()) return state.SkipWithError("input missing");
    double held = 0;
    for (auto _ : state) {
        malloc_trim(0);
        const size_t before = HeapInUse();
        tarn_db* db = nullptr;
        if (tarn_db_open_buffer(text.data(), text.size(), 0, &db, nullptr, 0) != TARN_OK)
            return state.SkipWithError("open failed");
        state.PauseTiming();
        held = static_cast<double>(HeapInUse() - before);
        tarn_db_close(db);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
    state.counters["held_x"] = held / static_cast<double>(text.size());
}

void BM_NativeMemoryGenerated(benchmark::State& state) {
    Memory(state, GeneratedFile());
}

void BM_NativeMemoryLargestCorpusFile(benchmark::State& state) {
    Memory(state, LargestCorpusFile());
}

// One message with N signals, each with a comment, value texts and an
// attribute: the cost per signal must not grow with N.
void BM_NativeReadWideMessage(benchmark::State& state) {
    std::string head = "VERSION \"\"\nBA_DEF_ SG_ \"A\" INT 0 9;\nBO_ 1 Wide: 8 X\n", tail;
    for (int64_t i = 0; i < state.range(0); ++i) {
        std::string n = "Sig" + std::to_string(i);
        head += " SG_ " + n + " m" + std::to_string(i) + " : 8|8@1+ (1,0) [0|255] \"\" X\n";
        tail += "CM_ SG_ 1 " + n + " \"c\";\nVAL_ 1 " + n + " 1 \"one\" 0 \"zero\";\n";
        tail += "BA_ \"A\" SG_ 1 " + n + " 3;\n";
    }
    std::string text = head + " SG_ S M : 0|8@1+ (1,0) [0|255] \"\" X\n" + tail;
    for (auto _ : state) {
        Network net;
        benchmark::DoNotOptimize(tarn::net::Read(text, ReadOptions{}, net));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(BM_NativeReadGenerated)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_NativeOpenGenerated)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_NativeReadLargestCorpusFile)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_NativeMemoryGenerated)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_NativeMemoryLargestCorpusFile)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_NativeReadWideMessage)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
