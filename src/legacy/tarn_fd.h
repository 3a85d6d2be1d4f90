// CAN FD frames inside the library: the library decodes classic frames only,
// so an FD payload is either cut down to a classic frame or split into
// sequence-numbered 7-byte packets, the shape of a transport transfer.
#pragma once

#include <cstdint>
#include <vector>

#include "tarn.h"

namespace tarn {

constexpr uint8_t kFdMaxLen = 64;

// A classic frame with the same can_id and at most the first 8 bytes.
TarnCanFrame FdHeadToClassic(const TarnCanFdFrame& fd);
// (len + 6) / 7 packets; packet k (from 1) carries k in byte 0 and the next
// 7 payload bytes, zero-padded. len must be at most kFdMaxLen.
std::vector<TarnCanFrame> FdToPackets(const TarnCanFdFrame& fd);

}  // namespace tarn
