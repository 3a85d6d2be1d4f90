// Per-signal work of the coder: bit extraction and insertion, value text to
// raw value, raw value to physical value and its text form.
#include <cmath>
#include <cstring>

#include "coder/dbc_coder.h"
#include "common/log.h"

namespace {

const char kTooLong[] = "not support the signal bit length > 64";

// Where a signal's bits sit: the byte of its least significant bit, then
// whole bytes and a partial last byte walking towards higher (Intel) or
// lower (Motorola) indexes.
struct Placement {
    uint64_t lsbByte;
    uint32_t lsbBit;
    uint32_t first;  // bits taken from the least significant bit's byte
    uint32_t whole;  // whole bytes that follow
    uint32_t tail;   // bits of the partial last byte
    int dir;
};

// Position of the least significant bit; callers guarantee 1 <= L <= 64.
uint64_t LsbPosition(const Signal& sig) {
    uint64_t start = sig.startBit;
    uint64_t len = sig.length;
    if (!sig.bigEndian) return start;
    uint64_t s = start % 8;
    if (len - 1 <= s) return start + 1 - len;
    uint64_t d = len - 1 - s;
    uint64_t dm = d % 8;
    if (dm == 0) return start - s + d;
    return start - s + (d - dm) + 16 - dm;
}

// Fills pl; false when any byte of the signal lies outside [0, size).
bool Locate(const Signal& sig, size_t size, Placement& pl) {
    uint64_t pos = LsbPosition(sig);
    pl.lsbByte = pos / 8;
    pl.lsbBit = static_cast<uint32_t>(pos % 8);
    pl.first = 8 - pl.lsbBit < sig.length ? 8 - pl.lsbBit : sig.length;
    uint32_t rest = sig.length - pl.first;
    pl.whole = rest / 8;
    pl.tail = rest % 8;
    pl.dir = sig.bigEndian ? -1 : 1;
    uint64_t span = pl.whole + (pl.tail ? 1 : 0);
    if (pl.lsbByte >= size) return false;
    if (sig.bigEndian) return pl.lsbByte >= span;
    return span < size - pl.lsbByte;
}

uint32_t LowMask(uint32_t bits) {
    return (1u << bits) - 1;
}

// Rounds |y| half away from zero into 64 bits; NaN gives 0, huge values saturate.
uint64_t RoundMagnitude(double y) {
    double m = std::fabs(y) + 0.5;
    if (std::isnan(m)) return 0;
    if (!(m < 0x1p64)) return UINT64_MAX;
    if (m < 0x1p63) return static_cast<uint64_t>(static_cast<int64_t>(m));
    return static_cast<uint64_t>(static_cast<int64_t>(m - 0x1p63)) | (1ull << 63);
}

uint32_t SingleBits(double y) {
    // Beyond this magnitude the conversion rounds to infinity.
    float f =
        std::fabs(y) >= 0x1.ffffffp127 ? (y > 0 ? INFINITY : -INFINITY) : static_cast<float>(y);
    uint32_t bits;
    std::memcpy(&bits, &f, sizeof(bits));
    return bits;
}

uint64_t PhysicalToRaw(double x, const Signal& sig) {
    double factor = sig.factor == 0.0 ? 1.0 : sig.factor;
    double y = (x - sig.offset) / factor;
    if (sig.valueType == 1) return SingleBits(y);
    if (sig.valueType == 2) {
        uint64_t bits;
        std::memcpy(&bits, &y, sizeof(bits));
        return bits;
    }
    uint64_t m = RoundMagnitude(y);
    if (!sig.isSigned || sig.length < 2 || !(y < 0)) return m;
    uint64_t neg = 0 - m;
    return sig.length >= 64 ? neg : neg & ((1ull << sig.length) - 1);
}

// Text that is no number: its first up to 8 bytes, byte 0 lowest.
uint64_t LiteralRaw(const char* text) {
    uint64_t raw = 0;
    for (unsigned i = 0; i < 8 && text && text[i]; ++i)
        raw |= static_cast<uint64_t>(static_cast<unsigned char>(text[i])) << (8 * i);
    return raw;
}

bool StartsLikeNumber(const char* text) {
    char c = text ? text[0] : '\0';
    return c == '+' || c == '-' || c == '.' || (c >= '0' && c <= '9');
}

bool NegativeInteger(uint64_t raw, const Signal& sig) {
    return sig.isSigned && sig.length >= 2 && sig.length <= 64 && ((raw >> (sig.length - 1)) & 1);
}

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "word loads assume a little-endian host");

uint64_t LoadLe64(const uint8_t* p) {
    uint64_t w;
    std::memcpy(&w, p, sizeof(w));
    return w;
}

uint64_t LowMask64(uint32_t bits) {
    return bits >= 64 ? ~0ull : (1ull << bits) - 1;
}

// One 8-byte load for signals that lie within 8 bytes of their first byte
// and that the byte-wise rule extracts exactly (no partial last byte going
// through the 32-bit shift). False leaves the signal to the byte-wise rule.
bool WordReader(const Signal& sig, size_t size, SignalReader& r) {
    const uint32_t len = sig.length;
    const uint64_t byte = sig.startBit / 8;
    const uint32_t bit = sig.startBit % 8;
    if (len == 0 || len > 64 || size < 8 || byte > size - 8) return false;
    r.byte = static_cast<uint32_t>(byte);
    r.mask = LowMask64(len);
    if (!sig.bigEndian) {
        uint32_t end = bit + len;  // one past the most significant bit, from the first byte
        if (end > 64 || (len >= 32 && end > 8 && end % 8 != 0)) return false;
        r.shift = static_cast<uint8_t>(bit);
        r.kind = SignalReader::kIntel;
        return true;
    }
    // Motorola: the start byte holds the most significant bits (bit .. 0).
    if (len > 57 + bit || (len >= 32 && len > bit + 1 && bit != 7)) return false;
    r.shift = static_cast<uint8_t>(57 + bit - len);
    r.kind = SignalReader::kMotorola;
    return true;
}

uint64_t ReadWord(const SignalReader& r, const uint8_t* payload) {
    uint64_t w = LoadLe64(payload + r.byte);
    if (r.kind == SignalReader::kMotorola) w = __builtin_bswap64(w);
    return (w >> r.shift) & r.mask;
}

}  // namespace

SignalReader DBCCoder::ReaderFor(Signal& sig) {
    SignalReader r;
    r.sig = &sig;
    if (!WordReader(sig, kDecodeBufSize, r)) r.kind = SignalReader::kGeneral;
    return r;
}

uint64_t DBCCoder::Read(const SignalReader& r, const uint8_t* payload) const {
    if (r.kind == SignalReader::kGeneral) return GetRawValue(payload, *r.sig, kDecodeBufSize);
    return ReadWord(r, payload);
}

uint64_t DBCCoder::GetRawValue(const uint8_t* payload, const Signal& sig, size_t size) const {
    if (sig.length > 64) {
        KQ_LOG(kq::LOG_ERROR, "%s\n", kTooLong);
        return 0;
    }
    if (sig.length == 0 || !payload) return 0;
    SignalReader word;
    if (WordReader(sig, size, word)) return ReadWord(word, payload);
    Placement pl;
    if (!Locate(sig, size, pl)) return 0;
    const uint8_t* b = payload + pl.lsbByte;
    uint64_t raw = (*b >> pl.lsbBit) & LowMask(pl.first);
    uint32_t shift = pl.first;
    for (uint32_t k = 0; k < pl.whole; ++k, shift += 8) {
        b += pl.dir;
        raw += static_cast<uint64_t>(*b) << shift;
    }
    if (pl.tail) {
        // Kept as a signed 32-bit shift: the distance wraps at 32, higher bits
        // are lost and the result is sign-extended before it is added.
        b += pl.dir;
        uint32_t part = static_cast<uint32_t>(*b & LowMask(pl.tail)) << (shift & 31);
        raw += static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(part)));
    }
    return raw;
}

bool DBCCoder::Cmd2Data(const char* value, uint8_t* payload, const Signal* sig, size_t size) const {
    if (!value || !sig || !payload) return false;
    if (sig->length > 64) {
        KQ_LOG(kq::LOG_ERROR, "%s\n", kTooLong);
        return false;
    }
    if (sig->length == 0) return true;
    Placement pl;
    if (!Locate(*sig, size, pl)) return false;
    uint64_t v = kq::CommandInfo::ToUint64(value);
    uint8_t* b = payload + pl.lsbByte;
    uint32_t mask = LowMask(pl.first) << pl.lsbBit;
    *b = static_cast<uint8_t>((*b & ~mask) | ((v << pl.lsbBit) & mask));
    uint64_t w = v >> pl.first;
    for (uint32_t k = 0; k < pl.whole; ++k, w >>= 8) {
        b += pl.dir;
        *b = static_cast<uint8_t>(w);
    }
    if (pl.tail) {
        b += pl.dir;
        mask = LowMask(pl.tail);
        *b = static_cast<uint8_t>((*b & ~mask) | (w & mask));
    }
    return true;
}

uint64_t DBCCoder::GenerateValue(const char* value, const Signal& sig) const {
    if (value) {
        for (const ValPair& vd : sig.valueDescs)
            if (vd.desc == value) return PhysicalToRaw(vd.value, sig);
    }
    double x = value ? std::strtod(value, nullptr) : 0.0;
    if (x != 0.0 || std::isnan(x) || StartsLikeNumber(value)) return PhysicalToRaw(x, sig);
    return LiteralRaw(value);
}

double DBCCoder::RawToPhysical(uint64_t raw, const Signal& sig) {
    if (sig.valueType == 1) {
        uint32_t bits = static_cast<uint32_t>(raw);
        float f;
        std::memcpy(&f, &bits, sizeof(f));
        return static_cast<double>(f) * sig.factor + sig.offset;
    }
    if (sig.valueType == 2) {
        double d;
        std::memcpy(&d, &raw, sizeof(d));
        return d * sig.factor + sig.offset;
    }
    double v;
    if (NegativeInteger(raw, sig)) {
        uint64_t ext = sig.length == 64 ? raw : raw | ~((1ull << sig.length) - 1);
        v = static_cast<double>(static_cast<int64_t>(ext));
    } else {
        v = static_cast<double>(raw);
    }
    return sig.factor == 0.0 ? v + sig.offset : v * sig.factor + sig.offset;
}

bool DBCCoder::IsPlainInteger(uint64_t raw, const Signal& sig) {
    return sig.valueType != 1 && sig.valueType != 2 && sig.factor == 1.0 && sig.offset == 0.0 &&
           !NegativeInteger(raw, sig);
}
