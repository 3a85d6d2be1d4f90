// Process-wide registry from handles to instance controllers, and the map of
// per-handle CAN FD senders.
#pragma once

#include <cstdint>
#include <map>
#include <shared_mutex>
#include <utility>

#include "tarn.h"

class CDBCControl;

class CDBCControlSet {
  public:
    CDBCControlSet() = default;
    // Instances the application never released are released here.
    virtual ~CDBCControlSet();
    CDBCControlSet(const CDBCControlSet&) = delete;
    CDBCControlSet& operator=(const CDBCControlSet&) = delete;

    uint32_t GenarateHandle();
    // Maps a fresh handle to the controller and returns the handle.
    uint32_t Add(CDBCControl* ctrl);
    CDBCControl* Find(uint32_t handle);
    // Drops the entry only; the controller is not touched.
    void Delete(uint32_t handle);
    // Unmaps the controller and returns it for releasing; null when absent or
    // when called from inside one of the controller's own callbacks (the
    // entry then stays).
    CDBCControl* TakeForRelease(uint32_t handle);
    // Releases every controller in ascending handle order, then empties the map.
    void Clear();

  private:
    // Lookups happen on callback threads too, so the map is guarded even
    // though instances are normally created and released by one thread.
    std::shared_mutex m_mutex;
    std::map<uint32_t, CDBCControl*> m_controls;
    uint32_t m_nextHandle = 1;
};

extern CDBCControlSet g_dbc_ctrl_set;

// Per-handle CAN FD senders; a handle need not be live to have one.
class CanFdSenderMap {
  public:
    using Entry = std::pair<void*, TARN_SenderFunc>;
    void Set(uint32_t handle, TARN_SenderFunc sender, void* context);
    // False when the handle has no sender.
    bool Get(uint32_t handle, Entry& out);

  private:
    std::shared_mutex m_mutex;
    std::map<uint32_t, Entry> m_senders;
};

extern CanFdSenderMap g_canfd_sender;
