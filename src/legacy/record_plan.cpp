// Record plans: built from one translation of the message with tagged slots,
// replayed per decode with that decode's raw values.
#include "legacy/record_plan.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>

#include "coder/dbc_coder.h"
#include "common/func.h"
#include "common/num_text.h"
#include "legacy/analyser.h"

namespace {

constexpr uint32_t kSlots = TARN_MAX_SIGNALS;
constexpr uint32_t kExtendedBit = 0x80000000u;
constexpr uint32_t kFrameIdBits = 0x1FFFFFFFu;
// Bounds handed to strcpy2_s, as the translation uses them.
constexpr unsigned kNameBound = TARN_NAME_LEN - 1;
constexpr unsigned kCommentBound = TARN_COMMENT_LEN - 1;
constexpr unsigned kDescBound = TARN_VALDESC_LEN - 1;

// Slot names are bounded copies that may lack a terminator; a name that did
// not fit can never equal the full key, whose length the caller checked.
bool SlotNameIs(const DBCSignal& slot, const char* key, size_t len) {
    return slot.name[0] == key[0] && memcmp(slot.name, key, len + 1) == 0;
}

// Reads the decimal texts of decoded values ("%lu", "%lf") without strtod:
// an integer of at most 15 digits divided by a power of ten up to 10^6 is
// exactly what strtod returns, both results being correctly rounded. Anything
// else goes to strtod.
double ReadNumber(const char* text) {
    static const double kPow10[] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6};
    const char* p = text + (*text == '-');
    uint64_t n = 0;
    int digits = 0, decimals = -1;
    for (; digits <= 15; ++p) {
        if (*p >= '0' && *p <= '9') {
            n = n * 10 + static_cast<uint64_t>(*p - '0');
            ++digits;
            decimals += decimals >= 0;
        } else if (*p == '.' && decimals < 0) {
            decimals = 0;
        } else {
            break;
        }
    }
    if (*p != '\0' || digits == 0 || digits > 15 || decimals > 6) return strtod(text, nullptr);
    double v = static_cast<double>(n) / kPow10[decimals < 0 ? 0 : decimals];
    return *text == '-' ? -v : v;
}

double ReadBack(double physical) {
    char text[kq::kFixedTextSize];
    kq::FormatFixed6(physical, text);
    return ReadNumber(text);
}

// Integers below 2^53 print as their exact digits and ".000000" and read
// back as themselves.
bool ReadsBackAsItself(double v) {
    return std::fabs(v) < 0x1p53 && v == std::trunc(v);
}

bool HasValueTables(const Message& msg) {
    for (const auto& entry : msg.signals)
        if (!entry.second.valueDescs.empty()) return true;
    return false;
}

// Bytes of a slot up to its last nonzero one, at least its numbers (where
// the raw value goes).
uint32_t NonzeroLength(const DBCSignal& slot) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&slot);
    size_t n = sizeof slot;
    while (n > offsetof(DBCSignal, unit) && bytes[n - 1] == 0) --n;
    return static_cast<uint32_t>(n);
}

uint32_t SlotCount(const DBCMessage& msg) {
    return msg.signalCount < kSlots ? msg.signalCount : kSlots;
}

using SignalIter = std::map<const char*, Signal>::const_iterator;

// Walks decoded values in signal-map order and writes the value-table text of
// each into the slot of its signal.
struct DescWriter {
    const Message* msg;
    DBCMessage* out;
    SignalIter next;

    // Values come one per named signal in signal-map order, so they are
    // matched to signals by position; only signals with a table are checked
    // by name, and a mismatch falls back to a search.
    const Signal* Find(const char* key) {
        SignalIter end = msg->signals.end();
        if (next != end && next->second.valueDescs.empty()) {
            ++next;
            return nullptr;
        }
        if (next != end && next->second.name && !strcmp(next->second.name, key))
            return &(next++)->second;
        for (SignalIter it = msg->signals.begin(); it != end; ++it) {
            if (it->second.name && !strcmp(it->second.name, key)) {
                next = std::next(it);
                return &it->second;
            }
        }
        return nullptr;
    }

    void Apply(const char* key, double value) {
        const Signal* sig = Find(key);
        if (!sig || sig->valueDescs.empty()) return;
        const ValPair* match = nullptr;
        for (const ValPair& pair : sig->valueDescs) {
            if (pair.value == value) {
                match = &pair;
                break;
            }
        }
        size_t len = strlen(key);
        if (!match || len >= TARN_NAME_LEN) return;
        for (uint32_t i = 0, n = SlotCount(*out); i < n; ++i) {
            DBCSignal& slot = out->signals[i];
            // Position first: cheap, and nearly always unique.
            if (slot.startBit != sig->startBit || slot.length != sig->length) continue;
            if (SlotNameIs(slot, key, len))
                strcpy2_s(slot.valueDescription, kDescBound, match->desc.c_str());
        }
    }
};

}  // namespace

double TableNumber(uint64_t raw, const Signal& sig) {
    if (DBCCoder::IsPlainInteger(raw, sig)) return static_cast<double>(raw);
    const double physical = DBCCoder::RawToPhysical(raw, sig);
    return ReadsBackAsItself(physical) ? physical : ReadBack(physical);
}

void WalkValueTables(const Message& decoded, const uint64_t* raws, const Message& shown,
                     DBCMessage& out) {
    if (!HasValueTables(shown)) return;
    DescWriter writer{&shown, &out, shown.signals.begin()};
    size_t k = 0;
    for (const auto& entry : decoded.signals) {
        const Signal& sig = entry.second;
        const uint64_t raw = raws[k++];
        // The text record held no value for a signal without a name.
        if (sig.name) writer.Apply(sig.name, TableNumber(raw, sig));
    }
}

RecordPlan::RecordPlan(const Message& msg) : m_msg(&msg) {
    auto scratch = std::make_unique<DBCMessage>();
    TranslateTaggedSlots(msg, *scratch);
    m_count = scratch->signalCount;
    m_slotCount = std::min(m_count, kSlots);
    static const DBCSignal kEmpty{};
    uint32_t used = kSlots;
    while (used > m_slotCount && memcmp(&scratch->signals[used - 1], &kEmpty, sizeof kEmpty) == 0)
        --used;
    m_slots.assign(scratch->signals, scratch->signals + used);
    m_length.resize(used);
    m_source.resize(used);
    for (uint32_t q = 0; q < used; ++q) {
        m_source[q] = static_cast<int32_t>(m_slots[q].rawValue) - 1;
        m_slots[q].rawValue = 0;
        m_length[q] = NonzeroLength(m_slots[q]);
    }
    for (uint32_t q = 0; q < m_slotCount && m_switch < 0; ++q)
        if (m_slots[q].multiplexerType == TARN_MUX_SWITCH) m_switch = static_cast<int32_t>(q);
    m_hasCycleTime = CycleTimeOf(msg, m_cycleTime);
    uint32_t ordinal = 0;
    for (const auto& entry : msg.signals) {
        m_direct = m_direct && entry.second.name;
        AddLookups(entry.second, ordinal++);
    }
    std::stable_sort(m_lookups.begin(), m_lookups.end(),
                     [](const Lookup& a, const Lookup& b) { return a.slot < b.slot; });
}

// A value table goes to the slots that hold its signal's start bit, length
// and whole name; its keys are kept sorted with the first text of each value.
void RecordPlan::AddLookups(const Signal& sig, uint32_t ordinal) {
    if (sig.valueDescs.empty() || !sig.name) return;
    const size_t len = strlen(sig.name);
    if (len >= TARN_NAME_LEN) return;
    const size_t before = m_lookups.size();
    const uint32_t first = static_cast<uint32_t>(m_keys.size());
    for (uint32_t q = 0; q < m_slotCount; ++q) {
        const DBCSignal& slot = m_slots[q];
        if (slot.startBit == sig.startBit && slot.length == sig.length &&
            SlotNameIs(slot, sig.name, len))
            m_lookups.push_back({q, ordinal, &sig, first, first});
    }
    if (m_lookups.size() == before) return;
    for (const ValPair& pair : sig.valueDescs)
        if (!std::isnan(pair.value)) m_keys.push_back({pair.value, pair.desc.c_str()});
    auto begin = m_keys.begin() + first;
    auto less = [](const Key& a, const Key& b) { return a.value < b.value; };
    std::stable_sort(begin, m_keys.end(), less);
    auto same = [](const Key& a, const Key& b) { return a.value == b.value; };
    m_keys.erase(std::unique(begin, m_keys.end(), same), m_keys.end());
    for (size_t i = before; i < m_lookups.size(); ++i)
        m_lookups[i].end = static_cast<uint32_t>(m_keys.size());
}

// Fills order with the slots that stay, in slot order; returns their number.
uint32_t RecordPlan::Select(const uint64_t* raws, uint8_t* order) const {
    if (m_switch < 0) {
        for (uint32_t q = 0; q < m_slotCount; ++q) order[q] = static_cast<uint8_t>(q);
        return m_slotCount;
    }
    const uint16_t value = SwitchValueOf(m_slots[m_switch], raws[m_source[m_switch]]);
    uint32_t kept = 0;
    for (uint32_t q = 0; q < m_slotCount; ++q)
        if (IsSelected(m_slots[q], value)) order[kept++] = static_cast<uint8_t>(q);
    return kept;
}

// Into a cleared slot: its image up to the last nonzero byte, its raw value.
void RecordPlan::PutSlot(DBCSignal& dst, uint32_t slot, const uint64_t* raws) const {
    std::memcpy(&dst, &m_slots[slot], m_length[slot]);
    if (m_source[slot] >= 0) dst.rawValue = raws[m_source[slot]];
}

const char* RecordPlan::Find(const Lookup& l, uint64_t raw) const {
    const Key* begin = m_keys.data() + l.first;
    const Key* end = m_keys.data() + l.end;
    auto below = [](const Key& k, double v) { return k.value < v; };
    double value;
    if (DBCCoder::IsPlainInteger(raw, *l.sig)) {
        value = static_cast<double>(raw);
    } else {
        value = DBCCoder::RawToPhysical(raw, *l.sig);
        if (!ReadsBackAsItself(value)) {
            // The text lies within half a millionth of the value and reads back
            // to within half a unit in the last place: without a key that near
            // there is nothing to print and read.
            if (std::fabs(value) < 0x1p53) {
                const double near = 1e-6 + 0x1p-51 * std::fabs(value);
                const Key* k = std::lower_bound(begin, end, value - near, below);
                if (k == end || k->value > value + near) return nullptr;
            }
            value = ReadBack(value);
        }
    }
    const Key* k = std::lower_bound(begin, end, value, below);
    return k != end && k->value == value ? k->desc : nullptr;
}

void RecordPlan::Write(const uint64_t* raws, uint32_t frameId, bool lookups,
                       DBCMessage& out) const {
    WriteHeader(frameId, out);
    uint8_t order[kSlots];
    const uint32_t kept = Select(raws, order);
    out.signalCount = m_switch < 0 ? m_count : kept;
    WriteSlots(raws, order, kept, out);
    if (lookups) WriteTexts(raws, order, kept, out);
}

void RecordPlan::WriteHeader(uint32_t frameId, DBCMessage& out) const {
    strcpy2_s(out.name, kNameBound, m_msg->name ? m_msg->name : "");
    strcpy2_s(out.comment, kCommentBound, m_msg->comment.c_str());
    out.extended = (m_msg->id & kExtendedBit) ? 1 : 0;
    out.id = frameId & kFrameIdBits;
    out.size = static_cast<uint32_t>(m_msg->dlc);
    if (m_hasCycleTime) out.cycleTime = m_cycleTime;
}

void RecordPlan::WriteSlots(const uint64_t* raws, const uint8_t* order, uint32_t kept,
                            DBCMessage& out) const {
    // Clearing the used slots last keeps them cached for their images.
    const uint32_t used = static_cast<uint32_t>(m_slots.size());
    std::memset(out.signals + used, 0, (kSlots - used) * sizeof(DBCSignal));
    std::memset(out.signals, 0, used * sizeof(DBCSignal));
    for (uint32_t p = 0; p < kept; ++p) PutSlot(out.signals[p], order[p], raws);
    // Selection leaves the slots behind the kept ones as they were.
    for (uint32_t p = kept; p < used; ++p) PutSlot(out.signals[p], p, raws);
}

void RecordPlan::WriteTexts(const uint64_t* raws, const uint8_t* order, uint32_t kept,
                            DBCMessage& out) const {
    if (m_lookups.empty()) return;
    int16_t at[kSlots];  // where each looked-at slot went, -1 when dropped
    std::fill(at, at + m_slotCount, int16_t{-1});
    for (uint32_t p = 0; p < kept; ++p) at[order[p]] = static_cast<int16_t>(p);
    for (const Lookup& l : m_lookups) {
        if (at[l.slot] < 0) continue;
        if (const char* desc = Find(l, raws[l.ordinal]))
            strcpy2_s(out.signals[at[l.slot]].valueDescription, kDescBound, desc);
    }
}
