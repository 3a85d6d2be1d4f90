// Diagnostic messages laid out as DM1 and DM2 (lamp status, then a list of
// 4-byte trouble codes), read from a payload of any length: a single frame
// or a reassembled transfer, whatever a database declares for the group.
#pragma once

#include <cstddef>
#include <cstdint>

namespace j1939 {

constexpr size_t kDmLampBytes = 2;
constexpr size_t kDtcBytes = 4;

// Two-bit lamp states, in the order they sit in byte 0 (and byte 1 for
// flashing): malfunction indicator, red stop, amber warning, protect.
struct Lamps {
    uint8_t status[4] = {3, 3, 3, 3};  // 0 off, 1 on, 2 error, 3 not available
    uint8_t flash[4] = {3, 3, 3, 3};   // 0 slow, 1 fast, 2 reserved, 3 off / not available
};

struct Dtc {
    uint32_t spn = 0;         // 19 bits
    uint8_t fmi = 0;          // 5 bits
    uint8_t occurrences = 0;  // 7 bits; 127 means not available
    uint8_t conversion = 0;   // 1: an older SPN layout, read here as the current one
};

// The lamp bytes of a payload of at least kDmLampBytes.
Lamps ReadLamps(const uint8_t* data);

// False for entries that are not codes: all zeros (no code active) and all
// ones (padding).
bool ReadDtc(const uint8_t* entry, Dtc& out);

// Calls fn(const Dtc&) for each code after the lamp bytes, in order; a
// trailing partial entry is ignored. Returns the number of codes.
template <typename Fn>
size_t ForEachDtc(const uint8_t* data, size_t length, Fn&& fn) {
    size_t count = 0;
    Dtc dtc;
    for (size_t at = kDmLampBytes; at + kDtcBytes <= length; at += kDtcBytes) {
        if (!ReadDtc(data + at, dtc)) continue;
        fn(dtc);
        ++count;
    }
    return count;
}

}  // namespace j1939
