// The tarn_log_* functions: the C face of the log reader.
#include <cerrno>
#include <memory>
#include <new>

#include "logs/reader.h"
#include "tarn/log.h"

struct tarn_log_reader {
    std::unique_ptr<tarn::logs::Reader> reader;
    tarn_log_problem_fn fn = nullptr;
    void* user = nullptr;
};

namespace {

using tarn::logs::Format;

bool ValidFormat(int format) {
    return format >= TARN_LOG_FORMAT_AUTO && format <= TARN_LOG_FORMAT_TRC2;
}

void ForwardProblem(void* user, const tarn::logs::Problem& p) {
    auto* r = static_cast<tarn_log_reader*>(user);
    tarn_log_problem out{p.line, p.overlong ? TARN_LOG_LINE_OVERLONG : TARN_LOG_LINE_MALFORMED,
                         p.reason, p.excerpt};
    r->fn(r->user, &out);
}

// Wraps a reader made by `make`; the C++ side may throw only bad_alloc.
template <typename Make>
int Wrap(Make make, tarn_log_reader** out) {
    try {
        auto r = std::make_unique<tarn_log_reader>();
        r->reader = make();
        if (!r->reader) return TARN_ERR_IO;
        *out = r.release();
        return TARN_OK;
    } catch (const std::bad_alloc&) {
        return TARN_ERR_NO_MEMORY;
    }
}

}  // namespace

extern "C" {

TARN_NATIVE_API const char* tarn_log_format_name(int format) {
    static const char* const kNames[] = {"auto", "candump", "candump-screen",
                                         "asc",  "trc1",    "trc2"};
    return ValidFormat(format) ? kNames[format] : "unknown";
}

TARN_NATIVE_API int tarn_log_open(const char* path, int format, tarn_log_reader** out) {
    if (!out) return TARN_ERR_ARGUMENT;
    *out = nullptr;
    if (!path || !ValidFormat(format)) return TARN_ERR_ARGUMENT;
    return Wrap([&] { return tarn::logs::Reader::Open(path, static_cast<Format>(format)); }, out);
}

TARN_NATIVE_API int tarn_log_open_fd(int fd, int format, tarn_log_reader** out) {
    if (!out) return TARN_ERR_ARGUMENT;
    *out = nullptr;
    if (fd < 0 || !ValidFormat(format)) return TARN_ERR_ARGUMENT;
    return Wrap(
        [&] {
            return std::make_unique<tarn::logs::Reader>(fd, false, static_cast<Format>(format));
        },
        out);
}

TARN_NATIVE_API void tarn_log_close(tarn_log_reader* reader) {
    delete reader;
}

TARN_NATIVE_API int tarn_log_read(tarn_log_reader* reader, tarn_frame* frames, size_t capacity,
                                  size_t* count) {
    if (count) *count = 0;
    if (!reader || !frames || !count || capacity == 0) return TARN_ERR_ARGUMENT;
    return reader->reader->Read(frames, capacity, *count) ? TARN_OK : TARN_ERR_IO;
}

TARN_NATIVE_API int tarn_log_at_end(const tarn_log_reader* reader) {
    return reader && reader->reader->AtEnd() ? 1 : 0;
}

TARN_NATIVE_API int tarn_log_get_info(const tarn_log_reader* reader, tarn_log_info* out) {
    if (!reader || !out) return TARN_ERR_ARGUMENT;
    const tarn::logs::Reader& r = *reader->reader;
    out->format = static_cast<int>(r.GetFormat());
    out->channel_count = r.Channels().Size();
    out->lines = r.Lines();
    out->frames = r.Counts().frames;
    out->malformed = r.Counts().malformed;
    out->overlong = r.Counts().overlong;
    return TARN_OK;
}

TARN_NATIVE_API int tarn_log_channel(const tarn_log_reader* reader, size_t index,
                                     const char** name) {
    if (!reader || !name) return TARN_ERR_ARGUMENT;
    if (index >= reader->reader->Channels().Size()) return TARN_ERR_NOT_FOUND;
    *name = reader->reader->Channels().Name(index);
    return TARN_OK;
}

TARN_NATIVE_API int tarn_log_set_problem_handler(tarn_log_reader* reader, tarn_log_problem_fn fn,
                                                 void* user) {
    if (!reader) return TARN_ERR_ARGUMENT;
    reader->fn = fn;
    reader->user = user;
    reader->reader->SetProblemHandler(fn ? ForwardProblem : nullptr, reader);
    return TARN_OK;
}

}  // extern "C"
