// Decode and encode plans for the native model: everything a frame needs is
// worked out once when a database opens (field positions, masks, switch
// slots, value-text ranges), so decoding is a tight loop over flat records
// and never allocates.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "coder/bits.h"
#include "dbc/network.h"
#include "tarn/db.h"

namespace tarn::coder {

constexpr uint8_t kNoSlot = 0xFF;
// A dependent whose switch cannot be tracked is never selected.
constexpr uint8_t kDeadSlot = 0xFE;
// Switches per message that decoding tracks; a message with more is
// decoded as if the extra switches selected nothing.
constexpr uint32_t kMaxSwitches = 254;

enum class Kind : uint8_t { Unsigned, Signed, Float, Double };

struct SignalPlan {
    double factor = 1.0;
    double offset = 0.0;
    const net::ValueText* texts = nullptr;  // sorted by raw value
    uint32_t textCount = 0;
    uint32_t needBytes = 0;  // payload bytes for the field to fit
    bits::Field field;
    Kind kind = Kind::Unsigned;
    uint8_t switchSlot = kNoSlot;  // slot of the switch that selects it
    uint8_t ownSlot = kNoSlot;     // its slot when it is a switch itself
    // Switch values that select it: one inline range, or `muxCount` ranges
    // at `muxFirst` in the network's muxRanges.
    uint64_t muxLow = 0;
    uint64_t muxHigh = 0;
    uint32_t muxFirst = 0;
    uint32_t muxCount = 0;
    uint64_t startRaw = 0;  // the value an encode gives it when not set
};

// Whether switch value v selects the signal of plan p.
inline bool Selects(const SignalPlan& p, const net::MuxRange* ranges, uint64_t v) {
    if (p.muxCount == 0) return v >= p.muxLow && v <= p.muxHigh;
    for (uint32_t i = 0; i < p.muxCount; ++i) {
        const net::MuxRange& r = ranges[p.muxFirst + i];
        if (v >= r.low && v <= r.high) return true;
    }
    return false;
}

struct MessagePlan {
    uint32_t firstSignal = 0;  // into NetworkPlan::signals
    uint32_t signalCount = 0;
    uint32_t length = 0;
    bool multiplexed = false;
    int32_t cycleTimeMs = -1;  // GenMsgCycleTime, -1 when not declared
    // Signal indexes (within the message) of the switches, in an order
    // where a switch comes after the switch that selects it.
    std::vector<uint32_t> switchOrder;
    // Wide multiplexed messages: the signals that one value of the first
    // switch selects, as (value, signal) sorted, and every other signal in
    // message order, so a frame visits only what it may carry.
    std::vector<std::pair<uint64_t, uint32_t>> byValue;
    std::vector<uint32_t> others;
};

// Open-addressing table from 64-bit keys to message indexes.
class KeyTable {
  public:
    void Build(const std::vector<std::pair<uint64_t, uint32_t>>& entries);
    // -1 when absent.
    int64_t Find(uint64_t key) const {
        if (m_mask == 0) return -1;
        for (size_t i = Slot(key);; i = (i + 1) & m_mask) {
            const Entry& e = m_entries[i];
            if (e.key == key) return e.value;
            if (e.key == kEmpty) return -1;
        }
    }

  private:
    static constexpr uint64_t kEmpty = ~uint64_t{0};
    struct Entry {
        uint64_t key = kEmpty;
        uint32_t value = 0;
    };
    size_t Slot(uint64_t key) const {
        return static_cast<size_t>((key * 0x9E3779B97F4A7C15ull) >> m_shift) & m_mask;
    }
    std::vector<Entry> m_entries;
    size_t m_mask = 0;
    uint32_t m_shift = 0;
};

class NetworkPlan {
  public:
    // `indexMux` false keeps every message on the plain walk (for tests).
    void Build(const net::Network& net, bool indexMux = true);

    // Index of the message for a frame, -1 when none: the exact identifier
    // first, then (J1939) the PGN of an extended one.
    int64_t FindMessage(uint32_t id, bool extended) const;
    int64_t FindPgn(uint32_t pgn) const { return m_byPgn.Find(pgn); }

    const MessagePlan& Message(size_t i) const { return m_messages[i]; }
    const SignalPlan& Signal(size_t i) const { return m_signals[i]; }
    const net::MuxRange* MuxRanges() const { return m_muxRanges; }
    bool J1939() const { return m_j1939; }
    uint32_t MaxSignals() const { return m_maxSignals; }
    size_t BytesHeld() const;

    // Decodes one payload of message `index`. Returns a tarn_status.
    int Decode(size_t index, const uint8_t* data, size_t length, tarn_value* values,
               size_t capacity, uint32_t* count, uint32_t* absent) const;

    // Encodes message `index` of `net` (the network this plan was built
    // from) into out[0..length). Returns a tarn_status; on an input's
    // error *failed is its index.
    int Encode(const net::Network& net, size_t index, const tarn_input* inputs, size_t n,
               unsigned flags, uint8_t* out, size_t outSize, size_t* written, size_t* failed) const;

  private:
    std::vector<MessagePlan> m_messages;
    std::vector<SignalPlan> m_signals;
    KeyTable m_byId;
    KeyTable m_byPgn;
    const net::MuxRange* m_muxRanges = nullptr;
    bool m_j1939 = false;
    uint32_t m_maxSignals = 0;
};

// A decoded value from a field's bits: raw, physical and value text.
void FillValue(const SignalPlan& p, uint64_t bits, tarn_value& v);

// Physical to raw with every check an encode makes. Returns a tarn_status;
// on success `raw` holds the bits to store.
int PhysicalToRaw(const SignalPlan& plan, const net::Signal& sig, double physical, bool strict,
                  uint64_t& raw);
// Checks an integer raw value against the signal's field.
int CheckRaw(const SignalPlan& plan, uint64_t raw, bool isSignedInput, uint64_t& bits);

}  // namespace tarn::coder
