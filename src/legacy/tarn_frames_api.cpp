// Exported frame entry points: read the caller's frames in the layout the
// frame-type switch selects, split CAN FD payloads into sequence-numbered
// packets and route FD transmission to the per-handle FD sender.
#include <algorithm>
#include <cstring>
#include <vector>

#include "legacy/tarn_fd.h"
#include "legacy/tarn_frame.h"
#include "legacy/tarn_guard.h"
#include "tarn.h"

using tarn::FdHeadToClassic;
using tarn::FdToPackets;
using tarn::kFdMaxLen;
using tarn::WithControl;

namespace {

constexpr uint32_t kSendOk = TARN_SEND_OK;
constexpr uint32_t kSendFailed = TARN_SEND_FAILED;

// Every exported call reads the process-wide layout once and hands the value
// down: another thread may switch it at any moment, and frames sized for one
// layout must never be read or written in the other.
uint32_t CurrentLayout() {
    return libdbc::Env::Instance().GetFrameType();
}

bool AnalyseVci(uint32_t h, const VCI_CAN_OBJ& frame, DBCMessage* out) {
    return WithControl("TARN_Analyse", h, false,
                       [&](CDBCControl& c) { return c.Analyse(frame, out); });
}

bool DecodeFrames(uint32_t h, DBCMessage* out, const void* frames, uint32_t count,
                  uint32_t layout) {
    return WithControl("TARN_Decode", h, false, [&](CDBCControl& c) {
        if (layout != TARN_FRAME_SOCKETCAN)
            return c.Decode(out, static_cast<const VCI_CAN_OBJ*>(frames), count);
        const auto* in = static_cast<const TarnCanFrame*>(frames);
        std::vector<VCI_CAN_OBJ> objs(count);
        for (uint32_t i = 0; i < count; ++i) objs[i] = CanFrameToVci(in[i]);
        return c.Decode(out, objs.data(), objs.size());
    });
}

bool EncodeFrames(uint32_t h, void* frames, uint32_t* count, const DBCMessage* msg,
                  uint32_t layout) {
    return WithControl("TARN_Encode", h, false, [&](CDBCControl& c) {
        std::vector<VCI_CAN_OBJ> objs;
        uint32_t n = frames == nullptr ? 0 : *count;
        const bool ok = c.Encode(objs, &n, msg);
        if (layout == TARN_FRAME_SOCKETCAN) {
            auto* out = static_cast<TarnCanFrame*>(frames);
            for (uint32_t i = 0; i < n; ++i) out[i] = VciToCanFrame(objs[i]);
        } else {
            std::copy(objs.begin(), objs.end(), static_cast<VCI_CAN_OBJ*>(frames));
        }
        *count = n;
        return ok;
    });
}

bool AnalyseSocketCan(uint32_t h, const void* frame, uint8_t fd, DBCMessage* out) {
    if (fd == 0) return AnalyseVci(h, CanFrameToVci(*static_cast<const TarnCanFrame*>(frame)), out);
    if (fd != 1) return false;
    const auto& fdf = *static_cast<const TarnCanFdFrame*>(frame);
    if (fdf.len > kFdMaxLen) return false;
    if (fdf.len <= 8) return AnalyseVci(h, CanFrameToVci(FdHeadToClassic(fdf)), out);
    const std::vector<TarnCanFrame> packets = FdToPackets(fdf);
    return DecodeFrames(h, out, packets.data(), static_cast<uint32_t>(packets.size()),
                        TARN_FRAME_SOCKETCAN);
}

// Packs encoded classic frames into one FD payload: a single frame gives its
// bytes as they are, several give bytes 1 to 7 of each (byte 0 is the
// sequence number).
void FillFdPayload(TarnCanFdFrame& fdf, const std::vector<TarnCanFrame>& frames) {
    if (frames.size() == 1) {
        std::memcpy(fdf.data, frames[0].data, std::min<size_t>(frames[0].len, 8));
        return;
    }
    size_t filled = 0;
    for (const TarnCanFrame& f : frames) {
        const size_t take = std::min<size_t>(7, kFdMaxLen - filled);
        std::memcpy(fdf.data + filled, f.data + 1, take);
        filled += take;
        if (filled == kFdMaxLen) break;
    }
}

// Only reached under the SocketCAN layout.
uint32_t SendFd(uint32_t h, const DBCMessage* msg) {
    uint32_t n = (msg->size + 6) / 7;
    std::vector<TarnCanFrame> frames(n);
    if (!EncodeFrames(h, frames.data(), &n, msg, TARN_FRAME_SOCKETCAN) || n == 0)
        return kSendFailed;
    frames.resize(n);
    TarnCanFdFrame fdf;
    std::memset(&fdf, 0, sizeof(fdf));
    fdf.can_id = msg->id & TARN_CAN_EFF_MASK;
    if (msg->extended) fdf.can_id |= TARN_CAN_EFF_FLAG;
    fdf.len = static_cast<uint8_t>(msg->size);
    FillFdPayload(fdf, frames);
    CanFdSenderMap::Entry sender;
    if (!g_canfd_sender.Get(h, sender)) return kSendFailed;
    return sender.second(sender.first, &fdf) ? kSendOk : kSendFailed;
}

}  // namespace

extern "C" {

bool TARN_Analyse(uint32_t h, const void* frame, uint8_t fd, DBCMessage* out) {
    try {
        if (frame == nullptr) return false;
        if (CurrentLayout() != TARN_FRAME_SOCKETCAN) {
            return fd == 0 && AnalyseVci(h, *static_cast<const VCI_CAN_OBJ*>(frame), out);
        }
        return AnalyseSocketCan(h, frame, fd, out);
    } catch (...) {
        tarn::LogEscaped("TARN_Analyse");
        return false;
    }
}

bool TARN_Decode(uint32_t h, DBCMessage* out, const void* frames, uint32_t count) {
    if (frames == nullptr || count == 0) return false;
    return DecodeFrames(h, out, frames, count, CurrentLayout());
}

bool TARN_Encode(uint32_t h, void* frames, uint32_t* count, const DBCMessage* msg) {
    if (count == nullptr) return false;
    return EncodeFrames(h, frames, count, msg, CurrentLayout());
}

void TARN_OnReceive(uint32_t h, const void* frame, uint8_t fd) {
    if (frame == nullptr) return;
    const uint32_t layout = CurrentLayout();
    WithControl("TARN_OnReceive", h, [&](CDBCControl& c) {
        if (layout != TARN_FRAME_SOCKETCAN) {
            if (fd == 0) c.OnReceive(*static_cast<const VCI_CAN_OBJ*>(frame));
        } else if (fd == 0) {
            c.OnReceive(CanFrameToVci(*static_cast<const TarnCanFrame*>(frame)));
        } else if (fd == 1) {
            const auto& fdf = *static_cast<const TarnCanFdFrame*>(frame);
            if (fdf.len <= kFdMaxLen) c.OnReceive(CanFrameToVci(FdHeadToClassic(fdf)));
        }
    });
}

bool TARN_AsyncAnalyse(uint32_t h, const void* frame, uint8_t fd, uint64_t tag) {
    return WithControl("TARN_AsyncAnalyse", h, false,
                       [&](CDBCControl& c) { return c.AsyncAnalyse(h, frame, fd, tag); });
}

void TARN_SetAsyncAnalyseCallback(uint32_t h, TARN_AsyncAnalyseCallback callback, void* context) {
    WithControl("TARN_SetAsyncAnalyseCallback", h,
                [&](CDBCControl& c) { c.SetAsyncAnalyseCallback(callback, context); });
}

void TARN_SetSender(uint32_t h, TARN_SenderFunc sender, void* context) {
    WithControl("TARN_SetSender", h, [&](CDBCControl& c) { c.SetSender(sender, context); });
}

void TARN_SetOnMultiTransDoneFunc(uint32_t h, TARN_MultiTransDoneFunc callback, void* context) {
    WithControl("TARN_SetOnMultiTransDoneFunc", h,
                [&](CDBCControl& c) { c.SetOnMultiTransDoneFunc(callback, context); });
}

uint32_t TARN_Send(uint32_t h, const DBCMessage* msg, uint8_t fd) {
    try {
        if (msg == nullptr) return kSendFailed;
        const uint32_t layout = CurrentLayout();
        if (fd == 1 && layout != TARN_FRAME_SOCKETCAN) return kSendFailed;
        if (fd == 0 || msg->size > kFdMaxLen) {
            return WithControl("TARN_Send", h, kSendFailed,
                               [&](CDBCControl& c) { return c.Send(msg, layout); });
        }
        if (fd != 1) return kSendFailed;
        return SendFd(h, msg);
    } catch (...) {
        tarn::LogEscaped("TARN_Send");
        return kSendFailed;
    }
}

void TARN_SetCANFDSender(uint32_t h, TARN_SenderFunc sender, void* context) {
    try {
        g_canfd_sender.Set(h, sender, context);
    } catch (...) {
        tarn::LogEscaped("TARN_SetCANFDSender");
    }
}

}  // extern "C"
