// Reading and parsing throughput of the log readers, in lines per second, on
// a 1,000,000-frame candump log generated for the messages of a public DBC
// file, and on the same frames written as Vector ASC and PEAK TRC 2.1.
// Files are made once per machine under /tmp and reused by later runs.
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tarn/log.h"

namespace {

constexpr int kLines = 1000000;
const std::string kDir = "/tmp/tarn_bench_logs";

bool Exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && st.st_size > 0;
}

const std::string& CandumpLog() {
    static const std::string path = [] {
        std::string tool = std::string(TARN_SHARED_DIR) + "/tools/gen_candump.py";
        std::string dbc = std::string(TARN_CORPUS_DIR) + "/opendbc-pr1020__tesla_model3_veh.dbc";
        std::string out = kDir + "/candump_" + std::to_string(kLines) + "_seed1.log";
        if (Exists(out)) return out;
        if (!Exists(tool) || !Exists(dbc)) return std::string();
        mkdir(kDir.c_str(), 0755);
        std::string cmd = "/usr/bin/python3 '" + tool + "' '" + dbc + "' " +
                          std::to_string(kLines) + " --seed 1 > '" + out +
                          ".tmp' 2>/dev/null && mv '" + out + ".tmp' '" + out + "'";
        return std::system(cmd.c_str()) == 0 && Exists(out) ? out : std::string();
    }();
    return path;
}

using LineWriter = void (*)(std::FILE* out, const tarn_frame& f, double t0);

unsigned Dlc(unsigned length) {
    static const unsigned kLengths[] = {12, 16, 20, 24, 32, 48, 64};
    unsigned dlc = length <= 8 ? length : 9;
    for (unsigned i = 0; length > 8 && i < 7 && length > kLengths[i]; ++i) ++dlc;
    return dlc;
}

void WriteAsc(std::FILE* out, const tarn_frame& f, double t0) {
    const char* x = f.extended ? "x" : "";
    if (f.flags & TARN_FRAME_FD)
        std::fprintf(out, "%11.6f CANFD   1 Rx %8X%s 1 0 %X %2u", f.time - t0, f.id, x,
                     Dlc(f.length), f.length);
    else
        std::fprintf(out, "%11.6f 1  %X%s             Rx   d %u", f.time - t0, f.id, x, f.length);
    for (unsigned i = 0; i < f.length; ++i) std::fprintf(out, " %02X", f.data[i]);
    std::fputs(f.flags & TARN_FRAME_FD ? "   130000  130  3000  0  0 0 0 0\n" : "\n", out);
}

void WriteTrc(std::FILE* out, const tarn_frame& f, double t0) {
    static unsigned n = 0;
    std::fprintf(out, "%7u %13.3f %s 1 %0*X Rx - %2X   ", ++n, (f.time - t0) * 1000.0,
                 f.flags & TARN_FRAME_FD ? "FB" : "DT", f.extended ? 8 : 4, f.id, Dlc(f.length));
    for (unsigned i = 0; i < f.length; ++i) std::fprintf(out, " %02X", f.data[i]);
    std::fputc('\n', out);
}

// The candump frames rewritten in another format, through the reader itself.
std::string Convert(const char* name, const char* header, LineWriter write) {
    std::string out = kDir + "/" + name, in = CandumpLog();
    if (Exists(out) || in.empty()) return in.empty() ? in : out;
    tarn_log_reader* r = nullptr;
    std::FILE* f = std::fopen((out + ".tmp").c_str(), "w");
    if (!f || tarn_log_open(in.c_str(), TARN_LOG_FORMAT_AUTO, &r) != TARN_OK) return std::string();
    std::fputs(header, f);
    std::vector<tarn_frame> frames(4096);
    size_t n = 0;
    double t0 = -1;
    while (tarn_log_read(r, frames.data(), frames.size(), &n) == TARN_OK && n > 0) {
        if (t0 < 0) t0 = frames[0].time;
        for (size_t i = 0; i < n; ++i) write(f, frames[i], t0);
    }
    tarn_log_close(r);
    std::fclose(f);
    return std::rename((out + ".tmp").c_str(), out.c_str()) == 0 ? out : std::string();
}

void RunReads(benchmark::State& state, const std::string& path, int format) {
    if (path.empty()) {
        state.SkipWithError("python3, the generator tool or the DBC corpus is missing");
        return;
    }
    std::vector<tarn_frame> frames(4096);
    tarn_log_info info{};
    for (auto _ : state) {
        tarn_log_reader* r = nullptr;
        if (tarn_log_open(path.c_str(), TARN_LOG_FORMAT_AUTO, &r) != TARN_OK) {
            state.SkipWithError("cannot open the log");
            return;
        }
        size_t n = 0;
        while (tarn_log_read(r, frames.data(), frames.size(), &n) == TARN_OK && n > 0)
            benchmark::DoNotOptimize(frames.data());
        tarn_log_get_info(r, &info);
        tarn_log_close(r);
    }
    if (info.format != format || info.malformed != 0 || info.frames < kLines)
        state.SkipWithError("the log did not read cleanly");
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(info.lines));
    state.counters["lines_per_s"] = benchmark::Counter(
        static_cast<double>(info.lines) * static_cast<double>(state.iterations()),
        benchmark::Counter::kIsRate);
}

void BM_ReadCandump(benchmark::State& state) {
    RunReads(state, CandumpLog(), TARN_LOG_FORMAT_CANDUMP);
}

void BM_ReadAsc(benchmark::State& state) {
    static const std::string path =
        Convert("asc_seed1.asc",
                "date Fri Jan 1 12:00:00.000 pm 2021\nbase hex  timestamps absolute\n"
                "internal events logged\nBegin Triggerblock Fri Jan 1 12:00:00.000 pm 2021\n",
                WriteAsc);
    RunReads(state, path, TARN_LOG_FORMAT_ASC);
}

void BM_ReadTrc(benchmark::State& state) {
    static const std::string path =
        Convert("trc_seed1.trc",
                ";$FILEVERSION=2.1\n;$STARTTIME=44197.5\n;$COLUMNS=N,O,T,B,I,d,R,L,D\n", WriteTrc);
    RunReads(state, path, TARN_LOG_FORMAT_TRC2);
}

}  // namespace

BENCHMARK(BM_ReadCandump)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadAsc)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadTrc)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
