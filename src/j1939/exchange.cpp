#include "j1939/exchange.h"
#include "j1939/j1939_ids.h"

#include <algorithm>
#include <chrono>
#include <exception>

#include "common/log.h"
#include "legacy/tarn_frame.h"

namespace {

using namespace j1939;

constexpr uint32_t kTpCmId = 0x1CEC0000;
constexpr uint32_t kTpDtId = 0x1CEB0000;
constexpr unsigned kCtsWaitMs = 1250;
constexpr uint64_t kTransferTimeoutMs = 5000;
constexpr unsigned kIdlePollMs = 50;
// Sequence numbers are one byte: 255 packets of 7 bytes at most.
constexpr uint32_t kMaxTransferSize = 255 * 7;
// Each waiting message is a whole record copy (about 132 KiB) and a silent
// peer takes one off only every 1250 ms: the bound keeps a stalled
// transport's memory in check.
constexpr uint32_t kMaxQueued = 1024;

enum State : uint32_t {
    kIdle = 0,
    kRtsDone = 1,
    kCtsSeen = 3,
    kSending = 4,
    kAcked = 5,
    kAborted = 6,
};
enum Mode : uint32_t { kModeIdle = 0, kModeSend = 1, kModeReceive = 2 };

uint64_t SteadyMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

J1939ID J1939ID::FromId(uint64_t id) {
    J1939ID out;
    out.priority = uint8_t((id >> 26) & 0x7);
    out.source = uint8_t(id & 0xFF);
    out.destination = uint8_t((id >> 8) & 0xFF);
    out.pgn = j1939::GroupKey(id) >> 8;
    return out;
}

CExchange::CExchange(CAnalyser* analyser, bool disableMultiSend, std::mutex* analyserLock)
    : m_analyser(analyser),
      m_disableMultiSend(disableMultiSend),
      m_analyserLock(analyserLock ? analyserLock : &m_encodeMutex) {
    if (!disableMultiSend) m_threadStarted = m_thread.Start(&CExchange::OnMultiSend, this);
}

CExchange::~CExchange() {
    Stop();
}

void CExchange::SetListener(IOnMultiTransDoneListener* listener) {
    m_listener = listener;
}

void CExchange::SetSender(SenderFn sender, void* context) {
    Lock lock(m_mutex);
    m_sender = sender;
    m_senderContext = context;
}

void CExchange::SetAddr(uint8_t source, uint8_t destination) {
    Lock lock(m_mutex);
    m_transferId.source = source;
    m_transferId.destination = destination;
}

uint8_t CExchange::GetAddrSrc() const {
    Lock lock(m_mutex);
    return m_transferId.source;
}

uint8_t CExchange::GetAddrDst() const {
    Lock lock(m_mutex);
    return m_transferId.destination;
}

void CExchange::Reset() {
    Lock lock(m_mutex);
    ResetLocked();
}

void CExchange::ResetLocked() {
    m_state = kIdle;
    m_mode = kModeIdle;
    m_totalSize = 0;
    m_packetCount = 0;
}

void CExchange::Stop() {
    {
        Lock lock(m_mutex);
        m_stop = true;
        m_active = false;
        ResetLocked();
        m_wakeup.notify_all();
        m_queued.notify_all();
    }
    if (m_threadStarted) {
        m_thread.Join();
        m_threadStarted = false;
    }
}

void CExchange::SignalLocked() {
    m_signalled = true;
    m_wakeup.notify_all();
}

void CExchange::WaitLocked(Lock& lock, unsigned ms) {
    m_wakeup.wait_for(lock, std::chrono::milliseconds(ms),
                      [this] { return m_signalled || m_stop.load(); });
    m_signalled = false;
}

// ---------------------------------------------------------------- sending

uint32_t CExchange::Send(const DBCMessage* msg) {
    return Send(msg, libdbc::Env::Instance().GetFrameType());
}

uint32_t CExchange::Send(const DBCMessage* msg, uint32_t layout) {
    if (msg == nullptr) return 1;
    try {
        if (msg->size < 9) return SendShort(*msg, layout);
        if (m_disableMultiSend) return 3;
        return Enqueue(*msg);
    } catch (const std::exception& e) {
        KQ_LOG(kq::LOG_ERROR, "CExchange::Send: %s\n", e.what());
    } catch (...) {
        KQ_LOG(kq::LOG_ERROR, "CExchange::Send: unknown exception\n");
    }
    return 1;
}

uint32_t CExchange::SendShort(const DBCMessage& msg, uint32_t layout) {
    std::vector<VCI_CAN_OBJ> frames = EncodeMsg(msg);
    if (frames.empty()) return 1;
    frames[0].id = msg.id & 0x7FFFFFFF;
    return SendSingleFrm(frames[0], layout) ? 0 : 1;
}

uint32_t CExchange::Enqueue(const DBCMessage& msg) {
    if (msg.size > kMaxTransferSize) {
        KQ_LOG(kq::LOG_ERROR, "CExchange::Send: %u bytes exceed the transport limit of %u\n",
               msg.size, kMaxTransferSize);
        return 1;
    }
    auto copy = std::make_unique<DBCMessage>(msg);
    {
        Lock lock(m_mutex);
        // After Stop nothing would ever take it off the queue.
        if (m_stop) return 1;
        if (m_queue.size() < kMaxQueued) {
            if (m_state == kAcked || m_state == kAborted) {
                m_state = kIdle;
                m_mode = kModeIdle;
            }
            m_queue.push_back(std::move(copy));
            m_queued.notify_all();
            return 2;
        }
    }
    // The name fills its buffer without a terminator when it is that long.
    KQ_LOG(kq::LOG_ERROR, "CExchange::Send: %u messages wait already, %.*s refused\n", kMaxQueued,
           static_cast<int>(sizeof(msg.name)), msg.name);
    return 3;
}

std::vector<VCI_CAN_OBJ> CExchange::EncodeMsg(const DBCMessage& msg) {
    std::vector<VCI_CAN_OBJ> frames;
    if (m_analyser == nullptr) return frames;
    std::lock_guard<std::mutex> lock(*m_analyserLock);
    m_analyser->Encode(frames, &msg);
    return frames;
}

// The send thread's frames: the layout is read as each one leaves.
bool CExchange::SendSingleFrm(const VCI_CAN_OBJ& frame) {
    return SendSingleFrm(frame, libdbc::Env::Instance().GetFrameType());
}

bool CExchange::SendSingleFrm(const VCI_CAN_OBJ& frame, uint32_t layout) {
    SenderFn sender;
    void* context;
    {
        Lock lock(m_mutex);
        sender = m_sender;
        context = m_senderContext;
    }
    if (sender == nullptr) return false;
    if (layout == TARN_FRAME_SOCKETCAN) {
        TarnCanFrame out = VciToCanFrame(frame);
        return sender(context, &out);
    }
    VCI_CAN_OBJ out = frame;  // the application may scribble on what it gets
    return sender(context, &out);
}

VCI_CAN_OBJ CExchange::InitComObj(const uint8_t (&data)[8], bool answer) const {
    VCI_CAN_OBJ frame{};
    uint32_t from = answer ? m_transferId.destination : m_transferId.source;
    uint32_t to = answer ? m_transferId.source : m_transferId.destination;
    frame.id = kTpCmId | (to << 8) | from;
    frame.externFlag = 1;
    frame.dataLen = 8;
    std::copy(data, data + 8, frame.data);
    return frame;
}

void CExchange::InitDtObj(VCI_CAN_OBJ& frame) const {
    frame.id = kTpDtId | (uint32_t(m_transferId.destination) << 8) | m_transferId.source;
    size_t len = std::min<size_t>(frame.dataLen, 8);
    std::fill(frame.data + len, frame.data + 8, 0xFF);
    frame.dataLen = 8;
    frame.sendType = 0;
    frame.remoteFlag = 0;
    frame.externFlag = 1;
}

void* CExchange::OnMultiSend(void* self) {
    static_cast<CExchange*>(self)->SendMultiFrm();
    return nullptr;
}

void CExchange::SendMultiFrm() {
    while (!m_stop) {
        try {
            if (TakeNext()) SendMultiFrm(m_current);
        } catch (const std::exception& e) {
            KQ_LOG(kq::LOG_ERROR, "CExchange send thread: %s\n", e.what());
        }
    }
}

// Waits briefly for a queued message and makes it the current one.
bool CExchange::TakeNext() {
    std::unique_ptr<DBCMessage> msg;
    {
        Lock lock(m_mutex);
        m_queued.wait_for(lock, std::chrono::milliseconds(kIdlePollMs),
                          [this] { return m_stop || !m_queue.empty(); });
        if (m_stop || m_queue.empty()) return false;
        msg = std::move(m_queue.front());
        m_queue.pop_front();
    }
    std::vector<VCI_CAN_OBJ> frames = EncodeMsg(*msg);
    if (frames.empty()) {
        KQ_LOG(kq::LOG_ERROR, "CExchange: cannot encode %.*s, dropped\n",
               static_cast<int>(sizeof(msg->name)), msg->name);
        return false;
    }
    Lock lock(m_mutex);
    m_current.frames = std::move(frames);
    m_current.id = msg->id & 0x7FFFFFFF;
    m_current.size = msg->size;
    ResetLocked();
    // Claimed at once: a peer's RTS landing before the request would otherwise
    // take the idle exchange and make our own request fail.
    m_mode = kModeSend;
    return true;
}

uint32_t CExchange::SendMultiFrm(MultiTransmitInfo& info) {
    J1939ID id = J1939ID::FromId(info.id);
    {
        Lock lock(m_mutex);
        m_signalled = false;
        m_mode = kModeSend;
    }
    if (RequestMultiTrans(id, info.size)) {
        {
            Lock lock(m_mutex);
            m_active = !m_stop;
            WaitLocked(lock, kCtsWaitMs);
        }
        if (SendDT(info.frames, kTransferTimeoutMs)) {
            Lock lock(m_mutex);
            m_mode = kModeIdle;
            return 0;
        }
    }
    AbortMultiTrans(id.pgn);
    return 1;
}

bool CExchange::RequestMultiTrans(const J1939ID& id, uint64_t size) {
    VCI_CAN_OBJ rts;
    {
        Lock lock(m_mutex);
        if (m_state != kIdle) return false;
        m_transferId = id;
        m_totalSize = uint16_t(size);
        m_packetCount = uint8_t((size + 6) / 7);
        m_packetBits.assign(m_packetCount, false);
        m_ctsReceived = false;
        m_ctsPacketCount = 0;
        m_ctsNextPacket = 0;
        // Ready before the RTS leaves, so that an immediate CTS is not refused.
        m_state = kRtsDone;
        m_mode = kModeSend;
        uint32_t pgn = uint32_t(id.pgn);
        const uint8_t data[8] = {
            kRts, uint8_t(m_totalSize), uint8_t(m_totalSize >> 8), m_packetCount,
            0xFF, uint8_t(pgn),         uint8_t(pgn >> 8),         uint8_t(pgn >> 16)};
        rts = InitComObj(data, false);
    }
    return SendSingleFrm(rts);
}

void CExchange::AbortMultiTrans(uint64_t pgn) {
    VCI_CAN_OBJ abort;
    {
        Lock lock(m_mutex);
        const uint8_t data[8] = {
            kAbort, 0xFF, 0xFF, 0xFF, 0xFF, uint8_t(pgn), uint8_t(pgn >> 8), uint8_t(pgn >> 16)};
        abort = InitComObj(data, false);
        m_state = kAborted;
        m_mode = kModeIdle;
        m_active = false;
    }
    SendSingleFrm(abort);
}

bool CExchange::GrantLocked(size_t frameCount, size_t& first, size_t& count) const {
    first = uint8_t(m_ctsNextPacket - 1);
    if (first >= frameCount) return false;
    count = std::min<size_t>(m_ctsPacketCount, frameCount - first);
    return true;
}

// True when the transfer is over without error.
bool CExchange::SendDT(const std::vector<VCI_CAN_OBJ>& frames, uint64_t timeoutMs) {
    size_t first = 0;
    size_t count = 0;
    {
        Lock lock(m_mutex);
        if (m_state == kAborted || !m_active) return true;
        if (m_state != kCtsSeen) return false;
        if (!GrantLocked(frames.size(), first, count)) return false;
        m_sentFrames.clear();
    }
    const uint64_t start = SteadyMs();
    for (;;) {
        {
            Lock lock(m_mutex);
            if (SteadyMs() - start >= timeoutMs || !m_ctsReceived) return false;
            if (!m_active) return m_state == kIdle || m_state == kAborted;
            // Take the latest grant: a CTS may have replaced it while we waited.
            m_ctsReceived = false;
            if (!GrantLocked(frames.size(), first, count)) return false;
            m_state = kSending;
        }
        if (SendGrant(frames, first, count) < 0) return false;
        Lock lock(m_mutex);
        int verdict = AfterGrantLocked(lock, frames.size(), first, count);
        if (verdict >= 0) return verdict == 1;
    }
}

// -1 when a packet could not be sent, else the number sent.
int CExchange::SendGrant(const std::vector<VCI_CAN_OBJ>& frames, size_t first, size_t count) {
    int sent = 0;
    for (size_t i = first; i < first + count; ++i) {
        VCI_CAN_OBJ dt = frames[i];
        {
            Lock lock(m_mutex);
            if (!m_active) break;  // aborted or stopped: the rest of the grant is moot
            if (i < m_packetBits.size()) m_packetBits[i] = true;
            InitDtObj(dt);
            // Recorded before it leaves: the acknowledgement may beat the sender's return.
            m_sentFrames.push_back(dt);
        }
        if (!SendSingleFrm(dt)) return -1;
        ++sent;
    }
    return sent;
}

// After a grant went out: 1 done, 0 failed, -1 a new grant is ready.
int CExchange::AfterGrantLocked(Lock& lock, size_t frameCount, size_t& first, size_t& count) {
    WaitLocked(lock, kCtsWaitMs);
    if (m_state == kAcked || m_state == kAborted || m_state == kIdle) return 1;
    if (m_state != kCtsSeen) return 0;
    if (!m_active || !GrantLocked(frameCount, first, count)) return 0;
    return -1;
}

// ---------------------------------------------------------------- receiving

void CExchange::OnReceive(const VCI_CAN_OBJ* frame) {
    if (frame == nullptr) return;
    try {
        if (j1939::GroupKey(frame->id) == kTpCmKey) ProcessCom(*frame);
    } catch (const std::exception& e) {
        KQ_LOG(kq::LOG_ERROR, "CExchange::OnReceive: %s\n", e.what());
    } catch (...) {
        KQ_LOG(kq::LOG_ERROR, "CExchange::OnReceive: unknown exception\n");
    }
}

void CExchange::ProcessCom(const VCI_CAN_OBJ& frame) {
    if (frame.dataLen != 8) return;
    Completion done;
    bool completed = false;
    {
        Lock lock(m_mutex);
        switch (frame.data[0]) {
            case kRts:
                if (ProcessRTS(frame)) m_rtsTime = std::time(nullptr);
                break;
            case kCts:
                if (ProcessCTS(frame)) {
                    m_ctsReceived = true;
                    SignalLocked();
                }
                break;
            case kAck:
                if (ProcessACK(frame)) {
                    SignalLocked();
                    completed = TakeCompletion(done);
                }
                break;
            case kAbort:
                if (ProcessAbort(frame)) SignalLocked();
                break;
            default:
                break;
        }
    }
    // The listener runs unlocked: it may well call Send from its callback.
    if (completed) OnMultiTransDone(done, 0);
}

bool CExchange::IsMatch(const VCI_CAN_OBJ& frame) const {
    return (m_transferId.pgn & 0xFFFFFF) == j1939::CmPgn(frame) &&
           (frame.id & 0xFF) == m_transferId.destination &&
           ((frame.id >> 8) & 0xFF) == m_transferId.source;
}

bool CExchange::ProcessRTS(const VCI_CAN_OBJ& frame) {
    if (m_mode != kModeIdle) return false;
    if (m_state != kIdle && m_state != kAcked && m_state != kAborted) return false;
    m_totalSize = j1939::CmSize(frame);
    m_packetCount = frame.data[3];
    m_transferId.priority = uint8_t((frame.id >> 26) & 0x7);
    m_transferId.source = uint8_t(frame.id & 0xFF);
    m_transferId.destination = uint8_t((frame.id >> 8) & 0xFF);
    m_transferId.pgn = j1939::CmPgn(frame);
    m_sentFrames.assign(m_packetCount, VCI_CAN_OBJ{});
    m_packetBits.assign(m_packetCount, false);
    m_state = kRtsDone;
    m_mode = kModeReceive;
    return true;
}

bool CExchange::ProcessCTS(const VCI_CAN_OBJ& frame) {
    if (m_mode != kModeSend) return false;
    if (m_state == kIdle || m_state == kAcked) return false;
    if (m_state == kAborted) return true;
    if (!IsMatch(frame)) return false;
    m_ctsPacketCount = frame.data[1];
    m_ctsNextPacket = frame.data[2];
    m_state = kCtsSeen;
    return true;
}

bool CExchange::ProcessACK(const VCI_CAN_OBJ& frame) {
    if (m_mode != kModeSend || m_state != kSending || !IsMatch(frame)) return false;
    if (j1939::CmSize(frame) != m_totalSize || frame.data[3] != m_packetCount) return false;
    m_state = kAcked;
    return true;
}

bool CExchange::ProcessAbort(const VCI_CAN_OBJ& frame) {
    if (m_mode == kModeIdle) return true;
    if (!IsMatch(frame)) return false;
    m_active = false;
    m_state = kAborted;
    m_mode = kModeIdle;
    return true;
}

// Snapshot of the acknowledged transfer; false when it cannot be rebuilt.
bool CExchange::TakeCompletion(Completion& done) {
    const std::vector<VCI_CAN_OBJ>& frames = m_current.frames;
    if (frames.empty() || (size_t(m_totalSize) + 6) / 7 != frames.size()) return false;
    done.id = m_transferId;
    done.size = m_totalSize;
    done.frames = frames;
    done.sent = m_sentFrames;
    std::fill(m_packetBits.begin(), m_packetBits.end(), false);
    return true;
}

void CExchange::OnMultiTransDone(Completion& done, uint8_t value) {
    std::vector<uint8_t> payload(done.size);
    size_t offset = 0;
    for (const VCI_CAN_OBJ& frame : done.frames) {
        size_t n = std::min<size_t>(7, done.size - offset);
        std::copy(frame.data + 1, frame.data + 1 + n, payload.begin() + offset);
        offset += n;
    }
    IOnMultiTransDoneListener* listener = m_listener;
    if (listener == nullptr) return;
    uint32_t id = (uint32_t(done.id.priority) << 26) | uint32_t(done.id.pgn << 8) |
                  (uint32_t(done.id.destination) << 8) | done.id.source;
    listener->OnTransDone(id, done.sent, payload.data(), done.size, value);
}
