// Text forms shared by the commands: numbers, JSON strings, CSV fields,
// identifiers and candump log lines.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "tarn/db.h"

namespace tarncli {

// A growable byte buffer with inline appends: the decode loop writes a few
// hundred small pieces per frame, where std::string's out-of-line append
// would cost more than the formatting itself.
class OutBuf {
  public:
    OutBuf() = default;
    void reserve(size_t n) { m_data.resize(std::max(m_data.size(), n)); }
    void append(const char* p, size_t n) {
        char* at = grab(n);
        std::memcpy(at, p, n);
    }
    OutBuf& operator+=(char c) {
        *grab(1) = c;
        return *this;
    }
    OutBuf& operator+=(std::string_view s) {
        append(s.data(), s.size());
        return *this;
    }
    OutBuf& operator+=(const char* s) { return *this += std::string_view(s); }
    OutBuf& operator+=(const std::string& s) { return *this += std::string_view(s); }
    // Room for n bytes at the end, counted as written.
    char* grab(size_t n) {
        if (m_size + n > m_data.size()) m_data.resize(std::max(m_data.size() * 2, m_size + n));
        char* at = &m_data[m_size];
        m_size += n;
        return at;
    }
    void shrink(size_t n) { m_size -= n; }  // gives back unused grabbed bytes
    const char* data() const { return m_data.data(); }
    size_t size() const { return m_size; }
    void clear() { m_size = 0; }
    std::string str() const { return std::string(m_data.data(), m_size); }

  private:
    std::string m_data;
    size_t m_size = 0;
};

// 15 significant digits, no trailing zeros ("49.9", "2000", "-0.125");
// "nan", "inf" or "-inf" for the values JSON cannot carry.
void appendNumber(OutBuf& out, double v);
// Exact decimal printing of raw * factor + offset for decimal factors and
// offsets (0.1, 0.25, -40): the value times 10^decimals is an integer, so
// it is formatted with integer arithmetic. Prints what appendNumber would
// print for the same value, at a fraction of the cost.
struct DecimalScale {
    bool usable = false;
    uint32_t decimals = 0;
    int64_t factor = 0;    // factor * 10^decimals
    int64_t offset = 0;    // offset * 10^decimals
    int64_t rawLimit = 0;  // larger raw magnitudes could overflow: slow path

    static DecimalScale For(const tarn_signal_info& sig);
    // False when this value needs the general path.
    bool Append(OutBuf& out, const tarn_value& v) const;
};

// Fixed-point with six decimals, as log time stamps are written.
void appendFixed6(OutBuf& out, double t);
// As appendNumber, but null for NaN and infinities.
void appendJsonNumber(OutBuf& out, double v);
void appendJsonString(OutBuf& out, std::string_view s);
std::string jsonQuoted(std::string_view s);
// A field quoted as RFC 4180 asks when it holds a comma, quote or line end.
void appendCsvField(OutBuf& out, std::string_view s);
std::string csvField(std::string_view s);
// The raw value as a decimal integer: signed when the signal is, the bit
// pattern for float signals.
void appendRaw(OutBuf& out, const tarn_value& v, const tarn_signal_info& sig);
// "123" (3 hex digits) or "18FEF100" (8) as candump writes identifiers.
void appendHexId(OutBuf& out, uint32_t id, bool extended);
void appendHexBytes(OutBuf& out, const uint8_t* data, size_t length, bool lowerCase);

}  // namespace tarncli
