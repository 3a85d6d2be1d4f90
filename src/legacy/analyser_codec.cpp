// Frame decoding into public records, encoding of public records into
// frames, and selection of the signals a multiplexer switch value keeps.
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <string>

#include "common/command_info.h"
#include "legacy/analyser.h"
#include "legacy/record_plan.h"

namespace {

constexpr uint32_t kExtendedBit = 0x80000000u;
constexpr uint32_t kSlots = TARN_MAX_SIGNALS;

uint32_t SlotCount(const DBCMessage& msg) {
    return msg.signalCount < kSlots ? msg.signalCount : kSlots;
}

bool FindSwitch(const DBCMessage& msg, uint16_t& value) {
    uint32_t count = SlotCount(msg);
    for (uint32_t i = 0; i < count; ++i) {
        if (msg.signals[i].multiplexerType != TARN_MUX_SWITCH) continue;
        value = SwitchValueOf(msg.signals[i], msg.signals[i].rawValue);
        return true;
    }
    return false;
}

// Room for the raw values of one decode: on the stack for up to 256
// signals, else in a per-thread buffer that only grows.
class RawValues {
  public:
    explicit RawValues(size_t count) {
        if (count <= kLocal) return;
        thread_local std::vector<uint64_t> spill;
        if (spill.size() < count) spill.resize(count);
        m_data = spill.data();
    }
    uint64_t* data() { return m_data; }

  private:
    static constexpr size_t kLocal = 256;
    uint64_t m_local[kLocal];
    uint64_t* m_data = m_local;
};

// The raw values a message's signals hold in the model, in signal-map order.
std::vector<uint64_t> HeldRaws(const Message& msg) {
    std::vector<uint64_t> raws;
    raws.reserve(msg.signals.size());
    for (const auto& entry : msg.signals)
        raws.push_back(__atomic_load_n(&entry.second.rawZero, __ATOMIC_RELAXED));
    return raws;
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

uint16_t SwitchValueOf(const DBCSignal& sw, uint64_t raw) {
    double physical = CalcActualValue(&sw, &raw);
    // Values no 64-bit integer holds give 0.
    if (!(std::fabs(physical) < 9223372036854775808.0)) return 0;
    return static_cast<uint16_t>(static_cast<int64_t>(physical));
}

bool IsSelected(const DBCSignal& sig, uint32_t switchValue) {
    return sig.multiplexerType != TARN_MUX_MULTIPLEXED || sig.multiplexerValue == switchValue;
}

void CAnalyser::ResetPlans() {
    std::lock_guard<std::mutex> lock(m_planMutex);
    m_planStore.clear();
    m_planCount = m_coder.MessageCount();
    m_plans.reset(new std::atomic<const MessagePlans*>[m_planCount]);
    for (size_t i = 0; i < m_planCount; ++i) m_plans[i].store(nullptr, std::memory_order_relaxed);
}

const MessagePlans& CAnalyser::PlansFor(const IndexedMessage& msg) {
    if (msg.ordinal >= m_planCount) throw std::out_of_range("coder rebuilt behind the analyser");
    std::atomic<const MessagePlans*>& slot = m_plans[msg.ordinal];
    if (const MessagePlans* built = slot.load(std::memory_order_acquire)) return *built;
    std::lock_guard<std::mutex> lock(m_planMutex);
    if (const MessagePlans* built = slot.load(std::memory_order_relaxed)) return *built;
    m_planStore.push_back(std::make_unique<MessagePlans>(*msg.msg));
    slot.store(m_planStore.back().get(), std::memory_order_release);
    return *m_planStore.back();
}

bool CAnalyser::Decode(DBCMessage* out, const VCI_CAN_OBJ* frames, size_t count, bool flag) {
    if (!out || !frames || count == 0) return false;
    try {
        // One message's frames share one identifier kind: the first decides.
        const uint32_t idBits = frames[0].externFlag ? kExtendedBit : 0u;
        const uint32_t id = frames[0].id | idBits;
        const IndexedMessage* decoded = m_coder.Find(id, flag);
        if (!decoded) return false;
        const MessagePlans& plans = PlansFor(*decoded);
        RawValues raws(plans.decode.readers.size());
        if (!m_coder.DecodeRaw(plans.decode, frames, count, idBits, raws.data())) return false;
        // The record shows the message a group lookup finds: under J1939 an
        // identifier lookup may have decoded another message of the group.
        const IndexedMessage* shown = flag ? m_coder.Find(id, false) : decoded;
        if (!shown) return false;
        const bool same = shown->msg == decoded->msg;
        const RecordPlan& plan = same ? plans.record : PlansFor(*shown).record;
        const std::vector<uint64_t> held = same ? std::vector<uint64_t>() : HeldRaws(*shown->msg);
        const bool lookups = same && plan.Direct();
        plan.Write(same ? raws.data() : held.data(), frames[0].id, lookups, *out);
        if (!lookups) WalkValueTables(*decoded->msg, raws.data(), *shown->msg, *out);
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
