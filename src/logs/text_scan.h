// Byte-level scanning shared by the log line parsers: a hex digit table,
// blank-separated words and decimal numbers, without locale or allocation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tarn::logs {

// The value of each byte as a hex digit: 0..15, or kNotHex.
constexpr uint8_t kNotHex = 0xFF;
struct HexTable {
    uint8_t value[256];
    constexpr HexTable() : value() {
        for (int c = 0; c < 256; ++c) {
            value[c] = c >= '0' && c <= '9'   ? static_cast<uint8_t>(c - '0')
                       : c >= 'a' && c <= 'f' ? static_cast<uint8_t>(c - 'a' + 10)
                       : c >= 'A' && c <= 'F' ? static_cast<uint8_t>(c - 'A' + 10)
                                              : kNotHex;
        }
    }
};
inline constexpr HexTable kHexTable{};

inline uint8_t HexValue(char c) {
    return kHexTable.value[static_cast<unsigned char>(c)];
}
inline bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

// A forward cursor over one line.
class Cursor {
  public:
    explicit Cursor(std::string_view text) : m_p(text.data()), m_end(text.data() + text.size()) {}

    bool AtEnd() const { return m_p == m_end; }
    char Peek() const { return m_p != m_end ? *m_p : '\0'; }
    // Consumes `c` when it comes next.
    bool Eat(char c) {
        if (m_p == m_end || *m_p != c) return false;
        ++m_p;
        return true;
    }
    void SkipBlanks() {
        while (m_p != m_end && IsBlank(*m_p)) ++m_p;
    }
    // The next blank-separated word, leading blanks skipped; empty at the end.
    std::string_view Word() {
        SkipBlanks();
        const char* start = m_p;
        while (m_p != m_end && !IsBlank(*m_p)) ++m_p;
        return std::string_view(start, static_cast<size_t>(m_p - start));
    }
    // Text up to (not including) `stop`, which is consumed; false when absent.
    bool Until(char stop, std::string_view& out);
    // Everything not read yet, leading blanks skipped.
    std::string_view Rest() {
        SkipBlanks();
        return std::string_view(m_p, static_cast<size_t>(m_end - m_p));
    }

  private:
    const char* m_p;
    const char* m_end;
};

// The whole of `text` as hex (1..8 digits).
bool ParseHex32(std::string_view text, uint32_t& out);
// The whole of `text` as an unsigned decimal.
bool ParseDec32(std::string_view text, uint32_t& out);
// "SECONDS[.FRACTION]" as a double; digits past the 18th decimal are ignored.
bool ParseSeconds(std::string_view text, double& out);
// A data byte written as one or two hex digits.
bool ParseHexByte(std::string_view text, uint8_t& out);

// True when `text` starts with `prefix`, letters compared case-insensitively.
bool StartsWithNoCase(std::string_view text, std::string_view prefix);

}  // namespace tarn::logs
