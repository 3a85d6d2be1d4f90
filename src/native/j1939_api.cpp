// The native C interface of the J1939 helpers and transport (tarn/j1939.h):
// argument checks, status codes and the callbacks over the C++ core.
#include "tarn/j1939.h"

#include <algorithm>
#include <exception>
#include <new>

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

}  // namespace

struct tarn_j1939 final : j1939::Events {
    explicit tarn_j1939(const tarn_j1939_options& o) : options(o), node(NodeOptions(o), *this) {}

    bool SendFrame(uint32_t id, const uint8_t* data, size_t length) override {
        return options.send != nullptr && options.send(options.user, id, data, length) == 0;
    }

    void OnTransfer(const j1939::Transfer& t) override {
        if (options.on_transfer == nullptr) return;
        tarn_j1939_transfer out{};
        out.time_us = t.now;
        out.pgn = t.header.pgn;
        out.size = t.header.size;
        out.data = t.data;
        out.priority = t.header.priority;
        out.source = t.header.source;
        out.destination = t.header.destination;
        out.role = static_cast<uint8_t>(t.header.role);
        options.on_transfer(options.user, &out);
    }

    void OnEnded(const j1939::Ended& e) override {
        if (options.on_ended == nullptr) return;
        tarn_j1939_ended out{};
        out.time_us = e.now;
        out.pgn = e.header.pgn;
        out.size = e.header.size;
        out.done = e.done;
        out.priority = e.header.priority;
        out.source = e.header.source;
        out.destination = e.header.destination;
        out.role = static_cast<uint8_t>(e.header.role);
        out.reason = static_cast<uint8_t>(e.reason);
        out.abort_reason = static_cast<uint8_t>(e.abort);
        options.on_ended(options.user, &out);
    }

    // Runs one entry of the core, refusing a call made from inside a callback.
    template <typename Fn>
    int Enter(Fn&& fn) {
        if (inside) return TARN_ERR_STATE;
        inside = true;
        int status;
        try {
            status = fn();
        } catch (const std::exception&) {
            status = TARN_ERR_NO_MEMORY;  // allocations are all the core can fail on
        }
        inside = false;
        return status;
    }

    tarn_j1939_options options;
    j1939::Node node;
    bool inside = false;
};

extern "C" {

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

int tarn_j1939_get_stats(const tarn_j1939* j, tarn_j1939_stats* out) {
    if (j == nullptr || out == nullptr) return TARN_ERR_ARGUMENT;
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
