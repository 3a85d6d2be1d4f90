// tarn dump: the database as the library presents it, as text or as one
// JSON document holding the whole model.
#include <cstdio>
#include <string>

#include "commands.h"
#include "text.h"

namespace tarncli {
namespace {

const char* kObjects[] = {"network", "node", "message", "signal", "environment"};
const char* kTypes[] = {"int", "hex", "float", "string", "enum"};
const char* kValueTypes[] = {"integer", "float", "double"};

void attrJson(OutBuf& out, const tarn_attr& a) {
    appendJsonString(out, a.name);
    out += ':';
    if (a.type == TARN_ATTR_STRING || a.type == TARN_ATTR_ENUM)
        appendJsonString(out, a.text);
    else
        appendJsonNumber(out, a.number);
}

// {"name": value, ...} from an accessor over indexes.
template <class Get>
void attrsJson(OutBuf& out, size_t count, Get get) {
    out += "\"attributes\":{";
    for (size_t i = 0; i < count; ++i) {
        tarn_attr a;
        if (get(i, &a) != TARN_OK) continue;
        if (i) out += ',';
        attrJson(out, a);
    }
    out += '}';
}

void signalJson(OutBuf& out, const tarn::Message& m, const tarn::Signal& s) {
    const tarn_signal_info& i = s.info();
    out += "{\"name\":";
    appendJsonString(out, i.name);
    out += ",\"start\":" + std::to_string(i.start_bit) + ",\"length\":" + std::to_string(i.length);
    out += i.big_endian ? ",\"byte_order\":\"big_endian\"" : ",\"byte_order\":\"little_endian\"";
    out += i.is_signed ? ",\"signed\":true" : ",\"signed\":false";
    out += ",\"type\":\"" + std::string(kValueTypes[i.value_type]) + "\"";
    for (auto [key, v] : {std::pair{",\"factor\":", i.factor},
                          {",\"offset\":", i.offset},
                          {",\"minimum\":", i.minimum},
                          {",\"maximum\":", i.maximum}}) {
        out += key;
        appendJsonNumber(out, v);
    }
    out += ",\"unit\":";
    appendJsonString(out, i.unit);
    out += ",\"comment\":";
    appendJsonString(out, i.comment);
    out += ",\"receivers\":[";
    for (size_t r = 0; r < i.receiver_count; ++r) {
        const char* name;
        tarn_signal_receiver(s.handle(), r, &name);
        if (r) out += ',';
        appendJsonString(out, name);
    }
    out += i.is_switch ? "],\"multiplexer\":true" : "],\"multiplexer\":false";
    out += ",\"multiplexed_by\":";
    if (i.switch_index < 0) {
        out += "null";
    } else {
        appendJsonString(out, m.at(static_cast<size_t>(i.switch_index)).name());
        out += ",\"multiplexer_ids\":[";
        for (size_t r = 0; r < i.mux_range_count; ++r) {
            uint64_t lo, hi;
            tarn_signal_mux_range(s.handle(), r, &lo, &hi);
            out += (r ? ",[" : "[") + std::to_string(lo) + "," + std::to_string(hi) + "]";
        }
        out += ']';
    }
    out += ",\"choices\":{";
    bool first = true;
    for (const auto& [raw, text] : s.values()) {
        if (!first) out += ',';
        first = false;
        appendJsonString(out, std::to_string(raw));
        out += ':';
        appendJsonString(out, text);
    }
    out += "},";
    attrsJson(out, i.attr_count,
              [&](size_t k, tarn_attr* a) { return tarn_signal_attr(s.handle(), k, a); });
    out += '}';
}

void messageJson(OutBuf& out, const tarn::Message& m, bool j1939) {
    const tarn_message_info& i = m.info();
    out += "{\"name\":";
    appendJsonString(out, i.name);
    out += ",\"id\":" + std::to_string(i.id);
    out += i.extended ? ",\"extended\":true" : ",\"extended\":false";
    out += ",\"length\":" + std::to_string(i.length);
    if (j1939 && i.extended) out += ",\"pgn\":" + std::to_string(i.pgn);
    out += ",\"cycle_time\":";
    out += i.cycle_time_ms >= 0 ? std::to_string(i.cycle_time_ms) : "null";
    out += ",\"comment\":";
    appendJsonString(out, i.comment);
    out += ",\"senders\":[";
    for (size_t k = 0; k < i.sender_count; ++k) {
        const char* name;
        tarn_message_sender(m.handle(), k, &name);
        if (k) out += ',';
        appendJsonString(out, name);
    }
    out += "],";
    attrsJson(out, i.attr_count,
              [&](size_t k, tarn_attr* a) { return tarn_message_attr(m.handle(), k, a); });
    out += ",\"signals\":[";
    bool first = true;
    for (tarn::Signal s : m.signals()) {
        if (!first) out += ',';
        first = false;
        signalJson(out, m, s);
    }
    out += "]}";
}

void definitionsJson(OutBuf& out, const tarn_db* db, const tarn_db_info& info) {
    out += ",\"attribute_definitions\":[";
    for (size_t k = 0; k < info.attr_def_count; ++k) {
        tarn_attr_def d;
        tarn_db_attr_def(db, k, &d);
        if (k) out += ',';
        out += "{\"name\":";
        appendJsonString(out, d.name);
        out += ",\"object\":\"" + std::string(kObjects[d.object]) + "\",\"type\":\"" +
               kTypes[d.type] + "\"";
        if (d.type == TARN_ATTR_ENUM) {
            out += ",\"enums\":[";
            for (size_t e = 0; e < d.enum_count; ++e) {
                const char* text;
                tarn_db_attr_enum(db, k, e, &text);
                if (e) out += ',';
                appendJsonString(out, text);
            }
            out += ']';
        } else if (d.type != TARN_ATTR_STRING) {
            out += ",\"minimum\":";
            appendJsonNumber(out, d.minimum);
            out += ",\"maximum\":";
            appendJsonNumber(out, d.maximum);
        }
        if (d.has_default) {
            out += ",\"default\":";
            if (d.type == TARN_ATTR_STRING || d.type == TARN_ATTR_ENUM)
                appendJsonString(out, d.default_text);
            else
                appendJsonNumber(out, d.default_number);
        }
        out += '}';
    }
    out += ']';
}

void tablesAndNodesJson(OutBuf& out, const tarn_db* db, const tarn_db_info& info) {
    out += ",\"value_tables\":{";
    for (size_t t = 0; t < info.value_table_count; ++t) {
        const char* name;
        size_t count;
        tarn_db_value_table(db, t, &name, &count);
        if (t) out += ',';
        appendJsonString(out, name);
        out += ":{";
        for (size_t e = 0; e < count; ++e) {
            int64_t raw;
            const char* text;
            tarn_db_value_table_entry(db, t, e, &raw, &text);
            if (e) out += ',';
            appendJsonString(out, std::to_string(raw));
            out += ':';
            appendJsonString(out, text);
        }
        out += '}';
    }
    out += "},\"nodes\":[";
    for (size_t n = 0; n < info.node_count; ++n) {
        tarn_node_info node;
        tarn_db_node(db, n, &node);
        if (n) out += ',';
        out += "{\"name\":";
        appendJsonString(out, node.name);
        out += ",\"comment\":";
        appendJsonString(out, node.comment);
        out += ',';
        attrsJson(out, node.attr_count,
                  [&](size_t k, tarn_attr* a) { return tarn_node_attr(db, n, k, a); });
        out += '}';
    }
    out += ']';
}

int dumpJson(const tarn::Database& db) {
    const tarn_db_info info = db.info();
    OutBuf out;
    out += "{\"version\":";
    appendJsonString(out, info.version);
    out += info.j1939 ? ",\"j1939\":true" : ",\"j1939\":false";
    out += ",\"comment\":";
    appendJsonString(out, info.comment);
    out += ',';
    attrsJson(out, info.attr_count,
              [&](size_t k, tarn_attr* a) { return tarn_db_attr(db.handle(), k, a); });
    definitionsJson(out, db.handle(), info);
    tablesAndNodesJson(out, db.handle(), info);
    out += ",\"messages\":[";
    bool first = true;
    for (tarn::Message m : db.messages()) {
        if (!first) out += ',';
        first = false;
        messageJson(out, m, info.j1939);
    }
    out += "]}\n";
    std::fwrite(out.data(), 1, out.size(), stdout);
    return kExitOk;
}

std::string quoted(std::string_view s) {
    return jsonQuoted(s);
}

std::string num(double v) {
    OutBuf out;
    appendNumber(out, v);
    return out.str();
}

void signalText(OutBuf& out, const tarn::Message& m, const tarn::Signal& s) {
    const tarn_signal_info& i = s.info();
    std::string mux = i.is_switch ? "M" : "";
    if (i.switch_index >= 0) {
        mux = std::string(m.at(static_cast<size_t>(i.switch_index)).name()) + "=";
        for (size_t r = 0; r < i.mux_range_count; ++r) {
            uint64_t lo, hi;
            tarn_signal_mux_range(s.handle(), r, &lo, &hi);
            mux += (r ? "," : "") + std::to_string(lo) + (lo == hi ? "" : "-" + std::to_string(hi));
        }
        if (i.is_switch) mux += " M";
    }
    out += "  signal " + std::string(i.name) + ": start=" + std::to_string(i.start_bit) +
           " length=" + std::to_string(i.length) + " order=" + (i.big_endian ? "big" : "little") +
           " signed=" + (i.is_signed ? "yes" : "no") + " type=" + kValueTypes[i.value_type] +
           " factor=" + num(i.factor) + " offset=" + num(i.offset) + " range=[" + num(i.minimum) +
           "," + num(i.maximum) + "] unit=" + quoted(i.unit) + " mux=" + (mux.empty() ? "-" : mux) +
           "\n";
    if (*i.comment) out += "    comment: " + quoted(i.comment) + "\n";
    const auto values = s.values();
    if (values.empty()) return;
    out += "    values:";
    for (const auto& [raw, text] : values) out += " " + std::to_string(raw) + "=" + quoted(text);
    out += "\n";
}

int dumpText(const tarn::Database& db) {
    const tarn_db_info info = db.info();
    OutBuf out;
    out += std::string("protocol: ") + (info.j1939 ? "J1939" : "CAN") + "\n";
    out += "nodes: " + std::to_string(info.node_count) + "\n";
    for (size_t n = 0; n < info.node_count; ++n) {
        tarn_node_info node;
        tarn_db_node(db.handle(), n, &node);
        out += "  " + std::string(node.name) + "\n";
    }
    out += "messages: " + std::to_string(info.message_count) + "\n";
    for (tarn::Message m : db.messages()) {
        const tarn_message_info& i = m.info();
        out += "\nmessage 0x";
        appendHexId(out, i.id, i.extended);
        out += std::string(i.extended ? " extended" : " standard") +
               " size=" + std::to_string(i.length);
        if (i.cycle_time_ms >= 0) out += " cycle=" + std::to_string(i.cycle_time_ms) + "ms";
        out += " name=" + std::string(i.name) + "\n";
        if (*i.comment) out += "  comment: " + quoted(i.comment) + "\n";
        for (tarn::Signal s : m.signals()) signalText(out, m, s);
    }
    std::fwrite(out.data(), 1, out.size(), stdout);
    return kExitOk;
}

}  // namespace

int runDump(const Options& opts) {
    if (opts.operands.size() != 1) {
        std::fprintf(stderr, "tarn: dump needs one DBC file\n\n%s", usageText("dump").c_str());
        return kExitUsage;
    }
    auto db = openDatabase(opts.operands[0], opts);
    if (!db) return kExitFailure;
    return opts.json ? dumpJson(*db) : dumpText(*db);
}

}  // namespace tarncli
