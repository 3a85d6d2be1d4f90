// The log handler and status texts.
#include "native/log.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>

namespace {

std::mutex g_mutex;
tarn_log_fn g_fn = nullptr;
void* g_user = nullptr;

}  // namespace

namespace tarn::native {

void Log(int level, const char* format, ...) {
    tarn_log_fn fn;
    void* user;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        fn = g_fn;
        user = g_user;
    }
    if (!fn) return;
    char small[512];
    va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (n < 0) return;
    if (static_cast<size_t>(n) < sizeof small) {
        fn(user, level, small);
        return;
    }
    std::string big(static_cast<size_t>(n) + 1, '\0');
    va_start(args, format);
    std::vsnprintf(big.data(), big.size(), format, args);
    va_end(args);
    fn(user, level, big.c_str());
}

}  // namespace tarn::native

extern "C" {

void tarn_set_log_handler(tarn_log_fn fn, void* user) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_fn = fn;
    g_user = user;
}

const char* tarn_version(void) {
    return TARN_VERSION_TEXT;
}

const char* tarn_status_text(int status) {
    switch (status) {
        case TARN_OK:
            return "success";
        case TARN_ERR_ARGUMENT:
            return "invalid argument";
        case TARN_ERR_NO_MEMORY:
            return "out of memory";
        case TARN_ERR_IO:
            return "file could not be read";
        case TARN_ERR_NOT_DBC:
            return "input is not a DBC database";
        case TARN_ERR_PARSE:
            return "DBC text could not be parsed";
        case TARN_ERR_TOO_LARGE:
            return "input too large";
        case TARN_ERR_NOT_FOUND:
            return "not found";
        case TARN_ERR_RANGE:
            return "value out of range";
        case TARN_ERR_NOT_FINITE:
            return "value is not a finite number";
        case TARN_ERR_BUFFER:
            return "buffer too small";
        case TARN_ERR_MULTIPLEX:
            return "signal not selected by the multiplexer value";
        case TARN_ERR_STATE:
            return "operation not possible in this state";
        case TARN_ERR_PROTOCOL:
            return "transport protocol violation";
        default:
            return "unknown status";
    }
}

}  // extern "C"
