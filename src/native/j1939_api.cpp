// The native C interface of the J1939 helpers and transport (tarn/j1939.h):
// argument checks, status codes and the callbacks over the C++ core, plus
// the optional timer thread that polls with the monotonic clock.
#include "tarn/j1939.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <new>
#include <thread>

#include "j1939/dm.h"
#include "j1939/identifier.h"
#include "j1939/transport_node.h"

namespace {

j1939::Node::Options NodeOptions(const tarn_j1939_options& o) {
    j1939::Node::Options n;
    n.address = o.address;
    n.ctsWindow = static_cast<uint8_t>(std::min(o.cts_window, 255u));
    n.bamGapMs = o.bam_gap_ms;
    n.maxSessions = o.max_sessions;
    return n;
}

bool ValidOptions(const tarn_j1939_options& o) {
    if (o.cts_window > 255 || !j1939::Node::Valid(NodeOptions(o))) return false;
    return o.address == TARN_J1939_NO_ADDRESS || o.send != nullptr;
}

int ToStatus(j1939::Node::Result r) {
    switch (r) {
        case j1939::Node::Result::Ok:
            return TARN_OK;
        case j1939::Node::Result::Argument:
            return TARN_ERR_ARGUMENT;
        case j1939::Node::Result::Busy:
            return TARN_ERR_STATE;
        case j1939::Node::Result::SendFailed:
            return TARN_ERR_IO;
    }
    return TARN_ERR_STATE;
}

// The objects whose entry is running on this thread, innermost first: a
// callback may use other objects but never re-enter one of these.
struct Entered {
    const void* object;
    const Entered* outer;
};
thread_local const Entered* t_entered = nullptr;

bool IsEntered(const void* object) {
    for (const Entered* e = t_entered; e != nullptr; e = e->outer) {
        if (e->object == object) return true;
    }
    return false;
}

uint64_t ClockUs() {
    using namespace std::chrono;
    return uint64_t(duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count());
}

// The fields a completed transfer and an ended session report alike.
template <class Report>
void CopyHeader(const j1939::Header& h, uint64_t now, Report& out) {
    out.time_us = now;
    out.pgn = h.pgn;
    out.size = h.size;
    out.priority = h.priority;
    out.source = h.source;
    out.destination = h.destination;
    out.role = static_cast<uint8_t>(h.role);
}

}  // namespace

struct tarn_j1939 final : j1939::Events {
    explicit tarn_j1939(const tarn_j1939_options& o) : options(o), node(NodeOptions(o), *this) {}

    bool SendFrame(uint32_t id, const uint8_t* data, size_t length) override {
        return options.send != nullptr && options.send(options.user, id, data, length) == 0;
    }

    void OnTransfer(const j1939::Transfer& t) override {
        if (options.on_transfer == nullptr) return;
        tarn_j1939_transfer out{};
        CopyHeader(t.header, t.now, out);
        out.data = t.data;
        options.on_transfer(options.user, &out);
    }

    void OnEnded(const j1939::Ended& e) override {
        if (options.on_ended == nullptr) return;
        tarn_j1939_ended out{};
        CopyHeader(e.header, e.now, out);
        out.done = e.done;
        out.reason = static_cast<uint8_t>(e.reason);
        out.abort_reason = static_cast<uint8_t>(e.abort);
        options.on_ended(options.user, &out);
    }

    ~tarn_j1939() override { StopTimer(); }

    // Runs one entry of the core, refusing a call made from inside one of
    // its callbacks; with the timer thread running, entries take turns.
    template <typename Fn>
    int Enter(Fn&& fn) {
        if (IsEntered(this)) return TARN_ERR_STATE;
        std::unique_lock<std::mutex> lock(mutex, std::defer_lock);
        if (timer.joinable()) lock.lock();
        const int status = Run(fn);
        if (timer.joinable() && node.NextDeadline() < wakeAt) wake.notify_one();
        return status;
    }

    template <typename Fn>
    int Run(Fn&& fn) {
        const Entered entry{this, t_entered};
        t_entered = &entry;
        int status;
        try {
            status = fn();
        } catch (const std::exception&) {
            status = TARN_ERR_NO_MEMORY;  // allocations are all the core can fail on
        }
        t_entered = entry.outer;
        return status;
    }

    int StartTimer() {
        if (timer.joinable()) return TARN_ERR_STATE;
        stopping = false;
        try {
            timer = std::thread([this] { TimerLoop(); });
        } catch (const std::exception&) {
            return TARN_ERR_NO_MEMORY;
        }
        return TARN_OK;
    }

    void StopTimer() {
        if (!timer.joinable()) return;
        {
            std::lock_guard<std::mutex> lock(mutex);
            stopping = true;
        }
        wake.notify_one();
        timer.join();
    }

    // Polls at each deadline; an entry that brings one forward wakes it.
    void TimerLoop() {
        using Clock = std::chrono::steady_clock;
        std::unique_lock<std::mutex> lock(mutex);
        while (!stopping) {
            Run([this] {
                node.Poll(ClockUs());
                return TARN_OK;
            });
            wakeAt = node.NextDeadline();
            if (wakeAt == UINT64_MAX) {
                wake.wait(lock);
            } else {
                wake.wait_until(lock, Clock::time_point(std::chrono::microseconds(wakeAt)));
            }
        }
    }

    tarn_j1939_options options;
    j1939::Node node;
    mutable std::mutex mutex;
    std::condition_variable wake;
    std::thread timer;
    bool stopping = false;
    uint64_t wakeAt = UINT64_MAX;  // when the timer thread means to poll next
};

extern "C" {

const char* tarn_j1939_end_reason_text(int reason) {
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
            return "aborted";
        case TARN_J1939_END_PEER_ABORTED:
            return "aborted by the peer";
        case TARN_J1939_END_REPLACED:
            return "replaced by a new broadcast from the same source";
        case TARN_J1939_END_REFUSED:
            return "refused";
        default:
            return "ended";
    }
}

uint8_t tarn_j1939_priority(uint32_t id) {
    return j1939::Priority(id);
}
uint32_t tarn_j1939_pgn(uint32_t id) {
    return j1939::Pgn(id & j1939::kIdMask);
}
uint8_t tarn_j1939_source(uint32_t id) {
    return j1939::Source(id);
}
uint8_t tarn_j1939_destination(uint32_t id) {
    return j1939::Destination(id);
}

int tarn_j1939_make_id(uint8_t priority, uint32_t pgn, uint8_t destination, uint8_t source,
                       uint32_t* out) {
    if (out == nullptr || priority > 7 || !j1939::IsValidPgn(pgn) ||
        !j1939::CanAddress(pgn, destination)) {
        return TARN_ERR_ARGUMENT;
    }
    *out = j1939::MakeId(priority, pgn, destination, source);
    return TARN_OK;
}

int tarn_j1939_dm_parse(const uint8_t* data, size_t length, tarn_j1939_dm* out,
                        tarn_j1939_dtc* dtcs, size_t capacity) {
    if (out == nullptr || data == nullptr || length < 2 || (dtcs == nullptr && capacity > 0)) {
        return TARN_ERR_ARGUMENT;
    }
    const j1939::Lamps lamps = j1939::ReadLamps(data);
    size_t written = 0;
    const size_t count = j1939::ForEachDtc(data, length, [&](const j1939::Dtc& d) {
        if (written < capacity) dtcs[written++] = {d.spn, d.fmi, d.occurrences, d.conversion, 0};
    });
    std::copy(lamps.status, lamps.status + 4, out->lamp_status);
    std::copy(lamps.flash, lamps.flash + 4, out->lamp_flash);
    out->dtc_count = static_cast<uint32_t>(count);
    return count > capacity ? TARN_ERR_BUFFER : TARN_OK;
}

void tarn_j1939_options_init(tarn_j1939_options* options) {
    if (options == nullptr) return;
    *options = tarn_j1939_options{};
    options->address = TARN_J1939_NO_ADDRESS;
    options->cts_window = j1939::kDefaultCtsWindow;
    options->bam_gap_ms = j1939::kBamGapDefaultMs;
    options->max_sessions = j1939::kDefaultMaxSessions;
}

int tarn_j1939_create(const tarn_j1939_options* options, tarn_j1939** out) {
    if (out == nullptr) return TARN_ERR_ARGUMENT;
    *out = nullptr;
    if (options == nullptr || !ValidOptions(*options)) return TARN_ERR_ARGUMENT;
    *out = new (std::nothrow) tarn_j1939(*options);
    return *out != nullptr ? TARN_OK : TARN_ERR_NO_MEMORY;
}

void tarn_j1939_destroy(tarn_j1939* j) {
    delete j;
}

int tarn_j1939_receive(tarn_j1939* j, uint64_t now_us, uint32_t id, const uint8_t* data,
                       size_t length) {
    if (j == nullptr || length > 64) return TARN_ERR_ARGUMENT;
    return j->Enter([&] { return ToStatus(j->node.Receive(now_us, id, data, length)); });
}

int tarn_j1939_send(tarn_j1939* j, uint64_t now_us, uint8_t priority, uint32_t pgn,
                    uint8_t destination, const uint8_t* data, size_t length) {
    if (j == nullptr) return TARN_ERR_ARGUMENT;
    return j->Enter(
        [&] { return ToStatus(j->node.Send(now_us, priority, pgn, destination, data, length)); });
}

int tarn_j1939_poll(tarn_j1939* j, uint64_t now_us, uint64_t* next_us) {
    if (j == nullptr) return TARN_ERR_ARGUMENT;
    return j->Enter([&] {
        j->node.Poll(now_us);
        if (next_us != nullptr) *next_us = j->node.NextDeadline();
        return TARN_OK;
    });
}

int tarn_j1939_start_timer(tarn_j1939* j) {
    if (j == nullptr) return TARN_ERR_ARGUMENT;
    return IsEntered(j) ? TARN_ERR_STATE : j->StartTimer();
}

int tarn_j1939_stop_timer(tarn_j1939* j) {
    if (j == nullptr) return TARN_ERR_ARGUMENT;
    if (IsEntered(j)) return TARN_ERR_STATE;
    j->StopTimer();
    return TARN_OK;
}

uint64_t tarn_j1939_clock_us(void) {
    return ClockUs();
}

int tarn_j1939_get_stats(const tarn_j1939* j, tarn_j1939_stats* out) {
    if (j == nullptr || out == nullptr) return TARN_ERR_ARGUMENT;
    // Inside a callback this thread already holds the object.
    std::unique_lock<std::mutex> lock(j->mutex, std::defer_lock);
    if (j->timer.joinable() && !IsEntered(j)) lock.lock();
    const j1939::Stats s = j->node.GetStats();
    *out = {s.frames,
            s.received,
            s.sent,
            s.ended,
            s.refused,
            s.duplicates,
            s.out_of_order,
            s.out_of_range,
            s.unexpected,
            s.size_mismatches,
            s.stray,
            s.malformed,
            s.timeouts,
            s.aborts_sent,
            s.aborts_received,
            s.retransmit_requests,
            s.send_failures,
            s.open_sessions,
            s.peak_sessions};
    return TARN_OK;
}

}  // extern "C"
