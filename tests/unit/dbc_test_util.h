// Helpers of the DBC database tests: a log capture that returns the message
// texts without their source prefix, and loading DBC text into a fresh model.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "common/log.h"
#include "dbc.h"
#include "dbc_impl.h"

namespace dbctest {

// Routes the logger into a temporary file while alive.
class LogCapture {
  public:
    LogCapture() {
        char tmpl[] = "/tmp/tarn_dbc_log_XXXXXX";
        int fd = mkstemp(tmpl);
        if (fd >= 0) close(fd);
        m_path = tmpl;
        kq::LogInit(m_path.c_str(), kq::LOG_DEBUG);
    }
    ~LogCapture() {
        kq::LogInit(nullptr, kq::LOG_DEBUG);
        unlink(m_path.c_str());
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::string Raw() const {
        std::ifstream in(m_path, std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

    // Every logged message without the "file:line[level] " prefix and the
    // newline of the "%s\n" format. Blank lines (the signed-signal warning
    // carries its own newline) are dropped.
    std::vector<std::string> Messages() const {
        std::vector<std::string> out;
        std::istringstream in(Raw());
        std::string line;
        while (std::getline(in, line)) {
            size_t close = line.find("] ");
            if (line.empty() || close == std::string::npos) continue;
            out.push_back(line.substr(close + 2));
        }
        return out;
    }

  private:
    std::string m_path;
};

// A model loaded from text, with the record-order flag set on request.
inline std::unique_ptr<DBC> Load(const std::string& text, bool ordered = false,
                                 bool* ok = nullptr) {
    std::unique_ptr<DBC> db(new DBC);
    db->Impl()->SetOrdered(ordered);
    bool result = db->LoadContent(text);
    if (ok) *ok = result;
    return db;
}

inline const Signal* Sig(const DBC& db, uint64_t id, const char* name) {
    return db.FindSignal(db.FindMsg(id), name);
}

inline std::string CorpusFile(const std::string& name) {
#ifdef TARN_CORPUS_DIR
    std::string path = std::string(TARN_CORPUS_DIR) + "/" + name;
    if (access(path.c_str(), R_OK) == 0) return path;
#endif
    (void)name;
    return std::string();
}

}  // namespace dbctest
