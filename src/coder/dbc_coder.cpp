// Message coder: identifier and PGN indexes, frame list decoding and
// encoding into single frames or J1939 transport data packets.
#include "coder/dbc_coder.h"
#include "j1939/j1939_ids.h"

#include <algorithm>
#include <cstring>

#include "common/log.h"

namespace {

constexpr uint64_t kIdMask = 0x1FFFFFFF;
constexpr size_t kPacketBytes = 7;
constexpr size_t kMaxPackets = 255;

uint64_t PacketsFor(uint64_t size) {
    return size <= 8 ? 1 : (size + 6) / 7;
}

void CollectPair(void* ctx, uint64_t, const char* key, const char* value) {
    auto* list = static_cast<std::vector<const char*>*>(ctx);
    list->push_back(key);
    list->push_back(value);
}

bool Less(const VCI_CAN_OBJ& a, const VCI_CAN_OBJ& b) {
    return a.id < b.id;
}

}  // namespace

DBCCoder::DBCCoder(DBC* db) : m_db(db) {}

DBCCoder::~DBCCoder() {
    if (m_db) m_db->SetListener(nullptr);
}

void DBCCoder::SetProtocol(ProtocolType type) {
    std::vector<Message*> msgs;
    if (m_db) m_db->GetAllMessage(msgs);
    m_count = msgs.size();
    m_byId.clear();
    m_byPgn.clear();
    for (uint32_t i = 0; i < msgs.size(); ++i) {
        m_byId.push_back({msgs[i]->id & kIdMask, {msgs[i], i}});
        m_byPgn.push_back({PGN1939(msgs[i]->id), {msgs[i], i}});
    }
    auto less = [](const auto& a, const auto& b) { return a.first < b.first; };
    auto same = [](const auto& a, const auto& b) { return a.first == b.first; };
    for (Index* index : {&m_byId, &m_byPgn}) {
        if (!std::is_sorted(index->begin(), index->end(), less))
            std::stable_sort(index->begin(), index->end(), less);
        // Keep the last entry of each key: the later message overwrites.
        index->erase(index->begin(), std::unique(index->rbegin(), index->rend(), same).base());
    }
    m_protocol = type;
}

uint64_t DBCCoder::PGN1939(uint64_t id) const {
    return id <= 0x7FF ? id : j1939::GroupKey(id);
}

const IndexedMessage* DBCCoder::Lookup(const Index& index, uint64_t key) {
    auto it = std::lower_bound(index.begin(), index.end(), key,
                               [](const auto& entry, uint64_t k) { return entry.first < k; });
    return it != index.end() && it->first == key ? &it->second : nullptr;
}

const IndexedMessage* DBCCoder::Find(uint32_t id, bool byId) const {
    if (!byId && m_protocol == TARN_PROTOCOL_J1939) return Lookup(m_byPgn, PGN1939(id));
    return Lookup(m_byId, id & kIdMask);
}

Message* DBCCoder::FindMsg(uint32_t id, bool byId) const {
    const IndexedMessage* found = Find(id, byId);
    return found ? found->msg : nullptr;
}

DecodePlan DBCCoder::PlanFor(Message& msg) {
    DecodePlan plan;
    plan.msg = &msg;
    plan.readers.reserve(msg.signals.size());
    for (auto& entry : msg.signals) {
        const SignalReader r = ReaderFor(entry.second);
        size_t reach = r.kind != SignalReader::kGeneral ? r.byte + size_t{8} : 0;
        // A byte-wise read may reach anywhere, unless it reads nothing at all.
        if (r.kind == SignalReader::kGeneral && r.sig->length - 1 < 64) reach = kDecodeBufSize;
        plan.reach = std::max(plan.reach, reach);
        plan.readers.push_back(r);
    }
    return plan;
}

// Copies the frames' data into buf after checking that every frame of a
// multi-packet list belongs to the same PGN and carries its sequence number.
static bool Assemble(const DBCCoder& coder, const VCI_CAN_OBJ* frames, size_t count,
                     uint32_t idBits, uint8_t* buf) {
    if (count == 1) {
        std::memcpy(buf, frames[0].data, 8);
        return true;
    }
    uint64_t pgn = coder.PGN1939(frames[0].id | idBits);
    for (size_t i = 0; i < count; ++i) {
        const VCI_CAN_OBJ& f = frames[i];
        if (coder.PGN1939(f.id | idBits) != pgn || f.data[0] != i + 1) return false;
        std::memcpy(buf + kPacketBytes * i, f.data + 1, kPacketBytes);
    }
    return true;
}

bool DBCCoder::DecodeRaw(const DecodePlan& plan, const VCI_CAN_OBJ* frames, size_t count,
                         uint32_t idBits, uint64_t* raws) const {
    if (!frames || count < PacketsFor(plan.msg->dlc)) return false;
    // Only the bytes some reader can touch need to read as zero.
    uint8_t buf[kDecodeBufSize];
    std::memset(buf, 0, plan.reach);
    if (!Assemble(*this, frames, count, idBits, buf)) return false;
    for (size_t k = 0; k < plan.readers.size(); ++k) {
        const SignalReader& r = plan.readers[k];
        raws[k] = Read(r, buf);
        // Decodes on other threads may store at once; each store stays whole.
        __atomic_store_n(&r.sig->rawZero, raws[k], __ATOMIC_RELAXED);
    }
    return true;
}

std::vector<VCI_CAN_OBJ> DBCCoder::Encode(kq::CommandInfo* cmd) const {
    if (!cmd) return {};
    std::vector<const char*> list;
    cmd->ForEach(CollectPair, &list);
    if (list.size() < 2) return {};
    const char* name = cmd->GetName();
    if (m_protocol != TARN_PROTOCOL_J1939) return EncodeNormal(name, list);
    return Encode1939(name, list);
}

std::vector<VCI_CAN_OBJ> DBCCoder::EncodeNormal(const std::string& name,
                                                const std::vector<const char*>& list) const {
    return Encode1939(name, list);
}

// Splits payload into sequence-numbered 7-byte data packets; the unused tail
// of the last packet reads 0xFF.
static std::vector<VCI_CAN_OBJ> SplitPackets(uint32_t id, const uint8_t* payload, uint64_t size) {
    uint64_t n = (size + 6) / 7;
    uint64_t unused = (7 - size % 7) % 7;
    std::vector<VCI_CAN_OBJ> frames(n);
    for (uint64_t k = 0; k < n; ++k) {
        VCI_CAN_OBJ& f = frames[k];
        std::memset(&f, 0, sizeof(f));
        f.id = id;
        f.externFlag = 1;
        f.dataLen = 8;
        f.data[0] = static_cast<uint8_t>(k + 1);
        size_t bytes = kPacketBytes;
        if (k + 1 == n && unused) {
            std::memset(f.data + 1, 0xFF, kPacketBytes);
            bytes = kPacketBytes - unused;
        }
        std::memcpy(f.data + 1, payload + kPacketBytes * k, bytes);
    }
    return frames;
}

std::vector<VCI_CAN_OBJ> DBCCoder::Encode1939(const std::string& name,
                                              const std::vector<const char*>& list) const {
    Message* msg = m_db ? m_db->FindMsg2(name) : nullptr;
    // A payload beyond the transport limit has no packet layout.
    if (!msg || msg->dlc > kMaxPackets * kPacketBytes) return {};
    uint8_t buf[kEncodeBufSize];
    std::memset(buf, 0, sizeof(buf));
    for (size_t i = 0; i + 1 < list.size(); i += 2) {
        const Signal* sig = list[i] ? m_db->FindSignal(msg, list[i]) : nullptr;
        if (!Cmd2Data(list[i + 1], buf, sig, sizeof(buf))) return {};
    }
    uint32_t id = static_cast<uint32_t>(msg->id);
    if (msg->dlc > 8) return SplitPackets(id, buf, msg->dlc);
    VCI_CAN_OBJ f;
    std::memset(&f, 0, sizeof(f));
    f.id = id;
    f.externFlag = id > 0x7FF ? 1 : 0;
    f.dataLen = static_cast<uint8_t>(msg->dlc);
    std::memcpy(f.data, buf, 8);
    return {f};
}

VCI_CAN_OBJ* DBCCoder::FindObj(std::vector<VCI_CAN_OBJ>& frames, uint64_t id) const {
    auto match = [id](const VCI_CAN_OBJ& f) { return static_cast<uint64_t>(f.id) == id; };
    auto it = std::find_if(frames.begin(), frames.end(), match);
    if (it != frames.end()) return &*it;
    VCI_CAN_OBJ f;
    std::memset(&f, 0, sizeof(f));
    f.id = static_cast<uint32_t>(id);
    frames.push_back(f);
    std::sort(frames.begin(), frames.end(), Less);
    it = std::find_if(frames.begin(), frames.end(), match);
    if (it != frames.end()) return &*it;
    KQ_LOG(kq::LOG_ERROR, "internal error\n");
    return &frames.front();
}
