// What a decode of one message writes into a DBCMessage, worked out once:
// the translated and sorted slots without their raw values, where each
// slot's raw value comes from, the multiplexer switch, and the value tables
// with the slots their texts go to. Writing a record from the plan gives the
// bytes that translating the message, selecting by its switch and matching
// the decoded values against the value tables give, without text records,
// slot sorting or map walks per decode.
#pragma once

#include <cstdint>
#include <vector>

#include "coder/dbc_coder.h"
#include "dbc/dbc.h"
#include "tarn.h"

class RecordPlan {
  public:
    explicit RecordPlan(const Message& msg);

    // False when some signal has no name: the value tables are then matched
    // by walking the decoded values (see CAnalyser::Decode).
    bool Direct() const { return m_direct; }

    // Writes the record of the decoded raw values (one per signal, in the
    // order of the signal map) received under frameId; `lookups` adds the
    // value-table texts.
    void Write(const uint64_t* raws, uint32_t frameId, bool lookups, DBCMessage& out) const;

  private:
    struct Key {
        double value;
        const char* desc;
    };
    // One value table and a sorted slot that receives its text.
    struct Lookup {
        uint32_t slot;
        uint32_t ordinal;  // the signal, by its position in the signal map
        const Signal* sig;
        uint32_t first, end;  // its keys in m_keys
    };

    void AddLookups(const Signal& sig, uint32_t ordinal);
    uint32_t Select(const uint64_t* raws, uint8_t* order) const;
    void WriteHeader(uint32_t frameId, DBCMessage& out) const;
    void WriteSlots(const uint64_t* raws, const uint8_t* order, uint32_t kept,
                    DBCMessage& out) const;
    void WriteTexts(const uint64_t* raws, const uint8_t* order, uint32_t kept,
                    DBCMessage& out) const;
    void PutSlot(DBCSignal& dst, uint32_t slot, const uint64_t* raws) const;
    const char* Find(const Lookup& l, uint64_t raw) const;

    const Message* m_msg;
    uint32_t m_count = 0;      // signalCount of the translated record
    uint32_t m_slotCount = 0;  // slots that sorting and selection look at
    int32_t m_switch = -1;     // first switch among them
    bool m_direct = true;
    bool m_hasCycleTime = false;
    double m_cycleTime = 0.0;
    std::vector<DBCSignal> m_slots;  // up to the last slot that is not empty
    std::vector<uint32_t> m_length;  // bytes of each up to its last nonzero one
    std::vector<int32_t> m_source;   // ordinal of each slot's signal, -1 for none
    std::vector<Lookup> m_lookups;   // by slot, then in signal-map order
    std::vector<Key> m_keys;         // per table: ascending, first text of a value
};

// What the analyser keeps per message, built on the message's first decode.
struct MessagePlans {
    explicit MessagePlans(Message& msg) : decode(DBCCoder::PlanFor(msg)), record(msg) {}
    DecodePlan decode;
    RecordPlan record;
};

// The number a value table is matched with: the decoded value as the text
// record carried it ("%lu" for plain integers, else "%lf" of the physical
// value), read back.
double TableNumber(uint64_t raw, const Signal& sig);

// Writes the value-table texts of `shown` into the selected slots of `out`
// for the values decoded for `decoded` (raws in its signal-map order),
// pairing decoded values with tables the way the walk over the decoder's text
// record did. For records that a plan's own lookups do not serve: another
// message decoded than shown, or signals without a name.
void WalkValueTables(const Message& decoded, const uint64_t* raws, const Message& shown,
                     DBCMessage& out);
