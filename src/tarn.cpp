// Exported C entry points. Nothing may throw across the C boundary, so every
// body catches everything and falls back to the function's "none" result.
#include "tarn.h"

#include "common/log.h"
#include "tarn_frame.h"

extern "C" {

void TARN_SetFrameType(uint32_t type) {
    try {
        libdbc::Env::Instance().SetFrameType(type);
    } catch (...) {
    }
}

uint32_t TARN_GetFrameType(void) {
    try {
        return libdbc::Env::Instance().GetFrameType();
    } catch (...) {
        return 0;
    }
}

void TARN_SetLogFile(bool enable, const char* path) {
    try {
        if (!enable) {
            kq::LogDeinit();
            return;
        }
        kq::LogInit(path, kq::LOG_INFO);
    } catch (...) {
    }
}

}  // extern "C"
