// Bit-field access for signals of 1 to 64 bits in either byte order. A field
// is read through one 8-byte window plus, when it straddles nine bytes, the
// byte after it; the caller guarantees that all nine bytes are readable.
#pragma once

#include <cstdint>
#include <cstring>

namespace tarn::bits {

inline uint64_t Mask(uint32_t length) {
    return length >= 64 ? ~uint64_t{0} : (uint64_t{1} << length) - 1;
}

inline uint64_t LoadLe(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;  // x86-64 is little-endian
}

inline uint64_t LoadBe(const uint8_t* p) {
    return __builtin_bswap64(LoadLe(p));
}

inline void StoreLe(uint8_t* p, uint64_t v) {
    std::memcpy(p, &v, 8);
}

inline void StoreBe(uint8_t* p, uint64_t v) {
    StoreLe(p, __builtin_bswap64(v));
}

// Where a field sits, in the form both byte orders share: the first byte of
// its window and the bit offset inside it. Intel offsets count from the
// least significant bit of the first byte; Motorola offsets from the most
// significant bit, the field running towards higher byte addresses.
struct Field {
    uint32_t byte = 0;
    uint8_t offset = 0;
    uint8_t length = 0;
    bool motorola = false;
};

// The field of a DBC signal: `start` is the start bit as written (the least
// significant bit for Intel, the most significant for Motorola, numbered
// byte * 8 + bit with bit 0 the least significant of its byte).
inline Field MakeField(uint64_t start, uint32_t length, bool motorola) {
    Field f;
    const uint64_t linear = motorola ? (start / 8) * 8 + (7 - start % 8) : start;
    f.byte = static_cast<uint32_t>(linear / 8);
    f.offset = static_cast<uint8_t>(linear % 8);
    f.length = static_cast<uint8_t>(length);
    f.motorola = motorola;
    return f;
}

// Bytes a payload needs for the field to fit: one past its last byte.
inline uint64_t BytesNeeded(const Field& f) {
    return f.byte + (uint64_t{f.offset} + f.length + 7) / 8;
}

inline uint64_t Extract(const uint8_t* window, const Field& f) {
    const uint32_t end = f.offset + f.length;
    if (!f.motorola) {
        uint64_t v = LoadLe(window) >> f.offset;
        if (end > 64) v |= uint64_t{window[8]} << (64 - f.offset);
        return v & Mask(f.length);
    }
    const uint64_t x = LoadBe(window);
    if (end <= 64) return (x >> (64 - end)) & Mask(f.length);
    const uint32_t spill = end - 64;  // bits taken from the ninth byte
    return ((x << f.offset) >> (64 - f.length)) | (window[8] >> (8 - spill));
}

// Writes the low `length` bits of v into the field, leaving other bits alone.
inline void Insert(uint8_t* window, const Field& f, uint64_t v) {
    const uint32_t end = f.offset + f.length;
    const uint64_t mask = Mask(f.length);
    v &= mask;
    if (!f.motorola) {
        StoreLe(window, (LoadLe(window) & ~(mask << f.offset)) | (v << f.offset));
        if (end > 64) {
            const uint32_t spill = end - 64;
            const uint8_t keep = static_cast<uint8_t>(~((1u << spill) - 1));
            window[8] = static_cast<uint8_t>((window[8] & keep) | (v >> (64 - f.offset)));
        }
        return;
    }
    if (end <= 64) {
        const uint32_t shift = 64 - end;
        StoreBe(window, (LoadBe(window) & ~(mask << shift)) | (v << shift));
        return;
    }
    const uint32_t spill = end - 64;
    const uint64_t low = Mask(64 - f.offset);
    StoreBe(window, (LoadBe(window) & ~low) | (v >> spill));
    const uint8_t keep = static_cast<uint8_t>((1u << (8 - spill)) - 1);
    const uint8_t top = static_cast<uint8_t>((v & Mask(spill)) << (8 - spill));
    window[8] = static_cast<uint8_t>((window[8] & keep) | top);
}

// Sign-extends the low `length` bits.
inline int64_t SignExtend(uint64_t v, uint32_t length) {
    if (length >= 64) return static_cast<int64_t>(v);
    const uint64_t sign = uint64_t{1} << (length - 1);
    return static_cast<int64_t>((v ^ sign) - sign);
}

}  // namespace tarn::bits
