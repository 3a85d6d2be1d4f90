// Loads every DBC file of the public corpus and checks the model against an
// independent scanner written here, then checks that the writer's text loads
// back into the same messages and signals.
//
// The scanner mirrors the loader's documented line rules (first word of a
// line picks the section, a message owns the SG_ lines right below it, a
// malformed signal ends its message's list, ids with bit 29/30 are dropped,
// a repeated id fails the load) but shares no code with it; signal fields
// come from the plain sscanf format the DBC text is defined by.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "common/log.h"
#include "dbc.h"
#include "dbc_impl.h"

namespace fs = std::filesystem;

namespace {

// ---------------------------------------------------------------------------
// Reference scanner
// ---------------------------------------------------------------------------

struct RefSignal {
    std::string name, mux, unit;
    uint32_t muxValue = 0;
    unsigned startBit = 0, length = 0;
    int byteOrder = 0;
    char sign = 0;
    double factor = 0, offset = 0, minimum = 0, maximum = 0;
    uint32_t index = 0;
};

struct RefMessage {
    uint64_t id = 0, dlc = 0;
    std::string name, transmitter;
    std::vector<RefSignal> signals;  // by index
};

struct RefModel {
    bool loadOk = true;
    std::map<uint64_t, RefMessage> messages;
    size_t boLines = 0;         // BO_ statements seen, dropped ones included
    bool extendedLine = false;  // some BO_ statement carries bit 31
    uint32_t protocol = 2;
};

bool IsIdent(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' ||
           c == '$';
}

std::string Upper(std::string s) {
    for (char& c : s)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return s;
}

class RefScanner {
  public:
    // The loader's scanner stops at the first NUL byte.
    explicit RefScanner(const std::string& text) : t_(text.c_str()), n_(std::strlen(t_)) {}

    RefModel Run() {
        size_t pos = 0;
        while (pos < n_) {
            size_t p = Blank(pos);
            if (p >= n_) break;
            if (t_[p] == '\r' || t_[p] == '\n') {
                pos = NextLine(p);
                continue;
            }
            std::string word = Upper(Word(p));
            if (word == "BO_") {
                if (!Message(p, pos)) {
                    model_.loadOk = false;
                    break;
                }
            } else if (word == "NS_") {
                pos = NextLine(p);
                while (pos < n_ && (t_[pos] == ' ' || t_[pos] == '\t')) pos = NextLine(pos);
            } else if (word == "BA_DEF_") {
                NoteDefinition(p);
                pos = StatementEnd(p);
            } else if (word == "BA_") {
                NoteAssignment(p);
                pos = StatementEnd(p);
            } else if (word == "CM_" || word == "VAL_" || word == "BA_DEF_DEF_") {
                pos = StatementEnd(p);
            } else {
                pos = NextLine(p);
            }
        }
        return model_;
    }

  private:
    size_t Blank(size_t p) const {
        while (p < n_ && (t_[p] == ' ' || t_[p] == '\t')) ++p;
        return p;
    }
    size_t NextLine(size_t p) const {
        while (p < n_ && t_[p] != '\n') ++p;
        return p < n_ ? p + 1 : n_;
    }
    std::string Word(size_t& p) const {
        p = Blank(p);
        size_t b = p;
        while (p < n_ && IsIdent(t_[p])) ++p;
        return std::string(t_ + b, p - b);
    }
    // A quoted text with backslash escapes; missing quote runs to the end.
    std::string Quoted(size_t& p) const {
        p = Blank(p);
        std::string out;
        if (p >= n_ || t_[p] != '"') return out;
        for (++p; p < n_; ++p) {
            if (t_[p] == '\\') {
                if (++p < n_) out += t_[p];
            } else if (t_[p] == '"') {
                ++p;
                return out;
            } else {
                out += t_[p];
            }
        }
        return out;
    }
    // Statements whose quoted texts may run over several lines.
    size_t StatementEnd(size_t p) const {
        bool quoted = false;
        for (; p < n_; ++p) {
            char c = t_[p];
            if (quoted && c == '\\') {
                ++p;
            } else if (c == '"') {
                quoted = !quoted;
            } else if (!quoted && c == '\n') {
                return p + 1;
            }
        }
        return n_;
    }

    void NoteDefinition(size_t p) {
        p = Blank(p);
        if (p < n_ && IsIdent(t_[p])) Word(p);
        defined_.insert(Quoted(p));
    }
    void NoteAssignment(size_t p) {
        std::string name = Quoted(p);
        p = Blank(p);
        if (p < n_ && std::isalpha(static_cast<unsigned char>(t_[p]))) return;  // not network
        if (name != "ProtocolType" || !defined_.count(name)) return;
        model_.protocol = Quoted(p) == "J1939" ? 0 : 1;
    }

    // One BO_ statement and its signals; false when its id repeats.
    bool Message(size_t p, size_t& pos) {
        ++model_.boLines;
        RefMessage m;
        std::string idWord = Word(p);
        m.name = Word(p);
        if (p < n_) ++p;  // the separator, whatever it is
        std::string dlcWord = Word(p);
        m.transmitter = Word(p);
        m.id = std::strtoull(idWord.c_str(), nullptr, 0);
        if (m.id & 0x80000000u) model_.extendedLine = true;
        if (m.id & 0x60000000u) {
            pos = p;
            return true;
        }
        m.dlc = std::strtoull(dlcWord.c_str(), nullptr, 0);
        pos = NextLine(p);
        Signals(m, pos);
        if (model_.messages.count(m.id)) return false;
        model_.messages[m.id] = m;
        return true;
    }

    void Signals(RefMessage& m, size_t& pos) {
        std::map<std::string, size_t> byName;
        for (;;) {
            if (pos >= n_) return;
            if (t_[pos] != ' ' && t_[pos] != '\t' && std::strncmp(t_ + pos, "SG_", 3) != 0) return;
            size_t p = pos;
            if (Upper(Word(p)) != "SG_") return;
            RefSignal s;
            if (!SignalBody(p, s)) {
                pos = p;
                return;
            }
            auto it = byName.find(s.name);
            if (it == byName.end()) {
                s.index = static_cast<uint32_t>(m.signals.size());
                byName[s.name] = m.signals.size();
                m.signals.push_back(s);
            } else {
                s.index = m.signals[it->second].index;
                m.signals[it->second] = s;
            }
            pos = NextLine(p);
            while (pos < n_ && t_[pos] == '\r') pos = NextLine(pos);
        }
    }

    bool SignalBody(size_t& p, RefSignal& s) {
        s.name = Word(p);
        s.mux = Word(p);
        if (!s.mux.empty() && s.mux[0] == 'm')
            s.muxValue = static_cast<uint32_t>(std::strtoul(s.mux.c_str() + 1, nullptr, 10));
        p = Blank(p);
        if (p >= n_ || t_[p] != ':') return false;
        const char* close = std::strchr(t_ + p + 1, ']');
        if (!close) {
            p = n_;
            return false;
        }
        std::string def;
        for (const char* c = t_ + p + 1; c <= close; ++c)
            if (*c != ' ' && *c != '\t') def += *c;
        p = static_cast<size_t>(close - t_);
        int got = std::sscanf(def.c_str(), "%u|%u@%d%c(%lf,%lf)[%lf|%lf]", &s.startBit, &s.length,
                              &s.byteOrder, &s.sign, &s.factor, &s.offset, &s.minimum, &s.maximum);
        if (got < 8) return false;
        ++p;
        s.unit = Quoted(p);
        return true;
    }

    const char* t_;
    size_t n_;
    RefModel model_;
    std::set<std::string> defined_;
};

// ---------------------------------------------------------------------------
// Corpus access
// ---------------------------------------------------------------------------

std::string CorpusDir() {
#ifdef TARN_CORPUS_DIR
    std::error_code ec;
    if (fs::is_directory(TARN_CORPUS_DIR, ec)) return TARN_CORPUS_DIR;
#endif
    return "";
}

std::vector<std::string> CorpusFiles() {
    std::vector<std::string> files;
    std::string dir = CorpusDir();
    if (dir.empty()) return {""};  // one placeholder case that skips
    for (const auto& e : fs::directory_iterator(dir)) {
        std::string ext = e.path().extension().string();
        if (e.is_regular_file() && (ext == ".dbc" || ext == ".DBC"))
            files.push_back(e.path().filename().string());
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// manifest.tsv: file name -> column name -> value.
using Manifest = std::map<std::string, std::map<std::string, std::string>>;

std::vector<std::string> SplitTabs(const std::string& line) {
    std::vector<std::string> out;
    std::stringstream ss(line);
    std::string cell;
    while (std::getline(ss, cell, '\t')) out.push_back(cell);
    return out;
}

const Manifest& LoadManifest() {
    static Manifest manifest = [] {
        Manifest m;
        std::ifstream in(CorpusDir() + "/manifest.tsv");
        std::string line;
        if (!std::getline(in, line)) return m;
        std::vector<std::string> head = SplitTabs(line);
        while (std::getline(in, line)) {
            std::vector<std::string> cells = SplitTabs(line);
            for (size_t i = 1; i < cells.size() && i < head.size(); ++i)
                m[cells[0]][head[i]] = cells[i];
        }
        return m;
    }();
    return manifest;
}

std::string Fixed7(double v) {
    char buf[512];
    std::snprintf(buf, sizeof buf, "%.7f", v);
    return buf;
}

::testing::AssertionResult SameBits(double want, double got) {
    if (std::memcmp(&want, &got, sizeof(double)) == 0) return ::testing::AssertionSuccess();
    char buf[128];
    std::snprintf(buf, sizeof buf, "want %.17g, got %.17g", want, got);
    return ::testing::AssertionFailure() << buf;
}

std::string Str(const char* s) {
    return s ? s : "<null>";
}

std::map<uint64_t, const ::Message*> ById(const DBC& db) {
    std::vector<::Message*> all;
    db.GetAllMessage(all);
    std::map<uint64_t, const ::Message*> out;
    for (const ::Message* m : all) out[m->id] = m;
    return out;
}

// Runs the writer in a fresh directory and returns its dump.txt path.
class DumpDir {
  public:
    DumpDir() {
        char tmpl[] = "/tmp/tarn_corpus_XXXXXX";
        dir_ = mkdtemp(tmpl) ? tmpl : "";
        char cwd[4096];
        old_ = getcwd(cwd, sizeof cwd) ? cwd : ".";
    }
    ~DumpDir() {
        if (!dir_.empty()) fs::remove_all(dir_);
    }
    std::string Dump(const DBC& db) {
        if (dir_.empty() || chdir(dir_.c_str()) != 0) return "";
        db.Impl()->Dump();
        if (chdir(old_.c_str()) != 0) return "";
        return dir_ + "/dump.txt";
    }

  private:
    std::string dir_, old_;
};

// ---------------------------------------------------------------------------
// Tests
// ---------------------------------------------------------------------------

class DbcCorpus : public ::testing::TestWithParam<std::string> {
  protected:
    static void SetUpTestSuite() { kq::LogInit("/dev/null", kq::LOG_ERROR); }
    static void TearDownTestSuite() { kq::LogInit(nullptr, kq::LOG_DEBUG); }

    void SetUp() override {
        if (GetParam().empty()) GTEST_SKIP() << "DBC corpus not found";
        path_ = CorpusDir() + "/" + GetParam();
        ref_ = RefScanner(ReadAll(path_)).Run();
    }

    std::string path_;
    RefModel ref_;
};

void ExpectSignalMatches(const RefSignal& r, const ::Signal& s) {
    SCOPED_TRACE("signal " + r.name);
    EXPECT_EQ(r.mux, s.multiplexer);
    EXPECT_EQ(r.muxValue, s.multiplexerValue);
    EXPECT_EQ(r.startBit, s.startBit);
    EXPECT_EQ(r.length, s.length);
    EXPECT_EQ(r.byteOrder == 0, s.bigEndian);
    EXPECT_EQ(r.sign == '-', s.isSigned);
    // The sscanf conversion is the definition: the doubles must be identical.
    EXPECT_TRUE(SameBits(r.factor, s.factor));
    EXPECT_TRUE(SameBits(r.offset, s.offset));
    EXPECT_TRUE(SameBits(r.minimum, s.minimum));
    EXPECT_TRUE(SameBits(r.maximum, s.maximum));
    EXPECT_EQ(r.unit, Str(s.unit));
    EXPECT_EQ(r.index, s.index);
}

void ExpectModelMatches(const RefModel& ref, const DBC& db) {
    auto model = ById(db);
    ASSERT_EQ(ref.messages.size(), model.size());
    for (const auto& [id, r] : ref.messages) {
        SCOPED_TRACE("message " + r.name + " id " + std::to_string(id));
        auto it = model.find(id);
        ASSERT_NE(it, model.end());
        const ::Message& m = *it->second;
        EXPECT_EQ(r.name, Str(m.name));
        EXPECT_EQ(r.transmitter, Str(m.transmitter));
        EXPECT_EQ(r.dlc, m.dlc);
        ASSERT_EQ(r.signals.size(), m.signals.size());
        for (const RefSignal& rs : r.signals) {
            const ::Signal* s = db.FindSignal(&m, rs.name);
            ASSERT_NE(s, nullptr) << rs.name;
            ExpectSignalMatches(rs, *s);
        }
    }
}

TEST_P(DbcCorpus, ModelMatchesReferenceScanner) {
    DBCEx db;
    bool ok = db.Load(path_, false);
    EXPECT_EQ(ref_.loadOk, ok) << "a repeated message id must fail the load, nothing else";
    ExpectModelMatches(ref_, db);
    if (ok) {
        EXPECT_EQ(ById(db).size(), db.GetMessageCount());
    }
}

// Seeded edits of message and signal lines of a real file: dropped bytes,
// repeated lines (repeated ids and names), lower-case keywords, lost
// indentation, extra blank lines, CRLF ends. Loader and scanner must still
// agree on every message and signal.
std::string EditLines(const std::string& text, unsigned seed) {
    std::vector<std::string> lines;
    std::vector<size_t> targets;
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end + 1;
        lines.push_back(text.substr(at, end - at));
        size_t first = lines.back().find_first_not_of(" \t");
        if (first != std::string::npos && (lines.back().compare(first, 4, "BO_ ") == 0 ||
                                           lines.back().compare(first, 4, "SG_ ") == 0))
            targets.push_back(lines.size() - 1);
        at = end;
    }
    std::mt19937 rng(seed);
    for (int edits = 1 + rng() % 4; edits > 0 && !targets.empty(); --edits) {
        std::string& line = lines[targets[rng() % targets.size()]];
        size_t first = line.find_first_not_of(" \t");
        switch (rng() % 6) {
            case 0:
                line.erase(rng() % line.size(), 1);
                break;
            case 1:
                line += line;
                break;
            case 2:
                line[first] = static_cast<char>(std::tolower(line[first]));
                break;
            case 3:
                line.erase(0, first);
                break;
            case 4:
                line += rng() % 2 ? "\n" : "\r\n";
                break;
            default:
                if (line.size() > 1 && line[line.size() - 2] != '\r')
                    line.insert(line.size() - 1, "\r");
        }
    }
    std::string out;
    for (const std::string& line : lines) out += line;
    return out;
}

TEST_P(DbcCorpus, LineEditsAgreeWithReference) {
    // Large files are cut at a line end: the edits need not walk megabytes.
    std::string text = ReadAll(path_);
    if (text.size() > 400000) text.erase(text.rfind('\n', 400000) + 1);
    for (unsigned seed = 1; seed <= 12; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::string edited = EditLines(text, seed);
        RefModel ref = RefScanner(edited).Run();
        DBC db;
        EXPECT_EQ(ref.loadOk, db.LoadContent(edited));
        ExpectModelMatches(ref, db);
        if (HasFatalFailure()) return;
    }
}

TEST_P(DbcCorpus, ProtocolAndExtendedIdsAgreeWithManifest) {
    DBCEx db;
    db.Load(path_, false);
    EXPECT_EQ(ref_.protocol, db.GetProtocol());

    size_t refExtended = 0, modelExtended = 0;
    for (const auto& kv : ref_.messages) refExtended += (kv.first >> 31) & 1;
    for (const auto& kv : ById(db)) modelExtended += (kv.first >> 31) & 1;
    EXPECT_EQ(refExtended, modelExtended);

    auto row = LoadManifest().find(GetParam());
    if (row == LoadManifest().end()) GTEST_SKIP() << "not in manifest.tsv";
    const auto& col = row->second;
    EXPECT_EQ(col.at("has_j1939") == "yes", db.GetProtocol() == 0);
    EXPECT_EQ(col.at("has_extended_ids") == "yes", ref_.extendedLine);
    EXPECT_EQ(col.at("bo_lines"), std::to_string(ref_.boLines));
}

// Signals in the writer's order. A bare "m" indicator is written as "m 0",
// which the reader rejects as a signal line, ending that message's list in
// the reloaded text; the signals before it must survive.
std::vector<const ::Signal*> ExpectedAfterReload(const ::Message& m) {
    std::vector<const ::Signal*> order;
    for (const auto& kv : m.signals) order.push_back(&kv.second);
    std::sort(order.begin(), order.end(),
              [](const ::Signal* a, const ::Signal* b) { return a->index < b->index; });
    auto bare = std::find_if(order.begin(), order.end(),
                             [](const ::Signal* s) { return s->multiplexer == "m"; });
    order.erase(bare, order.end());
    return order;
}

void ExpectSameSignal(const ::Signal& s, const ::Signal& t) {
    SCOPED_TRACE("signal " + Str(s.name));
    EXPECT_EQ(s.multiplexer, t.multiplexer);
    EXPECT_EQ(s.multiplexerValue, t.multiplexerValue);
    EXPECT_EQ(s.startBit, t.startBit);
    EXPECT_EQ(s.length, t.length);
    EXPECT_EQ(s.bigEndian, t.bigEndian);
    EXPECT_EQ(s.isSigned, t.isSigned);
    // The writer keeps seven decimals; print both sides the same way.
    EXPECT_EQ(Fixed7(s.factor), Fixed7(t.factor));
    EXPECT_EQ(Fixed7(s.offset), Fixed7(t.offset));
    EXPECT_EQ(Fixed7(s.minimum), Fixed7(t.minimum));
    EXPECT_EQ(Fixed7(s.maximum), Fixed7(t.maximum));
    EXPECT_EQ(Str(s.unit), Str(t.unit));
    EXPECT_EQ(s.index, t.index);
}

TEST_P(DbcCorpus, WriterOutputLoadsBackToTheSameModel) {
    DBCEx db;
    db.Load(path_, false);
    DumpDir dir;
    std::string dump = dir.Dump(db);
    ASSERT_FALSE(dump.empty());
    DBCEx again;
    ASSERT_TRUE(again.Load(dump, false));

    auto before = ById(db), after = ById(again);
    ASSERT_EQ(before.size(), after.size());
    for (const auto& [id, m] : before) {
        SCOPED_TRACE("message " + Str(m->name) + " id " + std::to_string(id));
        auto it = after.find(id);
        ASSERT_NE(it, after.end());
        const ::Message& b = *it->second;
        EXPECT_EQ(Str(m->name), Str(b.name));
        EXPECT_EQ(Str(m->transmitter), Str(b.transmitter));
        EXPECT_EQ(m->dlc, b.dlc);
        std::vector<const ::Signal*> expected = ExpectedAfterReload(*m);
        ASSERT_EQ(expected.size(), b.signals.size());
        for (const ::Signal* s : expected) {
            const ::Signal* t = again.FindSignal(&b, Str(s->name));
            ASSERT_NE(t, nullptr) << Str(s->name);
            ExpectSameSignal(*s, *t);
        }
    }
}

std::string CaseName(const ::testing::TestParamInfo<std::string>& info) {
    if (info.param.empty()) return "NoCorpus";
    std::string name;
    for (char c : info.param) name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return name;
}

INSTANTIATE_TEST_SUITE_P(Files, DbcCorpus, ::testing::ValuesIn(CorpusFiles()), CaseName);

}  // namespace
