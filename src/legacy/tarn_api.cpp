// Exported C entry points for instances and model queries. Nothing may throw
// across the C boundary, so every body catches everything and falls back to
// the function's "none" result.
#include <cstring>
#include <memory>

#include "common/log.h"
#include "tarn.h"
#include "legacy/tarn_frame.h"
#include "legacy/tarn_guard.h"

using tarn::WithControl;

extern "C" {

void TARN_SetFrameType(uint32_t type) {
    try {
        libdbc::Env::Instance().SetFrameType(type);
    } catch (...) {
    }
}

uint32_t TARN_GetFrameType(void) {
    try {
        return libdbc::Env::Instance().GetFrameType();
    } catch (...) {
        return 0;
    }
}

void TARN_SetLogFile(bool enable, const char* path) {
    try {
        if (!enable) {
            kq::LogDeinit();
            return;
        }
        kq::LogInit(path, kq::LOG_INFO);
    } catch (...) {
    }
}

uint32_t TARN_Init(bool disableMultiSend, bool asyncAnalyse) {
    try {
        auto ctrl = std::make_unique<CDBCControl>(disableMultiSend, asyncAnalyse);
        const uint32_t h = g_dbc_ctrl_set.Add(ctrl.get());
        ctrl.release();  // owned by the registry until TARN_Release
        return h;
    } catch (...) {
        tarn::LogEscaped("TARN_Init");
        return 0;
    }
}

void TARN_Release(uint32_t h) {
    try {
        // Unmapped first, so no other thread can look it up while it goes away.
        CDBCControl* ctrl = g_dbc_ctrl_set.TakeForRelease(h);
        if (ctrl != nullptr) ctrl->Release();
    } catch (...) {
        tarn::LogEscaped("TARN_Release");
    }
}

bool TARN_LoadFile(uint32_t h, const FileInfo* info) {
    // The path must be terminated inside its buffer.
    if (info == nullptr || std::memchr(info->path, 0, sizeof(info->path)) == nullptr) return false;
    return WithControl("TARN_LoadFile", h, false, [&](CDBCControl& c) { return c.Load(info); });
}

void TARN_SetProtocol(uint32_t h, uint8_t protocol) {
    // Bytes the enumeration has no name for cannot be stored in it; only 0
    // means J1939, so they all stand for "another protocol".
    const ProtocolType type = protocol <= TARN_PROTOCOL_UNDECLARED
                                  ? static_cast<ProtocolType>(protocol)
                                  : TARN_PROTOCOL_OTHER;
    WithControl("TARN_SetProtocol", h, [&](CDBCControl& c) { c.SetProtocol(type); });
}

uint8_t TARN_GetProtocol(uint32_t h) {
    return WithControl("TARN_GetProtocol", h, uint8_t{1}, [](CDBCControl& c) {
        return static_cast<uint8_t>(c.GetProtocol() == TARN_PROTOCOL_J1939 ? 0 : 1);
    });
}

bool TARN_GetFirstMessage(uint32_t h, DBCMessage* msg) {
    return WithControl("TARN_GetFirstMessage", h, false,
                       [&](CDBCControl& c) { return c.GetFirstMessage(msg); });
}

bool TARN_GetNextMessage(uint32_t h, DBCMessage* msg) {
    return WithControl("TARN_GetNextMessage", h, false,
                       [&](CDBCControl& c) { return c.GetNextMessage(msg); });
}

uint32_t TARN_GetMessageCount(uint32_t h) {
    return WithControl("TARN_GetMessageCount", h, uint32_t{0},
                       [](CDBCControl& c) { return c.GetMessageCount(); });
}

bool TARN_GetMessageById(uint32_t h, uint32_t id, DBCMessage* msg) {
    if (msg == nullptr) return false;
    return WithControl("TARN_GetMessageById", h, false,
                       [&](CDBCControl& c) { return c.GetMessageById(id, msg); });
}

uint32_t TARN_GetValDescPairCount(uint32_t h, uint32_t msgId, const char* signal) {
    return WithControl("TARN_GetValDescPairCount", h, uint32_t{0},
                       [&](CDBCControl& c) { return c.GetValDescPairCount(msgId, signal); });
}

void TARN_GetValDescPair(uint32_t h, uint32_t msgId, const char* signal, ValDescPair* pairs) {
    if (pairs == nullptr) return;
    WithControl("TARN_GetValDescPair", h,
                [&](CDBCControl& c) { c.GetValDescPair(msgId, signal, pairs); });
}

uint32_t TARN_GetNetworkNodeCount(uint32_t h) {
    return WithControl("TARN_GetNetworkNodeCount", h, uint32_t{0},
                       [](CDBCControl& c) { return c.GetNetworkNodeCount(); });
}

bool TARN_GetNetworkNodeAt(uint32_t h, uint32_t index, DBCNetworkNode* node) {
    return WithControl("TARN_GetNetworkNodeAt", h, false,
                       [&](CDBCControl& c) { return c.GetNetworkNodeAt(index, node); });
}

double TARN_CalcActualValue(const DBCSignal* signal, uint64_t* raw) {
    try {
        return CalcActualValue(signal, raw);
    } catch (...) {
        tarn::LogEscaped("TARN_CalcActualValue");
        return 0.0;
    }
}

uint64_t TARN_CalcRawValue(const DBCSignal* signal, double* physical) {
    try {
        return CalcRawValue(signal, physical);
    } catch (...) {
        tarn::LogEscaped("TARN_CalcRawValue");
        return 0;
    }
}

}  // extern "C"
