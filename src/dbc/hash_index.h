// A compact seeded hash index for the native model: maps 64-bit key hashes
// to uint32 positions in the model's own arrays. It stores no keys: the
// caller confirms each candidate against its array, so an entry costs eight
// bytes. The seed is drawn per index, so crafted names or ids cannot be made
// to pile into one probe chain.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace tarn::net {

class HashIndex {
  public:
    HashIndex();

    uint64_t Seed() const { return m_seed; }
    size_t BytesHeld() const { return m_slots.capacity() * sizeof(Slot); }
    void Clear() {
        m_slots.clear();
        m_used = 0;
    }
    void Reserve(size_t entries);

    // The first value whose key hash equals `hash` and for which `same(value)`
    // holds, or -1.
    template <class Same>
    int64_t Find(uint64_t hash, Same&& same) const {
        if (m_slots.empty()) return -1;
        size_t mask = m_slots.size() - 1;
        uint32_t tag = Tag(hash);
        for (size_t i = tag & mask;; i = (i + 1) & mask) {
            const Slot& s = m_slots[i];
            if (s.value == 0) return -1;
            if (s.tag == tag && same(s.value - 1)) return s.value - 1;
        }
    }
    void Insert(uint64_t hash, uint32_t value);

  private:
    struct Slot {
        uint32_t tag = 0;
        uint32_t value = 0;  // position + 1; 0 marks an empty slot
    };
    // The high half of a hash both places an entry and filters comparisons,
    // so growing needs no hashes but the stored tags.
    static uint32_t Tag(uint64_t hash) { return static_cast<uint32_t>(hash >> 32); }
    void Grow();

    std::vector<Slot> m_slots;
    size_t m_used = 0;
    uint64_t m_seed;
};

// Mixes two 64-bit words through a 128-bit product; the basis of the hashes.
inline uint64_t MixWords(uint64_t a, uint64_t b) {
    __uint128_t p = static_cast<__uint128_t>(a) * b;
    return static_cast<uint64_t>(p) ^ static_cast<uint64_t>(p >> 64);
}

inline uint64_t HashId(uint64_t seed, uint64_t id) {
    return MixWords(id ^ seed, 0x9E3779B97F4A7C15ull ^ (seed >> 7));
}

// Hash of `text` within a scope (a message index for signal names, 0 for
// names that are unique network-wide).
inline uint64_t HashText(uint64_t seed, uint64_t scope, std::string_view text) {
    const uint64_t k = 0xA0761D6478BD642Full;
    uint64_t h = seed ^ (scope * 0xE7037ED1A0B428DBull) ^ text.size();
    const char* p = text.data();
    size_t n = text.size();
    for (; n >= 8; p += 8, n -= 8) {
        uint64_t w;
        std::memcpy(&w, p, 8);
        h = MixWords(h ^ w, k);
    }
    uint64_t w = 0;
    std::memcpy(&w, p, n);
    return MixWords(h ^ w ^ (static_cast<uint64_t>(n) << 56), k ^ seed);
}

}  // namespace tarn::net
