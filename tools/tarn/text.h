// Text forms shared by the commands: numbers, JSON strings, CSV fields,
// identifiers and candump log lines.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tarn/db.h"

namespace tarncli {

// 15 significant digits, no trailing zeros ("49.9", "2000", "-0.125");
// "nan", "inf" or "-inf" for the values JSON cannot carry.
void appendNumber(std::string& out, double v);
// As appendNumber, but null for NaN and infinities.
void appendJsonNumber(std::string& out, double v);
void appendJsonString(std::string& out, std::string_view s);
// A field quoted as RFC 4180 asks when it holds a comma, quote or line end.
void appendCsvField(std::string& out, std::string_view s);
// The raw value as a decimal integer: signed when the signal is, the bit
// pattern for float signals.
void appendRaw(std::string& out, const tarn_value& v, const tarn_signal_info& sig);
// "123" (3 hex digits) or "18FEF100" (8) as candump writes identifiers.
void appendHexId(std::string& out, uint32_t id, bool extended);
void appendHexBytes(std::string& out, const uint8_t* data, size_t length, bool lowerCase);

}  // namespace tarncli
