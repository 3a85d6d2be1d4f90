// Frame decoding into public records, encoding of public records into
// frames, and selection of the signals a multiplexer switch value keeps.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "legacy/analyser.h"
#include "common/command_info.h"
#include "common/func.h"

namespace {

constexpr uint32_t kExtendedBit = 0x80000000u;
constexpr uint32_t kFrameIdBits = 0x1FFFFFFFu;

constexpr uint32_t kSlots = TARN_MAX_SIGNALS;

using SignalIter = std::map<const char*, Signal>::const_iterator;

uint32_t SlotCount(const DBCMessage& msg) {
    return msg.signalCount < kSlots ? msg.signalCount : kSlots;
}

// Slot names are bounded copies that may lack a terminator; a name that did
// not fit can never equal the full key, whose length the caller checked.
bool SlotNameIs(const DBCSignal& slot, const char* key, size_t len) {
    return slot.name[0] == key[0] && memcmp(slot.name, key, len + 1) == 0;
}

// Low 16 bits of the switch's physical value truncated toward zero; values
// no 64-bit integer holds give 0.
uint16_t SwitchValueOf(const DBCSignal& sw) {
    uint64_t raw = sw.rawValue;
    double physical = CalcActualValue(&sw, &raw);
    if (!(std::fabs(physical) < 9223372036854775808.0)) return 0;
    return static_cast<uint16_t>(static_cast<int64_t>(physical));
}

bool FindSwitch(const DBCMessage& msg, uint16_t& value) {
    uint32_t count = SlotCount(msg);
    for (uint32_t i = 0; i < count; ++i) {
        if (msg.signals[i].multiplexerType != TARN_MUX_SWITCH) continue;
        value = SwitchValueOf(msg.signals[i]);
        return true;
    }
    return false;
}

bool IsSelected(const DBCSignal& sig, uint32_t switchValue) {
    return sig.multiplexerType != TARN_MUX_MULTIPLEXED || sig.multiplexerValue == switchValue;
}

// Reads the decimal texts the coder writes ("%lu", "%lf") without strtod: an
// integer of at most 15 digits divided by a power of ten up to 10^6 is exactly
// what strtod returns, both results being correctly rounded. Anything else
// goes to strtod.
double ReadNumber(const char* text) {
    static const double kPow10[] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6};
    const char* p = text + (*text == '-');
    uint64_t n = 0;
    int digits = 0, decimals = -1;
    for (; digits <= 15; ++p) {
        if (*p >= '0' && *p <= '9') {
            n = n * 10 + static_cast<uint64_t>(*p - '0');
            ++digits;
            decimals += decimals >= 0;
        } else if (*p == '.' && decimals < 0) {
            decimals = 0;
        } else {
            break;
        }
    }
    if (*p != '\0' || digits == 0 || digits > 15 || decimals > 6) return strtod(text, nullptr);
    double v = static_cast<double>(n) / kPow10[decimals < 0 ? 0 : decimals];
    return *text == '-' ? -v : v;
}

bool HasValueTables(const Message& msg) {
    for (const auto& entry : msg.signals)
        if (!entry.second.valueDescs.empty()) return true;
    return false;
}

// Walks the decoded pairs of one message and writes the value-table text of
// each decoded value into the slot of that signal.
struct DescWriter {
    const Message* msg;
    DBCMessage* out;
    SignalIter next;

    // The coder appends one pair per signal in signal-map order, so pairs
    // are matched to signals by position; only signals with a table are
    // checked by name, and a mismatch falls back to a search.
    const Signal* Find(const char* key) {
        SignalIter end = msg->signals.end();
        if (next != end && next->second.valueDescs.empty()) {
            ++next;
            return nullptr;
        }
        if (next != end && next->second.name && !strcmp(next->second.name, key))
            return &(next++)->second;
        for (SignalIter it = msg->signals.begin(); it != end; ++it) {
            if (it->second.name && !strcmp(it->second.name, key)) {
                next = std::next(it);
                return &it->second;
            }
        }
        return nullptr;
    }

    void Apply(const char* key, const char* value) {
        const Signal* sig = Find(key);
        if (!sig || sig->valueDescs.empty()) return;
        double v = ReadNumber(value);
        const ValPair* match = nullptr;
        for (const ValPair& pair : sig->valueDescs) {
            if (pair.value == v) {
                match = &pair;
                break;
            }
        }
        size_t len = strlen(key);
        if (!match || len >= TARN_NAME_LEN) return;
        for (uint32_t i = 0, n = SlotCount(*out); i < n; ++i) {
            DBCSignal& slot = out->signals[i];
            // Position first: cheap, and nearly always unique.
            if (slot.startBit != sig->startBit || slot.length != sig->length) continue;
            if (SlotNameIs(slot, key, len))
                strcpy2_s(slot.valueDescription, TARN_VALDESC_LEN - 1, match->desc.c_str());
        }
    }

    static void Visit(void* ctx, uint64_t, const char* key, const char* value) {
        static_cast<DescWriter*>(ctx)->Apply(key, value);
    }
};

// One decode record per thread; the coder resets it on every decode, so a
// decode allocates nothing once the record has grown to its largest message.
kq::CommandInfo& DecodeRecord() {
    struct Holder {
        kq::CommandInfo* cmd = kq::CommandInfo::Create();
        ~Holder() { cmd->Release(); }
    };
    thread_local Holder holder;
    return *holder.cmd;
}

void AppendSelected(kq::CommandInfo& cmd, const DBCMessage& msg) {
    uint16_t switchValue = 0;
    bool hasSwitch = FindSwitch(msg, switchValue);
    uint32_t count = SlotCount(msg);
    char key[TARN_NAME_LEN + 1];
    for (uint32_t i = 0; i < count; ++i) {
        const DBCSignal& sig = msg.signals[i];
        if (hasSwitch && !IsSelected(sig, switchValue)) continue;
        memcpy(key, sig.name, TARN_NAME_LEN);
        key[TARN_NAME_LEN] = '\0';
        cmd.AppendU64(key, sig.rawValue);
    }
}

}  // namespace

bool CAnalyser::Decode(DBCMessage* out, const VCI_CAN_OBJ* frames, size_t count, bool flag) {
    if (!out || !frames || count == 0) return false;
    try {
        kq::CommandInfo* cmd = &DecodeRecord();
        thread_local std::vector<VCI_CAN_OBJ> copies;
        copies.assign(frames, frames + count);
        // One message's frames share one identifier kind: the first decides.
        if (frames[0].externFlag)
            for (VCI_CAN_OBJ& f : copies) f.id |= kExtendedBit;
        if (!m_coder.Decode(cmd, copies, flag)) return false;
        const Message* msg = m_coder.FindMsg(copies[0].id, false);
        if (!msg) return false;
        TranslateMsg(*msg, *out);
        out->id = frames[0].id & kFrameIdBits;
        SelectMutiplexer(out);
        if (HasValueTables(*msg)) {
            DescWriter writer{msg, out, msg->signals.begin()};
            cmd->ForEach(&DescWriter::Visit, &writer);
        }
        return true;
    } catch (...) {
        LogFailure("Decode", frames[0].id);
        return false;
    }
}

bool CAnalyser::Encode(std::vector<VCI_CAN_OBJ>& out, const DBCMessage* msg) {
    if (!msg) return false;
    try {
        std::string name(msg->name, strnlen(msg->name, TARN_NAME_LEN));
        if (!m_db.FindMsg2(name)) return false;
        kq::CommandInfo* cmd = kq::CommandInfo::Create();
        kq::AutoUnref<kq::CommandInfo> guard(true, cmd);
        cmd->SetName(name.c_str());
        // Signals the switch does not select are left out, as on the bus.
        AppendSelected(*cmd, *msg);
        out = m_coder.Encode(cmd);
        return !out.empty();
    } catch (...) {
        return false;
    }
}

bool CAnalyser::FindMutiplexerM(DBCMessage* msg, uint16_t& value) {
    return msg && FindSwitch(*msg, value);
}

void CAnalyser::SelectMutiplexer(DBCMessage* msg) {
    uint16_t switchValue = 0;
    if (!FindMutiplexerM(msg, switchValue)) return;
    uint32_t count = SlotCount(*msg);
    uint32_t kept = 0;
    for (uint32_t i = 0; i < count; ++i) {
        if (!IsSelected(msg->signals[i], switchValue)) continue;
        if (kept != i) msg->signals[kept] = msg->signals[i];
        ++kept;
    }
    msg->signalCount = kept;
}
