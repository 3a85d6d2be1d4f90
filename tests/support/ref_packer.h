// Test-only reference: a bit-by-bit signal packer that shares no code with
// the library, a seeded generator and the corpus location.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace refpack {

// Bit positions (byte * 8 + bit) of a signal, least significant first. Motorola
// signals start at their top bit and walk down into bit 7 of the next byte.
inline std::vector<uint64_t> BitPositions(uint64_t start, uint32_t len, bool motorola) {
    std::vector<uint64_t> pos;
    for (uint64_t i = 0, p = start; i < len; ++i) {
        pos.push_back(p);
        p = !motorola ? p + 1 : (p % 8 == 0 ? p + 15 : p - 1);
    }
    if (motorola) std::reverse(pos.begin(), pos.end());
    return pos;
}

inline bool GetBit(const uint8_t* payload, uint64_t pos) {
    return (payload[pos / 8] >> (pos % 8)) & 1u;
}

inline void SetBit(uint8_t* payload, uint64_t pos, bool value) {
    payload[pos / 8] =
        uint8_t((payload[pos / 8] & ~(1u << (pos % 8))) | unsigned{value} << (pos % 8));
}

inline void Pack(uint8_t* payload, uint64_t start, uint32_t len, bool motorola, uint64_t raw) {
    const std::vector<uint64_t> pos = BitPositions(start, len, motorola);
    for (size_t i = 0; i < pos.size(); ++i) SetBit(payload, pos[i], (raw >> i) & 1u);
}

inline uint64_t Extract(const uint8_t* payload, uint64_t start, uint32_t len, bool motorola) {
    const std::vector<uint64_t> pos = BitPositions(start, len, motorola);
    uint64_t raw = 0;
    for (size_t i = 0; i < pos.size(); ++i) raw |= uint64_t{GetBit(payload, pos[i])} << i;
    return raw;
}

inline uint64_t Mask(uint32_t len) {
    return len >= 64 ? ~uint64_t{0} : (uint64_t{1} << len) - 1;
}

// Deterministic xorshift, so failures reproduce.
class Rng {
  public:
    explicit Rng(uint64_t seed) : m_state(seed * 0x9E3779B97F4A7C15ull + 1) {}
    uint64_t Next() {
        m_state ^= m_state << 13;
        m_state ^= m_state >> 7;
        return m_state ^= m_state << 17;
    }

  private:
    uint64_t m_state;
};

// Path of a corpus file, or "" when the corpus is not there.
inline std::string CorpusFile(const std::string& name) {
#ifdef TARN_CORPUS_DIR
    const std::string path = std::string(TARN_CORPUS_DIR) + "/" + name;
    if (access(path.c_str(), R_OK) == 0) return path;
#endif
    (void)name;
    return std::string();
}

}  // namespace refpack
