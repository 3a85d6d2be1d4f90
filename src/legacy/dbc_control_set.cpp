#include "legacy/dbc_control_set.h"

#include <mutex>
#include <vector>

#include "legacy/dbc_control.h"
#include "common/log.h"

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
    std::unique_lock<std::shared_mutex> lock(m_mutex);
    const uint32_t handle = GenarateHandle();
    m_controls[handle] = ctrl;
    return handle;
}

CDBCControl* CDBCControlSet::Find(uint32_t handle) {
    std::shared_lock<std::shared_mutex> lock(m_mutex);
    auto it = m_controls.find(handle);
    return it == m_controls.end() ? nullptr : it->second;
}

void CDBCControlSet::Delete(uint32_t handle) {
    std::unique_lock<std::shared_mutex> lock(m_mutex);
    m_controls.erase(handle);
}

CDBCControl* CDBCControlSet::TakeForRelease(uint32_t handle) {
    std::unique_lock<std::shared_mutex> lock(m_mutex);
    auto it = m_controls.find(handle);
    if (it == m_controls.end()) return nullptr;
    CDBCControl* ctrl = it->second;
    if (ctrl->InOwnCallback()) {
        KQ_LOG(kq::LOG_ERROR, "TARN_Release--handle %u released from its own callback\n", handle);
        return nullptr;
    }
    m_controls.erase(it);
    return ctrl;
}

void CDBCControlSet::Clear() {
    std::map<uint32_t, CDBCControl*> controls;
    {
        std::unique_lock<std::shared_mutex> lock(m_mutex);
        controls.swap(m_controls);
    }
    // Released outside the lock: their threads may still be looking handles up.
    for (auto& entry : controls) entry.second->Release();
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
