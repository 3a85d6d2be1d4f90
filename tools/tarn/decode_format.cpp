#include "decode_format.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>

#include "tarn/j1939.h"
#include "text.h"

namespace tarncli {
namespace {

// Groups whose payload is a lamp status and a list of trouble codes.
bool isDiagnosticList(uint32_t pgn) {
    static const uint32_t kPgns[] = {0xFECA, 0xFECB, 0xFECF, 0xFED4, 0xFDB5, 0xFD82, 0xFD80};
    return std::find(std::begin(kPgns), std::end(kPgns), pgn) != std::end(kPgns);
}

void appendUint(OutBuf& out, uint64_t v) {
    char buf[24];
    const auto r = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, static_cast<size_t>(r.ptr - buf));
}

}  // namespace

Tables::Tables(const tarn::Database& db, const Options& opts, const tarn_log_reader* reader)
    : m_reader(reader) {
    for (tarn::Message msg : db.messages()) {
        MessageText m;
        m.name = msg.name();
        m.json = jsonQuoted(msg.name());
        m.csv = csvField(msg.name());
        m.wanted = opts.only.empty() ||
                   std::find(opts.only.begin(), opts.only.end(), m.name) != opts.only.end();
        for (tarn::Signal s : msg.signals()) {
            SignalText t;
            t.info = s.info();
            t.scale = DecimalScale::For(t.info);
            t.text = "  " + std::string(s.name()) + "=";
            if (!s.unit().empty()) t.unitText = " " + std::string(s.unit());
            t.json = jsonQuoted(s.name()) + ":{\"value\":";
            if (!s.unit().empty()) t.jsonUnit = ",\"unit\":" + jsonQuoted(s.unit());
            t.csv = csvField(s.name());
            t.csvUnit = csvField(s.unit());
            m.signals.push_back(std::move(t));
        }
        m_messages.push_back(std::move(m));
    }
}

void Tables::learnChannel(uint8_t index) {
    while (m_channels.size() <= index) {
        const char* name = "";
        tarn_log_channel(m_reader, m_channels.size(), &name);
        m_channels.emplace_back(name);
        m_channelsJson.push_back(jsonQuoted(name));
    }
}

void Formatter::record(const Record& r) {
    const MessageText* m = r.decoded ? &m_tables.message(r.decoded->message_index) : nullptr;
    if (m ? !m->wanted : !m_opts.only.empty()) return;
    if (m_opts.json)
        json(r, m);
    else if (m_opts.csv)
        csv(r, m);
    else
        text(r, m);
}

void Formatter::dtcs(const Record& r, bool asJson) {
    const uint32_t pgn = tarn_j1939_pgn(r.id);
    if (!r.j1939 || !isDiagnosticList(pgn)) return;
    tarn_j1939_dm dm;
    tarn_j1939_dtc list[448];  // a transfer holds at most 445 codes
    if (tarn_j1939_dm_parse(r.data, r.size, &dm, list, 448) != TARN_OK) return;
    if (asJson) m_out += ",\"dtcs\":[";
    for (uint32_t i = 0; i < dm.dtc_count; ++i) {
        m_out += asJson ? (i ? ",{\"spn\":" : "{\"spn\":") : "  DTC spn=";
        appendUint(m_out, list[i].spn);
        m_out += asJson ? ",\"fmi\":" : " fmi=";
        appendUint(m_out, list[i].fmi);
        m_out += asJson ? ",\"oc\":" : " oc=";
        appendUint(m_out, list[i].occurrences);
        m_out += asJson ? ",\"cm\":" : " cm=";
        appendUint(m_out, list[i].conversion);
        if (asJson) m_out += '}';
    }
    if (asJson) m_out += ']';
}

void Formatter::text(const Record& r, const MessageText* m) {
    if (std::isfinite(r.frame->time)) {
        appendFixed6(m_out, r.frame->time);
        m_out += ' ';
    }
    m_out += m_tables.channel(r.frame->channel, false);
    m_out += ' ';
    appendHexId(m_out, r.id, r.extended);
    m_out += ' ';
    if (m)
        m_out += m->name;
    else
        m_out += '?';
    if (r.transfer) {
        m_out += " [transfer ";
        appendUint(m_out, r.size);
        m_out += " bytes]";
    }
    for (uint32_t i = 0; m && i < r.decoded->count; ++i) {
        const tarn_value& v = r.values[i];
        const SignalText& s = m->signals[v.signal];
        m_out += s.text;
        if (!s.scale.Append(m_out, v)) appendNumber(m_out, v.physical);
        m_out += s.unitText;
        if (v.text) {
            m_out += " \"";
            m_out += v.text;
            m_out += '"';
        }
    }
    dtcs(r, false);
    m_out += '\n';
}

void Formatter::json(const Record& r, const MessageText* m) {
    m_out += "{\"t\":";
    appendJsonNumber(m_out, r.frame->time);
    m_out += ",\"iface\":";
    m_out += m_tables.channel(r.frame->channel, true);
    m_out += ",\"id\":";
    appendUint(m_out, r.id);
    m_out += r.extended ? ",\"extended\":true,\"name\":" : ",\"extended\":false,\"name\":";
    if (m)
        m_out += m->json;
    else
        m_out += "null";
    if (r.j1939) {
        const uint32_t pgn = tarn_j1939_pgn(r.id);
        m_out += ",\"pgn\":";
        appendUint(m_out, pgn);
        m_out += ",\"sa\":";
        appendUint(m_out, tarn_j1939_source(r.id));
        m_out += ",\"priority\":";
        appendUint(m_out, tarn_j1939_priority(r.id));
        if (((pgn >> 8) & 0xFF) < 240) {
            m_out += ",\"da\":";
            appendUint(m_out, tarn_j1939_destination(r.id));
        }
    }
    if (r.transfer) {
        m_out += ",\"transfer\":true,\"size\":";
        appendUint(m_out, r.size);
        m_out += ",\"data\":\"";
        appendHexBytes(m_out, r.data, r.size, true);
        m_out += '"';
    }
    m_out += ",\"signals\":{";
    for (uint32_t i = 0; m && i < r.decoded->count; ++i) {
        const tarn_value& v = r.values[i];
        const SignalText& s = m->signals[v.signal];
        if (i) m_out += ',';
        m_out += s.json;
        if (!s.scale.Append(m_out, v)) appendJsonNumber(m_out, v.physical);
        m_out += ",\"raw\":";
        appendRaw(m_out, v, s.info);
        m_out += s.jsonUnit;
        if (v.text) {
            m_out += ",\"text\":";
            appendJsonString(m_out, v.text);
        }
        m_out += '}';
    }
    m_out += '}';
    dtcs(r, true);
    m_out += "}\n";
}

void Formatter::csv(const Record& r, const MessageText* m) {
    OutBuf& head = m_head;
    head.clear();
    if (std::isfinite(r.frame->time)) appendFixed6(head, r.frame->time);
    head += ',';
    appendCsvField(head, m_tables.channel(r.frame->channel, false));
    head += ',';
    appendUint(head, r.id);
    head += ',';
    if (m) head += m->csv;
    head += ',';
    for (uint32_t i = 0; m && i < r.decoded->count; ++i) {
        const tarn_value& v = r.values[i];
        const SignalText& s = m->signals[v.signal];
        m_out.append(head.data(), head.size());
        m_out += s.csv;
        m_out += ',';
        if (!s.scale.Append(m_out, v)) appendNumber(m_out, v.physical);
        m_out += ',';
        appendRaw(m_out, v, s.info);
        m_out += ',';
        m_out += s.csvUnit;
        m_out += ',';
        if (v.text) appendCsvField(m_out, v.text);
        m_out += '\n';
    }
}

bool writeOut(OutBuf& out) {
    const char* p = out.data();
    size_t left = out.size();
    bool ok = true;
    while (left > 0) {
        const ssize_t n = ::write(1, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ok = false;  // a closed pipe or a full disk
            break;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    out.clear();
    return ok;
}

}  // namespace tarncli
