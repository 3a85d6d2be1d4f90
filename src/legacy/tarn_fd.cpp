#include "legacy/tarn_fd.h"

#include <algorithm>
#include <cstring>

namespace tarn {

TarnCanFrame FdHeadToClassic(const TarnCanFdFrame& fd) {
    TarnCanFrame cf;
    std::memset(&cf, 0, sizeof(cf));
    cf.can_id = fd.can_id;
    cf.len = std::min<uint8_t>(fd.len, 8);
    std::memcpy(cf.data, fd.data, cf.len);
    return cf;
}

std::vector<TarnCanFrame> FdToPackets(const TarnCanFdFrame& fd) {
    const size_t len = std::min(fd.len, kFdMaxLen);
    std::vector<TarnCanFrame> packets((len + 6) / 7);
    for (size_t k = 0; k < packets.size(); ++k) {
        TarnCanFrame& cf = packets[k];
        std::memset(&cf, 0, sizeof(cf));
        cf.can_id = fd.can_id;
        cf.len = 8;
        cf.data[0] = static_cast<uint8_t>(k + 1);
        std::memcpy(cf.data + 1, fd.data + k * 7, std::min<size_t>(7, len - k * 7));
    }
    return packets;
}

}  // namespace tarn
