// Lines from a file descriptor, read in large chunks into one fixed buffer.
// A line is handed out as soon as its end is buffered, so a pipe's lines
// come out one by one as the writer sends them; a line longer than the cap
// is reported once and skipped to its end without being kept.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace tarn::logs {

class LineSource {
  public:
    static constexpr size_t kMaxLine = size_t{1} << 20;

    enum class Status {
        Line,        // a complete line, without its "\n" or "\r\n"
        Overlong,    // the start of a line longer than kMaxLine; the rest is skipped
        WouldBlock,  // no complete line buffered and the caller chose not to wait
        End,         // end of input
        Error        // read() failed; see Errno()
    };

    // The descriptor is closed by the destructor only when `owned`.
    LineSource(int fd, bool owned);
    ~LineSource();
    LineSource(const LineSource&) = delete;
    LineSource& operator=(const LineSource&) = delete;

    // The next line; `line` stays valid until the next call. With `mayWait`
    // false, returns WouldBlock instead of reading when no line is complete.
    Status Next(std::string_view& line, bool mayWait);

    // 1-based number of the line last returned.
    uint64_t LineNumber() const { return m_lineNumber; }
    // A regular file never makes a read wait for a writer.
    bool IsRegularFile() const { return m_regular; }
    int Errno() const { return m_errno; }

  private:
    static constexpr size_t kChunk = size_t{64} << 10;

    bool FindLine(std::string_view& line);
    // Reads once more: Line when data or the end of input arrived.
    Status Fill();

    int m_fd;
    bool m_owned;
    bool m_regular = false;
    bool m_eof = false;
    bool m_skipping = false;  // inside an overlong line
    int m_errno = 0;
    uint64_t m_lineNumber = 0;
    std::unique_ptr<char[]> m_buf;
    size_t m_begin = 0;  // first byte of the current line
    size_t m_scan = 0;   // bytes before this hold no newline
    size_t m_end = 0;    // end of buffered data
};

}  // namespace tarn::logs
