// Parsers of the structural sections: BO_ with its SG_ lines, BU_ and
// SIG_VALTYPE_.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>

#include "common/log.h"
#include "common/str_utils.h"
#include "dbc/dbc_impl.h"

bool DBCImpl::ParseBO() {
    try {
        std::string idWord = ReadIdentifier();
        m_atoms.intern(idWord);
        const char* name = ReadIdentifierAtom();
        if (m_char != '\0') {
            Step();
            m_start = m_cursor;
        }
        std::string dlcWord = ReadIdentifier();
        m_atoms.intern(dlcWord);
        const char* transmitter = ReadIdentifierAtom();
        uint64_t id = std::strtoul(idWord.c_str(), nullptr, 0);
        // Bits 29 and 30 are never part of a frame identifier: skip the message.
        if (id & 0x60000000u) return true;

        std::unique_ptr<Message> msg(new Message);
        msg->id = id;
        msg->name = name;
        msg->dlc = std::strtoul(dlcWord.c_str(), nullptr, 0);
        msg->transmitter = transmitter;
        IgnoreLine();
        ParseSG(msg.get());
        if (!m_messages.emplace(id, msg.get()).second) {
            LogLine("BO_ id not unique : ", idWord.c_str());
            return false;
        }
        Message* kept = msg.release();  // owned by m_messages from here on
        m_msgById.emplace(id, kept);
        if (m_ordered) m_msgList.push_back(kept);
        return true;
    } catch (...) {
        LogLine("DBCImpl::ParseBO()");
        return false;
    }
}

bool DBCImpl::ParseSG(Message* msg) {
    MuxState mux;
    mux.sw = GetMultiplexerSwitchSignal(msg);
    for (;;) {
        if (!IsBlank(m_char) && std::strncmp(m_cursor, "SG_", 3) != 0) return true;
        SetRollback();
        const char* begin;
        size_t len;
        ScanWord(begin, len);
        bool isSG =
            (len == 3 && std::memcmp(begin, "SG_", 3) == 0) || InternUpper(begin, len) == m_kwSG;
        if (!isSG) {
            Rollback();
            return false;
        }
        DropRollback();
        if (!ParseSignalLine(msg, mux)) return false;
    }
}

// Adds the "m<value>" description to an already defined switch signal. The
// set mirrors the switch's values; it is rebuilt whenever the switch changed
// or its descriptions were replaced by a repeated definition.
void DBCImpl::AddMuxValueDesc(MuxState& mux, uint32_t value) {
    Signal* sw = mux.sw;
    if (!sw) return;
    if (mux.seenFor != sw || mux.seenCount != sw->valueDescs.size()) {
        mux.seen.clear();
        for (const ValPair& pair : sw->valueDescs) mux.seen.insert(pair.value);
        mux.seenFor = sw;
        mux.seenCount = sw->valueDescs.size();
    }
    if (!mux.seen.insert(static_cast<double>(value)).second) return;
    ValPair pair;
    pair.value = value;
    pair.desc = kq::StrUtils::FormatString("m%d", static_cast<int>(value));
    sw->valueDescs.push_back(std::move(pair));
    ++mux.seenCount;
}

// Keeps mux.sw equal to what GetMultiplexerSwitchSignal would return.
void DBCImpl::TrackSwitch(Message* msg, MuxState& mux, Signal& stored) {
    if (stored.multiplexer == "M") {
        if (!mux.sw || std::less<const char*>()(stored.name, mux.sw->name)) mux.sw = &stored;
    } else if (mux.sw == &stored) {
        mux.sw = GetMultiplexerSwitchSignal(msg);  // the switch was redefined as plain
    }
}

// Cursor on ':'. Collects the text up to the first ']' without blanks.
bool DBCImpl::ReadSignalDef(SignalDef& def) {
    const char* from = m_cursor + 1;
    const char* p = from;
    uint32_t lines = 0;
    for (char c = *p; c != ']' && c != '\0'; c = *++p) lines += c == '\n';
    m_line += lines;
    m_cursor = p;
    m_char = *p;
    if (m_char == '\0') return false;  // no closing bracket before the end
    // Ordinary definitions fit the stack buffer; longer ones use m_defBuf.
    char local[256];
    size_t span = static_cast<size_t>(p - from) + 2;
    char* out = local;
    if (span > sizeof(local)) {
        m_defBuf.resize(span);
        out = &m_defBuf[0];
    }
    char* w = out;
    for (const char* q = from; q != p; ++q) {
        if (*q != ' ' && *q != '\t') *w++ = *q;
    }
    *w++ = ']';
    *w = '\0';
    Step();
    return ParseSignalDef(out, def) == 8;
}

Signal& DBCImpl::StoreSignal(Message* msg, Signal& sig) {
    auto res = msg->signals.try_emplace(sig.name);
    Signal& slot = res.first->second;
    if (res.second) {
        sig.index = static_cast<uint32_t>(msg->signals.size() - 1);
    } else {
        LogLine("SG_ name not unique ", sig.name ? sig.name : "");
        sig.index = slot.index;
    }
    slot = std::move(sig);
    return slot;
}

bool DBCImpl::ParseSignalLine(Message* msg, MuxState& mux) {
    Signal sig;
    sig.name = ReadIdentifierAtom();
    const char* begin;
    size_t len;
    ScanWord(begin, len);
    sig.multiplexer.assign(begin, len);
    if (len > 0 && begin[0] == 'm') {
        sig.multiplexerValue =
            static_cast<uint32_t>(std::strtoul(sig.multiplexer.c_str() + 1, nullptr, 10));
        AddMuxValueDesc(mux, sig.multiplexerValue);
    }
    IgnoreWhiteSpace();
    if (m_char != ':') {
        LogLine("m_char==':'", "", false);
        return false;
    }
    SignalDef def;
    if (!ReadSignalDef(def)) {
        LogLine("n==8", "", false);
        return false;
    }
    sig.startBit = def.startBit;
    sig.length = def.length;
    sig.factor = def.factor;
    sig.offset = def.offset;
    sig.minimum = def.minimum;
    sig.maximum = def.maximum;
    sig.bigEndian = def.byteOrder == 0;
    sig.isSigned = def.sign == '-';
    sig.unit = m_atoms.intern(ReadString());
    if (m_warnSigned && sig.isSigned && sig.length != 0) {
        KQ_LOG(kq::LOG_ERROR, "%s\n", "signed signal... \n");
        m_warnSigned = false;
    }
    if (m_ordered) msg->signalList.push_back(sig);
    sig.rawZero = TruncateToU64(sig.factor == 0 ? -sig.offset : (0 - sig.offset) / sig.factor);
    TrackSwitch(msg, mux, StoreSignal(msg, sig));
    while (IgnoreLine() && m_char == '\r') {
    }
    return true;
}

bool DBCImpl::ParseBU() {
    IgnoreWhiteSpace();
    if (m_char != ':') {
        LogLine("loss ':' behind BU ");
        return false;
    }
    Step();
    for (;;) {
        IgnoreWhiteSpace();
        if (!IsIdentChar(m_char)) {
            IgnoreLine();
            return true;
        }
        const char* name = ReadIdentifierAtom();
        if (m_nodes.count(name)) {
            LogLine("BU_ name not unique ", name ? name : "");
            continue;
        }
        std::unique_ptr<NetworkNode> node(new NetworkNode);
        node->name = name;
        m_nodes.emplace(name, node.get());
        node.release();
    }
}

bool DBCImpl::ParseSigValType() {
    try {
        std::string idWord = ReadIdentifier();
        const char* name = ReadIdentifierAtom();
        IgnoreWhiteSpace();
        if (m_char != '\0') {
            Step();
            m_start = m_cursor;
        }
        std::string typeWord = ReadIdentifier();
        Signal* sig = FindSignal(std::strtoul(idWord.c_str(), nullptr, 10), name);
        if (!sig) return false;
        sig->valueType = static_cast<uint8_t>(std::strtol(typeWord.c_str(), nullptr, 10));
        return true;
    } catch (...) {
        LogLine("DBCImpl::ParseSigValType()");
        return false;
    }
}
