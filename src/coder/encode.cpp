// Encoding: physical or raw inputs checked and converted to bit patterns,
// the switches settled, then every selected signal written into a zeroed
// payload. Nothing wraps silently: a value that does not fit is an error.
#include <cfloat>
#include <cmath>
#include <cstring>
#include <vector>

#include "coder/plan.h"

namespace tarn::coder {
namespace {

bool IsFloat(const SignalPlan& p) {
    return p.kind == Kind::Float || p.kind == Kind::Double;
}

int FloatBits(const SignalPlan& p, double raw, uint64_t& bits) {
    if (!std::isfinite(raw)) return TARN_ERR_NOT_FINITE;
    if (p.kind == Kind::Double) {
        std::memcpy(&bits, &raw, sizeof raw);
        return TARN_OK;
    }
    if (std::fabs(raw) > FLT_MAX) return TARN_ERR_RANGE;
    const float f = static_cast<float>(raw);
    uint32_t b;
    std::memcpy(&b, &f, sizeof b);
    bits = b;
    return TARN_OK;
}

// Writes a field into a payload of `length` bytes; a window that would run
// past the end goes through a bounded copy.
void WriteField(const SignalPlan& p, uint8_t* out, size_t length, uint64_t bits) {
    const uint32_t b = p.field.byte;
    if (b + 9 <= length) {
        bits::Insert(out + b, p.field, bits);
        return;
    }
    uint8_t window[16] = {};
    std::memcpy(window, out + b, length - b);
    bits::Insert(window, p.field, bits);
    std::memcpy(out + b, window, length - b);
}

struct Pending {
    std::vector<uint64_t> bits;
    std::vector<int64_t> input;  // input index per signal, -1 when not given
};

int Convert(const SignalPlan& p, const net::Signal& sig, const tarn_input& in, bool strict,
            uint64_t& bits) {
    switch (in.kind) {
        case TARN_INPUT_PHYSICAL:
            return PhysicalToRaw(p, sig, in.physical, strict, bits);
        case TARN_INPUT_RAW:
            return CheckRaw(p, in.raw.u, in.raw.i < 0 && p.kind == Kind::Signed, bits);
        case TARN_INPUT_RAW_FLOAT:
            return IsFloat(p) ? FloatBits(p, in.physical, bits) : TARN_ERR_ARGUMENT;
        default:
            return TARN_ERR_ARGUMENT;
    }
}

}  // namespace

int CheckRaw(const SignalPlan& p, uint64_t raw, bool isSignedInput, uint64_t& bits) {
    const uint32_t len = p.field.length;
    if (p.kind == Kind::Signed) {
        const int64_t v = static_cast<int64_t>(raw);
        if (!isSignedInput && raw > INT64_MAX) return TARN_ERR_RANGE;
        if (len < 64) {
            const int64_t half = int64_t{1} << (len - 1);
            if (v < -half || v >= half) return TARN_ERR_RANGE;
        }
        bits = raw & bits::Mask(len);
        return TARN_OK;
    }
    if (isSignedInput || raw > bits::Mask(len)) return TARN_ERR_RANGE;
    bits = raw;
    return TARN_OK;
}

int PhysicalToRaw(const SignalPlan& p, const net::Signal& sig, double physical, bool strict,
                  uint64_t& bits) {
    if (!std::isfinite(physical)) return TARN_ERR_NOT_FINITE;
    if (strict && sig.minimum < sig.maximum && (physical < sig.minimum || physical > sig.maximum))
        return TARN_ERR_RANGE;
    if (p.factor == 0.0) {
        if (physical != p.offset) return TARN_ERR_RANGE;
        return IsFloat(p) ? FloatBits(p, 0.0, bits) : CheckRaw(p, 0, false, bits);
    }
    const double scaled = (physical - p.offset) / p.factor;
    if (IsFloat(p)) return FloatBits(p, scaled, bits);
    if (!std::isfinite(scaled)) return TARN_ERR_RANGE;
    const double r = std::round(scaled);
    const uint32_t len = p.field.length;
    if (p.kind == Kind::Signed) {
        const double half = std::ldexp(1.0, static_cast<int>(len) - 1);
        if (r < -half || r >= half) return TARN_ERR_RANGE;
        return CheckRaw(p, static_cast<uint64_t>(static_cast<int64_t>(r)), r < 0, bits);
    }
    if (r < 0 || r >= std::ldexp(1.0, static_cast<int>(len))) return TARN_ERR_RANGE;
    return CheckRaw(p, static_cast<uint64_t>(r), false, bits);
}

int NetworkPlan::Encode(const net::Network& net, size_t index, const tarn_input* inputs, size_t n,
                        unsigned flags, uint8_t* out, size_t outSize, size_t* written,
                        size_t* failed) const {
    const MessagePlan& mp = m_messages[index];
    const net::Message& msg = net.messages[index];
    const SignalPlan* plans = m_signals.data() + mp.firstSignal;
    const net::Signal* sigs = net.signals.data() + mp.firstSignal;
    const bool strict = flags & TARN_ENCODE_STRICT;
    if (outSize < mp.length) return TARN_ERR_BUFFER;

    Pending pend{std::vector<uint64_t>(mp.signalCount), std::vector<int64_t>(mp.signalCount, -1)};
    for (uint32_t i = 0; i < mp.signalCount; ++i) pend.bits[i] = plans[i].startRaw;
    for (size_t k = 0; k < n; ++k) {
        const tarn_input& in = inputs[k];
        int64_t s = in.name ? net.FindSignal(msg, in.name) : static_cast<int64_t>(in.signal);
        *failed = k;
        if (s < 0 || s >= static_cast<int64_t>(mp.signalCount)) return TARN_ERR_NOT_FOUND;
        const int rc = Convert(plans[s], sigs[s], in, strict, pend.bits[s]);
        if (rc != TARN_OK) return rc;
        pend.input[s] = static_cast<int64_t>(k);
    }

    bool swOn[kMaxSwitches + 2];
    uint64_t swValue[kMaxSwitches];
    for (uint32_t sig : mp.switchOrder) {
        const SignalPlan& p = plans[sig];
        bool on = p.needBytes <= mp.length;
        if (on && p.switchSlot != kNoSlot)
            on = p.switchSlot != kDeadSlot && swOn[p.switchSlot] &&
                 Selects(p, m_muxRanges, swValue[p.switchSlot]);
        swOn[p.ownSlot] = on;
        swValue[p.ownSlot] = pend.bits[sig];
    }

    if (mp.length) std::memset(out, 0, mp.length);
    for (uint32_t i = 0; i < mp.signalCount; ++i) {
        const SignalPlan& p = plans[i];
        const bool given = pend.input[i] >= 0;
        if (given) *failed = static_cast<size_t>(pend.input[i]);
        if (p.switchSlot != kNoSlot && (p.switchSlot == kDeadSlot || !swOn[p.switchSlot] ||
                                        !Selects(p, m_muxRanges, swValue[p.switchSlot]))) {
            if (given) return TARN_ERR_MULTIPLEX;
            continue;
        }
        if (p.needBytes > mp.length) {
            if (given) return TARN_ERR_RANGE;
            continue;
        }
        WriteField(p, out, mp.length, pend.bits[i]);
    }
    *written = mp.length;
    return TARN_OK;
}

}  // namespace tarn::coder
