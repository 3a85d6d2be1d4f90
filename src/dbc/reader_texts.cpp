// Section parsers for texts: CM_ comments, VAL_ value texts of signals and
// VAL_TABLE_ shared tables.
#include <algorithm>

#include "dbc/reader.h"

namespace tarn::net {

// CM_ [BU_ <node> | BO_ <id> | SG_ <id> <signal> | EV_ <name>] "text"
void Reader::ParseComment(Cursor& c) {
    QuotedText q;
    if (c.Peek() == '"') {
        if (!c.Quoted(q) || !c.AtEnd()) return (void)Fail("expected one quoted comment");
        // Several network comments are kept, one per line, in file order.
        m_netComments.push_back(Text(q));
        return;
    }
    std::string_view object = c.Word();
    std::string_view* slot = nullptr;
    if (object == "BU_") {
        std::string_view name = c.Word();
        int64_t n = NodeByName(name);
        if (n < 0) return (void)Fail("no node " + std::string(name));
        slot = &m_net.nodes[static_cast<size_t>(n)].comment;
    } else if (object == "BO_") {
        uint32_t m;
        if (!FindMessageOf(c, m)) return;
        slot = &m_net.messages[m].comment;
    } else if (object == "SG_") {
        uint32_t m, s;
        if (!FindSignalOf(c, m, s)) return;
        slot = &m_net.signals[s].comment;
    } else if (object == "EV_") {
        return;  // environment variables are not modelled
    } else {
        return (void)Fail("expected BU_, BO_, SG_, EV_ or a quoted comment");
    }
    if (!c.Quoted(q) || !c.AtEnd()) return (void)Fail("expected one quoted comment");
    if (!slot->empty()) return (void)Fail("the object has a comment already; the first is kept");
    *slot = Text(q);
}

// VAL_ <id> <signal> <raw> "text" ... ; a VAL_ naming an environment
// variable instead of a message id is valid but not modelled.
void Reader::ParseValues(Cursor& c) {
    char first = c.Peek();
    if (!(first >= '0' && first <= '9')) return;
    uint32_t message, signal;
    if (!FindSignalOf(c, message, signal)) return;
    Signal& s = m_net.signals[signal];
    if (s.values.count != 0)
        return (void)Fail("the signal's value texts were given before; the first are kept");
    Range values;
    if (ReadValuePairs(c, values)) m_net.signals[signal].values = values;
}

// VAL_TABLE_ <name> <raw> "text" ...
void Reader::ParseValueTable(Cursor& c) {
    std::string_view name = c.Word();
    if (name.empty()) return (void)Fail("expected the value table name");
    uint64_t h = HashText(m_tableByName.Seed(), 0, name);
    if (m_tableByName.Find(h, [&](uint32_t t) { return m_net.valueTables[t].name == name; }) >= 0)
        return (void)Fail("value table " + std::string(name) + " is defined twice");
    ValueTable t;
    if (!ReadValuePairs(c, t.values)) return;
    t.name = m_net.pool.Store(name);
    m_tableByName.Insert(h, static_cast<uint32_t>(m_net.valueTables.size()));
    m_net.valueTables.push_back(t);
}

// Reads raw/text pairs to the end of the statement into valueTexts, sorted
// by raw value. A raw value given twice keeps its first text.
bool Reader::ReadValuePairs(Cursor& c, Range& out) {
    std::vector<ValueText>& all = m_net.valueTexts;
    size_t first = all.size();
    while (!c.AtEnd()) {
        ValueText v;
        QuotedText q;
        if (!c.Int(v.raw) || !c.Quoted(q)) {
            all.resize(first);
            return Fail("expected pairs of an integer raw value and a quoted text");
        }
        v.text = Text(q);
        all.push_back(v);
    }
    auto begin = all.begin() + static_cast<std::ptrdiff_t>(first);
    auto byRaw = [](const ValueText& a, const ValueText& b) { return a.raw < b.raw; };
    if (!std::is_sorted(begin, all.end(), byRaw)) std::stable_sort(begin, all.end(), byRaw);
    auto last = std::unique(begin, all.end(),
                            [](const ValueText& a, const ValueText& b) { return a.raw == b.raw; });
    if (last != all.end()) {
        all.erase(last, all.end());
        Fail("a raw value has two texts; the first is kept");
    }
    out = Range{static_cast<uint32_t>(first), static_cast<uint32_t>(all.size() - first)};
    return true;
}

}  // namespace tarn::net
