// The object behind one handle: owns the analyser, the J1939 exchange, the two
// multi-packet receivers and the asynchronous frame queue with its thread, and
// routes completed transfers to the application's callbacks.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "common/thread.h"
#include "j1939/exchange.h"
#include "j1939/multi_frm_listener.h"
#include "legacy/analyser.h"
#include "tarn.h"

// One queued frame: a copy of the caller's frame in whichever layout was in
// force when it was queued.
struct FrmObj {
    uint32_t handle = 0;
    alignas(8) uint8_t frame[sizeof(TarnCanFdFrame)] = {};
    uint8_t fd = 0;
    uint32_t frameType = 0;
    uint64_t tag = 0;
};

// Frames waiting for the analysis thread; full means the oldest is dropped.
struct DataQueue {
    std::deque<FrmObj> frames;
    std::recursive_mutex mutex;
    uint32_t capacity = 100000;
};

class CDBCControl : public IOnMultiTransDoneListener {
  public:
    CDBCControl(bool disableMultiSend, bool asyncAnalyse);
    ~CDBCControl() override;
    CDBCControl(const CDBCControl&) = delete;
    CDBCControl& operator=(const CDBCControl&) = delete;

    // Stops both threads, discards queued frames and destroys the controller.
    void Release();
    // True while one of this controller's callbacks runs on the calling
    // thread: releasing it then would free it under its own caller.
    bool InOwnCallback() const;

    bool Load(const FileInfo* info) {
        return Locked([&] { return m_analyser.Load(info); });
    }
    bool GetFirstMessage(DBCMessage* out) {
        return Locked([&] { return m_analyser.GetFirstMessage(out); });
    }
    bool GetNextMessage(DBCMessage* out) {
        return Locked([&] { return m_analyser.GetNextMessage(out); });
    }
    uint32_t GetMessageCount() {
        return Locked([&] { return m_analyser.GetMessageCount(); });
    }
    bool GetMessageById(uint32_t id, DBCMessage* out) {
        return Locked([&] { return m_analyser.GetMessageById(id, out); });
    }
    uint32_t GetNetworkNodeCount() {
        return Locked([&] { return m_analyser.GetNetworkNodeCount(); });
    }
    bool GetNetworkNodeAt(uint32_t index, DBCNetworkNode* node) {
        return Locked([&] { return m_analyser.GetNetworkNodeAt(index, node); });
    }
    uint32_t GetValDescPairCount(uint32_t id, const char* signal) {
        return Locked([&] { return m_analyser.GetValDescPairCount(id, signal); });
    }
    void GetValDescPair(uint32_t id, const char* signal, ValDescPair* pairs) {
        Locked([&] { m_analyser.GetValDescPair(id, signal, pairs); });
    }
    void SetProtocol(ProtocolType protocol) {
        Locked([&] { m_analyser.SetProtocol(protocol); });
    }
    ProtocolType GetProtocol() {
        return Locked([&] { return m_analyser.GetProtocol(); });
    }

    bool Decode(DBCMessage* out, const VCI_CAN_OBJ* frames, size_t count) {
        return Locked([&] { return m_analyser.Decode(out, frames, count, true); });
    }
    // *count: capacity in, frames kept in `out` afterwards. True when the
    // encoder made any frame, kept or not.
    bool Encode(std::vector<VCI_CAN_OBJ>& out, uint32_t* count, const DBCMessage* msg);
    bool Analyse(const VCI_CAN_OBJ& frame, DBCMessage* out);
    void OnReceive(const VCI_CAN_OBJ& frame) { m_exchange.OnReceive(&frame); }
    void SetSender(CExchange::SenderFn sender, void* context);
    uint32_t Send(const DBCMessage* msg, uint32_t layout) { return m_exchange.Send(msg, layout); }

    void SetAsyncAnalyseCallback(TARN_AsyncAnalyseCallback callback, void* context);
    void SetOnMultiTransDoneFunc(TARN_MultiTransDoneFunc callback, void* context);
    bool AsyncAnalyse(uint32_t handle, const void* frame, uint8_t fd, uint64_t tag);
    bool AnalyseOne(const FrmObj& obj, DBCMessage* out);

    // Transfers completed by synchronously analysed frames or by our own sends.
    void OnTransDone(uint32_t id, std::vector<VCI_CAN_OBJ>& frames, uint8_t* data, uint16_t length,
                     uint8_t value) override;

  private:
    // Decoding stores each raw value in the model and translation reads it
    // back; loading rebuilds the model. So every use of the analyser holds
    // this lock, and no callback ever runs under it.
    template <class F>
    auto Locked(F&& f) -> decltype(f()) {
        std::lock_guard<std::mutex> lock(m_analyserMutex);
        return f();
    }

    // Listener of the async receiver: a transfer it completes is reported
    // through the asynchronous callback with the tag of the completing frame.
    class AsyncTransDone : public IOnMultiTransDoneListener {
      public:
        explicit AsyncTransDone(CDBCControl& owner) : m_owner(owner) {}
        void OnTransDone(uint32_t id, std::vector<VCI_CAN_OBJ>& frames, uint8_t* data,
                         uint16_t length, uint8_t value) override;
        uint64_t m_curTag = 0;  // touched by the analysis thread only

      private:
        CDBCControl& m_owner;
    };

    void Shutdown();
    static void* AsyncAnalyseLoop(void* self);
    void DoAsyncAnalyse();
    bool PopFront(FrmObj& obj);
    void ClearQueue();
    void DeliverAsync(DBCMessage* msg, uint64_t tag);
    static bool SendThrough(void* self, void* frame);
    bool DecodeFdPackets(const TarnCanFdFrame& fdf, DBCMessage* out);
    bool DecodeTransfer(uint32_t id, std::vector<VCI_CAN_OBJ>& frames, DBCMessage* out);

    std::mutex m_analyserMutex;
    CAnalyser m_analyser;
    CExchange m_exchange;
    // Callers' threads push into the sync receiver; a callback it makes may
    // push again on the same thread.
    std::recursive_mutex m_syncReceiverMutex;
    CMultiFrmListener m_syncReceiver;
    const bool m_asyncEnabled;
    DataQueue m_queue;
    kq::Thread m_thread;
    CMultiFrmListener m_asyncReceiver;
    AsyncTransDone m_asyncListener;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_threadStarted{false};

    // Callbacks are installed by the application thread and read by the
    // analysis thread and the receiving threads.
    std::mutex m_cbMutex;
    TARN_AsyncAnalyseCallback m_asyncCb = nullptr;
    void* m_asyncCtx = nullptr;
    TARN_MultiTransDoneFunc m_doneCb = nullptr;
    void* m_doneCtx = nullptr;
    CExchange::SenderFn m_sender = nullptr;
    void* m_senderCtx = nullptr;
};
