// Read access to an open database: network, nodes, messages, signals,
// attributes and value tables. Every text comes from the database's pool.
#include "j1939/identifier.h"
#include "native/handles.h"

using namespace tarn;

namespace {

// Views that were never set have no storage; the interface promises "".
const char* Text(std::string_view v) {
    return v.data() ? v.data() : "";
}

bool InRange(net::Range r, size_t index) {
    return index < r.count;
}

void FillAttr(const net::Network& n, const net::AttrEntry& e, tarn_attr* out) {
    const net::AttrDef& d = n.attrDefs[e.def];
    out->name = Text(d.name);
    out->type = static_cast<int>(d.type);
    out->number = e.value.number;
    out->text = Text(e.value.text);
}

int AttrAt(const net::Network& n, net::Range r, size_t index, tarn_attr* out) {
    if (!out) return TARN_ERR_ARGUMENT;
    if (!InRange(r, index)) return TARN_ERR_NOT_FOUND;
    FillAttr(n, n.attrValues[r.first + index], out);
    return TARN_OK;
}

}  // namespace

extern "C" {

int tarn_db_get_info(const tarn_db* db, tarn_db_info* out) {
    if (!db || !out) return TARN_ERR_ARGUMENT;
    const net::Network& n = db->net;
    out->version = Text(n.version);
    out->comment = Text(n.comment);
    out->message_count = n.messages.size();
    out->node_count = n.nodes.size();
    out->attr_def_count = n.attrDefs.size();
    out->attr_count = n.attrs.count;
    out->value_table_count = n.valueTables.size();
    out->max_signals = db->plan.MaxSignals();
    out->j1939 = n.j1939 ? 1 : 0;
    return TARN_OK;
}

int tarn_db_node(const tarn_db* db, size_t index, tarn_node_info* out) {
    if (!db || !out) return TARN_ERR_ARGUMENT;
    if (index >= db->net.nodes.size()) return TARN_ERR_NOT_FOUND;
    const net::Node& node = db->net.nodes[index];
    out->name = Text(node.name);
    out->comment = Text(node.comment);
    out->attr_count = node.attrs.count;
    return TARN_OK;
}

int tarn_db_message(const tarn_db* db, size_t index, const tarn_message** out) {
    if (!db || !out) return TARN_ERR_ARGUMENT;
    if (index >= db->messages.size()) return TARN_ERR_NOT_FOUND;
    *out = &db->messages[index];
    return TARN_OK;
}

int tarn_db_find_message(const tarn_db* db, uint32_t id, int extended, const tarn_message** out) {
    if (!db || !out) return TARN_ERR_ARGUMENT;
    const net::Message* m = db->net.FindMessage(id, extended != 0);
    if (!m) return TARN_ERR_NOT_FOUND;
    *out = &db->messages[static_cast<size_t>(m - db->net.messages.data())];
    return TARN_OK;
}

int tarn_db_find_message_by_name(const tarn_db* db, const char* name, const tarn_message** out) {
    if (!db || !name || !out) return TARN_ERR_ARGUMENT;
    const net::Message* m = db->net.FindMessage(std::string_view(name));
    if (!m) return TARN_ERR_NOT_FOUND;
    *out = &db->messages[static_cast<size_t>(m - db->net.messages.data())];
    return TARN_OK;
}

int tarn_db_find_message_by_pgn(const tarn_db* db, uint32_t pgn, const tarn_message** out) {
    if (!db || !out) return TARN_ERR_ARGUMENT;
    if (!db->plan.J1939()) return TARN_ERR_STATE;
    const int64_t i = db->plan.FindPgn(pgn);
    if (i < 0) return TARN_ERR_NOT_FOUND;
    *out = &db->messages[static_cast<size_t>(i)];
    return TARN_OK;
}

int tarn_message_get_info(const tarn_message* msg, tarn_message_info* out) {
    if (!msg || !out) return TARN_ERR_ARGUMENT;
    const net::Network& n = msg->db->net;
    const net::Message& m = n.messages[msg->index];
    out->name = Text(m.name);
    out->comment = Text(m.comment);
    out->id = m.id;
    out->extended = m.extended ? 1 : 0;
    out->length = m.length;
    out->index = msg->index;
    out->signal_count = m.signals.count;
    out->sender_count = m.senders.count;
    out->attr_count = m.attrs.count;
    const coder::MessagePlan& plan = msg->db->plan.Message(msg->index);
    out->cycle_time_ms = plan.cycleTimeMs;
    out->multiplexed = plan.multiplexed ? 1 : 0;
    out->pgn = n.j1939 && m.extended ? j1939::Pgn(m.id) : 0;
    return TARN_OK;
}

int tarn_message_sender(const tarn_message* msg, size_t index, const char** out) {
    if (!msg || !out) return TARN_ERR_ARGUMENT;
    const net::Network& n = msg->db->net;
    const net::Range r = n.messages[msg->index].senders;
    if (!InRange(r, index)) return TARN_ERR_NOT_FOUND;
    *out = Text(n.names[r.first + index]);
    return TARN_OK;
}

int tarn_message_signal(const tarn_message* msg, size_t index, const tarn_signal** out) {
    if (!msg || !out) return TARN_ERR_ARGUMENT;
    const net::Range r = msg->db->net.messages[msg->index].signals;
    if (!InRange(r, index)) return TARN_ERR_NOT_FOUND;
    *out = &msg->db->signals[r.first + index];
    return TARN_OK;
}

int tarn_message_find_signal(const tarn_message* msg, const char* name, const tarn_signal** out) {
    if (!msg || !name || !out) return TARN_ERR_ARGUMENT;
    const net::Message& m = msg->db->net.messages[msg->index];
    const int32_t i = msg->db->net.FindSignal(m, name);
    if (i < 0) return TARN_ERR_NOT_FOUND;
    *out = &msg->db->signals[m.signals.first + static_cast<uint32_t>(i)];
    return TARN_OK;
}

int tarn_signal_get_info(const tarn_signal* sig, tarn_signal_info* out) {
    if (!sig || !out) return TARN_ERR_ARGUMENT;
    const net::Signal& s = sig->db->net.signals[sig->index];
    out->name = Text(s.name);
    out->unit = Text(s.unit);
    out->comment = Text(s.comment);
    out->index = sig->index - sig->db->net.messages[sig->message].signals.first;
    out->start_bit = s.startBit;
    out->length = s.length;
    out->big_endian = s.bigEndian;
    out->is_signed = s.isSigned;
    out->value_type = static_cast<int>(s.type);
    out->factor = s.factor;
    out->offset = s.offset;
    out->minimum = s.minimum;
    out->maximum = s.maximum;
    out->is_switch = s.isSwitch;
    out->switch_index = s.switchIndex;
    out->mux_range_count = s.switchIndex >= 0 ? s.muxValues.count : 0;
    out->receiver_count = s.receivers.count;
    out->value_count = s.values.count;
    out->attr_count = s.attrs.count;
    return TARN_OK;
}

int tarn_signal_receiver(const tarn_signal* sig, size_t index, const char** out) {
    if (!sig || !out) return TARN_ERR_ARGUMENT;
    const net::Network& n = sig->db->net;
    const net::Range r = n.signals[sig->index].receivers;
    if (!InRange(r, index)) return TARN_ERR_NOT_FOUND;
    *out = Text(n.names[r.first + index]);
    return TARN_OK;
}

int tarn_signal_value_text(const tarn_signal* sig, size_t index, int64_t* raw, const char** text) {
    if (!sig || !raw || !text) return TARN_ERR_ARGUMENT;
    const net::Network& n = sig->db->net;
    const net::Range r = n.signals[sig->index].values;
    if (!InRange(r, index)) return TARN_ERR_NOT_FOUND;
    *raw = n.valueTexts[r.first + index].raw;
    *text = Text(n.valueTexts[r.first + index].text);
    return TARN_OK;
}

int tarn_signal_mux_range(const tarn_signal* sig, size_t index, uint64_t* low, uint64_t* high) {
    if (!sig || !low || !high) return TARN_ERR_ARGUMENT;
    const net::Network& n = sig->db->net;
    const net::Signal& s = n.signals[sig->index];
    if (s.switchIndex < 0 || !InRange(s.muxValues, index)) return TARN_ERR_NOT_FOUND;
    *low = n.muxRanges[s.muxValues.first + index].low;
    *high = n.muxRanges[s.muxValues.first + index].high;
    return TARN_OK;
}

int tarn_db_attr_def(const tarn_db* db, size_t index, tarn_attr_def* out) {
    if (!db || !out) return TARN_ERR_ARGUMENT;
    if (index >= db->net.attrDefs.size()) return TARN_ERR_NOT_FOUND;
    const net::AttrDef& d = db->net.attrDefs[index];
    out->name = Text(d.name);
    out->object = static_cast<int>(d.object);
    out->type = static_cast<int>(d.type);
    out->minimum = d.minimum;
    out->maximum = d.maximum;
    out->enum_count = d.enums.count;
    out->has_default = d.hasDefault;
    out->default_number = d.defaultValue.number;
    out->default_text = Text(d.defaultValue.text);
    return TARN_OK;
}

int tarn_db_attr_enum(const tarn_db* db, size_t def_index, size_t index, const char** out) {
    if (!db || !out) return TARN_ERR_ARGUMENT;
    if (def_index >= db->net.attrDefs.size()) return TARN_ERR_NOT_FOUND;
    const net::Range r = db->net.attrDefs[def_index].enums;
    if (!InRange(r, index)) return TARN_ERR_NOT_FOUND;
    *out = Text(db->net.names[r.first + index]);
    return TARN_OK;
}

int tarn_db_attr(const tarn_db* db, size_t index, tarn_attr* out) {
    if (!db) return TARN_ERR_ARGUMENT;
    return AttrAt(db->net, db->net.attrs, index, out);
}

int tarn_node_attr(const tarn_db* db, size_t node, size_t index, tarn_attr* out) {
    if (!db) return TARN_ERR_ARGUMENT;
    if (node >= db->net.nodes.size()) return TARN_ERR_NOT_FOUND;
    return AttrAt(db->net, db->net.nodes[node].attrs, index, out);
}

int tarn_message_attr(const tarn_message* msg, size_t index, tarn_attr* out) {
    if (!msg) return TARN_ERR_ARGUMENT;
    return AttrAt(msg->db->net, msg->db->Model(msg).attrs, index, out);
}

int tarn_signal_attr(const tarn_signal* sig, size_t index, tarn_attr* out) {
    if (!sig) return TARN_ERR_ARGUMENT;
    return AttrAt(sig->db->net, sig->db->Model(sig).attrs, index, out);
}

int tarn_db_value_table(const tarn_db* db, size_t index, const char** name, size_t* count) {
    if (!db || !name || !count) return TARN_ERR_ARGUMENT;
    if (index >= db->net.valueTables.size()) return TARN_ERR_NOT_FOUND;
    *name = Text(db->net.valueTables[index].name);
    *count = db->net.valueTables[index].values.count;
    return TARN_OK;
}

int tarn_db_value_table_entry(const tarn_db* db, size_t table, size_t index, int64_t* raw,
                              const char** text) {
    if (!db || !raw || !text) return TARN_ERR_ARGUMENT;
    if (table >= db->net.valueTables.size()) return TARN_ERR_NOT_FOUND;
    const net::Range r = db->net.valueTables[table].values;
    if (!InRange(r, index)) return TARN_ERR_NOT_FOUND;
    *raw = db->net.valueTexts[r.first + index].raw;
    *text = Text(db->net.valueTexts[r.first + index].text);
    return TARN_OK;
}

}  // extern "C"
