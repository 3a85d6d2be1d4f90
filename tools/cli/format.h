// Text forms shared by the commands: numbers, JSON strings, decoded messages
// and candump log lines.
#pragma once

#include <cstdint>
#include <string>

#include "tarn.h"

namespace tarncli {

// Appends `s` as a JSON string literal. Bytes that are not valid UTF-8 are
// taken as Latin-1, so the output is valid JSON whatever the DBC encoding.
void appendJsonString(std::string& out, const std::string& s);

// The physical value of a decoded signal. Plain integers (factor 1, offset 0)
// are printed exactly, other values with 15 significant digits. `isNumber`
// is false for NaN and infinities, which JSON cannot carry.
std::string signalValueText(const DBCSignal& sig, bool& isNumber);

// Raw value masked to the signal length, as the library scales it.
uint64_t maskedRaw(const DBCSignal& sig);

std::string hexId(uint32_t id, bool extended);

// Where a decoded message came from.
struct Origin {
    const std::string* time;   // time stamp text, may be empty
    const std::string* iface;  // interface name
    bool transfer;             // reassembled from a J1939 transport transfer
    uint16_t transferSize;
};

// One output line (with its newline) for a decoded message.
std::string formatText(const DBCMessage& msg, const Origin& origin);
std::string formatJson(const DBCMessage& msg, const Origin& origin);

// "(time) iface ID#DATA" or, for CAN FD, "ID##<flags>DATA".
std::string formatLogLine(const std::string& time, const std::string& iface, uint32_t id,
                          bool extended, const uint8_t* data, size_t len, bool fd);

}  // namespace tarncli
