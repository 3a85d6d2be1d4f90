// Message coder: finds messages by identifier or J1939 PGN key, decodes frames
// into raw signal values and encodes named raw values into frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "common/command_info.h"
#include "dbc/dbc.h"
#include "tarn.h"

// How the decoder reads one signal: most signals take one unaligned 8-byte
// load, a shift and a mask; the rest go through GetRawValue.
struct SignalReader {
    enum Kind : uint8_t { kIntel, kMotorola, kGeneral };
    Signal* sig = nullptr;
    uint64_t mask = 0;
    uint32_t byte = 0;  // first byte of the load
    uint8_t shift = 0;
    Kind kind = kGeneral;
};

// How the decoder reads one message: a reader per signal, in the order of
// its signal map, and how many payload bytes they can touch.
struct DecodePlan {
    Message* msg = nullptr;
    size_t reach = 0;
    std::vector<SignalReader> readers;
};

// A message as the indexes find it, with its position in the database's
// order, under which callers can keep state per message.
struct IndexedMessage {
    Message* msg;
    uint32_t ordinal;
};

class DBCCoder {
  public:
    static constexpr size_t kDecodeBufSize = 1793;  // 255 packets of 7 bytes, plus 8
    static constexpr size_t kEncodeBufSize = 1785;  // 255 packets of 7 bytes

    explicit DBCCoder(DBC* db);
    ~DBCCoder();
    DBCCoder(const DBCCoder&) = delete;
    DBCCoder& operator=(const DBCCoder&) = delete;

    // Rebuilds both indexes from the database, then stores the protocol.
    void SetProtocol(ProtocolType type);
    ProtocolType GetProtocol() const { return m_protocol; }
    uint64_t PGN1939(uint64_t id) const;
    Message* FindMsg(uint32_t id, bool byId) const;
    const IndexedMessage* Find(uint32_t id, bool byId) const;
    // The database's messages when the indexes were built.
    size_t MessageCount() const { return m_count; }

    static DecodePlan PlanFor(Message& msg);
    // Decodes the frames of the plan's message into raws (one per reader) and
    // leaves each as its signal's last raw value in the model. `idBits` is
    // or-ed into every frame identifier (bit 31: extended). False when too few
    // frames came or their packets do not line up.
    bool DecodeRaw(const DecodePlan& plan, const VCI_CAN_OBJ* frames, size_t count, uint32_t idBits,
                   uint64_t* raws) const;
    std::vector<VCI_CAN_OBJ> Encode(kq::CommandInfo* cmd) const;
    std::vector<VCI_CAN_OBJ> Encode1939(const std::string& name,
                                        const std::vector<const char*>& list) const;
    std::vector<VCI_CAN_OBJ> EncodeNormal(const std::string& name,
                                          const std::vector<const char*>& list) const;
    VCI_CAN_OBJ* FindObj(std::vector<VCI_CAN_OBJ>& frames, uint64_t id) const;

    // Per-signal operations. `size` is the payload buffer's length: bits that
    // fall outside it are never touched (extraction yields 0, insertion fails).
    uint64_t GetRawValue(const uint8_t* payload, const Signal& sig,
                         size_t size = kDecodeBufSize) const;
    bool Cmd2Data(const char* value, uint8_t* payload, const Signal* sig,
                  size_t size = kEncodeBufSize) const;
    uint64_t GenerateValue(const char* value, const Signal& sig) const;

    // Raw-to-physical rule of the decoder.
    static double RawToPhysical(uint64_t raw, const Signal& sig);
    // True when a decoded raw value reads as plain decimal rather than "%lf" text.
    static bool IsPlainInteger(uint64_t raw, const Signal& sig);

  private:
    // Sorted by key; of two messages with one key the later in database order.
    using Index = std::vector<std::pair<uint64_t, IndexedMessage>>;

    static SignalReader ReaderFor(Signal& sig);
    uint64_t Read(const SignalReader& r, const uint8_t* payload) const;
    static const IndexedMessage* Lookup(const Index& index, uint64_t key);

    DBC* m_db;
    ProtocolType m_protocol = TARN_PROTOCOL_OTHER;
    size_t m_count = 0;
    Index m_byId;
    Index m_byPgn;
};
