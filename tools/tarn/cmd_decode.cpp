// tarn decode: a CAN log through the native decoder, one line per message,
// J1939 transfers reassembled by a listen-only transport receiver.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "decode_format.h"
#include "tarn/j1939.h"
#include "tarn/log.h"

namespace tarncli {
namespace {

constexpr size_t kBatch = 512;
constexpr size_t kMaxReported = 20;  // problems shown one by one
constexpr size_t kFlushBytes = 1 << 18;
constexpr uint64_t kDrainUs = 10'000'000;  // past every transport timeout

uint32_t pgnOf(uint32_t id) {
    return tarn_j1939_pgn(id);
}

const char* endReason(int reason) {
    switch (reason) {
        case TARN_J1939_END_T1:
            return "no data packet within 750 ms";
        case TARN_J1939_END_T2:
            return "no data packet within 1250 ms of a CTS";
        case TARN_J1939_END_T3:
            return "no CTS or acknowledgement within 1250 ms";
        case TARN_J1939_END_T4:
            return "transfer held longer than 1050 ms";
        case TARN_J1939_END_ABORTED:
        case TARN_J1939_END_PEER_ABORTED:
            return "aborted";
        case TARN_J1939_END_REPLACED:
            return "replaced by a new broadcast from the same source";
        case TARN_J1939_END_REFUSED:
            return "refused";
        default:
            return "ended";
    }
}

bool isTransport(uint32_t id) {
    const uint32_t pgn = pgnOf(id);
    return pgn == 0xEC00 || pgn == 0xEB00;
}

class Decoder {
  public:
    Decoder(const tarn::Database& db, const Options& opts, Formatter& fmt)
        : m_db(db), m_opts(opts), m_fmt(fmt), m_j1939Rules(db.j1939()) {
        m_values.resize(std::max<size_t>(1, db.info().max_signals));
        tarn_j1939_options o;
        tarn_j1939_options_init(&o);
        o.on_transfer = &Decoder::onTransfer;
        o.on_ended = &Decoder::onEnded;
        o.user = this;
        if (m_j1939Rules) tarn_j1939_create(&o, &m_transport);
        m_start = std::chrono::steady_clock::now();
    }
    ~Decoder() { tarn_j1939_destroy(m_transport); }

    void frame(const tarn_frame& f);
    void finish();
    size_t problems = 0;
    Counts counts;

  private:
    static void onTransfer(void* user, const tarn_j1939_transfer* t);
    static void onEnded(void* user, const tarn_j1939_ended* e);
    uint64_t clockUs(const tarn_frame& f);

    const tarn::Database& m_db;
    const Options& m_opts;
    Formatter& m_fmt;
    bool m_j1939Rules;
    tarn_j1939* m_transport = nullptr;
    std::vector<tarn_value> m_values;
    const tarn_frame* m_current = nullptr;
    uint64_t m_lastUs = 0;
    std::chrono::steady_clock::time_point m_start;
};

// Log time stamps drive the transport timers when a log is replayed; a
// live stream without them is timed by the clock.
uint64_t Decoder::clockUs(const tarn_frame& f) {
    if (std::isfinite(f.time) && f.time >= 0) {
        m_lastUs = std::max(m_lastUs, static_cast<uint64_t>(f.time * 1e6));
    } else {
        const auto d = std::chrono::steady_clock::now() - m_start;
        m_lastUs = std::max<uint64_t>(
            m_lastUs, std::chrono::duration_cast<std::chrono::microseconds>(d).count());
    }
    return m_lastUs;
}

void Decoder::frame(const tarn_frame& f) {
    ++counts.frames;
    if (f.flags & (TARN_FRAME_REMOTE | TARN_FRAME_ERROR)) {
        ++counts.skipped;
        return;
    }
    if (m_transport && f.extended && isTransport(f.id)) {
        ++counts.transport;
        m_current = &f;
        tarn_j1939_receive(m_transport, clockUs(f), f.id, f.data, f.length);
        return;
    }
    tarn_decoded d;
    const int rc = tarn_decode(m_db.handle(), f.id, f.extended, f.data, f.length, m_values.data(),
                               m_values.size(), &d);
    if (rc == TARN_ERR_NOT_FOUND) ++counts.unknown;
    if (rc != TARN_OK && !(rc == TARN_ERR_NOT_FOUND && m_opts.all)) return;
    Record r;
    r.frame = &f;
    r.decoded = rc == TARN_OK ? &d : nullptr;
    r.values = m_values.data();
    r.j1939 = m_j1939Rules && f.extended;
    r.id = f.id;
    r.extended = f.extended;
    r.data = f.data;
    r.size = f.length;
    m_fmt.record(r);
    ++counts.messages;
}

void Decoder::onTransfer(void* user, const tarn_j1939_transfer* t) {
    Decoder* self = static_cast<Decoder*>(user);
    ++self->counts.transfers;
    uint32_t id = 0;
    tarn_j1939_make_id(t->priority, t->pgn, t->pgn < 0xF000 ? t->destination : TARN_J1939_GLOBAL,
                       t->source, &id);
    const tarn_message* msg = nullptr;
    tarn_decoded d{};
    bool known = tarn_db_find_message_by_pgn(self->m_db.handle(), t->pgn, &msg) == TARN_OK;
    if (known)
        known = tarn_decode_message(msg, t->data, t->size, self->m_values.data(),
                                    self->m_values.size(), &d) == TARN_OK;
    if (!known && !self->m_opts.all) return;
    Record r;
    r.frame = self->m_current;
    r.decoded = known ? &d : nullptr;
    r.values = self->m_values.data();
    r.j1939 = true;
    r.transfer = true;
    r.id = id;
    r.extended = true;
    r.data = t->data;
    r.size = t->size;
    self->m_fmt.record(r);
    ++self->counts.messages;
}

void Decoder::onEnded(void* user, const tarn_j1939_ended* e) {
    Decoder* self = static_cast<Decoder*>(user);
    ++self->counts.abandoned;
    if (self->problems++ >= kMaxReported) return;
    std::fprintf(stderr,
                 "tarn: J1939 transfer of PGN %u (0x%05X) from 0x%02X to 0x%02X abandoned after "
                 "%u of %u bytes: %s\n",
                 e->pgn, e->pgn, e->source, e->destination, e->done, e->size, endReason(e->reason));
}

void Decoder::finish() {
    if (m_transport) tarn_j1939_poll(m_transport, m_lastUs + kDrainUs, nullptr);
}

void reportProblem(void* user, const tarn_log_problem* p) {
    size_t& shown = *static_cast<size_t*>(user);
    if (shown++ >= kMaxReported) return;
    std::fprintf(stderr, "tarn: line %llu: %s: %s\n", static_cast<unsigned long long>(p->line),
                 p->reason, p->excerpt);
}

int formatOf(const std::string& name) {
    if (name.empty()) return TARN_LOG_FORMAT_AUTO;
    for (int f = TARN_LOG_FORMAT_CANDUMP; f <= TARN_LOG_FORMAT_TRC2; ++f)
        if (name == tarn_log_format_name(f)) return f;
    if (name == "trc") return TARN_LOG_FORMAT_AUTO;  // the version is in the file
    return -1;
}

void summarise(const Counts& c, const tarn_log_info& info) {
    if (!c.unknown && !info.malformed && !info.overlong && !c.abandoned) return;
    std::fprintf(stderr,
                 "tarn: %llu lines, %zu frames, %zu messages, %zu transfers; %zu frames of unknown "
                 "identifiers, %llu malformed and %llu overlong lines, %zu abandoned transfers\n",
                 static_cast<unsigned long long>(info.lines), c.frames, c.messages, c.transfers,
                 c.unknown, static_cast<unsigned long long>(info.malformed),
                 static_cast<unsigned long long>(info.overlong), c.abandoned);
}

}  // namespace

int runDecode(const Options& opts) {
    if (opts.operands.empty() || opts.operands.size() > 2) {
        std::fprintf(stderr, "tarn: decode needs a DBC file and a log\n\n%s",
                     usageText("decode").c_str());
        return kExitUsage;
    }
    const int format = formatOf(opts.format);
    if (format < 0) {
        std::fprintf(stderr, "tarn: unknown log format '%s'\n", opts.format.c_str());
        return kExitUsage;
    }
    auto db = openDatabase(opts.operands[0], opts);
    if (!db) return kExitFailure;
    const std::string path = opts.operands.size() == 2 ? opts.operands[1] : "-";
    tarn_log_reader* reader = nullptr;
    const int rc = path == "-" ? tarn_log_open_fd(0, format, &reader)
                               : tarn_log_open(path.c_str(), format, &reader);
    if (rc != TARN_OK) {
        std::fprintf(stderr, "tarn: %s: %s\n", path.c_str(), tarn_status_text(rc));
        return kExitFailure;
    }
    struct stat st {};
    const bool regular = path == "-" ? fstat(0, &st) == 0 && S_ISREG(st.st_mode)
                                     : stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
    size_t shown = 0;
    tarn_log_set_problem_handler(reader, reportProblem, &shown);

    Formatter fmt(*db, opts, reader);
    Decoder dec(*db, opts, fmt);
    std::vector<tarn_frame> frames(kBatch);
    int status = kExitOk;
    for (;;) {
        size_t n = 0;
        const int r = tarn_log_read(reader, frames.data(), frames.size(), &n);
        for (size_t i = 0; i < n; ++i) dec.frame(frames[i]);
        // From a pipe or a terminal every line leaves as soon as it is made.
        if (!regular || fmt.pending() > kFlushBytes) fmt.flush();
        if (r != TARN_OK) {
            std::fprintf(stderr, "tarn: %s: %s\n", path.c_str(), tarn_status_text(r));
            status = kExitFailure;
            break;
        }
        if (n == 0 && tarn_log_at_end(reader)) break;
    }
    dec.finish();
    fmt.flush();
    tarn_log_info info{};
    tarn_log_get_info(reader, &info);
    summarise(dec.counts, info);
    tarn_log_close(reader);
    return fmt.ok() ? status : kExitFailure;
}

}  // namespace tarncli
