// Parsers of the structural sections: BO_ with its SG_ lines, BU_ and
// SIG_VALTYPE_.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/log.h"
#include "common/str_utils.h"
#include "dbc_impl.h"

namespace {

constexpr double kPow10[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                             1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

// Plain decimal digits only; anything sscanf would treat specially (signs,
// blanks, more than 19 digits) is left to sscanf itself.
bool FastUnsigned(const char*& p, uint64_t& v) {
    const char* s = p;
    uint64_t x = 0;
    while (IsDigit(*p)) {
        if (p - s >= 19) return false;
        x = x * 10 + static_cast<uint64_t>(*p - '0');
        ++p;
    }
    v = x;
    return p != s;
}

// A decimal number [+-]digits[.digits][e[+-]digits]. Exact when the digits
// and the power of ten are both representable (one correctly rounded
// operation); strtod decides the rest.
bool FastDouble(const char*& p, double& v) {
    const char* s = p;
    bool neg = false;
    if (*p == '+' || *p == '-') neg = *p++ == '-';
    uint64_t mant = 0;
    int digits = 0, exp10 = 0, seen = 0;
    bool exact = true;
    for (; IsDigit(*p); ++p, ++seen) {
        if (mant == 0 && *p == '0') continue;
        if (++digits > 19) exact = false;
        if (exact) mant = mant * 10 + static_cast<uint64_t>(*p - '0');
    }
    if (*p == '.') {
        for (++p; IsDigit(*p); ++p, ++seen) {
            if (mant == 0 && *p == '0') {
                --exp10;
                continue;
            }
            if (++digits > 19) exact = false;
            if (exact) {
                mant = mant * 10 + static_cast<uint64_t>(*p - '0');
                --exp10;
            }
        }
    }
    if (seen == 0) return false;
    if (*p == 'e' || *p == 'E') {
        const char* e = p + 1;
        bool eneg = false;
        if (*e == '+' || *e == '-') eneg = *e++ == '-';
        if (!IsDigit(*e)) return false;
        int ev = 0;
        for (; IsDigit(*e); ++e) {
            if (ev < 100000) ev = ev * 10 + (*e - '0');
        }
        exp10 += eneg ? -ev : ev;
        p = e;
    }
    if (exact && mant <= (uint64_t{1} << 53) && exp10 >= -22 && exp10 <= 22) {
        double m = static_cast<double>(mant);
        v = exp10 < 0 ? m / kPow10[-exp10] : m * kPow10[exp10];
        if (neg) v = -v;
        return true;
    }
    char* end = nullptr;
    v = std::strtod(s, &end);
    return end == p;
}

bool Expect(const char*& p, char c) {
    return *p++ == c;
}

bool FastSignalDef(const char* p, SignalDef& d) {
    uint64_t start, len, order;
    if (!FastUnsigned(p, start) || !Expect(p, '|')) return false;
    if (!FastUnsigned(p, len) || !Expect(p, '@')) return false;
    if (!FastUnsigned(p, order) || *p == '\0') return false;
    d.startBit = static_cast<unsigned>(start);
    d.length = static_cast<unsigned>(len);
    d.byteOrder = static_cast<int>(static_cast<int64_t>(order));
    d.sign = *p++;
    return Expect(p, '(') && FastDouble(p, d.factor) && Expect(p, ',') && FastDouble(p, d.offset) &&
           Expect(p, ')') && Expect(p, '[') && FastDouble(p, d.minimum) && Expect(p, '|') &&
           FastDouble(p, d.maximum) && Expect(p, ']');
}

}  // namespace

int ParseSignalDef(const char* text, SignalDef& out) {
    SignalDef fast;
    if (FastSignalDef(text, fast)) {
        out = fast;
        return 8;
    }
    int n = std::sscanf(text, "%u|%u@%d%c(%lf,%lf)[%lf|%lf]", &out.startBit, &out.length,
                        &out.byteOrder, &out.sign, &out.factor, &out.offset, &out.minimum,
                        &out.maximum);
    return n < 0 ? 0 : n;
}

uint64_t TruncateToU64(double v) {
    if (std::isnan(v)) return 0;
    if (v >= 18446744073709551616.0) return UINT64_MAX;
    if (v >= 9223372036854775808.0) return static_cast<uint64_t>(v);
    if (v < -9223372036854775808.0) return uint64_t{1} << 63;
    return static_cast<uint64_t>(static_cast<int64_t>(v));
}

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
        Message* kept = msg.release();
        if (m_ordered) m_msgList.push_back(kept);
        return true;
    } catch (...) {
        LogLine("DBCImpl::ParseBO()");
        return false;
    }
}

bool DBCImpl::ParseSG(Message* msg) {
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
        if (!ParseSignalLine(msg)) return false;
    }
}

// Adds the "m<value>" description to an already defined switch signal.
void DBCImpl::AddMuxValueDesc(Message* msg, uint32_t value) {
    Signal* sw = GetMultiplexerSwitchSignal(msg);
    if (!sw || FindValDescPair(sw->valueDescs, value)) return;
    ValPair pair;
    pair.value = value;
    pair.desc = kq::StrUtils::FormatString("m%d", static_cast<int>(value));
    sw->valueDescs.push_back(std::move(pair));
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

void DBCImpl::StoreSignal(Message* msg, Signal& sig) {
    auto res = msg->signals.try_emplace(sig.name);
    Signal& slot = res.first->second;
    if (res.second) {
        sig.index = static_cast<uint32_t>(msg->signals.size() - 1);
    } else {
        LogLine("SG_ name not unique ", sig.name ? sig.name : "");
        sig.index = slot.index;
    }
    slot = std::move(sig);
}

bool DBCImpl::ParseSignalLine(Message* msg) {
    Signal sig;
    sig.name = ReadIdentifierAtom();
    const char* begin;
    size_t len;
    ScanWord(begin, len);
    sig.multiplexer.assign(begin, len);
    if (len > 0 && begin[0] == 'm') {
        sig.multiplexerValue =
            static_cast<uint32_t>(std::strtoul(sig.multiplexer.c_str() + 1, nullptr, 10));
        AddMuxValueDesc(msg, sig.multiplexerValue);
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
    StoreSignal(msg, sig);
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
