#include "j1939/dm.h"

namespace j1939 {

Lamps ReadLamps(const uint8_t* data) {
    Lamps lamps;
    for (int lamp = 0; lamp < 4; ++lamp) {
        const int shift = 6 - 2 * lamp;
        lamps.status[lamp] = (data[0] >> shift) & 3;
        lamps.flash[lamp] = (data[1] >> shift) & 3;
    }
    return lamps;
}

// SPN low and middle bytes, then its top 3 bits above the FMI; the last byte
// holds the conversion method above the occurrence count.
bool ReadDtc(const uint8_t* e, Dtc& out) {
    if ((e[0] | e[1] | e[2] | e[3]) == 0 || (e[0] & e[1] & e[2] & e[3]) == 0xFF) return false;
    out.spn = e[0] | e[1] << 8 | uint32_t{static_cast<uint8_t>(e[2] >> 5)} << 16;
    out.fmi = e[2] & 0x1F;
    out.conversion = e[3] >> 7;
    out.occurrences = e[3] & 0x7F;
    return true;
}

}  // namespace j1939
