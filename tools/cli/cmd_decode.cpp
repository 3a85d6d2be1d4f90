// tarn decode: a candump log through the library, one line per message.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "commands.h"
#include "database.h"
#include "format.h"
#include "logline.h"

namespace tarncli {
namespace {

constexpr size_t kMaxReportedLines = 20;        // malformed lines shown one by one
constexpr long long kProgressBytes = 10 << 20;  // larger inputs show progress
constexpr size_t kOutputChunk = 1 << 16;

struct Counts {
    size_t lines = 0, frames = 0, malformed = 0, messages = 0, transfers = 0;
    size_t transport = 0, remote = 0, errors = 0, undecoded = 0;
    std::map<uint64_t, size_t> unknown;  // (extended << 32 | id) -> frames
};

bool isTransportFrame(const LogFrame& f) {
    if (!f.extended) return false;
    uint32_t pf = (f.id >> 16) & 0xFF;
    uint32_t key = f.id & (pf < 240 ? 0x3FF0000u : 0x3FFFF00u);
    return key == 0xEC0000u || key == 0xEB0000u;
}

class Decoder {
  public:
    Decoder(Database& db, const Options& opts) : m_db(db), m_opts(opts), m_out(newMessage()) {
        // Completed J1939 transfers come back through this callback while
        // TARN_Analyse handles the frame that completed them.
        TARN_SetOnMultiTransDoneFunc(db.handle(), &Decoder::onTransfer, this);
    }
    ~Decoder() { TARN_SetOnMultiTransDoneFunc(m_db.handle(), nullptr, nullptr); }

    void feed(const LogFrame& f);
    bool flush();
    Counts& counts() { return m_counts; }

  private:
    static void onTransfer(void* ctx, DBCMessage* msg, uint8_t*, uint16_t length, uint8_t) {
        Decoder* self = static_cast<Decoder*>(ctx);
        ++self->m_counts.transfers;
        self->emit(*msg, true, length);
    }
    bool analyse(const LogFrame& f);
    void emit(const DBCMessage& m, bool transfer, uint16_t size);
    void classifyFailure(const LogFrame& f);

    Database& m_db;
    const Options& m_opts;
    MessagePtr m_out;
    const LogFrame* m_current = nullptr;
    Counts m_counts;
    std::string m_buffer;
};

bool Decoder::analyse(const LogFrame& f) {
    if (f.fd) {
        TarnCanFdFrame fd;
        std::memset(&fd, 0, sizeof fd);
        fd.can_id = f.id | (f.extended ? TARN_CAN_EFF_FLAG : 0);
        fd.len = f.len;
        fd.flags = f.flags;
        std::memcpy(fd.data, f.data, f.len);
        return TARN_Analyse(m_db.handle(), &fd, 1, m_out.get());
    }
    TarnCanFrame cf;
    std::memset(&cf, 0, sizeof cf);
    cf.can_id = f.id | (f.extended ? TARN_CAN_EFF_FLAG : 0);
    cf.len = f.len;
    std::memcpy(cf.data, f.data, 8);
    return TARN_Analyse(m_db.handle(), &cf, 0, m_out.get());
}

void Decoder::feed(const LogFrame& f) {
    ++m_counts.frames;
    if (f.error) {
        ++m_counts.errors;
        return;
    }
    if (f.remote) {
        ++m_counts.remote;
        return;
    }
    m_current = &f;
    if (analyse(f))
        emit(*m_out, false, 0);
    else
        classifyFailure(f);
    m_current = nullptr;
}

void Decoder::classifyFailure(const LogFrame& f) {
    if (m_db.isJ1939() && isTransportFrame(f))
        ++m_counts.transport;
    else if (m_db.knowsId(f.id, f.extended))
        ++m_counts.undecoded;  // known, but the frame cannot carry it (a long message)
    else
        ++m_counts.unknown[(f.extended ? 1ull << 32 : 0) | f.id];
}

void Decoder::emit(const DBCMessage& m, bool transfer, uint16_t size) {
    ++m_counts.messages;
    if (!m_opts.only.empty()) {
        std::string name = fixedText(m.name);
        if (std::find(m_opts.only.begin(), m_opts.only.end(), name) == m_opts.only.end()) return;
    }
    static const std::string kNone;
    Origin origin{m_current ? &m_current->time : &kNone, m_current ? &m_current->iface : &kNone,
                  transfer, size};
    m_buffer += m_opts.json ? formatJson(m, origin) : formatText(m, origin);
    if (m_buffer.size() >= kOutputChunk) flush();
}

bool Decoder::flush() {
    bool ok = std::fwrite(m_buffer.data(), 1, m_buffer.size(), stdout) == m_buffer.size();
    m_buffer.clear();
    return ok;
}

// A "NN%" line on a terminal's standard error for big input files.
class Progress {
  public:
    Progress(FILE* in, const std::string& path) : m_in(in) {
        struct stat st;
        if (path != "-" && isatty(STDERR_FILENO) && fstat(fileno(in), &st) == 0 &&
            S_ISREG(st.st_mode) && st.st_size > kProgressBytes)
            m_size = st.st_size;
    }
    ~Progress() {
        if (m_shown) std::fprintf(stderr, "\r\033[K");
    }
    void tick(size_t lines) {
        if (m_size == 0 || (lines & 0xFFFF) != 0) return;
        auto now = std::chrono::steady_clock::now();
        if (m_shown && now - m_last < std::chrono::milliseconds(250)) return;
        m_last = now;
        m_shown = true;
        long long pos = ftell(m_in);
        std::fprintf(stderr, "\rtarn decode: %3lld%% (%zu lines)", pos * 100 / m_size, lines);
    }

  private:
    FILE* m_in;
    long long m_size = 0;
    bool m_shown = false;
    std::chrono::steady_clock::time_point m_last;
};

std::string plural(size_t n, const char* word) {
    return std::to_string(n) + " " + word + (n == 1 ? "" : "s");
}

void printSummary(const Counts& c) {
    std::string s =
        "tarn decode: " + plural(c.frames, "frame") + ", " + plural(c.messages, "message");
    if (c.transfers) s += " (" + std::to_string(c.transfers) + " from transport transfers)";
    if (c.transport) s += ", " + plural(c.transport, "transport frame");
    if (c.undecoded) s += ", " + plural(c.undecoded, "frame") + " of known messages not decodable";
    if (c.remote) s += ", " + plural(c.remote, "remote frame");
    if (c.errors) s += ", " + plural(c.errors, "error frame");
    if (c.malformed) s += ", " + plural(c.malformed, "malformed line");
    size_t unknownFrames = 0;
    for (const auto& u : c.unknown) unknownFrames += u.second;
    if (unknownFrames) {
        s += ", " + plural(unknownFrames, "frame") + " with " +
             plural(c.unknown.size(), "unknown id") + ":";
        for (const auto& u : c.unknown)
            s += " " + hexId(static_cast<uint32_t>(u.first), (u.first >> 32) != 0) + "(" +
                 std::to_string(u.second) + ")";
    }
    std::fprintf(stderr, "%s\n", s.c_str());
}

bool checkOnlyNames(const Database& db, const Options& opts) {
    bool ok = true;
    for (const std::string& name : opts.only) {
        MessagePtr scratch = newMessage();
        if (db.findByName(name, *scratch)) continue;
        std::fprintf(stderr, "tarn decode: --only: no message named '%s'\n", name.c_str());
        ok = false;
    }
    return ok;
}

void reportMalformed(Counts& c, const std::string& path, const std::string& why) {
    if (++c.malformed <= kMaxReportedLines)
        std::fprintf(stderr, "tarn decode: %s:%zu: malformed line skipped: %s\n",
                     path == "-" ? "<stdin>" : path.c_str(), c.lines, why.c_str());
    else if (c.malformed == kMaxReportedLines + 1)
        std::fprintf(stderr, "tarn decode: further malformed lines are only counted\n");
}

int decodeStream(Database& db, const Options& opts, FILE* in, const std::string& path) {
    Decoder decoder(db, opts);
    Counts& c = decoder.counts();
    Progress progress(in, path);
    LogFrame frame;
    std::string why;
    char* line = nullptr;
    size_t cap = 0;
    ssize_t n;
    while ((n = getline(&line, &cap, in)) >= 0) {
        ++c.lines;
        progress.tick(c.lines);
        LineResult r = parseLogLine(std::string_view(line, static_cast<size_t>(n)), frame, why);
        if (r == LineResult::Frame)
            decoder.feed(frame);
        else if (r == LineResult::Malformed)
            reportMalformed(c, path, why);
    }
    bool readError = std::ferror(in) != 0;
    std::free(line);
    bool written = decoder.flush() && std::fflush(stdout) == 0;
    printSummary(c);
    if (readError) std::fprintf(stderr, "tarn decode: read error on %s\n", path.c_str());
    if (!written) std::fprintf(stderr, "tarn decode: cannot write the output\n");
    bool nothingUsable = c.frames == 0 && c.malformed > 0;
    return readError || !written || nothingUsable ? kExitFailure : kExitOk;
}

}  // namespace

int runDecode(const Options& opts) {
    if (opts.operands.empty() || opts.operands.size() > 2) {
        std::fprintf(stderr, "tarn decode: expected a DBC file and at most one log\n");
        return kExitUsage;
    }
    std::string error;
    std::unique_ptr<Database> db = Database::open(opts.operands[0], error);
    if (!db) {
        std::fprintf(stderr, "tarn decode: %s\n", error.c_str());
        return kExitFailure;
    }
    if (!checkOnlyNames(*db, opts)) return kExitFailure;
    std::string path = opts.operands.size() == 2 ? opts.operands[1] : "-";
    FILE* in = path == "-" ? stdin : std::fopen(path.c_str(), "r");
    if (!in) {
        std::fprintf(stderr, "tarn decode: %s: %s\n", path.c_str(), std::strerror(errno));
        return kExitFailure;
    }
    int rc = decodeStream(*db, opts, in, path);
    if (in != stdin) std::fclose(in);
    return rc;
}

}  // namespace tarncli
