// Section parsers for the network's structure: VERSION, BU_, BO_, SG_,
// SIG_VALTYPE_, BO_TX_BU_ and SG_MUL_VAL_.
#include "dbc/reader.h"

namespace tarn::net {

namespace {

// The placeholder DBC editors write where a message has no sender or a
// signal no receiver; it names no node, so it is not listed.
constexpr std::string_view kNoNode = "Vector__XXX";

// Frames never exceed 64 bytes; a longer declared length (a J1939
// multi-packet message) extends the bound.
bool FitsFrame(const Signal& s, uint32_t messageLength) {
    uint64_t limitBits = 8ull * std::max<uint64_t>(messageLength, 64);
    uint64_t first = s.startBit;
    if (s.bigEndian) first = (s.startBit / 8) * 8 + (7 - s.startBit % 8);  // MSB, counted forwards
    return first + s.length <= limitBits;
}

}  // namespace

void Reader::ParseVersion(Cursor& c) {
    QuotedText q;
    if (!c.Quoted(q)) return (void)Fail("expected the version in quotes");
    m_net.version = Text(q);
}

void Reader::ParseNodes(Cursor& c) {
    c.Eat(':');
    while (!c.AtLineEnd()) {
        std::string_view name = c.Word();
        if (name.empty()) return (void)Fail("expected a node name");
        if (NodeByName(name) >= 0) {
            Fail("node " + std::string(name) + " is listed twice");
        } else if (name != kNoNode) {
            uint32_t index = static_cast<uint32_t>(m_net.nodes.size());
            m_net.nodes.push_back(Node{Intern(name), kNoText, {}});
            m_nodeByName.Insert(HashText(m_nodeByName.Seed(), 0, name), index);
        }
        c.Eat(',');
    }
}

void Reader::ParseMessage(Cursor& c) {
    m_openMessage = -1;
    m_skipMessage = true;  // until the line proves good, its signals are lost with it
    uint32_t rawId = 0, length = 0;
    if (!c.Uint(rawId)) return (void)Fail("expected the message id");
    std::string_view name = c.Word();
    if (name.empty()) return (void)Fail("expected the message name");
    if (!c.Eat(':')) return (void)Fail("expected ':' after the message name");
    if (!c.Uint(length)) return (void)Fail("expected the message length");
    std::string_view sender = c.Word();
    if (!c.AtLineEnd()) return (void)Fail("unexpected text after the transmitter");
    int64_t twin = MessageByRawId(rawId);
    if (twin >= 0) {
        return (void)Fail("message id " + std::to_string(rawId) + " is already used by " +
                          std::string(m_net.messages[static_cast<size_t>(twin)].name));
    }
    if (m_net.FindMessage(name))
        return (void)Fail("message name " + std::string(name) + " is already used");
    Message m;
    m.comment = kNoText;
    m.name = m_net.pool.Store(name);
    m.id = rawId & 0x7FFFFFFFu;
    m.extended = (rawId & 0x80000000u) != 0;
    m.length = length;
    m.senders.first = static_cast<uint32_t>(m_net.names.size());
    if (!sender.empty() && sender != kNoNode) {
        m_net.names.push_back(Intern(sender));
        m.senders.count = 1;
    }
    m.signals.first = static_cast<uint32_t>(m_net.signals.size());
    m.line = m_line;
    uint32_t index = static_cast<uint32_t>(m_net.messages.size());
    m_net.messages.push_back(m);
    m_net.IndexMessage(index, true, true);
    m_openMessage = index;
    m_skipMessage = false;
}

void Reader::ParseSignal(Cursor& c) {
    if (m_openMessage < 0) {
        Fail(m_skipMessage ? "signal of a message that was not loaded"
                           : "signal line outside a message");
        return;
    }
    uint32_t message = static_cast<uint32_t>(m_openMessage);
    size_t namesBefore = m_net.names.size(), muxBefore = m_net.muxRanges.size();
    Signal s;
    s.comment = kNoText;
    s.line = m_line;
    if (!ParseSignalBody(c, s) || !CheckSignalFits(s)) {
        m_net.names.resize(namesBefore);
        m_net.muxRanges.resize(muxBefore);
        return;
    }
    Message& msg = m_net.messages[message];
    uint32_t index = static_cast<uint32_t>(m_net.signals.size());
    m_net.signals.push_back(s);
    ++msg.signals.count;
    m_net.IndexSignal(message, index);
    m_muxPending.push_back(s.switchIndex == kSwitchPending);
    if (s.switchIndex == kSwitchPending &&
        (m_muxMessages.empty() || m_muxMessages.back() != message))
        m_muxMessages.push_back(message);
    m_muxExtended.push_back(0);
}

// name [mux] : start|length@order sign (factor,offset) [min|max] "unit" receivers
bool Reader::ParseSignalBody(Cursor& c, Signal& s) {
    std::string_view name = c.Word();
    if (name.empty()) return Fail("expected the signal name");
    if (!c.Eat(':') && !ParseMuxIndicator(c, s)) return false;
    if (SignalIn(static_cast<uint32_t>(m_openMessage), name) >= 0)
        return Fail("signal " + std::string(name) + " appears twice in its message");
    uint32_t start = 0, length = 0;
    if (!c.Uint(start) || !c.Eat('|')) return Fail("expected the start bit and '|'");
    if (!c.Uint(length) || !c.Eat('@')) return Fail("expected the signal length and '@'");
    char order = c.Peek();
    if (order != '0' && order != '1') return Fail("expected byte order 0 or 1 after '@'");
    ++c.p;
    char sign = c.Peek();
    if (sign != '+' && sign != '-') return Fail("expected '+' or '-' after the byte order");
    ++c.p;
    if (!c.Eat('(') || !c.Double(s.factor) || !c.Eat(',') || !c.Double(s.offset) || !c.Eat(')'))
        return Fail("expected (factor,offset)");
    if (!c.Eat('[') || !c.Double(s.minimum) || !c.Eat('|') || !c.Double(s.maximum) || !c.Eat(']'))
        return Fail("expected [minimum|maximum]");
    QuotedText unit;
    if (!c.Quoted(unit)) return Fail("expected the unit in quotes");
    s.startBit = start;
    s.length = length;
    s.bigEndian = order == '0';
    s.isSigned = sign == '-';
    s.name = m_net.pool.Store(name);
    s.unit = Text(unit);
    return ParseReceivers(c, s);
}

// "M" (a switch), "mN" (selected by switch value N) or "mNM" (both), then ':'.
bool Reader::ParseMuxIndicator(Cursor& c, Signal& s) {
    std::string_view word = c.Word();
    if (word.empty() || (word[0] != 'm' && word[0] != 'M'))
        return Fail("expected ':' after the signal name");
    std::string_view w = word;
    if (w.back() == 'M') {
        s.isSwitch = true;
        w.remove_suffix(1);
    }
    uint64_t value = 0;
    if (!w.empty()) {
        auto r = std::from_chars(w.data() + 1, w.data() + w.size(), value);
        if (w[0] != 'm' || w.size() < 2 || r.ec != std::errc() || r.ptr != w.data() + w.size())
            return Fail("unknown multiplexer indicator " + std::string(word));
    }
    if (!c.Eat(':')) return Fail("expected ':' after the multiplexer indicator");
    if (w.empty()) return true;
    s.switchIndex = kSwitchPending;  // tied to its switch once the message is complete
    s.muxValues = Range{static_cast<uint32_t>(m_net.muxRanges.size()), 1};
    m_net.muxRanges.push_back(MuxRange{value, value});
    return true;
}

bool Reader::ParseReceivers(Cursor& c, Signal& s) {
    s.receivers.first = static_cast<uint32_t>(m_net.names.size());
    while (!c.AtLineEnd()) {
        std::string_view name = c.Word();
        if (name.empty()) return Fail("expected a receiver name");
        if (name != kNoNode) m_net.names.push_back(Intern(name));
        c.Eat(',');
    }
    s.receivers.count = static_cast<uint32_t>(m_net.names.size()) - s.receivers.first;
    return true;
}

bool Reader::CheckSignalFits(const Signal& s) {
    if (s.length == 0 || s.length > 64) return Fail("signal length must be 1 to 64 bits");
    if (!FitsFrame(s, m_net.messages[static_cast<size_t>(m_openMessage)].length))
        return Fail("signal lies beyond the largest frame");
    return true;
}

// SIG_VALTYPE_ <id> <signal> : <0|1|2>
void Reader::ParseValueType(Cursor& c) {
    uint32_t message, signal;
    if (!FindSignalOf(c, message, signal)) return;
    c.Eat(':');
    uint64_t type;
    if (!c.Uint(type) || type > 2 || !c.AtEnd())
        return (void)Fail("expected value type 0, 1 (float) or 2 (double)");
    Signal& s = m_net.signals[signal];
    if (type == 1 && s.length != 32) return (void)Fail("a float signal must be 32 bits long");
    if (type == 2 && s.length != 64) return (void)Fail("a double signal must be 64 bits long");
    s.type = static_cast<ValueType>(type);
}

// BO_TX_BU_ <id> : <node>,<node>...
void Reader::ParseTxSenders(Cursor& c) {
    uint32_t message;
    if (!FindMessageOf(c, message)) return;
    c.Eat(':');
    size_t before = m_senders.size();
    while (!c.AtEnd()) {
        std::string_view name = c.Word();
        if (name.empty()) {
            m_senders.resize(before);
            return (void)Fail("expected a node name");
        }
        if (name != kNoNode) m_senders.push_back(PendingSender{message, Intern(name)});
        c.Eat(',');
    }
}

// SG_MUL_VAL_ <id> <signal> <switch> <low>-<high>, ...
void Reader::ParseMuxValues(Cursor& c) {
    uint32_t message, signal;
    if (!FindSignalOf(c, message, signal)) return;
    std::string_view switchName = c.Word();
    int64_t sw = SignalIn(message, switchName);
    if (sw < 0) return (void)Fail("no multiplexer switch " + std::string(switchName));
    if (!m_net.signals[static_cast<size_t>(sw)].isSwitch)
        return (void)Fail(std::string(switchName) + " is not a multiplexer switch");
    if (sw == signal) return (void)Fail("a signal cannot select itself");
    if (m_muxExtended[signal]) return (void)Fail("the signal's switch values were given before");
    size_t before = m_net.muxRanges.size();
    do {
        MuxRange r;
        // "1-2" scans as 1 and -2: the dash belongs to the range.
        if (!c.Uint(r.low) || !c.Eat('-') || !c.Uint(r.high) || r.low > r.high) {
            m_net.muxRanges.resize(before);
            return (void)Fail("expected switch value ranges such as 1-3");
        }
        m_net.muxRanges.push_back(r);
    } while (c.Eat(','));
    if (!c.AtEnd()) {
        m_net.muxRanges.resize(before);
        return (void)Fail("expected ',' or ';' after a range");
    }
    Signal& s = m_net.signals[signal];
    const Message& msg = m_net.messages[message];
    s.switchIndex = static_cast<int32_t>(static_cast<uint32_t>(sw) - msg.signals.first);
    s.muxValues = Range{static_cast<uint32_t>(before),
                        static_cast<uint32_t>(m_net.muxRanges.size() - before)};
    m_muxExtended[signal] = 1;
    m_muxPending[signal] = 0;
}

}  // namespace tarn::net
