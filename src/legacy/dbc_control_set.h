// Process-wide registry from handles to instance controllers, and the map of
// per-handle CAN FD senders.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <utility>

#include "tarn.h"

class CDBCControl;

class CDBCControlSet {
    struct Entry;

  public:
    // Holds a controller for the length of one call: TARN_Release waits until
    // every holder has let go. Empty for an unknown or releasing handle.
    class Ref {
      public:
        Ref() = default;
        Ref(Ref&& other) noexcept;
        Ref& operator=(Ref&&) = delete;
        ~Ref();
        explicit operator bool() const { return m_entry != nullptr; }
        CDBCControl& operator*() const;

      private:
        friend class CDBCControlSet;
        Ref(CDBCControlSet* set, std::shared_ptr<Entry> entry);

        CDBCControlSet* m_set = nullptr;
        std::shared_ptr<Entry> m_entry;
    };

    CDBCControlSet() = default;
    // Instances the application never released are released here.
    virtual ~CDBCControlSet();
    CDBCControlSet(const CDBCControlSet&) = delete;
    CDBCControlSet& operator=(const CDBCControlSet&) = delete;

    uint32_t GenarateHandle();
    // Maps a fresh handle to the controller and returns the handle.
    uint32_t Add(CDBCControl* ctrl);
    Ref Acquire(uint32_t handle);
    // Drops the entry only; the controller is not touched.
    void Delete(uint32_t handle);
    // Unmaps the controller, so that later calls see an unknown handle, waits
    // until the calls holding it have returned, and hands it over for
    // releasing. Null when absent, when another release is under way, or
    // when called from inside one of the controller's own callbacks (the
    // entry then stays).
    CDBCControl* TakeForRelease(uint32_t handle);
    // Releases every controller in ascending handle order, then empties the map.
    void Clear();

  private:
    struct Entry {
        explicit Entry(CDBCControl* c) : ctrl(c) {}
        CDBCControl* const ctrl;
        std::atomic<uint32_t> calls{0};
        std::atomic<bool> closing{false};
    };

    void Leave(Entry& entry);
    void WaitIdle(Entry& entry);

    // Lookups happen on callback threads too, so the map is guarded even
    // though instances are normally created and released by one thread.
    std::shared_mutex m_mutex;
    std::map<uint32_t, std::shared_ptr<Entry>> m_controls;
    uint32_t m_nextHandle = 1;
    // Wakes a release waiting for the last call on its controller.
    std::mutex m_idleMutex;
    std::condition_variable m_idle;
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
