// tarn decode: a CAN log through the native decoder, one line per message,
// J1939 transfers reassembled by a listen-only transport receiver.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "commands.h"
#include "decode_format.h"
#include "tarn/j1939.h"
#include "tarn/log.h"

namespace tarncli {
namespace {

constexpr size_t kBatch = 4096;
constexpr size_t kSplitFrames = 1024;      // smaller batches are not worth a thread
constexpr size_t kMaxReported = 20;        // problems shown one by one
constexpr uint64_t kDrainUs = 10'000'000;  // past every transport timeout

uint32_t pgnOf(uint32_t id) {
    return tarn_j1939_pgn(id);
}

bool isTransport(uint32_t id) {
    const uint32_t pgn = pgnOf(id);
    return pgn == 0xEC00 || pgn == 0xEB00;
}

// A transfer completed by frame `frame` of the current batch, printed in
// that frame's place.
struct Pending {
    size_t frame = 0;
    uint32_t id = 0;
    bool known = false;
    tarn_decoded decoded{};
    std::vector<tarn_value> values;
    std::vector<uint8_t> data;
};

// The sequential part of a batch: the J1939 transport receiver, the
// interface names and the transfers it completes.
class Transport {
  public:
    Transport(const tarn::Database& db, const Options& opts, Tables& tables)
        : m_db(db), m_opts(opts), m_tables(tables), m_maxSignals(maxSignals(db)) {
        if (!db.j1939()) return;
        tarn_j1939_options o;
        tarn_j1939_options_init(&o);
        o.on_transfer = &Transport::onTransfer;
        o.on_ended = &Transport::onEnded;
        o.user = this;
        tarn_j1939_create(&o, &m_receiver);
        m_start = std::chrono::steady_clock::now();
    }
    ~Transport() { tarn_j1939_destroy(m_receiver); }
    static size_t maxSignals(const tarn::Database& db) {
        return std::max<size_t>(1, db.info().max_signals);
    }
    bool handles(const tarn_frame& f) const {
        return m_receiver && f.extended && isTransport(f.id);
    }
    void batch(const tarn_frame* frames, size_t n);
    void finish() {
        if (m_receiver) tarn_j1939_poll(m_receiver, m_lastUs + kDrainUs, nullptr);
    }
    const std::vector<Pending>& pending() const { return m_pending; }
    size_t transfers = 0, abandoned = 0, transport = 0;

  private:
    static void onTransfer(void* user, const tarn_j1939_transfer* t);
    static void onEnded(void* user, const tarn_j1939_ended* e);
    uint64_t clockUs(const tarn_frame& f);

    const tarn::Database& m_db;
    const Options& m_opts;
    Tables& m_tables;
    size_t m_maxSignals;
    tarn_j1939* m_receiver = nullptr;
    std::vector<Pending> m_pending;
    size_t m_frame = 0;
    size_t m_reported = 0;
    uint64_t m_lastUs = 0;
    std::chrono::steady_clock::time_point m_start;
};

void Transport::batch(const tarn_frame* frames, size_t n) {
    m_pending.clear();
    for (size_t i = 0; i < n; ++i) {
        m_tables.learnChannel(frames[i].channel);
        if (!handles(frames[i])) continue;
        ++transport;
        m_frame = i;
        tarn_j1939_receive(m_receiver, clockUs(frames[i]), frames[i].id, frames[i].data,
                           frames[i].length);
    }
}

// Log time stamps drive the transport timers when a log is replayed; a
// live stream without them is timed by the clock.
uint64_t Transport::clockUs(const tarn_frame& f) {
    if (std::isfinite(f.time) && f.time >= 0) {
        m_lastUs = std::max(m_lastUs, static_cast<uint64_t>(f.time * 1e6));
    } else {
        const auto d = std::chrono::steady_clock::now() - m_start;
        m_lastUs = std::max<uint64_t>(
            m_lastUs, std::chrono::duration_cast<std::chrono::microseconds>(d).count());
    }
    return m_lastUs;
}

void Transport::onTransfer(void* user, const tarn_j1939_transfer* t) {
    Transport* self = static_cast<Transport*>(user);
    ++self->transfers;
    Pending p;
    p.frame = self->m_frame;
    tarn_j1939_make_id(t->priority, t->pgn, t->pgn < 0xF000 ? t->destination : TARN_J1939_GLOBAL,
                       t->source, &p.id);
    p.data.assign(t->data, t->data + t->size);
    p.values.resize(self->m_maxSignals);
    const tarn_message* msg = nullptr;
    p.known = tarn_db_find_message_by_pgn(self->m_db.handle(), t->pgn, &msg) == TARN_OK &&
              tarn_decode_message(msg, p.data.data(), p.data.size(), p.values.data(),
                                  p.values.size(), &p.decoded) == TARN_OK;
    if (p.known || self->m_opts.all) self->m_pending.push_back(std::move(p));
}

void Transport::onEnded(void* user, const tarn_j1939_ended* e) {
    Transport* self = static_cast<Transport*>(user);
    ++self->abandoned;
    if (self->m_reported++ >= kMaxReported) return;
    std::fprintf(stderr,
                 "tarn: J1939 transfer of PGN %u (0x%05X) from 0x%02X to 0x%02X abandoned after "
                 "%u of %u bytes: %s\n",
                 e->pgn, e->pgn, e->source, e->destination, e->done, e->size,
                 tarn_j1939_end_reason_text(e->reason));
}

// Decodes and formats frames [begin, end) of a batch; several run at once
// on different ranges, each with its own formatter and value buffer.
struct Worker {
    const tarn::Database& db;
    const Options& opts;
    const Transport& transport;
    Formatter fmt;
    std::vector<tarn_value> values;
    size_t messages = 0, unknown = 0;

    Worker(const tarn::Database& d, const Options& o, const Transport& t, const Tables& tables)
        : db(d), opts(o), transport(t), fmt(tables, o), values(Transport::maxSignals(d)) {}

    void transfersAt(const tarn_frame& f, size_t index);
    void run(const tarn_frame* frames, size_t begin, size_t end);
};

void Worker::transfersAt(const tarn_frame& f, size_t index) {
    for (const Pending& p : transport.pending()) {
        if (p.frame != index) continue;
        Record r;
        r.frame = &f;
        r.decoded = p.known ? &p.decoded : nullptr;
        r.values = p.values.data();
        r.j1939 = r.transfer = r.extended = true;
        r.id = p.id;
        r.data = p.data.data();
        r.size = p.data.size();
        fmt.record(r);
        ++messages;
    }
}

void Worker::run(const tarn_frame* frames, size_t begin, size_t end) {
    const bool j1939 = db.j1939();
    for (size_t i = begin; i < end; ++i) {
        const tarn_frame& f = frames[i];
        if (f.flags & (TARN_FRAME_REMOTE | TARN_FRAME_ERROR)) continue;
        if (transport.handles(f)) {
            if (!transport.pending().empty()) transfersAt(f, i);
            continue;
        }
        tarn_decoded d;
        const int rc = tarn_decode(db.handle(), f.id, f.extended, f.data, f.length, values.data(),
                                   values.size(), &d);
        if (rc == TARN_ERR_NOT_FOUND) ++unknown;
        if (rc != TARN_OK && !(rc == TARN_ERR_NOT_FOUND && opts.all)) continue;
        Record r;
        r.frame = &f;
        r.decoded = rc == TARN_OK ? &d : nullptr;
        r.values = values.data();
        r.j1939 = j1939 && f.extended;
        r.id = f.id;
        r.extended = f.extended;
        r.data = f.data;
        r.size = f.length;
        fmt.record(r);
        ++messages;
    }
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
                 "tarn: %llu lines, %llu frames, %zu messages, %zu transfers; %zu frames of "
                 "unknown identifiers, %llu malformed and %llu overlong lines, %zu abandoned "
                 "transfers\n",
                 static_cast<unsigned long long>(info.lines),
                 static_cast<unsigned long long>(info.frames), c.messages, c.transfers, c.unknown,
                 static_cast<unsigned long long>(info.malformed),
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
    size_t shown = 0;
    tarn_log_set_problem_handler(reader, reportProblem, &shown);

    Tables tables(*db, opts, reader);
    Transport transport(*db, opts, tables);
    Worker first(*db, opts, transport, tables), second(*db, opts, transport, tables);
    if (opts.csv) first.fmt.out() += "t,iface,id,name,signal,value,raw,unit,text\n";
    std::vector<tarn_frame> frames(kBatch);
    int status = kExitOk;
    bool ok = true;
    for (;;) {
        size_t n = 0;
        const int r = tarn_log_read(reader, frames.data(), frames.size(), &n);
        transport.batch(frames.data(), n);
        // Big batches are formatted in two halves at once and written in order.
        const size_t half = n >= kSplitFrames ? n / 2 : 0;
        std::thread helper;
        if (half) helper = std::thread([&] { first.run(frames.data(), 0, half); });
        second.run(frames.data(), half, n);
        if (helper.joinable()) helper.join();
        // From a pipe or a terminal every line leaves as soon as it is made.
        ok = writeOut(first.fmt.out()) && ok;
        ok = writeOut(second.fmt.out()) && ok;
        if (r != TARN_OK) {
            std::fprintf(stderr, "tarn: %s: %s\n", path.c_str(), tarn_status_text(r));
            status = kExitFailure;
            break;
        }
        if (n == 0 && tarn_log_at_end(reader)) break;
    }
    transport.finish();
    ok = writeOut(first.fmt.out()) && ok;
    tarn_log_info info{};
    tarn_log_get_info(reader, &info);
    Counts counts;
    counts.messages = first.messages + second.messages;
    counts.unknown = first.unknown + second.unknown;
    counts.transfers = transport.transfers;
    counts.abandoned = transport.abandoned;
    summarise(counts, info);
    tarn_log_close(reader);
    return ok ? status : kExitFailure;
}

}  // namespace tarncli
