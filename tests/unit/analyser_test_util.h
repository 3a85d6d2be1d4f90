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
#include <regex>
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

// Messages keyed by their identifier as written (bit 31 included).
inline std::map<uint64_t, RefMessage> ReadReference(const std::string& text) {
    static const std::regex bo(R"(^BO_\s+(\d+)\s+(\w+)\s*:\s*(\d+))");
    static const std::regex sg(
        R"(^\s*SG_\s+(\w+)\s*(\w*)\s*:\s*(\d+)\|(\d+)@([01])([+-])\s*\(([^,]+),([^)]+)\)\s*)"
        R"(\[([^|]+)\|([^\]]+)\]\s*\"([^\"]*)\")");
    static const std::regex vt(R"(^SIG_VALTYPE_\s+(\d+)\s+(\w+)\s*:?\s*(\d))");
    static const std::regex val(R"(^VAL_\s+(\d+)\s+(\w+)\s+(.*);)");
    static const std::regex pair(R"(\s*(-?[0-9.eE+]+)\s+\"([^\"]*)\")");
    std::map<uint64_t, RefMessage> out;
    std::istringstream in(text);
    std::string line;
    RefMessage* cur = nullptr;
    std::smatch m;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (std::regex_search(line, m, bo)) {
            RefMessage& msg = out[std::stoull(m[1])];
            msg.id = std::stoull(m[1]);
            msg.name = m[2];
            msg.dlc = static_cast<uint32_t>(std::stoul(m[3]));
            cur = &msg;
        } else if (cur && std::regex_search(line, m, sg)) {
            RefSignal s;
            s.name = m[1];
            s.mux = m[2];
            s.startBit = static_cast<uint32_t>(std::stoul(m[3]));
            s.length = static_cast<uint32_t>(std::stoul(m[4]));
            s.motorola = m[5] == "0";
            s.isSigned = m[6] == "-";
            s.factor = strtod(m[7].str().c_str(), nullptr);
            s.offset = strtod(m[8].str().c_str(), nullptr);
            s.minimum = strtod(m[9].str().c_str(), nullptr);
            s.maximum = strtod(m[10].str().c_str(), nullptr);
            s.unit = m[11];
            cur->signals.push_back(s);
        } else if (std::regex_search(line, m, vt) || std::regex_search(line, m, val)) {
            cur = nullptr;
            auto it = out.find(std::stoull(m[1]));
            if (it == out.end()) continue;
            for (RefSignal& s : it->second.signals) {
                if (s.name != m[2]) continue;
                if (line.compare(0, 4, "VAL_") != 0) {
                    s.valueType = std::stoi(m[3]);
                    continue;
                }
                std::string rest = m[3];
                for (std::sregex_iterator p(rest.begin(), rest.end(), pair), e; p != e; ++p)
                    s.values.emplace_back(strtod((*p)[1].str().c_str(), nullptr), (*p)[2]);
            }
        } else if (line.compare(0, 1, " ") != 0 && line.compare(0, 1, "\t") != 0) {
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
