// J1939 identifier rules shared by the coder, the analyser and both sides of
// the transport protocol.
#pragma once

#include <cstdint>

#include "tarn.h"

namespace j1939 {

// Group keys (in place) of the transport's connection-management and data frames.
constexpr uint32_t kTpCmKey = 0xEC0000;
constexpr uint32_t kTpDtKey = 0xEB00;  // key shifted down by 8

// TP.CM control bytes (data byte 0).
constexpr uint8_t kRts = 0x10;
constexpr uint8_t kCts = 0x11;
constexpr uint8_t kAck = 0x13;
constexpr uint8_t kBam = 0x20;
constexpr uint8_t kAbort = 0xFF;

// Bits that make up a parameter group in place: below PDU format 240 the
// destination byte is not part of the group, from 240 on it is.
inline uint32_t GroupMask(uint64_t id) {
    return ((id >> 16) & 0xFFu) < 240u ? 0x3FF0000u : 0x3FFFF00u;
}

// The parameter group kept in place (not shifted down); source and priority dropped.
inline uint32_t GroupKey(uint64_t id) {
    return static_cast<uint32_t>(id & GroupMask(id));
}

// PGN carried in bytes 5 to 7 of a TP.CM frame.
inline uint32_t CmPgn(const VCI_CAN_OBJ& frame) {
    return frame.data[5] | (frame.data[6] << 8) | (uint32_t(frame.data[7]) << 16);
}

// Total size carried in bytes 1 and 2 of a TP.CM RTS, BAM or EndOfMsgAck.
inline uint16_t CmSize(const VCI_CAN_OBJ& frame) {
    return uint16_t(frame.data[1] | (frame.data[2] << 8));
}

}  // namespace j1939
