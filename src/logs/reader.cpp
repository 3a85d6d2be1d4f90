#include "logs/reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "logs/detect.h"

namespace tarn::logs {

void EscapeExcerpt(std::string_view line, std::string& out) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    out.clear();
    size_t n = line.size() < kExcerptBytes ? line.size() : kExcerptBytes;
    for (size_t i = 0; i < n; ++i) {
        auto b = static_cast<unsigned char>(line[i]);
        if (b >= 0x20 && b < 0x7F && b != '\\') {
            out += static_cast<char>(b);
        } else {
            char esc[4] = {'\\', 'x', kHex[b >> 4], kHex[b & 15]};
            out.append(esc, 4);
        }
    }
    if (line.size() > n) out += "...";
}

Reader::Reader(int fd, bool owned, Format forced)
    : m_source(fd, owned), m_format(forced), m_parser(MakeParser(forced, m_channels)) {}

std::unique_ptr<Reader> Reader::Open(const char* path, Format forced) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return nullptr;
    struct stat st;
    if (fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
        close(fd);
        errno = EISDIR;
        return nullptr;
    }
    return std::make_unique<Reader>(fd, true, forced);
}

bool Reader::Read(tarn_frame* out, size_t capacity, size_t& count) {
    count = 0;
    if (m_failed) return false;
    const bool fill = m_source.IsRegularFile();
    while (count < capacity && !m_atEnd) {
        std::string_view line;
        switch (m_source.Next(line, fill || count == 0)) {
            case LineSource::Status::Line:
                if (ParseLine(line, out[count])) ++count;
                break;
            case LineSource::Status::Overlong:
                ++m_counts.overlong;
                Report(line, true, "line longer than 1 MiB");
                break;
            case LineSource::Status::WouldBlock:
                return true;
            case LineSource::Status::End:
                m_atEnd = true;
                break;
            case LineSource::Status::Error:
                m_atEnd = m_failed = true;
                return count > 0;  // the frames read so far first, the failure next time
        }
    }
    return true;
}

bool Reader::ParseLine(std::string_view line, tarn_frame& frame) {
    if (line.empty() || (!m_parser && !Detect(line))) return false;
    const char* reason = "";
    LineResult r = m_format == Format::CandumpLog ? ParseCandumpLog(line, m_channels, frame, reason)
                                                  : m_parser->Parse(line, frame, reason);
    if (r == LineResult::Frame) {
        ++m_counts.frames;
        return true;
    }
    if (r == LineResult::Malformed) {
        ++m_counts.malformed;
        Report(line, false, reason);
    }
    return false;
}

bool Reader::Detect(std::string_view line) {
    bool neutral = false;
    Format format = DetectFormat(line, neutral);
    if (format == Format::Unknown) {
        if (!neutral) {
            ++m_counts.malformed;
            Report(line, false, "not a line of a known log format");
        }
        return false;
    }
    m_format = format;
    m_parser = MakeParser(format, m_channels);
    return true;
}

void Reader::Report(std::string_view line, bool overlong, const char* reason) {
    if (!m_problemFn) return;
    EscapeExcerpt(line, m_excerpt);
    m_problemFn(m_problemUser, Problem{m_source.LineNumber(), overlong, reason, m_excerpt.c_str()});
}

}  // namespace tarn::logs
