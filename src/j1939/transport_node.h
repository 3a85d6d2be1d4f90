// One J1939 transport end point: routes every received frame to the
// receiver or to our own outgoing sessions, starts sends, and drives both
// sides' timers from the time it is given. Without an address of its own it
// only listens and never sends a frame.
#pragma once

#include <cstddef>
#include <cstdint>

#include "j1939/transport.h"
#include "j1939/transport_receiver.h"
#include "j1939/transport_sender.h"

namespace j1939 {

class Node {
  public:
    struct Options {
        int address = -1;  // own address 0..253, or -1 to listen only
        uint8_t ctsWindow = kDefaultCtsWindow;
        uint32_t bamGapMs = kBamGapDefaultMs;
        uint32_t maxSessions = kDefaultMaxSessions;
    };
    enum class Result { Ok, Argument, Busy, SendFailed };

    Node(const Options& options, Events& events);
    static bool Valid(const Options& options);

    // A frame seen on the bus at `now` (microseconds); timers due by then fire first.
    Result Receive(uint64_t now, uint32_t id, const uint8_t* data, size_t length);
    // Sends `size` bytes of group `pgn`: a single frame up to 8 bytes, a
    // broadcast to the global address, RTS/CTS otherwise.
    Result Send(uint64_t now, uint8_t priority, uint32_t pgn, uint8_t destination,
                const uint8_t* data, size_t size);
    void Poll(uint64_t now);
    // The earliest time Poll has something to do, UINT64_MAX when idle.
    uint64_t NextDeadline() const;
    Stats GetStats() const;

  private:
    void OnCm(uint64_t now, uint32_t id, const uint8_t* d);
    bool ToUs(uint32_t id) const { return m_options.address == Destination(id); }

    Options m_options;
    Stats m_stats;
    Wire m_wire;
    Receiver m_receiver;
    Sender m_sender;
};

}  // namespace j1939
