// Name interning, the DBC facade, model lookups and model lifetime.
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/log.h"
#include "dbc/dbc_impl.h"

namespace dbc_detail {

namespace {
constexpr size_t kBlockSize = 64 * 1024;
}

// The seed comes from this table's (randomised) address and the clock, so
// that no text can be prepared to pile its names into one bucket.
Atoms::Atoms()
    : m_buckets(kInitialBuckets, nullptr),
      m_seed(
          Mix(reinterpret_cast<uintptr_t>(this) ^
              static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()))) {
}

Atoms::~Atoms() {
    for (char* block : m_blocks) std::free(block);
}

// Eight bytes per step; each step is a bijection of the state, so texts of
// equal length never share a full hash.
uint64_t Atoms::Hash(const char* s, size_t n) const {
    uint64_t h = m_seed ^ (n * 0x9e3779b97f4a7c15ull);
    for (; n >= 8; s += 8, n -= 8) {
        uint64_t w;
        std::memcpy(&w, s, 8);
        h = Mix(h ^ w);
    }
    uint64_t w = 0;
    std::memcpy(&w, s, n);
    return Mix(h ^ w);
}

size_t Atoms::LongestChain() const {
    size_t longest = 0;
    for (Node* node : m_buckets) {
        size_t len = 0;
        for (; node; node = node->next) ++len;
        if (len > longest) longest = len;
    }
    return longest;
}

const char* Atoms::intern(const char* s) {
    return s ? intern(s, std::strlen(s)) : intern("", 0);
}

const char* Atoms::find(const char* s, size_t n) const {
    if (m_buckets.empty()) return nullptr;
    uint32_t h = static_cast<uint32_t>(Hash(s, n));
    for (Node* node = m_buckets[h % m_buckets.size()]; node; node = node->next) {
        if (node->length == n && node->hash == h && std::memcmp(Text(node), s, n) == 0)
            return Text(node);
    }
    return nullptr;
}

void Atoms::Grow() {
    std::vector<Node*> grown(m_buckets.size() * 2, nullptr);
    std::vector<Node*> tails(grown.size(), nullptr);
    for (Node* head : m_buckets) {
        for (Node* node = head; node;) {
            Node* next = node->next;
            size_t b = node->hash % grown.size();
            node->next = nullptr;
            if (tails[b])
                tails[b]->next = node;
            else
                grown[b] = node;
            tails[b] = node;
            node = next;
        }
    }
    m_buckets.swap(grown);
}

// Nodes and their texts are carved from arena blocks: one allocation per
// 64 KiB instead of two per name, and no per-name allocator overhead.
Atoms::Node* Atoms::Allocate(const char* s, size_t n, uint32_t hash) {
    if (n >= UINT32_MAX) return nullptr;
    size_t need = (kTextOffset + n + 1 + alignof(Node) - 1) & ~(alignof(Node) - 1);
    char* at = nullptr;
    if (need > kBlockSize / 4) {
        // Oversized names get a block of their own; the current one stays open.
        at = static_cast<char*>(std::malloc(need));
        if (!at) return nullptr;
        m_blocks.push_back(at);
    } else {
        if (need > m_left) {
            char* block = static_cast<char*>(std::malloc(kBlockSize));
            if (!block) return nullptr;
            m_blocks.push_back(block);
            m_free = block;
            m_left = kBlockSize;
        }
        at = m_free;
        m_free += need;
        m_left -= need;
    }
    Node* node = reinterpret_cast<Node*>(at);
    node->next = nullptr;
    node->hash = hash;
    node->length = static_cast<uint32_t>(n);
    std::memcpy(Text(node), s, n);
    Text(node)[n] = '\0';
    return node;
}

const char* Atoms::intern(const char* s, size_t n) {
    if (!m_buckets.empty() && m_count > m_buckets.size()) Grow();
    if (m_buckets.empty()) return nullptr;
    uint32_t h = static_cast<uint32_t>(Hash(s, n));
    Node** link = &m_buckets[h % m_buckets.size()];
    for (; *link; link = &(*link)->next) {
        Node* node = *link;
        if (node->length == n && node->hash == h && std::memcmp(Text(node), s, n) == 0)
            return Text(node);
    }
    Node* node = nullptr;
    try {
        m_blocks.reserve(m_blocks.size() + 1);
        node = Allocate(s, n, h);
    } catch (const std::bad_alloc&) {
        node = nullptr;
    }
    if (!node) {
        KQ_LOG(kq::LOG_ERROR, "%.*s\n", static_cast<int>(n < 8192 ? n : 8192), s);
        return nullptr;
    }
    *link = node;
    ++m_count;
    return Text(node);
}

}  // namespace dbc_detail

// ---------------------------------------------------------------------------
// DBCImpl: construction, lifetime and lookups

DBCImpl::DBCImpl()
    : m_kwCM(m_atoms.intern("CM_", 3)),
      m_kwBA(m_atoms.intern("BA_", 3)),
      m_kwBADef(m_atoms.intern("BA_DEF_", 7)),
      m_kwBADefDef(m_atoms.intern("BA_DEF_DEF_", 11)),
      m_kwBO(m_atoms.intern("BO_", 3)),
      m_kwNS(m_atoms.intern("NS_", 3)),
      m_kwBU(m_atoms.intern("BU_", 3)),
      m_kwSG(m_atoms.intern("SG_", 3)),
      m_kwEV(m_atoms.intern("EV_", 3)),
      m_kwVAL(m_atoms.intern("VAL_", 4)),
      m_kwSigValType(m_atoms.intern("SIG_VALTYPE_", 12)),
      m_empty(m_atoms.intern("", 0)),
      m_msgById(64, dbc_detail::IdHash{m_atoms.Hash("", 0)}) {}

DBCImpl::~DBCImpl() {
    ReleaseModel();
}

void DBCImpl::ReleaseModel() {
    for (auto& entry : m_messages) delete entry.second;
    m_messages.clear();
    m_msgById.clear();
    for (auto& entry : m_nodes) delete entry.second;
    m_nodes.clear();
    for (auto& entry : m_attrDefs) delete entry.second;
    m_attrDefs.clear();
}

void DBCImpl::Clear(bool merge) {
    m_msgList.clear();
    if (!merge) ReleaseModel();
    m_attrDefList.clear();
    m_attrList.clear();
    m_comments.clear();
    m_vals.clear();
}

void DBCImpl::RebuildNameIndex() {
    for (const auto& entry : m_messages) m_msgIdByName[entry.second->name] = entry.first;
}

Message* DBCImpl::FindMsg(uint64_t id) const {
    auto it = m_msgById.find(id);
    return it == m_msgById.end() ? nullptr : it->second;
}

Message* DBCImpl::FindMsg(const std::string& id) const {
    return FindMsg(static_cast<uint64_t>(std::strtoul(id.c_str(), nullptr, 0)));
}

Message* DBCImpl::FindMsg2(const std::string& name) const {
    const char* atom = m_atoms.find(name);
    if (!atom) return nullptr;
    auto it = m_msgIdByName.find(atom);
    return it == m_msgIdByName.end() ? nullptr : FindMsg(it->second);
}

Signal* DBCImpl::FindSignal(uint64_t id, const char* name) const {
    Message* msg = FindMsg(id);
    if (!msg) return nullptr;
    auto it = msg->signals.find(name);
    return it == msg->signals.end() ? nullptr : &it->second;
}

Signal* DBCImpl::FindSignal(const Message* msg, const std::string& name) const {
    if (!msg) return nullptr;
    const char* atom = m_atoms.find(name);
    if (!atom) return nullptr;
    auto it = msg->signals.find(atom);
    return it == msg->signals.end() ? nullptr : const_cast<Signal*>(&it->second);
}

Signal* DBCImpl::FindSignal(const std::string& msgName, const std::string& sigName,
                            uint64_t& id) const {
    const char* msgAtom = m_atoms.find(msgName);
    if (!msgAtom) return nullptr;
    auto it = m_msgIdByName.find(msgAtom);
    if (it == m_msgIdByName.end()) return nullptr;
    id = it->second;
    const char* sigAtom = m_atoms.find(sigName);
    return sigAtom ? FindSignal(id, sigAtom) : nullptr;
}

void DBCImpl::GetAllMessage(std::vector<Message*>& out) const {
    out.reserve(out.size() + m_messages.size());
    for (const auto& entry : m_messages) out.push_back(entry.second);
}

void DBCImpl::GetAllNetworkNode(std::vector<NetworkNode*>& out) const {
    for (const auto& entry : m_nodes) out.push_back(entry.second);
}

Signal* DBCImpl::GetMultiplexerSwitchSignal(Message* msg) {
    if (!msg) return nullptr;
    for (auto& entry : msg->signals) {
        if (entry.second.multiplexer == "M") return &entry.second;
    }
    return nullptr;
}

bool DBCImpl::FindValDescPair(const std::vector<ValPair>& pairs, double v) {
    for (const ValPair& pair : pairs) {
        if (pair.value == v) return true;
    }
    return false;
}

// ---------------------------------------------------------------------------
// DBC facade

DBC::DBC() : m_impl(new DBCImpl) {}

DBC::~DBC() {
    delete m_impl;
}

bool DBC::Load(const std::string& path, bool merge) {
    bool ok = m_impl->Load(path, merge);
    if (IDBCListener* listener = m_impl->GetListener()) listener->OnLoad();
    return ok;
}

bool DBC::LoadContent(const std::string& text) {
    bool ok = m_impl->LoadContent(text);
    if (IDBCListener* listener = m_impl->GetListener()) listener->OnLoad();
    return ok;
}

Message* DBC::FindMsg(uint64_t id) const {
    return m_impl->FindMsg(id);
}
Message* DBC::FindMsg(const std::string& id) const {
    return m_impl->FindMsg(id);
}
Message* DBC::FindMsg2(const std::string& name) const {
    return m_impl->FindMsg2(name);
}

Signal* DBC::FindSignal(const Message* msg, const std::string& name) const {
    return m_impl->FindSignal(msg, name);
}

void DBC::GetAllMessage(std::vector<Message*>& out) const {
    m_impl->GetAllMessage(out);
}

void DBC::GetAllNetworkNode(std::vector<NetworkNode*>& out) const {
    m_impl->GetAllNetworkNode(out);
}

uint32_t DBC::GetProtocol() const {
    return m_impl->GetProtocol();
}
void DBC::SetListener(IDBCListener* listener) {
    m_impl->SetListener(listener);
}
