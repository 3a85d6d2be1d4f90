// Stands between the database model and the public records: loads a file,
// translates messages into DBCMessage records, finds messages by identifier
// or PGN, decodes and encodes frames and selects multiplexed signals.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "coder/dbc_coder.h"
#include "dbc/dbc.h"
#include "tarn.h"

struct MessagePlans;

class CAnalyser {
  public:
    CAnalyser();
    virtual ~CAnalyser();
    CAnalyser(const CAnalyser&) = delete;
    CAnalyser& operator=(const CAnalyser&) = delete;

    bool Load(const FileInfo* info);
    void TranslateMsg(const Message& msg, DBCMessage& out);
    void CollectAttr(DBCMessage& out, const Message& msg);

    bool GetFirstMessage(DBCMessage* out);
    bool GetNextMessage(DBCMessage* out);
    uint32_t GetMessageCount();
    bool GetMessageById(uint32_t id, DBCMessage* out);
    bool GetMessageByPgn(uint32_t pgn, DBCMessage* out);
    bool IsIdEqual(uint32_t a, uint32_t b);

    uint32_t GetNetworkNodeCount();
    bool GetNetworkNodeAt(uint32_t index, DBCNetworkNode* node);
    uint32_t GetValDescPairCount(uint32_t id, const char* signal);
    void GetValDescPair(uint32_t id, const char* signal, ValDescPair* pairs);

    void SetProtocol(ProtocolType protocol);
    ProtocolType GetProtocol();

    // `flag` is handed to the coder: true looks messages up by identifier
    // even in a J1939 database.
    bool Decode(DBCMessage* out, const VCI_CAN_OBJ* frames, size_t count, bool flag);
    bool Encode(std::vector<VCI_CAN_OBJ>& out, const DBCMessage* msg);
    void SelectMutiplexer(DBCMessage* msg);
    bool FindMutiplexerM(DBCMessage* msg, uint16_t& value);

    DBCEx& Database() { return m_db; }
    DBCCoder& Coder() { return m_coder; }

  private:
    const Signal* FindValueTable(uint32_t id, const char* signal) const;
    // Logs "CAnalyser::<what>--ID:0x%08x" at level 3 under this source's name.
    static void LogFailure(const char* what, uint32_t id);
    // The plans of a message, built on its first decode; safe to call from
    // several threads at once.
    const MessagePlans& PlansFor(const IndexedMessage& msg);
    // Drops the plans; called whenever the coder rebuilds its indexes.
    void ResetPlans();

    DBCEx m_db;
    DBCCoder m_coder;
    std::vector<NetworkNode*> m_nodes;
    // Plans by the message's position in the database order.
    std::unique_ptr<std::atomic<const MessagePlans*>[]> m_plans;
    size_t m_planCount = 0;
    std::vector<std::unique_ptr<MessagePlans>> m_planStore;
    std::mutex m_planMutex;
};

void SortMessageSignals(DBCMessage& msg);
bool SignalCompareAscend(const DBCSignal& a, const DBCSignal& b);

// The slots of a translation into a zeroed record (filled by signal index,
// counted and sorted as TranslateMsg does), each filled slot's rawValue
// holding its signal's position in the signal map plus one.
void TranslateTaggedSlots(const Message& msg, DBCMessage& out);
// The cycle time a translation reports; false when it leaves the field alone.
bool CycleTimeOf(const Message& msg, double& cycleTime);

// Multiplexing: the switch value of a switch slot holding `raw` (low 16 bits
// of its physical value truncated toward zero), and whether a slot stays
// under a switch value.
uint16_t SwitchValueOf(const DBCSignal& sw, uint64_t raw);
bool IsSelected(const DBCSignal& sig, uint32_t switchValue);

// Raw <-> physical conversions of the public interface.
double CalcActualValue(const DBCSignal* signal, uint64_t* raw);
uint64_t CalcRawValue(const DBCSignal* signal, double* physical);
