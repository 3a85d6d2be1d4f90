// Fields of a 29-bit J1939 identifier: priority (3 bits), data page bits and
// PDU format (10 bits), PDU specific (8 bits) and source address (8 bits).
// Below PDU format 240 (PDU1) the PDU specific byte is the destination and is
// not part of the parameter group; from 240 on (PDU2) it belongs to the group
// and the frame goes to everyone.
#pragma once

#include <cstdint>

namespace j1939 {

constexpr uint8_t kGlobalAddress = 0xFF;
constexpr uint8_t kNullAddress = 0xFE;
constexpr uint32_t kIdMask = 0x1FFFFFFFu;
constexpr uint32_t kPgnMask = 0x3FFFFu;

constexpr uint8_t Priority(uint32_t id) {
    return static_cast<uint8_t>((id >> 26) & 7u);
}
constexpr uint8_t Source(uint32_t id) {
    return static_cast<uint8_t>(id & 0xFFu);
}
constexpr uint8_t PduFormat(uint32_t id) {
    return static_cast<uint8_t>((id >> 16) & 0xFFu);
}

// True when the parameter group (or the identifier carrying it) is addressed.
constexpr bool IsPdu1Pgn(uint32_t pgn) {
    return ((pgn >> 8) & 0xFFu) < 240u;
}
constexpr bool IsPdu1(uint32_t id) {
    return PduFormat(id) < 240u;
}

constexpr uint32_t Pgn(uint32_t id) {
    return IsPdu1(id) ? (id >> 8) & 0x3FF00u : (id >> 8) & kPgnMask;
}

constexpr uint8_t Destination(uint32_t id) {
    return IsPdu1(id) ? static_cast<uint8_t>((id >> 8) & 0xFFu) : kGlobalAddress;
}

// A PDU1 group has a zero low byte: the destination goes there.
constexpr bool IsValidPgn(uint32_t pgn) {
    return pgn <= kPgnMask && (!IsPdu1Pgn(pgn) || (pgn & 0xFFu) == 0);
}

// A single frame of a PDU2 group always goes to everyone.
constexpr bool CanAddress(uint32_t pgn, uint8_t destination) {
    return IsPdu1Pgn(pgn) || destination == kGlobalAddress;
}

constexpr uint32_t MakeId(uint8_t priority, uint32_t pgn, uint8_t destination, uint8_t source) {
    const uint32_t ps = IsPdu1Pgn(pgn) ? destination : (pgn & 0xFFu);
    return (uint32_t{priority} & 7u) << 26 | (pgn & 0x3FF00u) << 8 | ps << 8 | source;
}

}  // namespace j1939
