// The scanner over DBC text and the load driver that dispatches each line's
// first word to its section parser.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdint>
#include <cstring>

#include "common/file_utils.h"
#include "common/log.h"
#include "common/str_utils.h"
#include "dbc/dbc_impl.h"

namespace {
constexpr CharKindTable kCharKind = init_char_kind();
}

const unsigned char* const g_char_kind = kCharKind.data();

// Logs "(line) " (or "(line)" when blank is false), the fixed text and a
// tail; FormatString bounds the whole text.
void DBCImpl::LogLine(const char* fixed, const char* tail, bool blank) const {
    std::string text = kq::StrUtils::FormatString(blank ? "(%d) %s%s" : "(%d)%s%s",
                                                  static_cast<int>(m_line), fixed, tail);
    KQ_LOG(kq::LOG_ERROR, "%s\n", text.c_str());
}

void DBCImpl::BeginText(const char* text) {
    m_cursor = text;
    m_start = text;
    m_char = *text;
    m_line = 1;
}

void DBCImpl::Step() {
    if (m_char == '\0') return;
    m_char = *++m_cursor;
    if (m_char == '\n') ++m_line;
}

bool DBCImpl::IgnoreWhiteSpace() {
    while (IsBlank(m_char)) Step();
    m_start = m_cursor;
    return m_char != '\0';
}

bool DBCImpl::IgnoreLine() {
    if (m_char != '\n') {
        const char* p = m_cursor;
        while (*p && *p != '\n') ++p;
        m_cursor = p;
        m_char = *p;
        if (m_char == '\0') {
            m_start = m_cursor;
            return false;
        }
        ++m_line;  // arrived on the line feed
    }
    Step();
    m_start = m_cursor;
    return true;
}

void DBCImpl::ScanWord(const char*& begin, size_t& len) {
    IgnoreWhiteSpace();
    begin = m_cursor;
    const char* p = m_cursor;
    while (IsIdentChar(*p)) ++p;
    len = static_cast<size_t>(p - begin);
    if (len) {
        m_cursor = p;
        m_char = *p;
        if (m_char == '\n') ++m_line;
    }
}

std::string DBCImpl::ReadIdentifier() {
    const char* begin;
    size_t len;
    ScanWord(begin, len);
    return std::string(begin, len);
}

const char* DBCImpl::ReadIdentifierAtom() {
    const char* begin;
    size_t len;
    ScanWord(begin, len);
    return m_atoms.intern(begin, len);
}

const char* DBCImpl::InternUpper(const char* s, size_t n, bool* changed) {
    char small[64];
    std::string big;
    char* out = small;
    if (n > sizeof(small)) {
        big.resize(n);
        out = &big[0];
    }
    for (size_t i = 0; i < n; ++i)
        out[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(s[i])));
    if (changed) *changed = std::memcmp(out, s, n) != 0;
    return m_atoms.intern(out, n);
}

std::string DBCImpl::ReadString() {
    IgnoreWhiteSpace();
    std::string out;
    if (m_char != '"') return out;
    Step();
    while (m_char != '\0') {
        if (m_char == '\\') {
            Step();
            if (m_char == '\0') break;
        } else if (m_char == '"') {
            Step();
            m_start = m_cursor;
            return out;
        }
        // Copy a run of plain bytes at once; the run stops before any byte
        // that needs a decision (quote, backslash, line feed, end).
        const char* run = m_cursor + 1;
        while (*run && *run != '"' && *run != '\\' && *run != '\n') ++run;
        out.append(m_cursor, static_cast<size_t>(run - m_cursor));
        m_cursor = run - 1;
        m_char = *m_cursor;
        Step();
    }
    LogLine("string not match");
    m_start = m_cursor;
    return out;
}

std::vector<const char*> DBCImpl::ReadEnum() {
    std::vector<const char*> out;
    for (;;) {
        std::string s = ReadString();
        const char* atom = m_atoms.intern(s);
        if (!s.empty() && atom) out.push_back(atom);
        IgnoreWhiteSpace();
        if (m_char != ',') return out;
        Step();
    }
}

void DBCImpl::SetRollback() {
    m_marks.push_back(MarkInfo{m_start, m_cursor, m_line, m_char});
}

bool DBCImpl::Rollback() {
    if (m_marks.empty()) {
        LogLine("!m_marks.empty()", "", false);
        return false;
    }
    const MarkInfo& mark = m_marks.back();
    m_start = mark.start;
    m_cursor = mark.cursor;
    m_line = mark.line;
    m_char = mark.ch;
    m_marks.pop_back();
    return true;
}

void DBCImpl::DropRollback() {
    if (!m_marks.empty()) m_marks.pop_back();
}

bool DBCImpl::ParseNS() {
    while (IgnoreLine() && IsBlank(m_char)) {
    }
    return true;
}

// Copies the text a numeric sscanf at the cursor could examine: `tokens`
// pairs of a white-space run and a non-white-space run. No number format
// reads across white space after its token, so scanning the copy gives the
// same result without sscanf measuring the rest of a large text each time.
const char* DBCImpl::ScanWindow(int tokens) {
    auto space = [](char c) {
        return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
    };
    const char* p = m_cursor;
    for (int i = 0; i < tokens; ++i) {
        while (*p && space(*p)) ++p;
        while (*p && !space(*p)) ++p;
    }
    m_scratch.assign(m_cursor, static_cast<size_t>(p - m_cursor));
    return m_scratch.c_str();
}

namespace {

// A read-only mapping of a whole regular file followed by at least one NUL
// byte, so that the scanner runs over the file without a heap copy of it.
// Pages are read in as the scanner reaches them: the text ends at the first
// NUL, and a large sparse file holding little text must cost little.
// Anything unusual (empty, special or huge files, mapping errors) leaves
// the view empty and the caller reads the file the ordinary way.
class MappedText {
  public:
    explicit MappedText(const std::string& path) {
        int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return;
        struct stat st;
        if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0 && st.st_size <= INT32_MAX)
            Map(fd, static_cast<size_t>(st.st_size));
        close(fd);
    }
    ~MappedText() {
        if (m_base) munmap(m_base, m_span);
    }
    MappedText(const MappedText&) = delete;
    MappedText& operator=(const MappedText&) = delete;

    const char* data() const { return static_cast<const char*>(m_base); }

  private:
    void Map(int fd, size_t size) {
        size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        size_t span = (size / page + 1) * page;  // zero pages past the end
        void* base = mmap(nullptr, span, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (base == MAP_FAILED) return;
        void* file = mmap(base, size, PROT_READ, MAP_PRIVATE | MAP_FIXED, fd, 0);
        if (file == MAP_FAILED) {
            munmap(base, span);
            return;
        }
        madvise(file, size, MADV_SEQUENTIAL);
        m_base = base;
        m_span = span;
    }

    void* m_base = nullptr;
    size_t m_span = 0;
};

}  // namespace

bool DBCImpl::Load(const std::string& path, bool merge) {
    if (path.empty()) return false;
    m_merge = merge;
    m_protocol = 2;
    MappedText mapped(path);
    if (mapped.data()) return LoadText(mapped.data());
    std::string text;
    if (!kq::FileUtils::ReadText(path, text)) {
        LogLine("Fail to load file: ", path.c_str());
        return false;
    }
    return LoadText(text.c_str());
}

// Handles one line start; false only when a message definition failed.
bool DBCImpl::DispatchLine() {
    IgnoreWhiteSpace();
    if (m_char == '\r' || m_char == '\n') {
        IgnoreLine();
        return true;
    }
    const char* begin;
    size_t len;
    ScanWord(begin, len);
    // Every first word is interned as written; a word that upper-casing
    // leaves unchanged needs only the one lookup.
    bool changed = false;
    const char* kw = InternUpper(begin, len, &changed);
    if (changed) m_atoms.intern(begin, len);
    if (kw == m_kwCM) {
        ParseCM();
    } else if (kw == m_kwBA) {
        ParseBA();
    } else if (kw == m_kwBADef) {
        ParseBADef();
    } else if (kw == m_kwBADefDef) {
        ParseBADefault();
    } else if (kw == m_kwVAL) {
        ParseVAL();
    } else if (kw == m_kwBO) {
        if (!ParseBO()) {
            LogLine("ParseBO()", "", false);
            return false;
        }
    } else if (kw == m_kwNS) {
        ParseNS();
    } else if (kw == m_kwBU) {
        ParseBU();
    } else if (kw == m_kwSigValType) {
        ParseSigValType();
    } else {
        IgnoreLine();
    }
    return true;
}

bool DBCImpl::LoadContent(const std::string& text) {
    return LoadText(text.c_str());
}

bool DBCImpl::LoadText(const char* text) {
    Clear(m_merge);
    m_warnSigned = true;
    BeginText(text);
    bool ok = true;
    while (ok && m_char != '\0') ok = DispatchLine();
    if (ok) RebuildNameIndex();
    // A pathological line may have grown the scratch buffers; keep no such
    // memory with the model.
    std::string().swap(m_scratch);
    std::string().swap(m_defBuf);
    return ok;
}
