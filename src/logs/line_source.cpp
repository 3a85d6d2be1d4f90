#include "logs/line_source.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tarn::logs {
namespace {

// Room for a whole line of the maximal length plus one more read.
constexpr size_t kChunk = size_t{64} << 10;
constexpr size_t kCapacity = LineSource::kMaxLine + kChunk;

}  // namespace

LineSource::LineSource(int fd, bool owned) : m_fd(fd), m_owned(owned), m_buf(new char[kCapacity]) {
    struct stat st;
    m_regular = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
}

LineSource::~LineSource() {
    if (m_owned) close(m_fd);
}

LineSource::Status LineSource::Next(std::string_view& line, bool mayWait) {
    for (;;) {
        if (FindLine(line)) return line.size() > kMaxLine ? Status::Overlong : Status::Line;
        char* base = m_buf.get();
        if (m_skipping) {
            m_begin = m_scan = m_end = 0;  // the overlong line's bytes are not kept
        } else if (m_end - m_begin > kMaxLine) {
            ++m_lineNumber;
            line = std::string_view(base + m_begin, m_end - m_begin);
            m_skipping = true;
            m_begin = m_scan = m_end;
            return Status::Overlong;
        }
        if (m_eof) {
            if (m_begin == m_end) return Status::End;
            size_t len = m_end - m_begin;  // a last line without its newline
            if (base[m_end - 1] == '\r') --len;
            line = std::string_view(base + m_begin, len);
            ++m_lineNumber;
            m_begin = m_scan = m_end;
            return Status::Line;
        }
        if (!mayWait) return Status::WouldBlock;
        Status s = Fill();
        if (s != Status::Line) return s;
    }
}

bool LineSource::FindLine(std::string_view& line) {
    char* base = m_buf.get();
    for (;;) {
        auto* nl = static_cast<char*>(std::memchr(base + m_scan, '\n', m_end - m_scan));
        if (!nl) {
            m_scan = m_end;
            return false;
        }
        size_t stop = static_cast<size_t>(nl - base);
        size_t begin = m_begin;
        m_begin = m_scan = stop + 1;
        if (m_skipping) {  // the end of an overlong line, already counted
            m_skipping = false;
            continue;
        }
        size_t len = stop - begin;
        if (len > 0 && base[stop - 1] == '\r') --len;
        line = std::string_view(base + begin, len);
        ++m_lineNumber;
        return true;
    }
}

LineSource::Status LineSource::Fill() {
    char* base = m_buf.get();
    if (m_begin == m_end) {
        m_begin = m_scan = m_end = 0;
    } else if (kCapacity - m_end < kChunk) {
        // The partial line moves to the front; it is at most kMaxLine long,
        // so at least one chunk of room follows it.
        std::memmove(base, base + m_begin, m_end - m_begin);
        m_end -= m_begin;
        m_scan -= m_begin;
        m_begin = 0;
    }
    for (;;) {
        ssize_t n = read(m_fd, base + m_end, kCapacity - m_end);
        if (n > 0) {
            m_end += static_cast<size_t>(n);
            return Status::Line;
        }
        if (n == 0) {
            m_eof = true;
            return Status::Line;
        }
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) return Status::WouldBlock;
        m_errno = errno;
        return Status::Error;
    }
}

}  // namespace tarn::logs
