// Message coder: finds messages by identifier or J1939 PGN key, decodes frames
// into named values and encodes named raw values into frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "common/command_info.h"
#include "dbc/dbc.h"
#include "tarn.h"

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

    bool Decode(kq::CommandInfo* cmd, const std::vector<VCI_CAN_OBJ>& frames, bool byId) const;
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
    // True when the decoder reports raw as plain decimal rather than "%lf" text.
    static bool IsPlainInteger(uint64_t raw, const Signal& sig);
    // Appends (signal name, value text) for one decoded raw value.
    static bool AppendValue(kq::CommandInfo* cmd, uint64_t raw, const Signal& sig);

  private:
    DBC* m_db;
    ProtocolType m_protocol = TARN_PROTOCOL_OTHER;
    std::map<uint64_t, Message*> m_byId;
    std::map<uint64_t, Message*> m_byPgn;
};
