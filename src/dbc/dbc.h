// In-memory model of one DBC file and the facade through which the rest of
// the library reads it. Every name is an interned pointer: equal names have
// equal pointers, and name-keyed maps are ordered by pointer value.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tarn.h"

class DBCImpl;

class IDBCListener {
public:
    virtual ~IDBCListener() = default;
    virtual void OnLoad() {}
};

enum AttrType { ATTR_INT = 0, ATTR_HEX = 1, ATTR_FLOAT = 2, ATTR_STRING = 3, ATTR_ENUM = 4 };

// One attribute value; the owning definition's type says which member counts.
struct AttrValue {
    std::string str;
    int32_t ival = 0;
    double fval = 0.0;
    uint32_t uval = 0;
};

// One BA_DEF_ statement.
struct AttrDesc {
    std::string objType;  // "BU_", "BO_", "SG_", "EV_" or empty (network)
    const char* name = nullptr;
    AttrType type = ATTR_INT;
    AttrValue defVal;
    std::vector<const char*> enums;
    double fmin = 0.0, fmax = 0.0;
    int32_t imin = 0, imax = 0;
    uint32_t hmin = 0, hmax = 0;

    void SetType(const std::string& word);
    std::string Dump() const;
    std::string DumpDefault() const;
};

// One BA_ statement.
struct Attr {
    const char* objType = nullptr;  // interned keyword, or interned "" for the network
    const char* name = nullptr;
    uint64_t msgId = 0;
    const char* objName = nullptr;
    AttrDesc* desc = nullptr;  // not owned
    AttrValue value;

    std::string Dump() const;
};

struct ValPair {
    double value = 0.0;
    std::string desc;
};

// Small members are grouped so that a signal's map node stays in a smaller
// allocation size class: a loaded file holds tens of thousands of them.
struct Signal {
    const char* name = nullptr;
    std::string multiplexer;  // "", "M" or "m<n>" exactly as written
    uint32_t multiplexerValue = 0;
    uint32_t startBit = 0;
    uint32_t length = 0;
    uint32_t index = 0;  // position among the message's signals in file order
    double factor = 0.0;
    double offset = 0.0;
    double minimum = 0.0;
    double maximum = 0.0;
    const char* unit = nullptr;
    std::string comment;
    bool bigEndian = false;  // Motorola byte order (@0)
    bool isSigned = false;
    uint8_t valueType = 0;  // 0 integer, 1 float, 2 double
    // Raw value of physical 0 after loading; the coder's decode overwrites it
    // with each decoded raw value.
    uint64_t rawZero = 0;
    std::vector<Attr> attrs;
    std::vector<ValPair> valueDescs;
};

struct Message {
    uint64_t id = 0;  // as written, bit 31 flags an extended identifier
    uint64_t dlc = 0;
    const char* name = nullptr;
    const char* transmitter = nullptr;
    std::string comment;
    std::map<const char*, Signal> signals;  // ordered by interned pointer
    std::vector<Attr> attrs;
    std::vector<Signal> signalList;  // file order, only while recording order

    std::string Dump() const;
};

struct NetworkNode {
    const char* name = nullptr;
    std::vector<Attr> attrs;
};

struct Comment {
    uint64_t id = 0;
    const char* type = nullptr;    // "BO_", "SG_", "BU_", "EV_" or "" (network)
    const char* signal = nullptr;  // signal, node or variable name
    std::string text;
};

struct VAL {
    uint64_t id = 0;
    const char* signal = nullptr;
    std::vector<ValPair> pairs;
    bool isSignal = true;  // false: an environment-variable table
};

// Facade over DBCImpl. Not copyable.
class DBC {
public:
    DBC();
    ~DBC();
    DBC(const DBC&) = delete;
    DBC& operator=(const DBC&) = delete;

    bool Load(const std::string& path, bool merge);
    bool LoadContent(const std::string& text);
    Message* FindMsg(uint64_t id) const;
    Message* FindMsg(const std::string& id) const;
    Message* FindMsg2(const std::string& name) const;
    Signal* FindSignal(const Message* msg, const std::string& name) const;
    void GetAllMessage(std::vector<Message*>& out) const;
    void GetAllNetworkNode(std::vector<NetworkNode*>& out) const;
    uint32_t GetProtocol() const;
    void SetListener(IDBCListener* listener);

    // The implementation, for the writer and for tests of internals.
    DBCImpl* Impl() const { return m_impl; }

private:
    DBCImpl* m_impl;
};

// A DBC that snapshots its messages (ascending id) after each load and
// iterates them with a cursor shared by all callers of one instance.
class DBCEx : public DBC {
public:
    using VisitFn = bool (*)(void* ctx, uint64_t index, const Message& msg);

    DBCEx();
    virtual ~DBCEx();

    bool Load(const std::string& path, bool merge);
    // Loads text held in memory and snapshots like Load.
    bool LoadContent(const std::string& text);
    bool GetFirstMessage(Message* out);
    bool GetNextMessage(Message* out);
    void ForEach(VisitFn fn, void* ctx) const;
    uint32_t GetMessageCount() const { return m_count; }

private:
    void Snapshot();

    std::vector<Message*> m_msgs;
    uint32_t m_pos = 0;
    uint32_t m_count = 0;
};
