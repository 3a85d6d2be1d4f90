#include "legacy/dbc_control.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "common/log.h"
#include "common/platform.h"
#include "legacy/tarn_fd.h"
#include "legacy/tarn_frame.h"

namespace {

constexpr unsigned kIdlePollMs = 10;

// Controllers whose callbacks are running on this thread, innermost last.
thread_local std::vector<const CDBCControl*> t_inCallback;

class CallbackScope {
  public:
    explicit CallbackScope(const CDBCControl* ctrl) { t_inCallback.push_back(ctrl); }
    ~CallbackScope() { t_inCallback.pop_back(); }
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;
};

}  // namespace

CDBCControl::CDBCControl(bool disableMultiSend, bool asyncAnalyse)
    : m_exchange(&m_analyser, disableMultiSend, &m_analyserMutex),
      m_asyncEnabled(asyncAnalyse),
      m_asyncListener(*this) {
    // Listeners are wired once, before any frame can flow; the callbacks
    // decide whether anything is reported.
    m_exchange.SetListener(this);
    m_syncReceiver.SetListener(this);
    m_asyncReceiver.SetListener(&m_asyncListener);
    if (m_asyncEnabled) m_threadStarted = m_thread.Start(&CDBCControl::AsyncAnalyseLoop, this);
}

CDBCControl::~CDBCControl() {
    Shutdown();
}

void CDBCControl::Release() {
    Shutdown();
    delete this;
}

// Both threads are joined before anything they use goes away.
void CDBCControl::Shutdown() {
    m_stop = true;
    m_exchange.Stop();
    if (m_threadStarted.exchange(false)) m_thread.Join();
    ClearQueue();
}

bool CDBCControl::InOwnCallback() const {
    return std::find(t_inCallback.begin(), t_inCallback.end(), this) != t_inCallback.end();
}

void CDBCControl::SetSender(CExchange::SenderFn sender, void* context) {
    {
        std::lock_guard<std::mutex> lock(m_cbMutex);
        m_sender = sender;
        m_senderCtx = context;
    }
    // The exchange always calls through us, so a sender may be swapped while
    // the send thread runs.
    m_exchange.SetSender(&CDBCControl::SendThrough, this);
}

bool CDBCControl::SendThrough(void* self, void* frame) {
    auto* ctrl = static_cast<CDBCControl*>(self);
    CExchange::SenderFn sender;
    void* ctx;
    {
        std::lock_guard<std::mutex> lock(ctrl->m_cbMutex);
        sender = ctrl->m_sender;
        ctx = ctrl->m_senderCtx;
    }
    if (sender == nullptr) return false;
    CallbackScope scope(ctrl);
    return sender(ctx, frame);
}

bool CDBCControl::Encode(std::vector<VCI_CAN_OBJ>& out, uint32_t* count, const DBCMessage* msg) {
    const bool ok = Locked([&] { return m_analyser.Encode(out, msg); });
    if (out.size() > *count) out.resize(*count);  // the rest is dropped without notice
    *count = static_cast<uint32_t>(out.size());
    return ok;
}

bool CDBCControl::Analyse(const VCI_CAN_OBJ& frame, DBCMessage* out) {
    const bool ok = Locked([&] { return m_analyser.Decode(out, &frame, 1, false); });
    std::lock_guard<std::recursive_mutex> lock(m_syncReceiverMutex);
    m_syncReceiver.Push(frame);
    return ok;
}

void CDBCControl::SetAsyncAnalyseCallback(TARN_AsyncAnalyseCallback callback, void* context) {
    std::lock_guard<std::mutex> lock(m_cbMutex);
    m_asyncCb = callback;
    m_asyncCtx = context;
}

void CDBCControl::SetOnMultiTransDoneFunc(TARN_MultiTransDoneFunc callback, void* context) {
    std::lock_guard<std::mutex> lock(m_cbMutex);
    m_doneCb = callback;
    m_doneCtx = context;
}

bool CDBCControl::AsyncAnalyse(uint32_t handle, const void* frame, uint8_t fd, uint64_t tag) {
    if (!m_asyncEnabled || frame == nullptr) return false;
    FrmObj obj;
    obj.handle = handle;
    obj.fd = fd;
    obj.tag = tag;
    obj.frameType = libdbc::Env::Instance().GetFrameType();
    if (obj.frameType == TARN_FRAME_VCI && fd == 0) {
        std::memcpy(obj.frame, frame, sizeof(VCI_CAN_OBJ));
    } else if (obj.frameType == TARN_FRAME_SOCKETCAN && fd == 0) {
        std::memcpy(obj.frame, frame, sizeof(TarnCanFrame));
    } else if (obj.frameType == TARN_FRAME_SOCKETCAN && fd == 1) {
        std::memcpy(obj.frame, frame, sizeof(TarnCanFdFrame));
        if (reinterpret_cast<const TarnCanFdFrame*>(obj.frame)->len > tarn::kFdMaxLen) return false;
    } else {
        return false;
    }
    std::lock_guard<std::recursive_mutex> lock(m_queue.mutex);
    if (m_queue.capacity != 0 && m_queue.frames.size() >= m_queue.capacity) {
        m_queue.frames.pop_front();
    }
    m_queue.frames.push_back(obj);
    return true;
}

bool CDBCControl::AnalyseOne(const FrmObj& obj, DBCMessage* out) {
    VCI_CAN_OBJ one;
    if (obj.frameType == TARN_FRAME_VCI) {
        std::memcpy(&one, obj.frame, sizeof(one));
    } else if (obj.fd == 0) {
        TarnCanFrame cf;
        std::memcpy(&cf, obj.frame, sizeof(cf));
        one = CanFrameToVci(cf);
    } else if (obj.fd == 1) {
        TarnCanFdFrame fdf;
        std::memcpy(&fdf, obj.frame, sizeof(fdf));
        if (fdf.len > tarn::kFdMaxLen) return false;
        if (fdf.len > 8) return DecodeFdPackets(fdf, out);
        one = CanFrameToVci(tarn::FdHeadToClassic(fdf));
    } else {
        return false;
    }
    if (out == nullptr) return false;
    const bool ok = Locked([&] { return m_analyser.Decode(out, &one, 1, false); });
    m_asyncListener.m_curTag = obj.tag;
    m_asyncReceiver.Push(one);
    return ok;
}

bool CDBCControl::DecodeFdPackets(const TarnCanFdFrame& fdf, DBCMessage* out) {
    if (out == nullptr) return false;
    std::vector<VCI_CAN_OBJ> packets;
    for (const TarnCanFrame& cf : tarn::FdToPackets(fdf)) packets.push_back(CanFrameToVci(cf));
    return Locked([&] { return m_analyser.Decode(out, packets.data(), packets.size(), false); });
}

void* CDBCControl::AsyncAnalyseLoop(void* self) {
    if (self != nullptr) static_cast<CDBCControl*>(self)->DoAsyncAnalyse();
    return nullptr;
}

void CDBCControl::DoAsyncAnalyse() {
    // One record for the thread's lifetime: it is far too large for a stack.
    auto msg = std::make_unique<DBCMessage>();
    FrmObj obj;
    while (!m_stop) {
        // The entry leaves the queue before it is analysed, so a producer
        // dropping the oldest entry never drops one that is being analysed.
        if (!PopFront(obj)) {
            kq::Platform::Sleep(kIdlePollMs);
            continue;
        }
        msg->cycleTime = 0;
        bool ok = false;
        try {
            ok = AnalyseOne(obj, msg.get());
        } catch (...) {
            KQ_LOG(kq::LOG_ERROR, "%s\n", "CDBCControl::DoAsyncAnalyse--analysis failed");
        }
        if (ok) DeliverAsync(msg.get(), obj.tag);
    }
}

bool CDBCControl::PopFront(FrmObj& obj) {
    std::lock_guard<std::recursive_mutex> lock(m_queue.mutex);
    if (m_queue.frames.empty()) return false;
    obj = m_queue.frames.front();
    m_queue.frames.pop_front();
    return true;
}

void CDBCControl::ClearQueue() {
    std::lock_guard<std::recursive_mutex> lock(m_queue.mutex);
    std::deque<FrmObj>().swap(m_queue.frames);
}

void CDBCControl::DeliverAsync(DBCMessage* msg, uint64_t tag) {
    TARN_AsyncAnalyseCallback cb;
    void* ctx;
    {
        std::lock_guard<std::mutex> lock(m_cbMutex);
        cb = m_asyncCb;
        ctx = m_asyncCtx;
    }
    if (cb == nullptr) return;
    CallbackScope scope(this);
    cb(ctx, msg, tag);
}

bool CDBCControl::DecodeTransfer(uint32_t id, std::vector<VCI_CAN_OBJ>& frames, DBCMessage* out) {
    for (VCI_CAN_OBJ& f : frames) f.id = id;
    return Locked([&] { return m_analyser.Decode(out, frames.data(), frames.size(), false); });
}

void CDBCControl::OnTransDone(uint32_t id, std::vector<VCI_CAN_OBJ>& frames, uint8_t* data,
                              uint16_t length, uint8_t value) {
    TARN_MultiTransDoneFunc cb;
    void* ctx;
    {
        std::lock_guard<std::mutex> lock(m_cbMutex);
        cb = m_doneCb;
        ctx = m_doneCtx;
    }
    if (cb == nullptr) return;
    auto msg = std::make_unique<DBCMessage>();
    if (!DecodeTransfer(id, frames, msg.get())) return;
    CallbackScope scope(this);
    cb(ctx, msg.get(), data, length, value);
}

void CDBCControl::AsyncTransDone::OnTransDone(uint32_t id, std::vector<VCI_CAN_OBJ>& frames,
                                              uint8_t* /*data*/, uint16_t /*length*/,
                                              uint8_t /*value*/) {
    auto msg = std::make_unique<DBCMessage>();
    if (!m_owner.DecodeTransfer(id, frames, msg.get())) return;
    m_owner.DeliverAsync(msg.get(), m_curTag);
}
