// Shared helpers of the analyser tests: DBC text loaded through a real file
// and heap-allocated public records.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "legacy/analyser.h"

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

}  // namespace atest
