// Prints the model back as DBC text ("\r\n" line ends), for diagnostics.
#include <algorithm>
#include <cstring>

#include "common/file_utils.h"
#include "common/str_utils.h"
#include "dbc/dbc_impl.h"

using kq::StrUtils;

namespace {

const char* Text(const char* s) {
    return s ? s : "";
}

bool Is(const char* atom, const char* keyword) {
    return atom && std::strcmp(atom, keyword) == 0;
}

std::string SignalLine(const Signal& sig) {
    std::string out = " SG_ ";
    out += Text(sig.name);
    out += ' ';
    if (!sig.multiplexer.empty()) {
        out += sig.multiplexer;
        out += ' ';
    }
    if (sig.multiplexer == "m") out += StrUtils::FormatString("%u ", sig.multiplexerValue);
    out += StrUtils::FormatString(
        ": %u|%u@%c%c (%s,%s) [%s|%s] \"%s\" Vector__XXX\r\n", sig.startBit, sig.length,
        sig.bigEndian ? '0' : '1', sig.isSigned ? '-' : '+', Double2String(sig.factor).c_str(),
        Double2String(sig.offset).c_str(), Double2String(sig.minimum).c_str(),
        Double2String(sig.maximum).c_str(), Text(sig.unit));
    return out;
}

std::string EscapeQuotes(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c == '"') out += '\\';
        out += c;
    }
    return out;
}

std::string CommentLine(const Comment& c) {
    std::string out = "CM_ ";
    if (Is(c.type, "BO_")) {
        out += StrUtils::FormatString("BO_ %u", static_cast<unsigned>(c.id));
    } else if (Is(c.type, "SG_")) {
        out += StrUtils::FormatString("SG_ %u ", static_cast<unsigned>(c.id));
        out += Text(c.signal);
    } else if (Is(c.type, "EV_") || Is(c.type, "BU_")) {
        out += c.type;
        out += ' ';
        out += Text(c.signal);
    }
    out += " \"";
    out += EscapeQuotes(c.text);
    out += "\";\r\n";
    return out;
}

}  // namespace

std::string Double2String(double d) {
    std::string s = StrUtils::FormatString("%.7lf", d);
    size_t dot = s.find('.');
    if (dot == std::string::npos) return s;
    size_t last = s.find_last_not_of('0');
    s.resize(last == dot ? dot : last + 1);
    return s;
}

std::string Message::Dump() const {
    std::string out = StrUtils::FormatString("BO_ %u %s: %d %s\r\n", static_cast<unsigned>(id),
                                             Text(name), static_cast<int>(dlc), Text(transmitter));
    if (!signalList.empty()) {
        for (const Signal& sig : signalList) out += SignalLine(sig);
        return out;
    }
    // Without the file-order list, the load position of each signal decides.
    std::vector<const Signal*> sigs;
    sigs.reserve(signals.size());
    for (const auto& entry : signals) sigs.push_back(&entry.second);
    std::stable_sort(sigs.begin(), sigs.end(),
                     [](const Signal* a, const Signal* b) { return a->index < b->index; });
    for (const Signal* sig : sigs) out += SignalLine(*sig);
    return out;
}

std::string AttrDesc::Dump() const {
    std::string out = "BA_DEF_";
    if (!objType.empty()) out += " " + objType;
    out += StrUtils::FormatString("  \"%s\" ", Text(name));
    switch (type) {
        case ATTR_INT:
            out += StrUtils::FormatString("INT %d %d", imin, imax);
            break;
        case ATTR_HEX:
            out += StrUtils::FormatString("HEX %u %u", hmin, hmax);
            break;
        case ATTR_FLOAT:
            out += "FLOAT " + Double2String(fmin) + " " + Double2String(fmax);
            break;
        case ATTR_STRING:
            out += "STRING ";
            break;
        case ATTR_ENUM:
            out += "ENUM  ";
            for (size_t i = 0; i < enums.size(); ++i) {
                if (i) out += ',';
                out += StrUtils::FormatString("\"%s\"", Text(enums[i]));
            }
            break;
    }
    out += ";\r\n";
    return out;
}

std::string AttrDesc::DumpDefault() const {
    std::string out = StrUtils::FormatString("BA_DEF_DEF_  \"%s\" ", Text(name));
    switch (type) {
        case ATTR_INT:
            out += StrUtils::FormatString("%d", defVal.ival);
            break;
        case ATTR_HEX:
            out += StrUtils::FormatString("%u", defVal.uval);
            break;
        case ATTR_FLOAT:
            out += Double2String(defVal.fval);
            break;
        default:
            out += StrUtils::FormatString("\"%s\"", defVal.str.c_str());
            break;
    }
    out += ";\r\n";
    return out;
}

std::string Attr::Dump() const {
    std::string out = StrUtils::FormatString("BA_ \"%s\" ", Text(name));
    if (Is(objType, "BU_") || Is(objType, "EV_")) {
        out += StrUtils::FormatString("%s %s ", objType, Text(objName));
    } else if (Is(objType, "BO_")) {
        out += StrUtils::FormatString("BO_ %u ", static_cast<unsigned>(msgId));
    } else if (Is(objType, "SG_")) {
        out += StrUtils::FormatString("SG_ %u %s ", static_cast<unsigned>(msgId), Text(objName));
    }
    AttrType t = desc ? desc->type : ATTR_INT;
    switch (t) {
        case ATTR_INT:
            out += StrUtils::FormatString("%d", value.ival);
            break;
        case ATTR_HEX:
            out += StrUtils::FormatString("%u", value.uval);
            break;
        case ATTR_FLOAT:
            out += Double2String(value.fval);
            break;
        case ATTR_STRING:
            out += StrUtils::FormatString("\"%s\"", value.str.c_str());
            break;
        case ATTR_ENUM:
            out += value.str.empty() ? StrUtils::FormatString("%u", value.uval)
                                     : StrUtils::FormatString("\"%s\"", value.str.c_str());
            break;
    }
    out += ";\r\n";
    return out;
}

std::string DBCImpl::DumpVal(const VAL& val) const {
    std::string out = StrUtils::FormatString("VAL_ %u ", static_cast<unsigned>(val.id));
    out += Text(val.signal);
    out += ' ';
    for (const ValPair& pair : val.pairs) {
        out += Double2String(pair.value);
        out += StrUtils::FormatString(" \"%s\" ", pair.desc.c_str());
    }
    out += ";\r\n";
    return out;
}

std::string DBCImpl::DumpText() const {
    std::string out;
    // The file-order list exists only for loads that recorded order.
    std::vector<Message*> msgs = m_msgList;
    if (msgs.empty()) GetAllMessage(msgs);
    for (const Message* msg : msgs) {
        out += msg->Dump();
        out += "\r\n";
    }
    out += "\r\n\r\n";
    for (const Comment& c : m_comments) out += CommentLine(c);
    for (const AttrDesc* d : m_attrDefList) out += d->Dump();
    for (const AttrDesc* d : m_attrDefList) out += d->DumpDefault();
    for (const Attr& a : m_attrList) out += a.Dump();
    for (const VAL& v : m_vals) out += DumpVal(v);
    out += "\r\n";
    return out;
}

void DBCImpl::Dump() const {
    kq::FileUtils::WriteFile("dump.txt", DumpText());
}
