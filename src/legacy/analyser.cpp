// Translation of model messages into public records, message lookup by
// identifier or PGN, network nodes and value tables.
#include "legacy/analyser.h"
#include "j1939/j1939_ids.h"

#include <strings.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include "common/func.h"
#include "common/log.h"
#include "legacy/record_plan.h"

namespace {

constexpr uint32_t kIdBits = 0x7FFFFFFFu;
constexpr uint32_t kExtendedBit = 0x80000000u;

// Bounds handed to strcpy2_s: it may write one byte beyond them, which
// lands on the buffer's last byte.
constexpr unsigned kNameBound = TARN_NAME_LEN - 1;
constexpr unsigned kCommentBound = TARN_COMMENT_LEN - 1;
constexpr unsigned kUnitBound = TARN_UNIT_LEN - 1;

const char* OrEmpty(const char* s) {
    return s ? s : "";
}

// Digits right after the first character; stops at the first non-digit.
uint32_t MuxValueOf(const std::string& text) {
    uint32_t value = 0;
    for (size_t i = 1; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i)
        value = value * 10u + static_cast<uint32_t>(text[i] - '0');
    return value;
}

void FillMultiplexing(const std::string& text, DBCSignal& out) {
    if (text.empty()) return;
    if (text.find('M') != std::string::npos) {
        out.multiplexerType = TARN_MUX_SWITCH;
    } else if (text.find('m') != std::string::npos) {
        out.multiplexerType = TARN_MUX_MULTIPLEXED;
        out.multiplexerValue = MuxValueOf(text);
    }
}

void FillSignal(const Signal& sig, DBCSignal& out) {
    out.startBit = sig.startBit;
    out.length = sig.length;
    out.factor = sig.factor;
    out.offset = sig.offset;
    out.minimum = sig.minimum;
    out.maximum = sig.maximum;
    out.isSigned = sig.isSigned ? 1 : 0;
    out.byteOrder = sig.bigEndian ? 0 : 1;
    out.valueType = sig.valueType;
    // Decodes on other threads may store it meanwhile; each load stays whole.
    out.rawValue = __atomic_load_n(&sig.rawZero, __ATOMIC_RELAXED);
    // The slot was zeroed: empty texts need no copy.
    strcpy2_s(out.name, kNameBound, OrEmpty(sig.name));
    if (!sig.comment.empty()) strcpy2_s(out.comment, kCommentBound, sig.comment.c_str());
    if (sig.unit && *sig.unit) strcpy2_s(out.unit, kUnitBound, sig.unit);
    FillMultiplexing(sig.multiplexer, out);
}

// With `tagged`, each filled slot's rawValue is its signal's position in the
// signal map plus one instead.
void FillSignals(const Message& msg, DBCMessage& out, bool tagged) {
    uint32_t filled = 0, ordinal = 0;
    for (const auto& entry : msg.signals) {
        const Signal& sig = entry.second;
        ++ordinal;
        if (sig.index >= TARN_MAX_SIGNALS) continue;
        FillSignal(sig, out.signals[sig.index]);
        if (tagged) out.signals[sig.index].rawValue = ordinal;
        ++filled;
    }
    out.signalCount = filled;
}

// Truncation toward zero that stays defined for values no integer holds.
uint32_t TruncToU32(double v) {
    if (!(std::fabs(v) < 9.2e18)) return 0;
    return static_cast<uint32_t>(static_cast<int64_t>(v));
}

bool IsNamed(const Attr& attr, const char* name) {
    return attr.name && strcmp(attr.name, name) == 0;
}

// First snapshotted message that `accept` takes, in list order.
template <typename Pred>
const Message* FindFirst(const DBCEx& db, Pred accept) {
    struct Walk {
        Pred* accept;
        const Message* found;
    } walk{&accept, nullptr};
    db.ForEach(
        [](void* ctx, uint64_t, const Message& msg) {
            auto* w = static_cast<Walk*>(ctx);
            if (!(*w->accept)(msg)) return true;
            w->found = &msg;
            return false;
        },
        &walk);
    return walk.found;
}

}  // namespace

CAnalyser::CAnalyser() : m_db(), m_coder(&m_db) {}

CAnalyser::~CAnalyser() = default;

bool CAnalyser::Load(const FileInfo* info) {
    if (!info) return false;
    std::string path(info->path, strnlen(info->path, TARN_PATH_LEN));
    bool ok = m_db.Load(path, info->merge != 0);
    m_coder.SetProtocol(static_cast<ProtocolType>(m_db.GetProtocol()));
    ResetPlans();
    m_nodes.clear();
    m_db.GetAllNetworkNode(m_nodes);
    return ok;
}

void CAnalyser::TranslateMsg(const Message& msg, DBCMessage& out) {
    try {
        memset(out.signals, 0, sizeof out.signals);
        strcpy2_s(out.name, kNameBound, OrEmpty(msg.name));
        strcpy2_s(out.comment, kCommentBound, msg.comment.c_str());
        out.extended = (msg.id & kExtendedBit) ? 1 : 0;
        out.id = static_cast<uint32_t>(msg.id) & kIdBits;
        out.size = static_cast<uint32_t>(msg.dlc);
        out.signalCount = static_cast<uint32_t>(msg.signals.size());
        CollectAttr(out, msg);
        FillSignals(msg, out, false);
        SortMessageSignals(out);
    } catch (...) {
        LogFailure("TranslateMsg", static_cast<uint32_t>(msg.id));
    }
}

void TranslateTaggedSlots(const Message& msg, DBCMessage& out) {
    FillSignals(msg, out, true);
    SortMessageSignals(out);
}

bool CycleTimeOf(const Message& msg, double& cycleTime) {
    for (const Attr& attr : msg.attrs) {
        if (!attr.objType || strcmp(attr.objType, "BO_") != 0) continue;
        if (!IsNamed(attr, "GenMsgCycleTime") || !attr.desc) continue;
        if (attr.desc->type == ATTR_INT) {
            cycleTime = attr.value.ival;
            return true;
        }
        if (attr.desc->type == ATTR_FLOAT) {
            cycleTime = attr.value.fval;
            return true;
        }
    }
    return false;
}

void CAnalyser::CollectAttr(DBCMessage& out, const Message& msg) {
    double cycleTime;
    if (CycleTimeOf(msg, cycleTime)) out.cycleTime = cycleTime;
}

bool CAnalyser::GetFirstMessage(DBCMessage* out) {
    if (!out) return false;
    Message msg;
    if (!m_db.GetFirstMessage(&msg)) return false;
    TranslateMsg(msg, *out);
    return true;
}

bool CAnalyser::GetNextMessage(DBCMessage* out) {
    if (!out) return false;
    Message msg;
    if (!m_db.GetNextMessage(&msg)) return false;
    TranslateMsg(msg, *out);
    return true;
}

uint32_t CAnalyser::GetMessageCount() {
    return m_db.GetMessageCount();
}

bool CAnalyser::IsIdEqual(uint32_t a, uint32_t b) {
    if (m_coder.GetProtocol() == TARN_PROTOCOL_J1939 &&
        (a & j1939::GroupMask(a)) == (b & j1939::GroupMask(b)))
        return true;
    return ((a ^ b) & kIdBits) == 0;
}

void CAnalyser::LogFailure(const char* what, uint32_t id) {
    char text[100];
    snprintf(text, sizeof text, "CAnalyser::%s--ID:0x%08x", what, id);
    KQ_LOG(kq::LOG_ERROR, "%s\n", text);
}

bool CAnalyser::GetMessageById(uint32_t id, DBCMessage* out) {
    if (!out) return false;
    const Message* found = FindFirst(
        m_db, [&](const Message& msg) { return IsIdEqual(id, static_cast<uint32_t>(msg.id)); });
    if (!found) return false;
    TranslateMsg(*found, *out);
    return true;
}

bool CAnalyser::GetMessageByPgn(uint32_t pgn, DBCMessage* out) {
    if (!out) return false;
    const uint32_t want = pgn & 0xFFFFFFu;
    const Message* found = FindFirst(m_db, [&](const Message& msg) {
        return want == (j1939::GroupKey(static_cast<uint32_t>(msg.id)) >> 8);
    });
    if (!found) return false;
    TranslateMsg(*found, *out);
    return true;
}

uint32_t CAnalyser::GetNetworkNodeCount() {
    return static_cast<uint32_t>(m_nodes.size());
}

bool CAnalyser::GetNetworkNodeAt(uint32_t index, DBCNetworkNode* node) {
    if (index >= m_nodes.size() || !node) return false;
    const NetworkNode* src = m_nodes[index];
    strncpy(node->name, OrEmpty(src->name), TARN_NAME_LEN);
    for (const Attr& attr : src->attrs) {
        if (!attr.name || strcasecmp(attr.name, "NmStationAddress") != 0) continue;
        AttrType type = attr.desc ? attr.desc->type : ATTR_STRING;
        if (type == ATTR_INT)
            node->stationAddress = static_cast<uint32_t>(attr.value.ival);
        else if (type == ATTR_FLOAT)
            node->stationAddress = TruncToU32(attr.value.fval);
        else
            return false;
    }
    return true;
}

const Signal* CAnalyser::FindValueTable(uint32_t id, const char* signal) const {
    if (!signal) return nullptr;
    const Message* msg = m_coder.FindMsg(id, false);
    if (!msg) return nullptr;
    return m_db.FindSignal(msg, signal);
}

uint32_t CAnalyser::GetValDescPairCount(uint32_t id, const char* signal) {
    const Signal* sig = FindValueTable(id, signal);
    return sig ? static_cast<uint32_t>(sig->valueDescs.size()) : 0;
}

void CAnalyser::GetValDescPair(uint32_t id, const char* signal, ValDescPair* pairs) {
    const Signal* sig = FindValueTable(id, signal);
    if (!sig || !pairs) return;
    for (const ValPair& pair : sig->valueDescs) {
        pairs->value = pair.value;
        strcpy2_s(pairs->desc, TARN_VALDESC_LEN - 1, pair.desc.c_str());
        ++pairs;
    }
}

void CAnalyser::SetProtocol(ProtocolType protocol) {
    m_coder.SetProtocol(protocol);
    ResetPlans();
}

ProtocolType CAnalyser::GetProtocol() {
    return m_coder.GetProtocol();
}

bool SignalCompareAscend(const DBCSignal& a, const DBCSignal& b) {
    if (a.startBit != b.startBit) return a.startBit < b.startBit;
    return a.length < b.length;
}

namespace {

// Sort key of one slot: sorting these small records with the same
// comparisons yields the same permutation as sorting the 528-byte slots,
// which then move at most once each.
struct SlotKey {
    uint32_t startBit;
    uint32_t length;
    uint32_t slot;
};

bool SlotKeyLess(const SlotKey& a, const SlotKey& b) {
    if (a.startBit != b.startBit) return a.startBit < b.startBit;
    return a.length < b.length;
}

// Slot i receives the old slot keys[i].slot; each cycle needs one spare.
void ApplyOrder(DBCSignal* signals, const SlotKey* keys, uint32_t count) {
    bool placed[TARN_MAX_SIGNALS] = {};
    for (uint32_t i = 0; i < count; ++i) {
        if (placed[i] || keys[i].slot == i) continue;
        DBCSignal spare = signals[i];
        uint32_t j = i;
        for (uint32_t k = keys[j].slot; k != i; j = k, k = keys[j].slot) {
            signals[j] = signals[k];
            placed[j] = true;
        }
        signals[j] = spare;
        placed[j] = true;
    }
}

}  // namespace

// Whether sorting would leave the slots as they are: always for strictly
// ascending keys, and for ascending keys with ties when the sort is a plain
// insertion sort (16 elements or fewer), which keeps ties in place.
bool AlreadyInOrder(const SlotKey* keys, uint32_t count) {
    bool ties = false;
    for (uint32_t i = 1; i < count; ++i) {
        if (SlotKeyLess(keys[i], keys[i - 1])) return false;
        ties = ties || !SlotKeyLess(keys[i - 1], keys[i]);
    }
    return !ties || count <= 16;
}

void SortMessageSignals(DBCMessage& msg) {
    uint32_t count = msg.signalCount;
    if (count < 2 || count > TARN_MAX_SIGNALS) return;
    SlotKey keys[TARN_MAX_SIGNALS];
    for (uint32_t i = 0; i < count; ++i)
        keys[i] = {msg.signals[i].startBit, msg.signals[i].length, i};
    if (AlreadyInOrder(keys, count)) return;
    std::sort(keys, keys + count, SlotKeyLess);
    ApplyOrder(msg.signals, keys, count);
}
