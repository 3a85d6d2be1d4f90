// Locale-free number to text conversions that reproduce printf's output
// byte for byte; used where values are formatted once per decoded signal.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kq {

// Buffer size that holds any FormatU64 result with its terminator.
constexpr size_t kU64TextSize = 21;
// Buffer size used for "%lf" text; longer results are cut like snprintf does.
constexpr size_t kFixedTextSize = 64;

// Writes v as "%lu" would, NUL-terminated; returns the number of characters.
size_t FormatU64(uint64_t v, char* out);

// Writes v as snprintf(out, kFixedTextSize, "%lf", v) would (six decimals,
// correctly rounded from the exact binary value, round-half-even on exact
// ties); returns the number of characters stored before the terminator.
size_t FormatFixed6(double v, char* out);

}  // namespace kq
