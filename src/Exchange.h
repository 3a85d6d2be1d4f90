// J1939 transport, send side: short messages go out at once; long ones are
// queued for the send thread, which runs RTS / CTS-paced TP.DT / EndOfMsgAck.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "Analyser.h"
#include "MultiFrmListener.h"
#include "common/conditionvariable.h"
#include "common/thread.h"
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

    CExchange(CAnalyser* analyser, bool disableMultiSend);
    virtual ~CExchange();
    CExchange(const CExchange&) = delete;
    CExchange& operator=(const CExchange&) = delete;

    void SetListener(IOnMultiTransDoneListener* listener);
    void SetSender(SenderFn sender, void* context);
    void SetAddr(uint8_t source, uint8_t destination);
    uint8_t GetAddrSrc() const;
    uint8_t GetAddrDst() const;

    // 0 sent, 1 not sent, 2 queued, 3 refused (multi-packet sending disabled).
    uint32_t Send(const DBCMessage* msg);
    // Receive entry: only TP.CM frames concern the exchange.
    void OnReceive(const VCI_CAN_OBJ* frame);
    void Stop();
    void Reset();

    // Internal operations; the helper owning this file may extend the
    // private section as it needs.
private:
    CAnalyser* m_analyser;
    bool m_disableMultiSend;
};
