// J1939 transport, send side: short messages go out at once; long ones are
// queued for the send thread, which runs RTS / CTS-paced TP.DT / EndOfMsgAck.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "common/thread.h"
#include "j1939/multi_frm_listener.h"
#include "legacy/analyser.h"
#include "tarn.h"

// Addressing of one transfer; the PGN is shifted down (0xFEF1, not 0xFEF100).
struct J1939ID {
    uint8_t priority = 0;
    uint8_t source = 0;
    uint8_t destination = 0;
    uint64_t pgn = 0;

    static J1939ID FromId(uint64_t id);
};

class CExchange {
  public:
    using SenderFn = bool (*)(void* context, void* frame);

    struct MultiTransmitInfo {
        uint64_t id = 0;
        uint64_t size = 0;
        std::vector<VCI_CAN_OBJ> frames;
    };

    // `analyserLock`, when given, is the lock its owner holds around every
    // other use of the analyser; encodes then hold it too.
    CExchange(CAnalyser* analyser, bool disableMultiSend, std::mutex* analyserLock = nullptr);
    virtual ~CExchange();
    CExchange(const CExchange&) = delete;
    CExchange& operator=(const CExchange&) = delete;

    void SetListener(IOnMultiTransDoneListener* listener);
    void SetSender(SenderFn sender, void* context);
    void SetAddr(uint8_t source, uint8_t destination);
    uint8_t GetAddrSrc() const;
    uint8_t GetAddrDst() const;

    // 0 sent, 1 not sent, 2 queued, 3 refused (multi-packet sending disabled,
    // or 1,024 long messages wait already).
    // A short message goes out in `layout`, the frame layout its caller read;
    // queued ones in the layout in force when they are sent.
    uint32_t Send(const DBCMessage* msg, uint32_t layout);
    uint32_t Send(const DBCMessage* msg);
    // Receive entry: only TP.CM frames concern the exchange.
    void OnReceive(const VCI_CAN_OBJ* frame);
    void Stop();
    void Reset();

  private:
    // What a completed send hands to the listener, copied while the state
    // lock is held so the send thread may move on to the next message.
    struct Completion {
        J1939ID id;
        uint16_t size = 0;
        std::vector<VCI_CAN_OBJ> frames;  // the encoder's packets
        std::vector<VCI_CAN_OBJ> sent;    // the TP.DT frames as they went out
    };
    using Lock = std::unique_lock<std::mutex>;

    static void* OnMultiSend(void* self);
    void SendMultiFrm();
    uint32_t SendMultiFrm(MultiTransmitInfo& info);
    bool TakeNext();
    uint32_t SendShort(const DBCMessage& msg, uint32_t layout);
    uint32_t Enqueue(const DBCMessage& msg);
    std::vector<VCI_CAN_OBJ> EncodeMsg(const DBCMessage& msg);
    bool SendSingleFrm(const VCI_CAN_OBJ& frame, uint32_t layout);
    bool SendSingleFrm(const VCI_CAN_OBJ& frame);

    VCI_CAN_OBJ InitComObj(const uint8_t (&data)[8], bool answer) const;
    void InitDtObj(VCI_CAN_OBJ& frame) const;
    bool RequestMultiTrans(const J1939ID& id, uint64_t size);
    void AbortMultiTrans(uint64_t pgn);
    bool SendDT(const std::vector<VCI_CAN_OBJ>& frames, uint64_t timeoutMs);
    int SendGrant(const std::vector<VCI_CAN_OBJ>& frames, size_t first, size_t count);
    bool GrantLocked(size_t frameCount, size_t& first, size_t& count) const;
    int AfterGrantLocked(Lock& lock, size_t frameCount, size_t& first, size_t& count);

    void ProcessCom(const VCI_CAN_OBJ& frame);
    bool ProcessRTS(const VCI_CAN_OBJ& frame);
    bool ProcessCTS(const VCI_CAN_OBJ& frame);
    bool ProcessACK(const VCI_CAN_OBJ& frame);
    bool ProcessAbort(const VCI_CAN_OBJ& frame);
    bool IsMatch(const VCI_CAN_OBJ& frame) const;
    bool TakeCompletion(Completion& done);
    void OnMultiTransDone(Completion& done, uint8_t value);

    void ResetLocked();
    void SignalLocked();
    void WaitLocked(Lock& lock, unsigned ms);

    CAnalyser* const m_analyser;
    const bool m_disableMultiSend;
    std::atomic<IOnMultiTransDoneListener*> m_listener{nullptr};

    // m_mutex guards everything below that the send thread and the receiving
    // thread share: addressing, state, grant, flags, frame lists and queue.
    mutable std::mutex m_mutex;
    SenderFn m_sender = nullptr;
    void* m_senderContext = nullptr;
    J1939ID m_transferId;
    uint16_t m_totalSize = 0;
    uint8_t m_packetCount = 0;
    uint32_t m_state = 0;
    uint32_t m_mode = 0;
    uint8_t m_ctsPacketCount = 0;
    uint8_t m_ctsNextPacket = 0;
    bool m_ctsReceived = false;
    std::vector<VCI_CAN_OBJ> m_sentFrames;
    std::vector<bool> m_packetBits;
    bool m_active = false;
    std::time_t m_rtsTime = 0;
    std::deque<std::unique_ptr<DBCMessage>> m_queue;
    // Written only by the send thread (under m_mutex), so it may read it freely.
    MultiTransmitInfo m_current;
    // An auto-reset event: a CTS, acknowledgement or abort that lands before
    // the send thread starts waiting is kept, not lost.
    bool m_signalled = false;
    std::condition_variable m_wakeup;
    std::condition_variable m_queued;

    std::atomic<bool> m_stop{false};
    std::mutex m_encodeMutex;  // the analyser is not safe for concurrent encodes
    std::mutex* const m_analyserLock;
    kq::Thread m_thread;
    bool m_threadStarted = false;
};
