// Process-wide frame-layout switch and the conversions between the caller's
// SocketCAN layouts and the library's VCI_CAN_OBJ.
#pragma once

#include <atomic>
#include <cstdint>

#include "tarn.h"

namespace libdbc {

class Env {
public:
    static Env& Instance();
    // Public frame type: 0 SocketCAN layouts, 1 VCI_CAN_OBJ.
    uint32_t GetFrameType() const { return m_socketCan.load(std::memory_order_relaxed) ? 0 : 1; }
    void SetFrameType(uint32_t type) {
        m_socketCan.store(type == 0, std::memory_order_relaxed);
    }

private:
    Env() = default;
    std::atomic<bool> m_socketCan{true};  // stores the negation of the public type
};

}  // namespace libdbc

VCI_CAN_OBJ CanFrameToVci(const TarnCanFrame& frame);
TarnCanFrame VciToCanFrame(const VCI_CAN_OBJ& obj);
