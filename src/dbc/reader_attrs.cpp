// Section parsers for attributes: BA_DEF_ definitions, BA_DEF_DEF_
// defaults and BA_ values. Values are checked against their definition's
// type; ENUM values keep both the index and the chosen text.
#include "dbc/reader.h"

namespace tarn::net {

namespace {

bool ObjectOf(std::string_view word, ObjectKind& kind) {
    if (word == "BU_")
        kind = ObjectKind::Node;
    else if (word == "BO_")
        kind = ObjectKind::Message;
    else if (word == "SG_")
        kind = ObjectKind::Signal;
    else if (word == "EV_")
        kind = ObjectKind::EnvVar;
    else
        return false;
    return true;
}

bool TypeOf(std::string_view word, AttrType& type) {
    if (word == "INT")
        type = AttrType::Int;
    else if (word == "HEX")
        type = AttrType::Hex;
    else if (word == "FLOAT")
        type = AttrType::Float;
    else if (word == "STRING")
        type = AttrType::String;
    else if (word == "ENUM")
        type = AttrType::Enum;
    else
        return false;
    return true;
}

const char* ObjectName(ObjectKind kind) {
    switch (kind) {
        case ObjectKind::Network:
            return "the network";
        case ObjectKind::Node:
            return "nodes";
        case ObjectKind::Message:
            return "messages";
        case ObjectKind::Signal:
            return "signals";
        default:
            return "environment variables";
    }
}

}  // namespace

// BA_DEF_ [BU_|BO_|SG_|EV_] "name" INT|HEX|FLOAT min max | STRING | ENUM "a","b"...
void Reader::ParseAttrDef(Cursor& c) {
    AttrDef d;
    d.defaultValue.text = kNoText;
    ObjectKind kind = ObjectKind::Network;
    if (c.Peek() != '"' && !ObjectOf(c.Word(), kind))
        return (void)Fail("expected BU_, BO_, SG_, EV_ or the quoted attribute name");
    d.object = static_cast<AttrObject>(kind);
    QuotedText name;
    if (!c.Quoted(name) || name.raw.empty()) return (void)Fail("expected the attribute name");
    if (!TypeOf(c.Word(), d.type)) return (void)Fail("expected INT, HEX, FLOAT, STRING or ENUM");
    if (AttrDefByName(name.raw) >= 0)
        return (void)Fail("attribute " + std::string(name.raw) + " is defined twice");
    size_t namesBefore = m_net.names.size();
    if (d.type == AttrType::Enum && !ParseEnumValues(c, d)) return;
    if (d.type != AttrType::Enum && d.type != AttrType::String && !c.AtEnd() &&
        (!c.Double(d.minimum) || !c.Double(d.maximum))) {
        return (void)Fail("expected the minimum and maximum");
    }
    if (!c.AtEnd()) {
        m_net.names.resize(namesBefore);
        return (void)Fail("unexpected text at the end of the definition");
    }
    uint32_t index = static_cast<uint32_t>(m_net.attrDefs.size());
    d.name = Text(name);
    m_net.attrDefs.push_back(d);
    m_net.IndexAttrDef(index);
    for (uint32_t i = 0; i < d.enums.count; ++i) {
        std::string_view text = m_net.names[d.enums.first + i];
        if (EnumIndex(index, text) < 0)
            m_enumByText.Insert(HashText(m_enumByText.Seed(), index, text), d.enums.first + i);
    }
}

bool Reader::ParseEnumValues(Cursor& c, AttrDef& d) {
    d.enums.first = static_cast<uint32_t>(m_net.names.size());
    while (!c.AtEnd()) {
        QuotedText q;
        if (!c.Quoted(q)) {
            m_net.names.resize(d.enums.first);
            return Fail("expected quoted ENUM values separated by ','");
        }
        m_net.names.push_back(Text(q));
        if (!c.Eat(',')) break;
    }
    d.enums.count = static_cast<uint32_t>(m_net.names.size()) - d.enums.first;
    return true;
}

// Position of `text` among definition `def`'s ENUM values, or -1.
int64_t Reader::EnumIndex(uint32_t def, std::string_view text) const {
    const AttrDef& d = m_net.attrDefs[def];
    int64_t at = m_enumByText.Find(HashText(m_enumByText.Seed(), def, text), [&](uint32_t n) {
        return n >= d.enums.first && n < d.enums.end() && m_net.names[n] == text;
    });
    return at < 0 ? -1 : at - d.enums.first;
}

// BA_DEF_DEF_ "name" value
void Reader::ParseAttrDefault(Cursor& c) {
    QuotedText name;
    if (!c.Quoted(name)) return (void)Fail("expected the attribute name");
    int64_t def = AttrDefByName(name.raw);
    if (def < 0) return (void)Fail("no attribute definition " + std::string(name.raw));
    AttrDef& d = m_net.attrDefs[static_cast<size_t>(def)];
    if (d.hasDefault) return (void)Fail("the attribute's default was given before");
    AttrValue v{0.0, kNoText};
    if (!ParseAttrValue(c, static_cast<uint32_t>(def), v)) return;
    d.defaultValue = v;
    d.hasDefault = true;
}

// BA_ "name" [BU_ <node> | BO_ <id> | SG_ <id> <signal> | EV_ <name>] value
void Reader::ParseAttr(Cursor& c) {
    QuotedText name;
    if (!c.Quoted(name)) return (void)Fail("expected the attribute name");
    int64_t def = AttrDefByName(name.raw);
    if (def < 0) return (void)Fail("no attribute definition " + std::string(name.raw));
    PendingAttr a{ObjectKind::Network, 0, m_line,
                  AttrEntry{static_cast<uint32_t>(def), {0.0, kNoText}}};
    if (!ParseAttrObject(c, a.kind, a.object)) return;
    if (a.kind == ObjectKind::EnvVar) return;  // environment variables are not modelled
    const AttrDef& d = m_net.attrDefs[static_cast<size_t>(def)];
    if (static_cast<ObjectKind>(d.object) != a.kind) {
        return (void)Fail("attribute " + std::string(d.name) + " is defined for " +
                          ObjectName(static_cast<ObjectKind>(d.object)) + ", not for " +
                          ObjectName(a.kind));
    }
    if (ParseAttrValue(c, a.entry.def, a.entry.value)) m_attrs.push_back(a);
}

bool Reader::ParseAttrObject(Cursor& c, ObjectKind& kind, uint32_t& object) {
    char next = c.Peek();
    if (next == '"' || next == '-' || next == '+' || next == '.' || (next >= '0' && next <= '9'))
        return true;  // a network attribute
    if (!ObjectOf(c.Word(), kind)) return Fail("expected BU_, BO_, SG_, EV_ or the value");
    uint32_t message;
    switch (kind) {
        case ObjectKind::Node: {
            std::string_view node = c.Word();
            int64_t n = NodeByName(node);
            if (n < 0) return Fail("no node " + std::string(node));
            object = static_cast<uint32_t>(n);
            return true;
        }
        case ObjectKind::Message:
            return FindMessageOf(c, object);
        case ObjectKind::Signal:
            return FindSignalOf(c, message, object);
        default:
            return true;
    }
}

// A value as its definition's type wants it. ENUM values may be written as
// index or as text; numbers may be quoted.
bool Reader::ParseAttrValue(Cursor& c, uint32_t def, AttrValue& out) {
    const AttrDef& d = m_net.attrDefs[def];
    QuotedText q;
    bool quoted = c.Peek() == '"';
    if (quoted && !c.Quoted(q)) return Fail("a quoted text is not closed");
    if (!quoted && !c.Double(out.number)) return Fail("expected the attribute value");
    if (!c.AtEnd()) return Fail("unexpected text after the attribute value");
    if (d.type == AttrType::String) {
        if (!quoted) return Fail("expected a quoted text for a STRING attribute");
        out.text = Text(q);
        return true;
    }
    if (quoted && d.type == AttrType::Enum) {
        int64_t i = EnumIndex(def, q.raw);
        if (i < 0)
            return Fail("\"" + std::string(q.raw) + "\" is not one of the attribute's values");
        out.number = static_cast<double>(i);
    } else if (quoted) {
        Cursor inner(q.raw.data(), q.raw.data() + q.raw.size());
        if (!inner.Double(out.number) || !inner.AtEnd()) return Fail("expected a number");
    }
    if (d.type == AttrType::Enum) {
        double i = out.number;
        if (!(i >= 0 && i < d.enums.count) || i != static_cast<double>(static_cast<uint32_t>(i)))
            return Fail("the ENUM index is out of range");
        out.text = m_net.names[d.enums.first + static_cast<uint32_t>(i)];
    }
    return true;
}

}  // namespace tarn::net
