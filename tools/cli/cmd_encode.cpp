// tarn encode: one message from signal values to candump log lines.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "commands.h"
#include "database.h"
#include "format.h"

namespace tarncli {
namespace {

constexpr uint32_t kMaxFrames = 256;  // a J1939 transfer has at most 255 packets
const char kTime[] = "0.000000";

DBCSignal* findSignal(DBCMessage& m, const std::string& name) {
    for (uint32_t i = 0; i < m.signalCount && i < TARN_MAX_SIGNALS; ++i)
        if (fixedText(m.signals[i].name) == name) return &m.signals[i];
    return nullptr;
}

bool parseInteger(const std::string& text, uint64_t& out) {
    bool negative = !text.empty() && text[0] == '-';
    const char* digits = text.c_str() + (negative ? 1 : 0);
    if (*digits == '\0' || *digits == '-' || *digits == '+') return false;
    char* end = nullptr;
    errno = 0;
    unsigned long long v = std::strtoull(digits, &end, 0);
    if (errno != 0 || *end != '\0') return false;
    out = negative ? ~static_cast<uint64_t>(v) + 1 : v;
    return true;
}

bool parseDouble(const std::string& text, double& out) {
    char* end = nullptr;
    out = std::strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0';
}

uint64_t lengthMask(const DBCSignal& s) {
    return s.length >= 64 ? ~0ull : (1ull << s.length) - 1;
}

// Raw text: an integer (decimal or 0x hex; negative means two's complement),
// or for float signals a number whose bit pattern is sent.
bool rawFromText(const DBCSignal& s, const std::string& text, uint64_t& raw, std::string& error) {
    double d;
    if (parseInteger(text, raw)) {
        bool negative = text[0] == '-';
        uint64_t masked = raw & lengthMask(s);
        if (!negative && masked != raw) {
            error = "raw value " + text + " does not fit in " + std::to_string(s.length) + " bits";
            return false;
        }
        raw = masked;
        return true;
    }
    if (s.valueType != TARN_VALUE_INTEGER && parseDouble(text, d)) {
        if (s.valueType == TARN_VALUE_FLOAT) {
            float f = static_cast<float>(d);
            uint32_t bits;
            std::memcpy(&bits, &f, sizeof bits);
            raw = bits;
        } else {
            std::memcpy(&raw, &d, sizeof raw);
        }
        return true;
    }
    error = "'" + text + "' is not a raw integer (--physical takes physical values)";
    return false;
}

bool physicalFromText(const DBCSignal& s, const std::string& text, uint64_t& raw,
                      std::string& error) {
    double wanted;
    if (!parseDouble(text, wanted)) {
        error = "'" + text + "' is not a number";
        return false;
    }
    double actual = wanted;
    raw = TARN_CalcRawValue(&s, &actual);
    double step = std::fabs(s.factor) > 0 ? std::fabs(s.factor) : 1.0;
    if (s.valueType == TARN_VALUE_INTEGER && !(std::fabs(actual - wanted) <= step))
        std::fprintf(stderr, "tarn encode: warning: %s=%s is out of range, sending %.15g\n",
                     fixedText(s.name).c_str(), text.c_str(), actual);
    return true;
}

bool assign(DBCMessage& m, const std::string& word, bool physical, std::string& error) {
    size_t eq = word.find('=');
    if (eq == std::string::npos || eq == 0) {
        error = "expected SIGNAL=VALUE, got '" + word + "'";
        return false;
    }
    std::string name = word.substr(0, eq);
    DBCSignal* s = findSignal(m, name);
    if (!s) {
        error = "message " + fixedText(m.name) + " has no signal '" + name + "'";
        return false;
    }
    std::string text = word.substr(eq + 1);
    uint64_t raw = 0;
    bool ok = physical ? physicalFromText(*s, text, raw, error) : rawFromText(*s, text, raw, error);
    if (!ok) error = name + ": " + error;
    s->rawValue = raw;
    return ok;
}

// Multiplexed signals that the switch value does not select are not sent.
void warnInactive(const DBCMessage& m, const std::vector<std::string>& assigned) {
    const DBCSignal* sw = nullptr;
    for (uint32_t i = 0; i < m.signalCount && !sw; ++i)
        if (m.signals[i].multiplexerType == TARN_MUX_SWITCH) sw = &m.signals[i];
    if (!sw) return;
    uint64_t raw = sw->rawValue;
    uint32_t value =
        static_cast<uint32_t>(static_cast<int64_t>(TARN_CalcActualValue(sw, &raw))) & 0xFFFF;
    for (const std::string& name : assigned) {
        for (uint32_t i = 0; i < m.signalCount; ++i) {
            const DBCSignal& s = m.signals[i];
            if (fixedText(s.name) != name || s.multiplexerType != TARN_MUX_MULTIPLEXED) continue;
            if (s.multiplexerValue != value)
                std::fprintf(stderr,
                             "tarn encode: warning: %s is not sent: it needs %s=%u, not %u\n",
                             name.c_str(), fixedText(sw->name).c_str(), s.multiplexerValue, value);
        }
    }
}

// A long J1939 message goes out as a broadcast transfer: TP.CM BAM, then TP.DT.
void printBam(const DBCMessage& m, const TarnCanFrame* frames, uint32_t n, const Options& o) {
    uint32_t sa = m.id & 0xFF;
    uint32_t pf = (m.id >> 16) & 0xFF;
    uint32_t pgn = (m.id & (pf < 240 ? 0x3FF0000u : 0x3FFFF00u)) >> 8;
    uint8_t cm[8] = {0x20,
                     static_cast<uint8_t>(m.size),
                     static_cast<uint8_t>(m.size >> 8),
                     static_cast<uint8_t>(n),
                     0xFF,
                     static_cast<uint8_t>(pgn),
                     static_cast<uint8_t>(pgn >> 8),
                     static_cast<uint8_t>(pgn >> 16)};
    std::string out = formatLogLine(kTime, o.interface, 0x1CECFF00u | sa, true, cm, 8, false);
    for (uint32_t k = 0; k < n; ++k)
        out += formatLogLine(kTime, o.interface, 0x1CEBFF00u | sa, true, frames[k].data, 8, false);
    std::fputs(out.c_str(), stdout);
}

// Elsewhere a long message is one CAN FD frame, rebuilt from the packets.
bool printFd(const DBCMessage& m, const TarnCanFrame* frames, uint32_t n, const Options& o) {
    if (m.size > 64) {
        std::fprintf(stderr, "tarn encode: %u bytes do not fit in one CAN FD frame\n", m.size);
        return false;
    }
    uint8_t data[64] = {};
    for (uint32_t k = 0; k < n && k * 7 < m.size; ++k)
        std::memcpy(data + k * 7, frames[k].data + 1, std::min<uint32_t>(7, m.size - k * 7));
    std::fputs(formatLogLine(kTime, o.interface, m.id, m.extended, data, m.size, true).c_str(),
               stdout);
    return true;
}

bool printFrames(const Database& db, const DBCMessage& m, const TarnCanFrame* frames, uint32_t n,
                 const Options& o) {
    if (m.size > 8 && m.extended && db.isJ1939()) {
        printBam(m, frames, n, o);
        return true;
    }
    if (m.size > 8) return printFd(m, frames, n, o);
    const TarnCanFrame& f = frames[0];
    bool ext = (f.can_id & TARN_CAN_EFF_FLAG) != 0;
    std::fputs(formatLogLine(kTime, o.interface, f.can_id & TARN_CAN_EFF_MASK, ext, f.data,
                             std::min<uint8_t>(f.len, 8), false)
                   .c_str(),
               stdout);
    return true;
}

}  // namespace

int runEncode(const Options& opts) {
    if (opts.operands.size() < 2) {
        std::fprintf(stderr,
                     "tarn encode: expected a DBC file, a message and SIGNAL=VALUE pairs\n");
        return kExitUsage;
    }
    std::string error;
    std::unique_ptr<Database> db = Database::open(opts.operands[0], error);
    if (!db) {
        std::fprintf(stderr, "tarn encode: %s\n", error.c_str());
        return kExitFailure;
    }
    MessagePtr msg = newMessage();
    if (!db->findByName(opts.operands[1], *msg)) {
        std::fprintf(stderr, "tarn encode: no message named '%s' in %s\n", opts.operands[1].c_str(),
                     opts.operands[0].c_str());
        return kExitFailure;
    }
    for (uint32_t i = 0; i < msg->signalCount && i < TARN_MAX_SIGNALS; ++i)
        msg->signals[i].rawValue = 0;  // unnamed signals are sent as 0
    std::vector<std::string> assigned;
    for (size_t i = 2; i < opts.operands.size(); ++i) {
        if (!assign(*msg, opts.operands[i], opts.physical, error)) {
            std::fprintf(stderr, "tarn encode: %s\n", error.c_str());
            return kExitFailure;
        }
        assigned.push_back(opts.operands[i].substr(0, opts.operands[i].find('=')));
    }
    warnInactive(*msg, assigned);
    std::vector<TarnCanFrame> frames(kMaxFrames);
    uint32_t count = kMaxFrames;
    if (!TARN_Encode(db->handle(), frames.data(), &count, msg.get()) || count == 0) {
        std::fprintf(stderr, "tarn encode: the library produced no frame for %s\n",
                     opts.operands[1].c_str());
        return kExitFailure;
    }
    if (!printFrames(*db, *msg, frames.data(), count, opts)) return kExitFailure;
    return std::fflush(stdout) == 0 ? kExitOk : kExitFailure;
}

}  // namespace tarncli
