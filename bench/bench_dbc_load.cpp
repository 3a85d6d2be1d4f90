// Load throughput of the DBC reader (DBCEx::Load) and the memory a load
// takes, on the largest public corpus file and on a generated 5 MB file.
//
// Memory is counted by replacing the global operator new/delete. The atom
// table takes its blocks straight from malloc, so the C allocator is
// replaced too and operator new is routed through it: every byte is counted
// exactly once, by its usable size.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <dirent.h>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "common/log.h"
#include "bench_inputs.h"
#include "dbc/dbc.h"

// ---------------------------------------------------------------------------
// Allocation accounting
// ---------------------------------------------------------------------------

// Sanitizers bring their own allocator; counting is left out under them.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TARN_COUNT_ALLOCATIONS 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TARN_COUNT_ALLOCATIONS 0
#endif
#endif
#ifndef TARN_COUNT_ALLOCATIONS
#define TARN_COUNT_ALLOCATIONS 1
#endif

namespace {

std::atomic<int64_t> g_current{0};
std::atomic<int64_t> g_peak{0};

}  // namespace

#if TARN_COUNT_ALLOCATIONS

namespace {

void Count(void* p) {
    if (!p) return;
    int64_t n = static_cast<int64_t>(malloc_usable_size(p));
    int64_t now = g_current.fetch_add(n, std::memory_order_relaxed) + n;
    int64_t peak = g_peak.load(std::memory_order_relaxed);
    while (now > peak && !g_peak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
}

void Uncount(void* p) {
    if (p)
        g_current.fetch_sub(static_cast<int64_t>(malloc_usable_size(p)), std::memory_order_relaxed);
}

void* NewOrThrow(size_t n) {
    void* p = std::malloc(n ? n : 1);
    if (!p) throw std::bad_alloc();
    return p;
}

void* NewAligned(size_t n, std::align_val_t align, bool nothrow) {
    void* p = nullptr;
    if (posix_memalign(&p, static_cast<size_t>(align), n ? n : 1) != 0) p = nullptr;
    if (!p && !nothrow) throw std::bad_alloc();
    return p;
}

}  // namespace

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);
}

extern "C" {
void* malloc(size_t n) {
    void* p = __libc_malloc(n);
    Count(p);
    return p;
}
void* calloc(size_t n, size_t size) {
    void* p = __libc_calloc(n, size);
    Count(p);
    return p;
}
void* realloc(void* old, size_t n) {
    int64_t before = old ? static_cast<int64_t>(malloc_usable_size(old)) : 0;
    void* p = __libc_realloc(old, n);
    if (p || n == 0) g_current.fetch_sub(before, std::memory_order_relaxed);
    Count(p);
    return p;
}
void free(void* p) {
    Uncount(p);
    __libc_free(p);
}
void* memalign(size_t align, size_t n) {
    void* p = __libc_memalign(align, n);
    Count(p);
    return p;
}
void* aligned_alloc(size_t align, size_t n) {
    return memalign(align, n);
}
int posix_memalign(void** out, size_t align, size_t n) {
    if (align % sizeof(void*) != 0 || (align & (align - 1)) != 0) return EINVAL;
    void* p = memalign(align, n);
    if (!p) return ENOMEM;
    *out = p;
    return 0;
}
void* valloc(size_t n) {
    return memalign(static_cast<size_t>(sysconf(_SC_PAGESIZE)), n);
}
}

void* operator new(size_t n) {
    return NewOrThrow(n);
}
void* operator new[](size_t n) {
    return NewOrThrow(n);
}
void* operator new(size_t n, const std::nothrow_t&) noexcept {
    return std::malloc(n ? n : 1);
}
void* operator new[](size_t n, const std::nothrow_t&) noexcept {
    return std::malloc(n ? n : 1);
}
void* operator new(size_t n, std::align_val_t a) {
    return NewAligned(n, a, false);
}
void* operator new[](size_t n, std::align_val_t a) {
    return NewAligned(n, a, false);
}
void* operator new(size_t n, std::align_val_t a, const std::nothrow_t&) noexcept {
    return NewAligned(n, a, true);
}
void* operator new[](size_t n, std::align_val_t a, const std::nothrow_t&) noexcept {
    return NewAligned(n, a, true);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, size_t) noexcept {
    std::free(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
    std::free(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
    std::free(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete(void* p, size_t, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, size_t, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept {
    std::free(p);
}

#endif  // TARN_COUNT_ALLOCATIONS

// ---------------------------------------------------------------------------
// Inputs
// ---------------------------------------------------------------------------

namespace {

using bench::FileSize;
using bench::GeneratedFile;
using bench::LargestCorpusFile;

// The loader reports odd lines of real files; keep them out of the tables.
void Quiet() {
    kq::LogInit("/dev/null", kq::LOG_ERROR);
}

void RunLoads(benchmark::State& state, const std::string& path, const char* missing) {
    Quiet();
    if (path.empty()) {
        state.SkipWithError(missing);
        return;
    }
    int64_t size = FileSize(path);
    size_t messages = 0;
    for (auto _ : state) {
        auto db = std::make_unique<DBCEx>();
        if (!db->Load(path, false)) {
            state.SkipWithError(("load failed: " + path).c_str());
            return;
        }
        messages = db->GetMessageCount();
        // Tearing the model down is not part of a load.
        state.PauseTiming();
        db.reset();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * size);
    state.counters["file_MB"] = static_cast<double>(size) / 1e6;
    state.counters["messages"] = static_cast<double>(messages);
    state.SetLabel(path.substr(path.find_last_of('/') + 1));
}

void BM_LoadLargestCorpusFile(benchmark::State& state) {
    RunLoads(state, LargestCorpusFile(), "no DBC corpus found");
}

void BM_LoadGeneratedFile(benchmark::State& state) {
    RunLoads(state, GeneratedFile(), "python3 or the generator tool is missing");
}

// Peak heap during one load and heap held by the loaded database, both as a
// multiple of the file size. A file text read onto the heap counts; a file
// the loader maps into memory does not (its pages are the page cache's).
void BM_LoadMemoryGeneratedFile(benchmark::State& state) {
    Quiet();
    const std::string& path = GeneratedFile();
    if (!TARN_COUNT_ALLOCATIONS) {
        state.SkipWithError("allocations are not counted under a sanitizer");
        return;
    }
    if (path.empty()) {
        state.SkipWithError("python3 or the generator tool is missing");
        return;
    }
    double size = static_cast<double>(FileSize(path));
    int64_t peak = 0, held = 0;
    for (auto _ : state) {
        int64_t base = g_current.load();
        g_peak.store(base);
        {
            DBCEx db;
            db.Load(path, false);
            held = g_current.load() - base;
            peak = g_peak.load() - base;
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
    state.counters["peak_x_file"] = static_cast<double>(peak) / size;
    state.counters["held_x_file"] = static_cast<double>(held) / size;
    state.counters["peak_MB"] = static_cast<double>(peak) / 1e6;
    state.counters["held_MB"] = static_cast<double>(held) / 1e6;
}

// Parsing alone, with the text already in memory.
void BM_LoadContentGenerated(benchmark::State& state) {
    Quiet();
    const std::string& path = GeneratedFile();
    FILE* f = path.empty() ? nullptr : std::fopen(path.c_str(), "rb");
    if (!f) {
        state.SkipWithError("python3 or the generator tool is missing");
        return;
    }
    std::string text(static_cast<size_t>(FileSize(path)), '\0');
    size_t got = std::fread(&text[0], 1, text.size(), f);
    std::fclose(f);
    text.resize(got);
    for (auto _ : state) {
        auto db = std::make_unique<DBC>();
        benchmark::DoNotOptimize(db->LoadContent(text));
        state.PauseTiming();
        db.reset();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

// One message whose switch is followed by N multiplexed signals, each with
// its own value: the cost per signal should not grow with N.
void BM_LoadContentWideMultiplexed(benchmark::State& state) {
    Quiet();
    // The node line interns the signal names first, so the switch's name
    // sorts after them, as happens when names were seen earlier in a file.
    std::string nodes = "BU_:", body;
    for (int64_t i = 0; i < state.range(0); ++i) {
        std::string n = std::to_string(i);
        nodes += " Sig" + n;
        body += " SG_ Sig" + n + " m" + n + " : 8|8@1+ (1,0) [0|255] \"\" X\n";
    }
    std::string text =
        nodes + "\nBO_ 100 Wide: 8 ECU\n SG_ Switch M : 0|8@1+ (1,0) [0|255] \"\" X\n" + body;
    for (auto _ : state) {
        auto db = std::make_unique<DBC>();
        benchmark::DoNotOptimize(db->LoadContent(text));
        state.PauseTiming();
        db.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(BM_LoadLargestCorpusFile)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadGeneratedFile)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadContentGenerated)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadContentWideMultiplexed)
    ->Arg(250)
    ->Arg(1000)
    ->Arg(4000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LoadMemoryGeneratedFile)->Unit(benchmark::kMillisecond)->Iterations(3);

BENCHMARK_MAIN();
