// One loaded DBC file behind a library handle, seen only through tarn.h.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tarn.h"

namespace tarncli {

// DBCMessage is about 132 KiB: always keep it on the heap.
using MessagePtr = std::unique_ptr<DBCMessage>;
MessagePtr newMessage();

// Text of a fixed-size record buffer, which need not be terminated.
std::string fixedText(const char* buf, size_t size);

template <size_t N>
std::string fixedText(const char (&buf)[N]) {
    return fixedText(buf, N);
}

class Database {
  public:
    // Loads `path`; on failure returns null and explains in `error`.
    static std::unique_ptr<Database> open(const std::string& path, std::string& error);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    uint32_t handle() const { return m_handle; }
    bool isJ1939() const { return TARN_GetProtocol(m_handle) == 0; }
    uint32_t messageCount() const { return TARN_GetMessageCount(m_handle); }

    // Visits every message in database order; `cycleTime` is NaN when the
    // message declares none.
    void forEachMessage(const std::function<void(const DBCMessage&)>& visit) const;
    // Fills `out` with the message called `name`; false when there is none.
    bool findByName(const std::string& name, DBCMessage& out) const;
    // True when some message answers to this frame identifier, by the same
    // rule the library matches with (group number under J1939).
    bool knowsId(uint32_t id, bool extended);

    struct Node {
        std::string name;
        bool hasAddress;
        uint32_t address;
    };
    std::vector<Node> nodes() const;
    std::vector<ValDescPair> valueTable(uint32_t msgId, const char* signal) const;

  private:
    explicit Database(uint32_t handle) : m_handle(handle) {}
    uint32_t m_handle;
    uint32_t lookupKey(uint32_t id) const;
    std::vector<uint32_t> m_keys;  // sorted lookup keys of all messages, built on first use
    bool m_keysBuilt = false;
};

}  // namespace tarncli
