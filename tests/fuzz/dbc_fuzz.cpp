// Arbitrary bytes through the DBC loader, then the writer's text of the
// resulting model through a second loader. Crashes, leaks, out-of-bounds
// reads and undefined behaviour are what the sanitizers report. The same
// bytes, taken as a signal definition, must convert exactly as sscanf
// converts them; a difference aborts the run.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/log.h"
#include "dbc/dbc.h"
#include "dbc/dbc_impl.h"

namespace {

// Parser faults show in small texts, and each run's cost grows with its
// input: unless the caller chooses a limit, inputs stay at 4 KiB, the size
// of the project's own seeds and of a few whole sections of a real file.
char g_maxLen[] = "-max_len=4096";
std::vector<char*> g_args;

bool HasMaxLen(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        if (std::strncmp(argv[i], "-max_len=", 9) == 0) return true;
    return false;
}

bool SameDouble(double a, double b) {
    if (std::isnan(a) || std::isnan(b))
        return std::isnan(a) && std::isnan(b) && std::signbit(a) == std::signbit(b);
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// The loader's signal-definition reader against the sscanf it stands for.
void CheckSignalDef(const std::string& text) {
    std::string compact;
    for (char c : text) {
        if (c == '\0') break;
        if (c != ' ' && c != '\t') compact += c;
    }
    SignalDef want, got;
    int n = std::sscanf(compact.c_str(), "%u|%u@%d%c(%lf,%lf)[%lf|%lf]", &want.startBit,
                        &want.length, &want.byteOrder, &want.sign, &want.factor, &want.offset,
                        &want.minimum, &want.maximum);
    int m = ParseSignalDef(compact.c_str(), got);
    if (n < 0) n = 0;  // EOF before the first conversion: nothing converted
    if (m < 0) m = 0;
    bool same = n == m;
    const bool fields[] = {
        want.startBit == got.startBit,         want.length == got.length,
        want.byteOrder == got.byteOrder,       want.sign == got.sign,
        SameDouble(want.factor, got.factor),   SameDouble(want.offset, got.offset),
        SameDouble(want.minimum, got.minimum), SameDouble(want.maximum, got.maximum)};
    for (int i = 0; same && i < n && i < 8; ++i) same = fields[i];
    if (!same) {
        std::fprintf(stderr, "signal definition \"%s\": sscanf %d fields, loader %d\n",
                     compact.c_str(), n, m);
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    // Malformed lines are logged; millions of them would only slow the search.
    kq::LogInit("/dev/null", kq::LOG_ERROR);
    if (*argc >= 1 && !HasMaxLen(*argc, *argv)) {
        g_args.assign(*argv, *argv + *argc);
        g_args.insert(g_args.begin() + 1, g_maxLen);
        g_args.push_back(nullptr);
        *argv = g_args.data();
        *argc += 1;
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    if (size <= 256) CheckSignalDef(text);
    DBCEx db;
    // Odd sizes also record file order, which feeds the writer's other sections.
    db.Impl()->SetOrdered(size % 2 == 1);
    db.LoadContent(text);
    Message first;
    if (db.GetFirstMessage(&first)) {
        while (db.GetNextMessage(&first)) {
        }
    }
    DBC again;
    again.LoadContent(db.Impl()->DumpText());
    return 0;
}
