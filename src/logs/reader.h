// A streaming reader of CAN logs: lines from a descriptor, the format told
// from the first lines (or forced), frames parsed straight into the
// caller's array. Lines that cannot be read are counted and reported with
// their number and a short escaped excerpt; memory stays bounded by the line
// cap whatever the input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "logs/channels.h"
#include "logs/line_source.h"
#include "logs/parser.h"
#include "tarn/db.h"

namespace tarn::logs {

// A line that gave no frame although it should have.
struct Problem {
    uint64_t line;        // 1-based
    bool overlong;        // longer than LineSource::kMaxLine, else malformed
    const char* reason;   // static text
    const char* excerpt;  // escaped start of the line, NUL-terminated; valid during the call
};
using ProblemFn = void (*)(void* user, const Problem& problem);

struct ReaderCounts {
    uint64_t frames = 0;
    uint64_t malformed = 0;
    uint64_t overlong = 0;
};

// At most this many bytes of a line are shown; control bytes, non-ASCII
// bytes and '\' come out as \xNN so that no excerpt can drive a terminal.
constexpr size_t kExcerptBytes = 80;
void EscapeExcerpt(std::string_view line, std::string& out);

class Reader {
  public:
    // Reads `fd`, closing it at the end only when `owned`.
    Reader(int fd, bool owned, Format forced);
    // nullptr with errno set when the path cannot be opened for reading.
    static std::unique_ptr<Reader> Open(const char* path, Format forced);

    // Up to `capacity` frames into `out`. From a regular file the batch is
    // filled; otherwise it returns as soon as one frame is in and no further
    // line is buffered, so a pipe's frames come out as they are written.
    // `count` is 0 only at the end of input or when a non-blocking descriptor
    // has nothing now. False when reading failed (Errno() says why).
    bool Read(tarn_frame* out, size_t capacity, size_t& count);

    bool AtEnd() const { return m_atEnd; }
    int Errno() const { return m_source.Errno(); }
    Format GetFormat() const { return m_format; }
    uint64_t Lines() const { return m_source.LineNumber(); }
    const ReaderCounts& Counts() const { return m_counts; }
    const ChannelTable& Channels() const { return m_channels; }
    void SetProblemHandler(ProblemFn fn, void* user) {
        m_problemFn = fn;
        m_problemUser = user;
    }

  private:
    bool ParseLine(std::string_view line, tarn_frame& frame);
    bool Detect(std::string_view line);
    void Report(std::string_view line, bool overlong, const char* reason);

    LineSource m_source;
    ChannelTable m_channels;
    Format m_format;
    std::unique_ptr<LineParser> m_parser;
    ReaderCounts m_counts;
    bool m_atEnd = false;
    bool m_failed = false;
    ProblemFn m_problemFn = nullptr;
    void* m_problemUser = nullptr;
    std::string m_excerpt;
};

}  // namespace tarn::logs
