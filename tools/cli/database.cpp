#include "database.h"

#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace tarncli {

MessagePtr newMessage() {
    MessagePtr m(new DBCMessage);
    std::memset(m.get(), 0, sizeof(DBCMessage));
    return m;
}

std::string fixedText(const char* buf, size_t size) {
    return std::string(buf, strnlen(buf, size));
}

namespace {

// The library only says "could not load"; find out why before asking it.
bool checkReadable(const std::string& path, std::string& error) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    if (S_ISDIR(st.st_mode)) {
        error = path + ": is a directory";
        return false;
    }
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    std::fclose(f);
    if (path.size() >= TARN_PATH_LEN) {
        error = path + ": path longer than " + std::to_string(TARN_PATH_LEN - 1) + " characters";
        return false;
    }
    return true;
}

}  // namespace

std::unique_ptr<Database> Database::open(const std::string& path, std::string& error) {
    if (!checkReadable(path, error)) return nullptr;
    FileInfo info;
    std::memset(&info, 0, sizeof info);
    std::memcpy(info.path, path.c_str(), path.size() + 1);
    // No send thread and no analysis thread: the tool only reads frames.
    std::unique_ptr<Database> db(new Database(TARN_Init(true, false)));
    if (!TARN_LoadFile(db->m_handle, &info)) {
        error = path + ": not a readable DBC file (--verbose shows why)";
        return nullptr;
    }
    return db;
}

Database::~Database() {
    TARN_Release(m_handle);
}

void Database::forEachMessage(const std::function<void(const DBCMessage&)>& visit) const {
    MessagePtr msg = newMessage();
    // The library leaves cycleTime alone for messages without one.
    msg->cycleTime = NAN;
    for (bool ok = TARN_GetFirstMessage(m_handle, msg.get()); ok;
         ok = TARN_GetNextMessage(m_handle, msg.get())) {
        visit(*msg);
        msg->cycleTime = NAN;
    }
}

bool Database::findByName(const std::string& name, DBCMessage& out) const {
    bool found = false;
    forEachMessage([&](const DBCMessage& m) {
        if (!found && fixedText(m.name) == name) {
            std::memcpy(&out, &m, sizeof out);
            found = true;
        }
    });
    return found;
}

uint32_t Database::lookupKey(uint32_t id) const {
    id &= TARN_CAN_EFF_MASK;
    if (!isJ1939() || id <= 0x7FF) return id;
    uint32_t pf = (id >> 16) & 0xFF;
    return id & (pf < 240 ? 0x3FF0000u : 0x3FFFF00u);
}

bool Database::knowsId(uint32_t id, bool) {
    if (!m_keysBuilt) {
        forEachMessage([&](const DBCMessage& m) { m_keys.push_back(lookupKey(m.id)); });
        std::sort(m_keys.begin(), m_keys.end());
        m_keysBuilt = true;
    }
    return std::binary_search(m_keys.begin(), m_keys.end(), lookupKey(id));
}

std::vector<Database::Node> Database::nodes() const {
    std::vector<Node> out;
    uint32_t n = TARN_GetNetworkNodeCount(m_handle);
    for (uint32_t i = 0; i < n; ++i) {
        DBCNetworkNode node;
        std::memset(&node, 0, sizeof node);
        // An address the library never writes marks a node without one.
        node.stationAddress = UINT32_MAX;
        if (!TARN_GetNetworkNodeAt(m_handle, i, &node)) continue;
        out.push_back(
            {fixedText(node.name), node.stationAddress != UINT32_MAX, node.stationAddress});
    }
    return out;
}

std::vector<ValDescPair> Database::valueTable(uint32_t msgId, const char* signal) const {
    uint32_t n = TARN_GetValDescPairCount(m_handle, msgId, signal);
    std::vector<ValDescPair> pairs(n);
    if (n != 0) TARN_GetValDescPair(m_handle, msgId, signal, pairs.data());
    return pairs;
}

}  // namespace tarncli
