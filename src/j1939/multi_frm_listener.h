// Reassembles one J1939 transport transfer at a time (RTS/CTS or BAM) from
// observed frames and reports the completed payload to its listener.
#pragma once

#include <cstdint>
#include <vector>

#include "tarn.h"

class IOnMultiTransDoneListener {
  public:
    virtual ~IOnMultiTransDoneListener() = default;
    // id: reconstructed identifier; frames: the transfer's packets (the
    // listener may rewrite them); value: 1 for a received transfer, 0 for a
    // completed send.
    virtual void OnTransDone(uint32_t id, std::vector<VCI_CAN_OBJ>& frames, uint8_t* data,
                             uint16_t length, uint8_t value) = 0;
};

class CMultiFrmListener {
  public:
    // Millisecond clock used for the RTS restart time; replaceable for tests.
    using Clock = uint64_t (*)();

    CMultiFrmListener();
    virtual ~CMultiFrmListener();
    CMultiFrmListener(const CMultiFrmListener&) = delete;
    CMultiFrmListener& operator=(const CMultiFrmListener&) = delete;

    void SetListener(IOnMultiTransDoneListener* listener) { m_listener = listener; }
    IOnMultiTransDoneListener* GetListener() const { return m_listener; }
    // Non-zero when the frame was taken.
    int Push(const VCI_CAN_OBJ& frame);
    uint32_t GetState() const { return m_state; }
    void SetClock(Clock now);

    int ProcessRTS(const VCI_CAN_OBJ& frame);
    int ProcessCTS(const VCI_CAN_OBJ& frame);
    int ProcessACK(const VCI_CAN_OBJ& frame);
    int ProcessBAM(const VCI_CAN_OBJ& frame);
    int ProcessAbort(const VCI_CAN_OBJ& frame);
    int ProcessDT(const VCI_CAN_OBJ& frame);
    int Notify();

  private:
    int Announce(const VCI_CAN_OBJ& frame, bool broadcast);
    bool PgnMatches(const VCI_CAN_OBJ& frame) const;
    void Assemble();

    IOnMultiTransDoneListener* m_listener = nullptr;
    Clock m_now;
    uint32_t m_state = 0;
    uint16_t m_size = 0;
    uint8_t m_packetCount = 0;
    uint32_t m_pgn = 0;
    std::vector<VCI_CAN_OBJ> m_packets;
    std::vector<bool> m_received;
    std::vector<uint8_t> m_payload;
    uint32_t m_announceId = 0;
    uint64_t m_startTime = 0;
    bool m_broadcast = false;
};
