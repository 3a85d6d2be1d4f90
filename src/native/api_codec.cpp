// Decoding and encoding through the plans of an open database.
#include "j1939/identifier.h"
#include "native/handles.h"

using namespace tarn;

namespace {

void SetJ1939(const tarn_db& db, uint32_t id, bool extended, tarn_decoded& out) {
    out.pgn = 0;
    out.priority = out.source = 0;
    out.destination = 0;
    out.j1939 = 0;
    if (!db.plan.J1939() || !extended) return;
    out.pgn = j1939::Pgn(id);
    out.priority = j1939::Priority(id);
    out.source = j1939::Source(id);
    out.destination = j1939::Destination(id);
    out.j1939 = 1;
}

int DecodeAt(const tarn_db& db, size_t index, const uint8_t* data, size_t length,
             tarn_value* values, size_t capacity, tarn_decoded* out) {
    out->message = &db.messages[index];
    out->message_index = static_cast<uint32_t>(index);
    return db.plan.Decode(index, data, length, values, capacity, &out->count, &out->absent);
}

}  // namespace

extern "C" {

int tarn_decode(const tarn_db* db, uint32_t id, int extended, const uint8_t* data, size_t length,
                tarn_value* values, size_t capacity, tarn_decoded* out) {
    if (!db || !out || (!data && length) || (!values && capacity)) return TARN_ERR_ARGUMENT;
    out->message = nullptr;
    out->message_index = UINT32_MAX;
    out->count = out->absent = 0;
    SetJ1939(*db, id, extended != 0, *out);
    const int64_t index = db->plan.FindMessage(id, extended != 0);
    if (index < 0) return TARN_ERR_NOT_FOUND;
    return DecodeAt(*db, static_cast<size_t>(index), data, length, values, capacity, out);
}

int tarn_decode_message(const tarn_message* msg, const uint8_t* data, size_t length,
                        tarn_value* values, size_t capacity, tarn_decoded* out) {
    if (!msg || !out || (!data && length) || (!values && capacity)) return TARN_ERR_ARGUMENT;
    const tarn_db& db = *msg->db;
    const net::Message& m = db.Model(msg);
    SetJ1939(db, m.id, m.extended, *out);
    return DecodeAt(db, msg->index, data, length, values, capacity, out);
}

int tarn_decode_batch(const tarn_db* db, const tarn_frame* frames, size_t frame_count,
                      tarn_value* values, size_t capacity, tarn_batch_result* results,
                      size_t* decoded) {
    if (!db || !decoded || (!frames && frame_count) || (!results && frame_count) ||
        (!values && capacity))
        return TARN_ERR_ARGUMENT;
    size_t used = 0, i = 0;
    for (; i < frame_count; ++i) {
        const tarn_frame& f = frames[i];
        tarn_batch_result& r = results[i];
        r.message = nullptr;
        r.message_index = UINT32_MAX;
        r.first = static_cast<uint32_t>(used);
        r.count = 0;
        if (f.flags & (TARN_FRAME_REMOTE | TARN_FRAME_ERROR)) continue;
        const int64_t index = db->plan.FindMessage(f.id, f.extended != 0);
        if (index < 0) continue;
        uint32_t count = 0, absent = 0;
        const size_t length = f.length > 64 ? 64 : f.length;
        if (db->plan.Decode(static_cast<size_t>(index), f.data, length, values + used,
                            capacity - used, &count, &absent) != TARN_OK)
            break;  // out of room: the caller continues from frame i
        r.message = &db->messages[static_cast<size_t>(index)];
        r.message_index = static_cast<uint32_t>(index);
        r.count = count;
        used += count;
    }
    *decoded = i;
    return TARN_OK;
}

int tarn_encode(const tarn_message* msg, const tarn_input* inputs, size_t input_count,
                unsigned flags, uint8_t* out, size_t out_size, size_t* written, size_t* failed) {
    if (!msg || !written || (!inputs && input_count) || (!out && out_size) ||
        (flags & ~unsigned{TARN_ENCODE_STRICT}))
        return TARN_ERR_ARGUMENT;
    *written = 0;
    size_t bad = 0;
    const int rc = msg->db->plan.Encode(msg->db->net, msg->index, inputs, input_count, flags, out,
                                        out_size, written, &bad);
    if (rc != TARN_OK && failed) *failed = bad;
    return rc;
}

int tarn_signal_physical_to_raw(const tarn_signal* sig, double physical, unsigned flags,
                                tarn_value* out) {
    if (!sig || !out || (flags & ~unsigned{TARN_ENCODE_STRICT})) return TARN_ERR_ARGUMENT;
    const coder::SignalPlan& p = sig->db->plan.Signal(sig->index);
    uint64_t bits = 0;
    const int rc =
        coder::PhysicalToRaw(p, sig->db->Model(sig), physical, flags & TARN_ENCODE_STRICT, bits);
    if (rc != TARN_OK) return rc;
    // The value a receiver will decode from the stored bits.
    out->signal = sig->index - sig->db->net.messages[sig->message].signals.first;
    coder::FillValue(p, bits, *out);
    return TARN_OK;
}

}  // extern "C"
