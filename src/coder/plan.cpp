// Building the plans of an open network, and message lookup by identifier.
#include "coder/plan.h"

#include <algorithm>

#include "j1939/identifier.h"

namespace tarn::coder {
namespace {

Kind KindOf(const net::Signal& s) {
    if (s.type == net::ValueType::Float) return Kind::Float;
    if (s.type == net::ValueType::Double) return Kind::Double;
    return s.isSigned ? Kind::Signed : Kind::Unsigned;
}

uint64_t StartRaw(const net::Network& net, const net::Signal& s, const SignalPlan& p) {
    const net::AttrValue* v = net.FindAttr(s.attrs, "GenSigStartValue");
    if (!v || p.kind == Kind::Float || p.kind == Kind::Double) return 0;
    if (!(v->number >= -9.2e18 && v->number <= 1.8e19)) return 0;
    uint64_t bits = 0;
    const bool negative = v->number < 0;
    const uint64_t raw = negative ? static_cast<uint64_t>(static_cast<int64_t>(v->number))
                                  : static_cast<uint64_t>(v->number);
    return CheckRaw(p, raw, negative, bits) == TARN_OK ? bits : 0;
}

SignalPlan PlanSignal(const net::Network& net, const net::Signal& s) {
    SignalPlan p;
    p.factor = s.factor;
    p.offset = s.offset;
    p.kind = KindOf(s);
    const uint32_t length = std::min<uint32_t>(std::max<uint32_t>(s.length, 1), 64);
    p.field = bits::MakeField(s.startBit, length, s.bigEndian);
    const uint64_t need = bits::BytesNeeded(p.field);
    // A field no payload can hold never fits (and never reads out of range).
    p.needBytes = need > 0xFFFF0000u ? 0xFFFFFFFFu : static_cast<uint32_t>(need);
    if (s.values.count) {
        p.texts = net.valueTexts.data() + s.values.first;
        p.textCount = s.values.count;
    }
    if (s.muxValues.count == 1) {
        const net::MuxRange& r = net.muxRanges[s.muxValues.first];
        p.muxLow = r.low;
        p.muxHigh = r.high;
    } else {
        p.muxFirst = s.muxValues.first;
        p.muxCount = s.muxValues.count;
    }
    p.startRaw = StartRaw(net, s, p);
    return p;
}

// Orders a message's switches so that each follows its own selector, and
// gives each a slot. A switch in a selection cycle gets no slot.
void PlanSwitches(const net::Network& net, const net::Message& m, MessagePlan& mp,
                  SignalPlan* plans) {
    const net::Signal* sigs = net.signals.data() + m.signals.first;
    std::vector<uint32_t> depth(m.signals.count, 0);
    std::vector<uint32_t> switches;
    for (uint32_t i = 0; i < m.signals.count; ++i) {
        if (!sigs[i].isSwitch) continue;
        uint32_t d = 0;
        int32_t up = sigs[i].switchIndex;
        while (up >= 0 && d <= m.signals.count) {
            ++d;
            up = static_cast<uint32_t>(up) < m.signals.count ? sigs[up].switchIndex : -1;
        }
        if (d > m.signals.count) continue;  // cycle
        depth[i] = d;
        switches.push_back(i);
    }
    std::stable_sort(switches.begin(), switches.end(),
                     [&](uint32_t a, uint32_t b) { return depth[a] < depth[b]; });
    if (switches.size() > kMaxSwitches) switches.resize(kMaxSwitches);
    for (size_t slot = 0; slot < switches.size(); ++slot)
        plans[switches[slot]].ownSlot = static_cast<uint8_t>(slot);
    mp.switchOrder = std::move(switches);
    for (uint32_t i = 0; i < m.signals.count; ++i) {
        const int32_t sw = sigs[i].switchIndex;
        if (sw < 0) continue;
        const bool tracked =
            static_cast<uint32_t>(sw) < m.signals.count && plans[sw].ownSlot != kNoSlot;
        plans[i].switchSlot = tracked ? plans[sw].ownSlot : kDeadSlot;
    }
}

// Messages with fewer multiplexed signals than this are walked whole.
constexpr size_t kIndexedMux = 16;

void IndexMux(MessagePlan& mp, const SignalPlan* plans) {
    if (mp.switchOrder.empty()) return;
    const uint8_t first = plans[mp.switchOrder.front()].ownSlot;
    std::vector<std::pair<uint64_t, uint32_t>> byValue;
    std::vector<uint32_t> others;
    for (uint32_t i = 0; i < mp.signalCount; ++i) {
        const SignalPlan& p = plans[i];
        if (p.switchSlot == first && p.muxCount == 0 && p.muxLow == p.muxHigh)
            byValue.emplace_back(p.muxLow, i);
        else
            others.push_back(i);
    }
    if (byValue.size() < kIndexedMux) return;
    std::sort(byValue.begin(), byValue.end());
    mp.byValue = std::move(byValue);
    mp.others = std::move(others);
}

}  // namespace

void KeyTable::Build(const std::vector<std::pair<uint64_t, uint32_t>>& entries) {
    size_t size = 16;
    while (size < entries.size() * 2) size *= 2;
    m_entries.assign(size, Entry{});
    m_mask = size - 1;
    m_shift = 64 - static_cast<uint32_t>(__builtin_ctzll(size));
    for (const auto& [key, value] : entries) {
        size_t i = Slot(key);
        while (m_entries[i].key != kEmpty && m_entries[i].key != key) i = (i + 1) & m_mask;
        if (m_entries[i].key == kEmpty) m_entries[i] = Entry{key, value};  // first one wins
    }
}

void NetworkPlan::Build(const net::Network& net, bool indexMux) {
    m_j1939 = net.j1939;
    m_muxRanges = net.muxRanges.data();
    m_signals.clear();
    m_signals.reserve(net.signals.size());
    for (const net::Signal& s : net.signals) m_signals.push_back(PlanSignal(net, s));
    m_messages.assign(net.messages.size(), MessagePlan{});
    std::vector<std::pair<uint64_t, uint32_t>> ids, pgns;
    for (uint32_t i = 0; i < net.messages.size(); ++i) {
        const net::Message& m = net.messages[i];
        MessagePlan& mp = m_messages[i];
        mp.firstSignal = m.signals.first;
        mp.signalCount = m.signals.count;
        mp.length = m.length;
        m_maxSignals = std::max(m_maxSignals, m.signals.count);
        PlanSwitches(net, m, mp, m_signals.data() + m.signals.first);
        if (indexMux) IndexMux(mp, m_signals.data() + m.signals.first);
        for (uint32_t k = m.signals.first; k < m.signals.end(); ++k)
            mp.multiplexed |= net.signals[k].isSwitch || net.signals[k].switchIndex >= 0;
        const net::AttrValue* cycle = net.FindAttr(m.attrs, "GenMsgCycleTime");
        if (cycle && cycle->number >= 0 && cycle->number < 2147483647.0)
            mp.cycleTimeMs = static_cast<int32_t>(cycle->number);
        ids.emplace_back(uint64_t{m.id} | (m.extended ? uint64_t{1} << 32 : 0), i);
        if (m_j1939 && m.extended) pgns.emplace_back(j1939::Pgn(m.id), i);
    }
    m_byId.Build(ids);
    m_byPgn.Build(pgns);
}

int64_t NetworkPlan::FindMessage(uint32_t id, bool extended) const {
    const int64_t exact = m_byId.Find(uint64_t{id} | (extended ? uint64_t{1} << 32 : 0));
    if (exact >= 0 || !m_j1939 || !extended) return exact;
    return m_byPgn.Find(j1939::Pgn(id));
}

size_t NetworkPlan::BytesHeld() const {
    size_t n =
        m_signals.capacity() * sizeof(SignalPlan) + m_messages.capacity() * sizeof(MessagePlan);
    for (const MessagePlan& mp : m_messages)
        n += (mp.switchOrder.capacity() + mp.others.capacity()) * sizeof(uint32_t) +
             mp.byValue.capacity() * sizeof(mp.byValue[0]);
    return n + (m_messages.size() * 2 + 32) * 2 * 16;
}

}  // namespace tarn::coder
