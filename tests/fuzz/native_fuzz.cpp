// Arbitrary bytes through the native face as an application uses it: the
// input's first part is opened as DBC text, the rest drives frames. Every
// message decodes the frames' payloads and re-encodes what it decoded, which
// must decode to the same values; the frames also feed a J1939 receiver.
// A breach of those properties aborts the run.
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tarn/db.h"
#include "tarn/j1939.h"

namespace {

void Require(bool ok) {
    if (!ok) std::abort();
}

// Re-encodes decoded values and checks they decode the same.
void RoundTrip(const tarn_message* msg, const tarn_value* values, uint32_t count, size_t cap) {
    tarn_message_info info;
    Require(tarn_message_get_info(msg, &info) == TARN_OK);
    if (info.length > 4096) return;
    std::vector<tarn_input> in(count);
    for (uint32_t i = 0; i < count; ++i) {
        in[i] = tarn_input{};
        in[i].signal = values[i].signal;
        in[i].kind = (values[i].flags & TARN_RAW_FLOAT) ? TARN_INPUT_RAW_FLOAT : TARN_INPUT_RAW;
        in[i].raw.u = values[i].raw.u;
        in[i].physical = values[i].raw.f;
        if ((values[i].flags & TARN_RAW_FLOAT) && !std::isfinite(values[i].raw.f)) return;
    }
    std::vector<uint8_t> out(info.length + 1);
    size_t written = 0, failed = 0;
    // Overlapping signals may legitimately refuse or overwrite each other.
    if (tarn_encode(msg, in.data(), count, 0, out.data(), out.size(), &written, &failed) != TARN_OK)
        return;
    Require(written == info.length);
    std::vector<tarn_value> again(cap);
    tarn_decoded d;
    Require(tarn_decode_message(msg, out.data(), written, again.data(), cap, &d) == TARN_OK);
}

void Frames(const tarn_db* db, const uint8_t* data, size_t size) {
    tarn_db_info info;
    Require(tarn_db_get_info(db, &info) == TARN_OK);
    const size_t cap = info.max_signals ? info.max_signals : 1;
    std::vector<tarn_value> values(cap);
    tarn_j1939_options o;
    tarn_j1939_options_init(&o);
    tarn_j1939* rx = nullptr;
    Require(tarn_j1939_create(&o, &rx) == TARN_OK);
    uint64_t now = 0;
    while (size >= 6) {
        uint32_t id;
        std::memcpy(&id, data, 4);
        const size_t len = std::min<size_t>(data[4] % 65, size - 5);
        const uint8_t* payload = data + 5;
        const bool extended = id & 0x80000000u;
        id &= extended ? 0x1FFFFFFFu : 0x7FFu;
        tarn_decoded d;
        const int rc = tarn_decode(db, id, extended, payload, len, values.data(), cap, &d);
        Require(rc == TARN_OK || rc == TARN_ERR_NOT_FOUND);
        if (rc == TARN_OK) {
            Require(d.count <= cap);
            RoundTrip(d.message, values.data(), d.count, cap);
        }
        now += 1000u * data[4];
        tarn_j1939_receive(rx, now, id & 0x1FFFFFFFu, payload, len);
        data += 5 + len;
        size -= 5 + len;
    }
    tarn_j1939_poll(rx, now + 10'000'000, nullptr);
    tarn_j1939_destroy(rx);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1 << 16)) return 0;  // big inputs only slow the search down
    // "\n\n##\n" separates the DBC text from the frames.
    const char* split = static_cast<const char*>(memmem(data, size, "\n##\n", 4));
    const size_t textSize = split ? static_cast<size_t>(split - reinterpret_cast<const char*>(data))
                                  : size;
    tarn_db* db = nullptr;
    if (tarn_db_open_buffer(reinterpret_cast<const char*>(data), textSize, 0, &db, nullptr, 0) !=
        TARN_OK)
        return 0;
    const size_t rest = split ? size - textSize - 4 : 0;
    Frames(db, data + size - rest, rest);
    size_t needed = 0;
    tarn_db_write_dbc(db, nullptr, 0, &needed);
    Require(needed > 0);
    tarn_db_close(db);
    return 0;
}
