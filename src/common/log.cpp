#include "common/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace kq {
namespace {

// The stream and the threshold are read and changed under one lock, held
// for a whole line: a line is never written to a stream that another thread
// is closing, and lines of different threads never interleave.
std::mutex s_mutex;
FILE* s_log_file = stdout;
int s_level = LOG_DEBUG;

const char* BareName(const char* file) {
    if (!file) return "";
    if (const char* slash = std::strrchr(file, '/')) return slash + 1;
    if (const char* back = std::strrchr(file, '\\')) return back + 1;
    return file;
}

void CloseLocked() {
    if (!s_log_file || s_log_file == stdout) return;
    std::fclose(s_log_file);
    s_log_file = nullptr;
}

}  // namespace

void LogInit(const char* file, LogLevel level) {
    std::lock_guard<std::mutex> lock(s_mutex);
    CloseLocked();
    if (!file || !*file) {
        s_log_file = stdout;
    } else {
        FILE* f = std::fopen(file, "a+");
        s_log_file = f ? f : stdout;
    }
    s_level = level;
}

void LogDeinit() {
    std::lock_guard<std::mutex> lock(s_mutex);
    CloseLocked();
}

void Log(const char* file, int line, LogLevel level, const char* format, ...) {
    const char* name = BareName(file);
    std::lock_guard<std::mutex> lock(s_mutex);
    FILE* out = s_log_file;
    if (!out || static_cast<int>(level) < s_level) return;
    std::fprintf(out, "%s:%d[%d] ", name, line, static_cast<int>(level));
    va_list args;
    va_start(args, format);
    std::vfprintf(out, format, args);
    va_end(args);
    std::fflush(out);
}

}  // namespace kq
