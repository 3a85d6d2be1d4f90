// Writes a native model back as normalised DBC text: sections in a fixed
// order, numbers in their shortest exact form, extended multiplexing spelled
// out only where the plain indicators cannot say it. Reading the output
// gives the same model, and writing that again gives the same bytes.
#include "dbc/network_writer.h"

#include <charconv>
#include <cmath>

namespace tarn::net {
namespace {

constexpr uint32_t kExtendedFlag = 0x80000000u;

class Writer {
  public:
    explicit Writer(const Network& n) : m_net(n) {}
    std::string Run();

  private:
    void Num(double v);
    void Int(int64_t v) { Append(std::to_string(v)); }
    // An integer where it is one, else the number as written (INT limits
    // beyond 64 bits occur in real files).
    void Whole(double v) {
        if (v == std::trunc(v) && std::fabs(v) < 9.2e18)
            Int(static_cast<int64_t>(v));
        else
            Num(v);
    }
    void Uint(uint64_t v) { Append(std::to_string(v)); }
    void Quoted(std::string_view s);
    void Append(std::string_view s) { m_out.append(s.data(), s.size()); }
    void MessageId(const Message& m) { Uint(m.id | (m.extended ? kExtendedFlag : 0)); }
    void Names(Range r, const char* separator);

    void Header();
    void Messages();
    void SignalLine(uint32_t index);
    void Comments();
    void AttrDefs();
    // A BA_ value names an enum entry by index, a default by its text.
    void AttrValue(const AttrDef& d, const net::AttrValue& v, bool isDefault);
    void AttrValues();
    void AttrLines(Range r, const std::string& object);
    void ValueLines();
    void ValueTypes();
    void MuxLines();
    bool NeedsMuxLines(const Message& m) const;

    const Network& m_net;
    std::string m_out;
};

void Writer::Num(double v) {
    if (v == 0) v = 0;  // no "-0"
    char buf[32];
    const auto r = std::to_chars(buf, buf + sizeof buf, v);
    m_out.append(buf, r.ptr);
}

void Writer::Quoted(std::string_view s) {
    m_out += '"';
    for (char c : s) {
        if (c == '"' || c == '\\') m_out += '\\';
        m_out += c;
    }
    m_out += '"';
}

void Writer::Names(Range r, const char* separator) {
    for (uint32_t i = r.first; i < r.end(); ++i) {
        if (i != r.first) Append(separator);
        Append(m_net.names[i]);
    }
}

void Writer::Header() {
    Append("VERSION ");
    Quoted(m_net.version);
    Append(
        "\n\nNS_ :\n\tNS_DESC_\n\tCM_\n\tBA_DEF_\n\tBA_\n\tVAL_\n\tBA_DEF_DEF_\n\tVAL_TABLE_\n"
        "\tSIG_VALTYPE_\n\tBO_TX_BU_\n\tSG_MUL_VAL_\n\nBS_:\n\nBU_:");
    for (const Node& n : m_net.nodes) Append(" "), Append(n.name);
    Append("\n\n");
    for (const ValueTable& t : m_net.valueTables) {
        Append("VAL_TABLE_ "), Append(t.name);
        for (uint32_t i = t.values.first; i < t.values.end(); ++i) {
            Append(" "), Int(m_net.valueTexts[i].raw), Append(" ");
            Quoted(m_net.valueTexts[i].text);
        }
        Append(" ;\n");
    }
    if (!m_net.valueTables.empty()) Append("\n");
}

bool Writer::NeedsMuxLines(const Message& m) const {
    uint32_t switches = 0;
    for (uint32_t i = m.signals.first; i < m.signals.end(); ++i) {
        const Signal& s = m_net.signals[i];
        switches += s.isSwitch;
        if (s.isSwitch && s.switchIndex >= 0) return true;
        if (s.switchIndex < 0) continue;
        if (s.muxValues.count != 1) return true;
        const MuxRange& r = m_net.muxRanges[s.muxValues.first];
        if (r.low != r.high) return true;
    }
    return switches > 1;
}

void Writer::SignalLine(uint32_t index) {
    const Signal& s = m_net.signals[index];
    Append(" SG_ "), Append(s.name);
    if (s.switchIndex >= 0 && s.muxValues.count)
        Append(" m"), Uint(m_net.muxRanges[s.muxValues.first].low);
    if (s.isSwitch) Append(s.switchIndex >= 0 ? "M" : " M");
    Append(" : "), Uint(s.startBit), Append("|"), Uint(s.length);
    Append(s.bigEndian ? "@0" : "@1"), Append(s.isSigned ? "-" : "+");
    Append(" ("), Num(s.factor), Append(","), Num(s.offset), Append(") [");
    Num(s.minimum), Append("|"), Num(s.maximum), Append("] ");
    Quoted(s.unit);
    Append(" ");
    if (s.receivers.count)
        Names(s.receivers, ",");
    else
        Append("Vector__XXX");
    Append("\n");
}

void Writer::Messages() {
    for (const Message& m : m_net.messages) {
        Append("BO_ "), MessageId(m), Append(" "), Append(m.name), Append(": ");
        Uint(m.length), Append(" ");
        Append(m.senders.count ? m_net.names[m.senders.first] : std::string_view("Vector__XXX"));
        Append("\n");
        for (uint32_t i = m.signals.first; i < m.signals.end(); ++i) SignalLine(i);
        Append("\n");
    }
    for (const Message& m : m_net.messages) {
        if (m.senders.count < 2) continue;
        Append("BO_TX_BU_ "), MessageId(m), Append(" : ");
        Names(Range{m.senders.first + 1, m.senders.count - 1}, ",");
        Append(";\n");
    }
}

void Writer::Comments() {
    if (!m_net.comment.empty()) Append("CM_ "), Quoted(m_net.comment), Append(";\n");
    for (const Node& n : m_net.nodes)
        if (!n.comment.empty())
            Append("CM_ BU_ "), Append(n.name), Append(" "), Quoted(n.comment), Append(";\n");
    for (const Message& m : m_net.messages) {
        if (!m.comment.empty())
            Append("CM_ BO_ "), MessageId(m), Append(" "), Quoted(m.comment), Append(";\n");
        for (uint32_t i = m.signals.first; i < m.signals.end(); ++i) {
            const Signal& s = m_net.signals[i];
            if (s.comment.empty()) continue;
            Append("CM_ SG_ "), MessageId(m), Append(" "), Append(s.name), Append(" ");
            Quoted(s.comment), Append(";\n");
        }
    }
}

void Writer::AttrValue(const AttrDef& d, const net::AttrValue& v, bool isDefault) {
    switch (d.type) {
        case AttrType::String:
            return Quoted(v.text);
        case AttrType::Enum:
            return isDefault ? Quoted(v.text) : Int(static_cast<int64_t>(v.number));
        case AttrType::Float:
            return Num(v.number);
        default:
            return Int(static_cast<int64_t>(v.number));
    }
}

void Writer::AttrDefs() {
    static const char* const kObject[] = {"", "BU_ ", "BO_ ", "SG_ ", "EV_ "};
    static const char* const kType[] = {"INT", "HEX", "FLOAT", "STRING", "ENUM"};
    for (const AttrDef& d : m_net.attrDefs) {
        Append("BA_DEF_ "), Append(kObject[static_cast<int>(d.object)]);
        Quoted(d.name), Append(" "), Append(kType[static_cast<int>(d.type)]);
        if (d.type == AttrType::Enum) {
            Append(" ");
            for (uint32_t i = d.enums.first; i < d.enums.end(); ++i) {
                if (i != d.enums.first) Append(",");
                Quoted(m_net.names[i]);
            }
        } else if (d.type == AttrType::Float) {
            Append(" "), Num(d.minimum), Append(" "), Num(d.maximum);
        } else if (d.type != AttrType::String) {
            Append(" "), Whole(d.minimum), Append(" "), Whole(d.maximum);
        }
        Append(";\n");
    }
    for (const AttrDef& d : m_net.attrDefs) {
        if (!d.hasDefault) continue;
        Append("BA_DEF_DEF_ "), Quoted(d.name), Append(" "), AttrValue(d, d.defaultValue, true);
        Append(";\n");
    }
}

void Writer::AttrLines(Range r, const std::string& object) {
    for (uint32_t i = r.first; i < r.end(); ++i) {
        const AttrEntry& e = m_net.attrValues[i];
        const AttrDef& d = m_net.attrDefs[e.def];
        Append("BA_ "), Quoted(d.name), Append(" "), Append(object);
        AttrValue(d, e.value, false), Append(";\n");
    }
}

void Writer::AttrValues() {
    AttrLines(m_net.attrs, "");
    for (const Node& n : m_net.nodes) AttrLines(n.attrs, "BU_ " + std::string(n.name) + " ");
    for (const Message& m : m_net.messages) {
        const std::string id = std::to_string(m.id | (m.extended ? kExtendedFlag : 0));
        AttrLines(m.attrs, "BO_ " + id + " ");
        for (uint32_t i = m.signals.first; i < m.signals.end(); ++i) {
            const Signal& s = m_net.signals[i];
            AttrLines(s.attrs, "SG_ " + id + " " + std::string(s.name) + " ");
        }
    }
}

void Writer::ValueLines() {
    for (const Message& m : m_net.messages) {
        for (uint32_t i = m.signals.first; i < m.signals.end(); ++i) {
            const Signal& s = m_net.signals[i];
            if (!s.values.count) continue;
            Append("VAL_ "), MessageId(m), Append(" "), Append(s.name);
            for (uint32_t v = s.values.first; v < s.values.end(); ++v) {
                Append(" "), Int(m_net.valueTexts[v].raw), Append(" ");
                Quoted(m_net.valueTexts[v].text);
            }
            Append(" ;\n");
        }
    }
}

void Writer::ValueTypes() {
    for (const Message& m : m_net.messages) {
        for (uint32_t i = m.signals.first; i < m.signals.end(); ++i) {
            const Signal& s = m_net.signals[i];
            if (s.type == ValueType::Integer) continue;
            Append("SIG_VALTYPE_ "), MessageId(m), Append(" "), Append(s.name);
            Append(s.type == ValueType::Float ? " : 1;\n" : " : 2;\n");
        }
    }
}

void Writer::MuxLines() {
    for (const Message& m : m_net.messages) {
        if (!NeedsMuxLines(m)) continue;
        for (uint32_t i = m.signals.first; i < m.signals.end(); ++i) {
            const Signal& s = m_net.signals[i];
            if (s.switchIndex < 0) continue;
            Append("SG_MUL_VAL_ "), MessageId(m), Append(" "), Append(s.name), Append(" ");
            Append(m_net.signals[m.signals.first + s.switchIndex].name), Append(" ");
            for (uint32_t r = s.muxValues.first; r < s.muxValues.end(); ++r) {
                if (r != s.muxValues.first) Append(", ");
                Uint(m_net.muxRanges[r].low), Append("-"), Uint(m_net.muxRanges[r].high);
            }
            Append(";\n");
        }
    }
}

std::string Writer::Run() {
    Header();
    Messages();
    Append("\n");
    Comments();
    AttrDefs();
    AttrValues();
    ValueLines();
    ValueTypes();
    MuxLines();
    return std::move(m_out);
}

}  // namespace

std::string WriteDbc(const Network& network) {
    return Writer(network).Run();
}

}  // namespace tarn::net
