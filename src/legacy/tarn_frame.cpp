// The process-wide frame-layout switch and the SocketCAN <-> VCI conversions.
#include "legacy/tarn_frame.h"

#include <cstring>

namespace libdbc {

Env& Env::Instance() {
    // Function-local static: initialisation is thread-safe on first use.
    static Env env;
    return env;
}

}  // namespace libdbc

VCI_CAN_OBJ CanFrameToVci(const TarnCanFrame& frame) {
    VCI_CAN_OBJ obj;
    std::memset(&obj, 0, sizeof(obj));
    obj.id = frame.can_id & TARN_CAN_EFF_MASK;
    obj.remoteFlag = (frame.can_id & TARN_CAN_RTR_FLAG) ? 1 : 0;
    obj.externFlag = (frame.can_id & TARN_CAN_EFF_FLAG) ? 1 : 0;
    obj.dataLen = frame.len;  // taken as is: callers own the length's validity
    std::memcpy(obj.data, frame.data, sizeof(obj.data));
    return obj;
}

TarnCanFrame VciToCanFrame(const VCI_CAN_OBJ& obj) {
    TarnCanFrame frame;
    std::memset(&frame, 0, sizeof(frame));
    frame.can_id = obj.id;
    if (obj.externFlag) frame.can_id |= TARN_CAN_EFF_FLAG;
    if (obj.remoteFlag) frame.can_id |= TARN_CAN_RTR_FLAG;
    frame.len = obj.dataLen;
    std::memcpy(frame.data, obj.data, sizeof(frame.data));
    return frame;
}
