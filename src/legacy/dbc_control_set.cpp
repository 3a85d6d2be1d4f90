#include "legacy/dbc_control_set.h"

#include <mutex>
#include <vector>

#include "common/log.h"
#include "legacy/dbc_control.h"

// Defined together so that their construction and destruction order is fixed.
CanFdSenderMap g_canfd_sender;
CDBCControlSet g_dbc_ctrl_set;

CDBCControlSet::~CDBCControlSet() {
    Clear();
}

uint32_t CDBCControlSet::GenarateHandle() {
    return m_nextHandle++;
}

uint32_t CDBCControlSet::Add(CDBCControl* ctrl) {
    auto entry = std::make_shared<Entry>(ctrl);
    std::unique_lock<std::shared_mutex> lock(m_mutex);
    const uint32_t handle = GenarateHandle();
    m_controls[handle] = std::move(entry);
    return handle;
}

CDBCControlSet::Ref CDBCControlSet::Acquire(uint32_t handle) {
    std::shared_lock<std::shared_mutex> lock(m_mutex);
    auto it = m_controls.find(handle);
    if (it == m_controls.end()) return Ref();
    // Counted while the map still holds the entry: a release that unmaps it
    // afterwards is bound to see this call.
    it->second->calls.fetch_add(1);
    return Ref(this, it->second);
}

void CDBCControlSet::Leave(Entry& entry) {
    // A release sets `closing` before it looks at the count, and we lower the
    // count before we look at `closing`: one of the two sees the other.
    if (entry.calls.fetch_sub(1) == 1 && entry.closing.load()) {
        std::lock_guard<std::mutex> lock(m_idleMutex);
        m_idle.notify_all();
    }
}

void CDBCControlSet::WaitIdle(Entry& entry) {
    entry.closing.store(true);
    std::unique_lock<std::mutex> lock(m_idleMutex);
    m_idle.wait(lock, [&] { return entry.calls.load() == 0; });
}

void CDBCControlSet::Delete(uint32_t handle) {
    std::unique_lock<std::shared_mutex> lock(m_mutex);
    m_controls.erase(handle);
}

CDBCControl* CDBCControlSet::TakeForRelease(uint32_t handle) {
    std::shared_ptr<Entry> entry;
    {
        std::unique_lock<std::shared_mutex> lock(m_mutex);
        auto it = m_controls.find(handle);
        if (it == m_controls.end()) return nullptr;
        if (it->second->ctrl->InOwnCallback()) {
            KQ_LOG(kq::LOG_ERROR, "TARN_Release--handle %u released from its own callback\n",
                   handle);
            return nullptr;
        }
        entry = std::move(it->second);
        m_controls.erase(it);
    }
    WaitIdle(*entry);
    return entry->ctrl;
}

void CDBCControlSet::Clear() {
    std::map<uint32_t, std::shared_ptr<Entry>> controls;
    {
        std::unique_lock<std::shared_mutex> lock(m_mutex);
        controls.swap(m_controls);
    }
    // Released outside the lock: their threads may still be looking handles up.
    for (auto& entry : controls) {
        WaitIdle(*entry.second);
        entry.second->ctrl->Release();
    }
}

CDBCControlSet::Ref::Ref(CDBCControlSet* set, std::shared_ptr<Entry> entry)
    : m_set(set), m_entry(std::move(entry)) {}

CDBCControlSet::Ref::Ref(Ref&& other) noexcept
    : m_set(other.m_set), m_entry(std::move(other.m_entry)) {}

CDBCControlSet::Ref::~Ref() {
    if (m_entry) m_set->Leave(*m_entry);
}

CDBCControl& CDBCControlSet::Ref::operator*() const {
    return *m_entry->ctrl;
}

void CanFdSenderMap::Set(uint32_t handle, TARN_SenderFunc sender, void* context) {
    std::unique_lock<std::shared_mutex> lock(m_mutex);
    m_senders[handle] = Entry(context, sender);
}

bool CanFdSenderMap::Get(uint32_t handle, Entry& out) {
    std::shared_lock<std::shared_mutex> lock(m_mutex);
    auto it = m_senders.find(handle);
    if (it == m_senders.end() || it->second.second == nullptr) return false;
    out = it->second;
    return true;
}
