// Shared helpers of the analyser tests: loading DBC text through a real file,
// heap-allocated public records, corpus paths and a small independent reader
// of the SG_/BO_/VAL_ lines of DBC text.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Analyser.h"

namespace atest {

inline std::unique_ptr<DBCMessage> NewMessage() {
    return std::make_unique<DBCMessage>();
}

inline std::string CorpusPath(const std::string& name) {
#ifdef TARN_CORPUS_DIR
    return std::string(TARN_CORPUS_DIR) + "/" + name;
#else
    return name;
#endif
}

inline bool Exists(const std::string& path) {
    return access(path.c_str(), R_OK) == 0;
}

inline std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
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

// --- independent reader of DBC text ---------------------------------------

struct RefSignal {
    std::string name, mux, unit;
    uint32_t startBit = 0, length = 0;
    bool motorola = false, isSigned = false;
    double factor = 0, offset = 0, minimum = 0, maximum = 0;
    int valueType = 0;
    std::vector<std::pair<double, std::string>> values;
};

struct RefMessage {
    uint64_t id = 0;
    uint32_t dlc = 0;
    std::string name;
    std::vector<RefSignal> signals;  // file order
};

inline const char* SkipBlanks(const char* p) {
    while (*p == ' ' || *p == '\t') ++p;
    return p;
}

// One SG_ line (leading blanks already skipped); false if it does not parse.
inline bool ParseSignalLine(const char* p, RefSignal& s) {
    char name[256], mux[64] = "";
    int used = 0;
    if (sscanf(p, "SG_ %255s%n", name, &used) != 1) return false;
    p = SkipBlanks(p + used);
    if (*p != ':') {
        if (sscanf(p, "%63s%n", mux, &used) != 1) return false;
        p = SkipBlanks(p + used);
    }
    unsigned start = 0, length = 0;
    char order = 0, sign = 0;
    if (sscanf(p, ": %u|%u@%c%c (%lf,%lf) [%lf|%lf]%n", &start, &length, &order, &sign, &s.factor,
               &s.offset, &s.minimum, &s.maximum, &used) != 8)
        return false;
    const char* open = strchr(p + used, '"');
    const char* close = open ? strchr(open + 1, '"') : nullptr;
    if (!close) return false;
    s.name = name;
    s.mux = mux;
    s.startBit = start;
    s.length = length;
    s.motorola = order == '0';
    s.isSigned = sign == '-';
    s.unit.assign(open + 1, close);
    return true;
}

// Pairs of a VAL_ line after the signal name: number, quoted text, ...
inline void ParseValuePairs(const char* p, RefSignal& s) {
    for (;;) {
        char* end = nullptr;
        double v = strtod(p, &end);
        if (end == p) return;
        const char* open = strchr(end, '"');
        const char* close = open ? strchr(open + 1, '"') : nullptr;
        if (!close) return;
        s.values.emplace_back(v, std::string(open + 1, close));
        p = close + 1;
    }
}

inline RefSignal* FindRefSignal(std::map<uint64_t, RefMessage>& out, uint64_t id,
                                const char* name) {
    auto it = out.find(id);
    if (it == out.end()) return nullptr;
    for (RefSignal& s : it->second.signals)
        if (s.name == name) return &s;
    return nullptr;
}

// Messages keyed by their identifier as written (bit 31 included).
inline std::map<uint64_t, RefMessage> ReadReference(const std::string& text) {
    std::map<uint64_t, RefMessage> out;
    std::istringstream in(text);
    std::string line;
    RefMessage* cur = nullptr;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const char* p = line.c_str();
        unsigned long long id = 0;
        unsigned dlc = 0;
        char name[256];
        int used = 0;
        RefSignal sig;
        if (sscanf(p, "BO_ %llu %255[^: ] : %u", &id, name, &dlc) == 3) {
            cur = &out[id];
            cur->id = id;
            cur->name = name;
            cur->dlc = dlc;
        } else if (cur && (*p == ' ' || *p == '\t') && ParseSignalLine(SkipBlanks(p), sig)) {
            cur->signals.push_back(sig);
        } else if (sscanf(p, "SIG_VALTYPE_ %llu %255[^: ] : %d", &id, name, &dlc) == 3) {
            if (RefSignal* s = FindRefSignal(out, id, name)) s->valueType = static_cast<int>(dlc);
        } else if (sscanf(p, "VAL_ %llu %255s%n", &id, name, &used) == 2) {
            if (RefSignal* s = FindRefSignal(out, id, name)) ParseValuePairs(p + used, *s);
        } else if (*p != ' ' && *p != '\t') {
            cur = nullptr;
        }
    }
    return out;
}

// Bit-by-bit placement of a raw value in a payload, DBC numbering: Intel
// runs upward from the start bit, Motorola runs from the start bit (its most
// significant bit) down to bit 0 of a byte, then on at bit 7 of the next.
inline std::vector<uint32_t> BitPositions(uint32_t startBit, uint32_t length, bool motorola) {
    std::vector<uint32_t> pos;  // least significant bit first
    uint32_t p = startBit;
    for (uint32_t i = 0; i < length; ++i) {
        pos.push_back(p);
        if (!motorola)
            ++p;
        else
            p = (p % 8 == 0) ? p + 15 : p - 1;
    }
    if (motorola) std::reverse(pos.begin(), pos.end());
    return pos;
}

inline void RefPack(uint8_t* data, const RefSignal& s, uint64_t raw) {
    std::vector<uint32_t> pos = BitPositions(s.startBit, s.length, s.motorola);
    for (size_t i = 0; i < pos.size(); ++i) {
        uint8_t bit = static_cast<uint8_t>(1u << (pos[i] % 8));
        if ((raw >> i) & 1u)
            data[pos[i] / 8] |= bit;
        else
            data[pos[i] / 8] &= static_cast<uint8_t>(~bit);
    }
}

inline uint64_t RefExtract(const uint8_t* data, const RefSignal& s) {
    std::vector<uint32_t> pos = BitPositions(s.startBit, s.length, s.motorola);
    uint64_t raw = 0;
    for (size_t i = 0; i < pos.size(); ++i)
        if ((data[pos[i] / 8] >> (pos[i] % 8)) & 1u) raw |= 1ULL << i;
    return raw;
}

inline const RefSignal* FindRef(const RefMessage& msg, const char* name) {
    for (const RefSignal& s : msg.signals)
        if (s.name == name) return &s;
    return nullptr;
}

}  // namespace atest
