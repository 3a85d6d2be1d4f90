// Shared helpers of the analyser tests: loading DBC text through a real file,
// heap-allocated public records and a small independent reader of the
// BO_/SG_/SIG_VALTYPE_/VAL_ lines of DBC text.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "legacy/analyser.h"
#include "support/ref_packer.h"

namespace atest {

inline std::unique_ptr<DBCMessage> NewMessage() {
    return std::make_unique<DBCMessage>();
}

inline bool LoadPath(CAnalyser& a, const std::string& path) {
    FileInfo info{};
    snprintf(info.path, sizeof info.path, "%s", path.c_str());
    return a.Load(&info);
}

// Writes the text to a temporary file and loads it the way applications do.
inline bool LoadText(CAnalyser& a, const std::string& text) {
    char path[] = "/tmp/tarn_analyser_XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) return false;
    bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    bool ok = written && LoadPath(a, path);
    unlink(path);
    return ok;
}

inline const char* kJ1939Header = "VERSION \"\"\n\nNS_ :\n\nBS_:\n\nBU_: Node\n\n";
inline const char* kJ1939Footer =
    "BA_DEF_ \"ProtocolType\" STRING ;\n"
    "BA_DEF_DEF_ \"ProtocolType\" \"\";\n"
    "BA_ \"ProtocolType\" \"J1939\";\n";

inline std::vector<std::string> Names(const DBCMessage& m) {
    std::vector<std::string> names;
    for (uint32_t i = 0; i < m.signalCount; ++i) names.emplace_back(m.signals[i].name);
    return names;
}

// --- independent reader of DBC text ---------------------------------------

struct RefSignal {
    std::string name, mux, unit;
    uint32_t startBit = 0, length = 0;
    bool motorola = false, isSigned = false;
    double factor = 0, offset = 0, minimum = 0, maximum = 0;
    int valueType = 0;
    std::vector<std::pair<double, std::string>> values;

    void Pack(uint8_t* data, uint64_t raw) const {
        refpack::Pack(data, startBit, length, motorola, raw);
    }
    uint64_t Extract(const uint8_t* data) const {
        return refpack::Extract(data, startBit, length, motorola);
    }
    std::vector<uint64_t> Bits() const { return refpack::BitPositions(startBit, length, motorola); }
};

struct RefMessage {
    uint32_t dlc = 0;
    std::string name;
    std::vector<RefSignal> signals;  // file order
};

// Messages keyed by their identifier as written (bit 31 included).
using RefDb = std::map<uint64_t, RefMessage>;

template <class Message>
auto Find(Message& m, const std::string& name) -> decltype(&m.signals[0]) {
    for (auto& s : m.signals)
        if (s.name == name) return &s;
    return nullptr;
}

// One SG_ line (leading blanks already skipped); false if it does not parse.
inline bool ParseSignalLine(const char* p, RefSignal& s) {
    char name[256], mux[64] = "", order = 0, sign = 0;
    int used = 0;
    if (sscanf(p, "SG_ %255s %n", name, &used) != 1) return false;
    p += used;
    if (*p != ':' && sscanf(p, "%63s %n", mux, &used) == 1) p += used;
    if (sscanf(p, ": %u|%u@%c%c (%lf,%lf) [%lf|%lf]%n", &s.startBit, &s.length, &order, &sign,
               &s.factor, &s.offset, &s.minimum, &s.maximum, &used) != 8)
        return false;
    const char* open = strchr(p + used, '"');
    const char* close = open ? strchr(open + 1, '"') : nullptr;
    if (!close) return false;
    s.name = name;
    s.mux = mux;
    s.motorola = order == '0';
    s.isSigned = sign == '-';
    s.unit.assign(open + 1, close);
    return true;
}

inline RefDb ReadReference(std::istream& in) {
    RefDb out;
    RefMessage* cur = nullptr;
    auto at = [&out](uint64_t id, const char* name) {
        auto it = out.find(id);
        return it == out.end() ? nullptr : Find(it->second, name);
    };
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const char* p = line.c_str();
        const char* body = p + strspn(p, " \t");
        unsigned long long id = 0;
        unsigned num = 0;
        char name[256];
        int used = 0;
        RefSignal sig;
        RefSignal* s = nullptr;
        if (sscanf(p, "BO_ %llu %255[^: ] : %u", &id, name, &num) == 3) {
            cur = &out[id];
            cur->name = name;
            cur->dlc = num;
        } else if (cur && body != p && ParseSignalLine(body, sig)) {
            cur->signals.push_back(sig);
        } else if (sscanf(p, "SIG_VALTYPE_ %llu %255[^: ] : %u", &id, name, &num) == 3) {
            if ((s = at(id, name))) s->valueType = static_cast<int>(num);
        } else if (sscanf(p, "VAL_ %llu %255s%n", &id, name, &used) == 2 && (s = at(id, name))) {
            // Pairs after the signal name: number, quoted text, ...
            for (p += used;;) {
                char* end = nullptr;
                double v = strtod(p, &end);
                const char* open = end == p ? nullptr : strchr(end, '"');
                const char* close = open ? strchr(open + 1, '"') : nullptr;
                if (!close) break;
                s->values.emplace_back(v, std::string(open + 1, close));
                p = close + 1;
            }
        } else if (body == p) {
            cur = nullptr;
        }
    }
    return out;
}

inline RefDb ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return ReadReference(in);
}

inline RefDb ReadText(const std::string& text) {
    std::istringstream in(text);
    return ReadReference(in);
}

}  // namespace atest
