// Decoding one payload with a message plan: switches first (in dependency
// order), then every signal in message order, multiplexing applied.
#include <algorithm>
#include <cstring>

#include "coder/plan.h"

namespace tarn::coder {
namespace {

// Reads a field of a payload of any length. Short payloads come padded
// (`padded`), so only long transfers need the bounded copy at their tail.
inline uint64_t ReadField(const SignalPlan& p, const uint8_t* base, size_t length, bool padded) {
    const uint32_t b = p.field.byte;
    if (padded || b + 9 <= length) return bits::Extract(base + b, p.field);
    uint8_t window[16] = {};
    std::memcpy(window, base + b, length - b);
    return bits::Extract(window, p.field);
}

inline const char* FindText(const SignalPlan& p, int64_t raw) {
    const net::ValueText* t = p.texts;
    uint32_t lo = 0, n = p.textCount;
    while (n > 0) {
        const uint32_t half = n / 2;
        if (t[lo + half].raw < raw) {
            lo += half + 1;
            n -= half + 1;
        } else {
            n = half;
        }
    }
    return lo < p.textCount && t[lo].raw == raw ? t[lo].text.data() : nullptr;
}

}  // namespace

void FillValue(const SignalPlan& p, uint64_t bits, tarn_value& v) {
    switch (p.kind) {
        case Kind::Unsigned:
            v.flags = 0;
            v.raw.u = bits;
            v.physical = static_cast<double>(bits) * p.factor + p.offset;
            // Keys above INT64_MAX are stored by their bit pattern.
            v.text = p.textCount ? FindText(p, static_cast<int64_t>(bits)) : nullptr;
            return;
        case Kind::Signed: {
            const int64_t i = bits::SignExtend(bits, p.field.length);
            v.flags = TARN_RAW_SIGNED;
            v.raw.i = i;
            v.physical = static_cast<double>(i) * p.factor + p.offset;
            v.text = p.textCount ? FindText(p, i) : nullptr;
            return;
        }
        case Kind::Float: {
            float f;
            const uint32_t b = static_cast<uint32_t>(bits);
            std::memcpy(&f, &b, sizeof f);
            v.raw.f = f;
            break;
        }
        case Kind::Double:
            std::memcpy(&v.raw.f, &bits, sizeof bits);
            break;
    }
    v.flags = TARN_RAW_FLOAT;
    v.physical = v.raw.f * p.factor + p.offset;
    v.text = nullptr;
}

int NetworkPlan::Decode(size_t index, const uint8_t* data, size_t length, tarn_value* values,
                        size_t capacity, uint32_t* count, uint32_t* absent) const {
    const MessagePlan& mp = m_messages[index];
    *absent = 0;
    if (mp.signalCount > capacity) {
        *count = mp.signalCount;
        return TARN_ERR_BUFFER;
    }
    uint8_t pad[64 + 16];
    const bool padded = length <= 64;
    const uint8_t* base = data;
    if (padded) {
        std::memset(pad, 0, sizeof pad);
        if (length) std::memcpy(pad, data, length);
        base = pad;
    }
    const SignalPlan* plans = m_signals.data() + mp.firstSignal;

    uint64_t swValue[kMaxSwitches];
    bool swOn[kMaxSwitches + 2];
    for (uint32_t sig : mp.switchOrder) {
        const SignalPlan& p = plans[sig];
        bool on = p.needBytes <= length;
        if (on && p.switchSlot != kNoSlot)
            on = p.switchSlot != kDeadSlot && swOn[p.switchSlot] &&
                 Selects(p, m_muxRanges, swValue[p.switchSlot]);
        swOn[p.ownSlot] = on;
        if (on) swValue[p.ownSlot] = ReadField(p, base, length, padded);
    }

    uint32_t n = 0, missing = 0;
    auto visit = [&](uint32_t i) {
        const SignalPlan& p = plans[i];
        if (p.switchSlot != kNoSlot && (p.switchSlot == kDeadSlot || !swOn[p.switchSlot] ||
                                        !Selects(p, m_muxRanges, swValue[p.switchSlot])))
            return;
        if (p.needBytes > length) {
            ++missing;
            return;
        }
        tarn_value& v = values[n++];
        v.signal = i;
        FillValue(p, ReadField(p, base, length, padded), v);
    };
    if (mp.byValue.empty()) {
        for (uint32_t i = 0; i < mp.signalCount; ++i) visit(i);
    } else {
        // Merge, in message order, the signals the first switch's value
        // selects with every other signal.
        const uint8_t slot = plans[mp.switchOrder.front()].ownSlot;
        auto sel = mp.byValue.end(), selEnd = mp.byValue.end();
        if (swOn[slot]) {
            const uint64_t v = swValue[slot];
            sel = std::lower_bound(mp.byValue.begin(), mp.byValue.end(), std::make_pair(v, 0u));
            selEnd = std::upper_bound(sel, mp.byValue.end(), std::make_pair(v, UINT32_MAX));
        }
        auto other = mp.others.begin();
        while (sel != selEnd || other != mp.others.end()) {
            if (other == mp.others.end() || (sel != selEnd && sel->second < *other))
                visit((sel++)->second);
            else
                visit(*other++);
        }
    }
    *count = n;
    *absent = missing;
    return TARN_OK;
}

}  // namespace tarn::coder
