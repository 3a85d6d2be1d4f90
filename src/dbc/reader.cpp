// The native DBC reader: splits the text into statements, hands each to its
// section parser and assembles what can only be settled at the end
// (multiplexer switches, BO_TX_BU_ senders, attribute ranges, J1939).
//
// Choices a caller can see:
// - A line's first word picks its section. BO_, SG_, BU_, VERSION, NS_ and
//   BS_ statements are one line (a BU_ list may go on over indented lines);
//   the others end at ';'. Lines starting with "//" are comments.
// - A diagnostic means its line, or the part it names, was not loaded; the
//   one exception is a plain "mN" signal in a message with several
//   switches, which is loaded with the first switch.
// - The first of two messages with one id or name, of two signals with one
//   name, of two comments or attribute values for one object is kept.
//   Several network comments are joined, one per line.
// - "Vector__XXX", the placeholder for no node, is not listed as a sender
//   or receiver.
#include "dbc/reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tarn::net {

namespace {

struct Keyword {
    std::string_view text;
    Section section;
};

// Sections that are valid DBC but that the model does not hold: value
// types and groups of signals, environment variables, categories, filters
// and relation attributes. They end with ';' and are skipped without a
// diagnostic.
constexpr Keyword kKeywords[] = {
    {"VERSION", Section::Version},
    {"NS_", Section::Ns},
    {"BS_", Section::Bs},
    {"BU_", Section::Bu},
    {"BO_", Section::Bo},
    {"SG_", Section::Sg},
    {"SIG_VALTYPE_", Section::SigValType},
    {"BO_TX_BU_", Section::BoTxBu},
    {"CM_", Section::Cm},
    {"VAL_TABLE_", Section::ValTable},
    {"VAL_", Section::Val},
    {"BA_DEF_", Section::BaDef},
    {"BA_DEF_DEF_", Section::BaDefDef},
    {"BA_", Section::Ba},
    {"SG_MUL_VAL_", Section::SgMulVal},
    {"NS_DESC_", Section::Unmodelled},
    {"CAT_DEF_", Section::Unmodelled},
    {"CAT_", Section::Unmodelled},
    {"FILTER", Section::Unmodelled},
    {"EV_", Section::Unmodelled},
    {"EV_DATA_", Section::Unmodelled},
    {"ENVVAR_DATA_", Section::Unmodelled},
    {"SGTYPE_", Section::Unmodelled},
    {"SGTYPE_VAL_", Section::Unmodelled},
    {"BA_DEF_SGTYPE_", Section::Unmodelled},
    {"BA_SGTYPE_", Section::Unmodelled},
    {"SIG_TYPE_REF_", Section::Unmodelled},
    {"SIGTYPE_VALTYPE_", Section::Unmodelled},
    {"SIG_GROUP_", Section::Unmodelled},
    {"BA_DEF_REL_", Section::Unmodelled},
    {"BA_REL_", Section::Unmodelled},
    {"BA_DEF_DEF_REL_", Section::Unmodelled},
    {"BU_SG_REL_", Section::Unmodelled},
    {"BU_EV_REL_", Section::Unmodelled},
    {"BU_BO_REL_", Section::Unmodelled},
};

Section Classify(std::string_view word) {
    // Every keyword is upper case and at least three characters long; most
    // lines are rejected or accepted by their last character and length.
    if (word.size() < 3 || word.size() > 16) return Section::None;
    for (const Keyword& k : kKeywords) {
        if (k.text.size() == word.size() && k.text == word) return k.section;
    }
    return Section::None;
}

// Sections whose statement is one line; the others end with ';'.
bool IsLineSection(Section s) {
    return s == Section::Version || s == Section::Ns || s == Section::Bs || s == Section::Bu ||
           s == Section::Bo || s == Section::Sg;
}

const char* LineEnd(const char* p, const char* end) {
    const void* nl = std::memchr(p, '\n', static_cast<size_t>(end - p));
    return nl ? static_cast<const char*>(nl) : end;
}

// The start of the line after p's, or the end.
const char* NextLine(const char* p, const char* end) {
    const char* eol = LineEnd(p, end);
    return eol == end ? end : eol + 1;
}

const char* SkipSpaces(const char* p, const char* end) {
    while (p < end && (*p == ' ' || *p == '\t' || *p == '\r' || *p == '\v' || *p == '\f')) ++p;
    return p;
}

// A diagnostic names an unknown keyword, cut at a character boundary.
std::string_view ShortWord(std::string_view w) {
    if (w.size() <= 40) return w;
    size_t n = 40;
    while (n > 0 && (static_cast<unsigned char>(w[n]) & 0xC0) == 0x80) --n;
    return w.substr(0, n);
}

// The first word of a line, for the keyword test: identifier characters
// only, so that junk and binary lines never match.
std::string_view FirstWord(const char* p, const char* end) {
    const char* b = p;
    while (p < end && IsWord(*p)) ++p;
    return std::string_view(b, static_cast<size_t>(p - b));
}

}  // namespace

ReadStatus Reader::Run(std::string_view text) {
    if (text.size() >= 3 && text.compare(0, 3, "\xEF\xBB\xBF") == 0) text.remove_prefix(3);
    std::string converted;
    if (!IsUtf8(text)) {
        converted = Cp1252ToUtf8(text);
        text = converted;
    }
    m_begin = text.data();
    m_end = m_begin + text.size();
    m_noQuoteAfter = m_end;
    m_net.version = m_net.comment = kNoText;
    ReserveForText();
    const char* p = m_begin;
    while (p < m_end && !m_stop) {
        p = SkipSpaces(p, m_end);
        if (p == m_end) break;
        if (*p == '\n') {
            ++p;
            ++m_line;
        } else if (m_end - p >= 2 && p[0] == '/' && p[1] == '/') {
            p = LineEnd(p, m_end);  // a "//" comment line, as some editors write
        } else {
            p = Statement(p);
        }
    }
    // Strict mode may have stopped before the first section: a later one
    // still makes the text a DBC.
    for (; !m_sawSection && p < m_end; p = NextLine(p, m_end)) m_sawSection = StartsSection(p);
    if (!m_sawSection) {
        m_net.diagnostics.clear();
        return ReadStatus::NotDbc;
    }
    if (m_stop) return ReadStatus::Strict;
    Finish();
    return m_stop ? ReadStatus::Strict : ReadStatus::Ok;
}

// Reads the statement that starts at `p` and returns where the next may
// start: the line break after a one-line statement, or past the ';'.
const char* Reader::Statement(const char* p) {
    std::string_view word = FirstWord(p, m_end);
    Section section = Classify(word);
    const char* body = p + word.size();
    if (section == Section::None) {
        m_section = ShortWord(word);
        Fail(word.empty() ? "the line does not start with a section keyword"
                          : "unknown section keyword");
        return LineEnd(p, m_end);
    }
    m_sawSection = true;
    m_section = word;
    if (section != Section::Sg && section != Section::Bo) {
        m_openMessage = -1;
        m_skipMessage = false;
    }
    if (IsLineSection(section)) {
        const char* eol = LineEnd(body, m_end);
        if (section == Section::Bu) eol = NodeListEnd(eol);
        Cursor c(body, eol);
        Parse(section, c);
        return section == Section::Ns ? SkipNamespaceList(eol) : eol;
    }
    uint32_t newlines = 0;
    bool unterminated = false;
    const char* stop = StatementEnd(body, newlines, unterminated);
    if (unterminated) {
        Fail("a quoted text is not closed");
    } else if (section != Section::Unmodelled) {
        Cursor c(body, stop);
        Parse(section, c);
    }
    m_line += newlines;
    return stop < m_end && *stop == ';' ? stop + 1 : stop;
}

// Messages and signals are most of the model: sizing their arrays from a
// quick count of BO_ and SG_ lines saves growing and trimming them.
void Reader::ReserveForText() {
    size_t messages = 0, signals = 0;
    for (const char* p = m_begin; p < m_end; p = NextLine(p, m_end)) {
        p = SkipSpaces(p, m_end);
        if (m_end - p < 4 || p[2] != '_' || p[3] != ' ') continue;
        messages += p[0] == 'B' && p[1] == 'O';
        signals += p[0] == 'S' && p[1] == 'G';
    }
    m_net.messages.reserve(messages);
    m_net.signals.reserve(signals);
    m_muxPending.reserve(signals);
    m_muxExtended.reserve(signals);
}

void Reader::Parse(Section section, Cursor& c) {
    switch (section) {
        case Section::Version:
            return ParseVersion(c);
        case Section::Bu:
            return ParseNodes(c);
        case Section::Bo:
            return ParseMessage(c);
        case Section::Sg:
            return ParseSignal(c);
        case Section::SigValType:
            return ParseValueType(c);
        case Section::BoTxBu:
            return ParseTxSenders(c);
        case Section::SgMulVal:
            return ParseMuxValues(c);
        case Section::Cm:
            return ParseComment(c);
        case Section::Val:
            return ParseValues(c);
        case Section::ValTable:
            return ParseValueTable(c);
        case Section::BaDef:
            return ParseAttrDef(c);
        case Section::BaDefDef:
            return ParseAttrDefault(c);
        case Section::Ba:
            return ParseAttr(c);
        default:
            return;  // NS_ and BS_ carry nothing the model keeps
    }
}

// The end of a ';' statement: its ';', or the line break before a line that
// starts a new section (a forgotten ';'), or the end of the text. Quoted
// texts may span lines. A quote that is never closed makes the statement end
// with its line, flagged `unterminated`.
const char* Reader::StatementEnd(const char* from, uint32_t& newlines, bool& unterminated) {
    for (const char* q = from; q < m_end; ++q) {
        char c = *q;
        if (c == ';') return q;
        if (c == '\n') {
            ++newlines;
            if (StartsSection(q + 1)) return q + 1;
        } else if (c == '"') {
            uint32_t inside = 0;
            const char* close = QuoteEnd(q, inside);
            if (!close) {
                unterminated = true;
                return LineEnd(q, m_end);
            }
            newlines += inside;
            q = close;
        }
    }
    return m_end;
}

// The quote that closes the one at `open`, or nullptr. A text may span
// lines, but not into a line that starts with a section keyword such as
// "BO_" or "CM_": that is a quote left open, which must not swallow the
// sections after it.
const char* Reader::QuoteEnd(const char* open, uint32_t& newlines) {
    if (open >= m_noQuoteAfter) return nullptr;
    for (const char* q = open + 1; q < m_end; ++q) {
        if (*q == '"') return q;
        if (*q == '\\' && q + 1 < m_end) ++q;
        if (*q == '\n') {
            ++newlines;
            const char* b = SkipSpaces(q + 1, m_end);
            std::string_view word = FirstWord(b, m_end);
            if (!word.empty() && word.back() == '_' && Classify(word) != Section::None)
                return nullptr;
        }
    }
    // No quote closes past `open`, so none closes past a later quote either:
    // remembering that keeps input full of open quotes linear.
    m_noQuoteAfter = open;
    return nullptr;
}

bool Reader::StartsSection(const char* lineStart) const {
    const char* p = SkipSpaces(lineStart, m_end);
    return Classify(FirstWord(p, m_end)) != Section::None;
}

// Some files continue the BU_ list on indented lines of their own.
const char* Reader::NodeListEnd(const char* eol) {
    while (eol < m_end) {
        const char* next = LineEnd(eol + 1, m_end);
        const char* b = SkipSpaces(eol + 1, next);
        if (b == eol + 1 || b == next || Classify(FirstWord(b, next)) != Section::None) break;
        ++m_line;
        eol = next;
    }
    return eol;
}

// NS_ is followed by its list of keywords, one bare word per line, usually
// indented. The list ends at the first line that holds anything else.
const char* Reader::SkipNamespaceList(const char* from) {
    const char* p = from;  // at the '\n' that ends the current line
    while (p < m_end) {
        const char* next = LineEnd(p + 1, m_end);
        const char* b = SkipSpaces(p + 1, next);
        std::string_view word = FirstWord(b, next);
        bool bare = SkipSpaces(b + word.size(), next) == next;
        bool indented = b > p + 1;
        bool listed =
            indented || (Classify(word) != Section::None && word != "BS_" && word != "BU_");
        if (!bare || (!word.empty() && !listed)) break;
        ++m_line;
        p = next;
    }
    return p;
}

bool Reader::Fail(std::string_view reason) {
    Report(m_line, m_section, reason);
    return false;
}

void Reader::Report(uint32_t line, std::string_view section, std::string_view reason) {
    if (m_stop) return;
    m_net.diagnostics.push_back(Diagnostic{line, Intern(section), Intern(reason)});
    if (m_options.strict) m_stop = true;
}

// Stores a quoted text, unescaping \" and \\ and turning CR LF into LF.
std::string_view Reader::Text(const QuotedText& q) {
    if (q.plain) return m_net.pool.Store(q.raw);
    m_scratch.clear();
    for (size_t i = 0; i < q.raw.size(); ++i) {
        char c = q.raw[i];
        if (c == '\\' && i + 1 < q.raw.size() && (q.raw[i + 1] == '"' || q.raw[i + 1] == '\\')) {
            c = q.raw[++i];
        } else if (c == '\r' && i + 1 < q.raw.size() && q.raw[i + 1] == '\n') {
            continue;
        }
        m_scratch.push_back(c);
    }
    return m_net.pool.Store(m_scratch);
}

// One pooled copy per distinct name: node names recur in every signal's
// receivers, and diagnostics repeat their reasons.
std::string_view Reader::Intern(std::string_view name) {
    // A small cache in front of the hash: receiver lists repeat the same
    // few names thousands of times.
    size_t slot = name.empty() ? 0
                               : (name.size() * 31 + static_cast<unsigned char>(name.back()) * 7 +
                                  static_cast<unsigned char>(name[name.size() / 2])) %
                                     kInternCache;
    if (m_internCache[slot] == name) return m_internCache[slot];
    uint64_t h = HashText(m_internIndex.Seed(), 0, name);
    int64_t i = m_internIndex.Find(h, [&](uint32_t k) { return m_interned[k] == name; });
    if (i < 0) {
        i = static_cast<int64_t>(m_interned.size());
        m_internIndex.Insert(h, static_cast<uint32_t>(i));
        m_interned.push_back(m_net.pool.Store(name));
    }
    return m_internCache[slot] = m_interned[static_cast<size_t>(i)];
}

int64_t Reader::MessageByRawId(uint64_t rawId) const {
    const Message* m = m_net.FindMessage(rawId & 0x7FFFFFFFu, (rawId & 0x80000000u) != 0);
    return m ? m - m_net.messages.data() : -1;
}

int64_t Reader::SignalIn(uint32_t message, std::string_view name) const {
    const Message& m = m_net.messages[message];
    int32_t s = m_net.FindSignal(m, name);
    return s < 0 ? -1 : int64_t(m.signals.first) + s;
}

int64_t Reader::NodeByName(std::string_view name) const {
    return m_nodeByName.Find(HashText(m_nodeByName.Seed(), 0, name),
                             [&](uint32_t n) { return m_net.nodes[n].name == name; });
}

int64_t Reader::AttrDefByName(std::string_view name) const {
    return m_net.FindAttrDef(name);
}

// "<id>" naming a loaded message, as in CM_ BO_, VAL_ and BA_ lines.
bool Reader::FindMessageOf(Cursor& c, uint32_t& message) {
    uint64_t id;
    if (!c.Uint(id)) return Fail("expected a message id");
    int64_t m = MessageByRawId(id);
    if (m < 0) return Fail("no message has id " + std::to_string(id));
    message = static_cast<uint32_t>(m);
    return true;
}

// "<id> <signal>" naming a loaded signal.
bool Reader::FindSignalOf(Cursor& c, uint32_t& message, uint32_t& signal) {
    if (!FindMessageOf(c, message)) return false;
    std::string_view name = c.Word();
    if (name.empty()) return Fail("expected a signal name");
    int64_t s = SignalIn(message, name);
    if (s < 0) {
        return Fail("message " + std::string(m_net.messages[message].name) + " has no signal " +
                    std::string(name));
    }
    signal = static_cast<uint32_t>(s);
    return true;
}

ReadStatus Read(std::string_view text, const ReadOptions& options, Network& out) {
    out = Network();
    return Reader(options, out).Run(text);
}

ReadStatus ReadFile(const std::string& path, const ReadOptions& options, Network& out,
                    std::string* ioError) {
    auto failed = [&](const char* what) {
        if (ioError) *ioError = std::string(what) + " " + path + ": " + std::strerror(errno);
        return ReadStatus::Io;
    };
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return failed("cannot open");
    struct stat st;
    if (::fstat(fd, &st) != 0) {
        ReadStatus s = failed("cannot stat");
        ::close(fd);
        return s;
    }
    if (st.st_size >= (int64_t(1) << 31)) {
        ::close(fd);
        if (ioError) *ioError = path + ": file of 2 GiB or more";
        return ReadStatus::TooLarge;
    }
    std::string text(static_cast<size_t>(st.st_size), '\0');
    size_t got = 0;
    while (got < text.size()) {
        ssize_t n = ::read(fd, &text[got], text.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            ReadStatus s = failed("cannot read");
            ::close(fd);
            return s;
        }
        if (n == 0) break;  // the file shrank while being read
        got += static_cast<size_t>(n);
    }
    ::close(fd);
    text.resize(got);
    return Read(text, options, out);
}

}  // namespace tarn::net
