#include "j1939/multi_frm_listener.h"
#include "j1939/j1939_ids.h"

#include <algorithm>
#include <exception>

#include "common/log.h"
#include "common/platform.h"

namespace {

using namespace j1939;

constexpr uint64_t kRtsRestartMs = 5000;
constexpr size_t kBytesPerPacket = 7;

}  // namespace

CMultiFrmListener::CMultiFrmListener() : m_now(&kq::Platform::Now) {}

CMultiFrmListener::~CMultiFrmListener() = default;

void CMultiFrmListener::SetClock(Clock now) {
    m_now = now ? now : &kq::Platform::Now;
}

int CMultiFrmListener::Push(const VCI_CAN_OBJ& frame) {
    try {
        uint32_t key = j1939::GroupKey(frame.id);
        if (key == kTpCmKey) {
            switch (frame.data[0]) {
                case kRts:
                    return ProcessRTS(frame);
                case kCts:
                    return ProcessCTS(frame);
                case kAck:
                    return ProcessACK(frame);
                case kBam:
                    return ProcessBAM(frame);
                case kAbort:
                    return ProcessAbort(frame);
                default:
                    return 0;
            }
        }
        if ((key >> 8) == kTpDtKey) return ProcessDT(frame);
    } catch (const std::exception& e) {
        // Only allocation or a throwing listener can get here; the frame is dropped.
        KQ_LOG(kq::LOG_ERROR, "CMultiFrmListener::Push: %s\n", e.what());
    }
    return 0;
}

int CMultiFrmListener::Announce(const VCI_CAN_OBJ& frame, bool broadcast) {
    m_size = j1939::CmSize(frame);
    m_packetCount = frame.data[3];
    m_pgn = j1939::CmPgn(frame);
    m_announceId = frame.id;
    m_packets.assign(m_packetCount, VCI_CAN_OBJ{});
    m_received.assign(m_packetCount, false);
    m_broadcast = broadcast;
    m_state = broadcast ? 2 : 1;
    return 1;
}

int CMultiFrmListener::ProcessRTS(const VCI_CAN_OBJ& frame) {
    uint64_t now = m_now();
    // A transfer in progress is only given up once its RTS has gone stale.
    if (m_state != 0 && now - m_startTime < kRtsRestartMs) return 0;
    Announce(frame, false);
    m_startTime = now;
    return 1;
}

int CMultiFrmListener::ProcessBAM(const VCI_CAN_OBJ& frame) {
    if (m_state != 0) return 0;
    return Announce(frame, true);
}

bool CMultiFrmListener::PgnMatches(const VCI_CAN_OBJ& frame) const {
    return j1939::CmPgn(frame) == m_pgn;
}

int CMultiFrmListener::ProcessCTS(const VCI_CAN_OBJ& frame) {
    if ((m_state != 1 && m_state != 3) || !PgnMatches(frame)) return 0;
    m_state = 3;
    return 1;
}

int CMultiFrmListener::ProcessDT(const VCI_CAN_OBJ& frame) {
    if (m_state != 2 && m_state != 3 && m_state != 4) return 0;
    uint8_t seq = frame.data[0];
    if (seq == 0 || seq > m_packetCount) return 0;
    m_packets[seq - 1] = frame;
    m_received[seq - 1] = true;
    m_state = 4;
    if (m_broadcast && seq == m_packetCount) return Notify();
    return 1;
}

int CMultiFrmListener::ProcessACK(const VCI_CAN_OBJ& frame) {
    if (m_state != 4 || !PgnMatches(frame)) return 0;
    if (j1939::CmSize(frame) != m_size || frame.data[3] != m_packetCount) return 0;
    return Notify();
}

int CMultiFrmListener::ProcessAbort(const VCI_CAN_OBJ& frame) {
    if (!PgnMatches(frame)) return 0;
    m_state = 0;
    return 1;
}

void CMultiFrmListener::Assemble() {
    // Zero-filled so that a packet count too small for the size leaves no
    // uninitialised bytes; a count too large copies nothing past the size.
    m_payload.assign(m_size, 0);
    size_t remaining = m_size;
    for (size_t k = 0; k < m_packets.size() && remaining > 0; ++k) {
        size_t n = std::min(remaining, kBytesPerPacket);
        std::copy(m_packets[k].data + 1, m_packets[k].data + 1 + n,
                  m_payload.begin() + k * kBytesPerPacket);
        remaining -= n;
    }
}

int CMultiFrmListener::Notify() {
    if (std::find(m_received.begin(), m_received.end(), false) != m_received.end()) return 0;
    Assemble();
    std::fill(m_received.begin(), m_received.end(), false);
    uint32_t pf = (m_pgn >> 8) & 0xFF;
    uint32_t keep = pf > 239 ? 0xFC0000FF : 0xFC00FFFF;
    uint32_t id = (m_pgn << 8) | (m_announceId & keep);
    if (m_listener) m_listener->OnTransDone(id, m_packets, m_payload.data(), m_size, 1);
    m_state = 0;
    return 1;
}
