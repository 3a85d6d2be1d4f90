// What the reader settles once the whole text is read: the switch of each
// plain "mN" signal, the BO_TX_BU_ senders, the grouping of BA_ values by
// object, the network comment, the J1939 flag and the lookup indexes.
#include <algorithm>
#include <unordered_map>

#include "dbc/reader.h"

namespace tarn::net {

namespace {

template <class T>
void TrimSlack(std::vector<T>& v) {
    // Growth by doubling can leave half a vector unused; a copy is cheaper
    // than holding that for the database's lifetime.
    if (v.capacity() - v.size() > v.size() / 8 + 16) v.shrink_to_fit();
}

}  // namespace

void Reader::Finish() {
    for (uint32_t m : m_muxMessages) ResolveMessageMux(m);
    AppendSenders();
    GroupAttributes();
    JoinNetworkComments();
    Trim();
    const AttrValue* protocol = m_net.FindAttr(m_net.attrs, "ProtocolType");
    m_net.j1939 = m_options.j1939 || (protocol && protocol->text == "J1939");
    std::stable_sort(m_net.diagnostics.begin(), m_net.diagnostics.end(),
                     [](const Diagnostic& a, const Diagnostic& b) { return a.line < b.line; });
}

// A plain "mN" signal is selected by its message's switch. With no switch
// it cannot be selected and is left present in every frame; with several
// (and no SG_MUL_VAL_ for it) the first is taken.
void Reader::ResolveMessageMux(uint32_t message) {
    const Message& msg = m_net.messages[message];
    int32_t first = -1, second = -1;
    uint32_t switches = 0;
    for (uint32_t i = 0; i < msg.signals.count; ++i) {
        if (!m_net.signals[msg.signals.first + i].isSwitch) continue;
        ++switches;
        if (first < 0)
            first = static_cast<int32_t>(i);
        else if (second < 0)
            second = static_cast<int32_t>(i);
    }
    for (uint32_t i = 0; i < msg.signals.count; ++i) {
        uint32_t k = msg.signals.first + i;
        if (!m_muxPending[k]) continue;
        Signal& s = m_net.signals[k];
        uint32_t others = switches - (s.isSwitch ? 1 : 0);
        if (others == 0) {
            Report(s.line, "SG_", "multiplexed signal in a message without a multiplexer switch");
            s.switchIndex = -1;
            s.muxValues = Range{};
            continue;
        }
        if (others > 1) {
            Report(s.line, "SG_",
                   "the message has several multiplexer switches and no SG_MUL_VAL_ names this "
                   "signal's; the first is used");
        }
        s.switchIndex = first == static_cast<int32_t>(i) ? second : first;
    }
}

// The BO_ transmitter comes first, then the BO_TX_BU_ senders not yet
// listed, each message's list made contiguous in one pass.
void Reader::AppendSenders() {
    if (m_senders.empty()) return;
    std::vector<uint32_t> start(m_net.messages.size() + 1, 0);
    for (const PendingSender& p : m_senders) ++start[p.message + 1];
    for (size_t m = 1; m < start.size(); ++m) start[m] += start[m - 1];
    std::vector<std::string_view> grouped(m_senders.size());
    std::vector<uint32_t> fill(start.begin(), start.end() - 1);
    for (const PendingSender& p : m_senders) grouped[fill[p.message]++] = p.name;
    // Names are interned, so one text is one address.
    std::unordered_map<const char*, uint32_t> seenIn;
    for (uint32_t m = 0; m < m_net.messages.size(); ++m) {
        if (start[m] == start[m + 1]) continue;
        Range& senders = m_net.messages[m].senders;
        uint32_t first = static_cast<uint32_t>(m_net.names.size());
        for (uint32_t i = senders.first; i < senders.end(); ++i) {
            seenIn[m_net.names[i].data()] = m + 1;
            m_net.names.push_back(m_net.names[i]);
        }
        for (uint32_t i = start[m]; i < start[m + 1]; ++i) {
            uint32_t& seen = seenIn[grouped[i].data()];
            if (seen == m + 1) continue;
            seen = m + 1;
            m_net.names.push_back(grouped[i]);
        }
        senders = Range{first, static_cast<uint32_t>(m_net.names.size()) - first};
    }
}

// BA_ values arrive in any order; each object's become one contiguous run,
// in file order. A second value of one attribute for one object is dropped.
void Reader::GroupAttributes() {
    const uint32_t nodes = static_cast<uint32_t>(m_net.nodes.size());
    const uint32_t messages = static_cast<uint32_t>(m_net.messages.size());
    const size_t slots = 1 + nodes + messages + m_net.signals.size();
    auto slotOf = [&](const PendingAttr& a) -> size_t {
        switch (a.kind) {
            case ObjectKind::Node:
                return 1 + a.object;
            case ObjectKind::Message:
                return 1 + nodes + a.object;
            case ObjectKind::Signal:
                return 1 + nodes + messages + size_t(a.object);
            default:
                return 0;
        }
    };
    std::vector<uint32_t> start(slots + 1, 0);
    for (const PendingAttr& a : m_attrs) ++start[slotOf(a) + 1];
    for (size_t i = 1; i < start.size(); ++i) start[i] += start[i - 1];
    std::vector<uint32_t> order(m_attrs.size());
    std::vector<uint32_t> fill(start.begin(), start.end() - 1);
    for (uint32_t i = 0; i < m_attrs.size(); ++i) order[fill[slotOf(m_attrs[i])]++] = i;

    std::vector<uint32_t> seenIn(m_net.attrDefs.size(), 0);
    m_net.attrValues.reserve(m_attrs.size());
    for (size_t slot = 0; slot < slots; ++slot) {
        uint32_t first = static_cast<uint32_t>(m_net.attrValues.size());
        for (uint32_t i = start[slot]; i < start[slot + 1]; ++i) {
            const PendingAttr& a = m_attrs[order[i]];
            if (seenIn[a.entry.def] == slot + 1) {
                Report(a.line, "BA_",
                       "the attribute is set twice for one object; the first is kept");
                continue;
            }
            seenIn[a.entry.def] = static_cast<uint32_t>(slot + 1);
            m_net.attrValues.push_back(a.entry);
        }
        Range r{first, static_cast<uint32_t>(m_net.attrValues.size()) - first};
        if (slot == 0)
            m_net.attrs = r;
        else if (slot <= nodes)
            m_net.nodes[slot - 1].attrs = r;
        else if (slot <= nodes + messages)
            m_net.messages[slot - 1 - nodes].attrs = r;
        else
            m_net.signals[slot - 1 - nodes - messages].attrs = r;
    }
}

void Reader::JoinNetworkComments() {
    if (m_netComments.size() == 1) m_net.comment = m_netComments[0];
    if (m_netComments.size() < 2) return;
    m_scratch.clear();
    for (std::string_view c : m_netComments) {
        if (!m_scratch.empty()) m_scratch += '\n';
        m_scratch.append(c.data(), c.size());
    }
    m_net.comment = m_net.pool.Store(m_scratch);
}

void Reader::Trim() {
    TrimSlack(m_net.nodes);
    TrimSlack(m_net.messages);
    TrimSlack(m_net.signals);
    TrimSlack(m_net.valueTexts);
    TrimSlack(m_net.muxRanges);
    TrimSlack(m_net.names);
    TrimSlack(m_net.attrDefs);
    TrimSlack(m_net.attrValues);
    TrimSlack(m_net.valueTables);
    TrimSlack(m_net.diagnostics);
}

}  // namespace tarn::net
