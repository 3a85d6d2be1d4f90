// Helpers of the legacy DBC model tests: log capture, loading text, scratch files.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "common/log.h"
#include "dbc/dbc.h"
#include "dbc/dbc_impl.h"

namespace dbctest {

inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// A fresh directory, removed with its contents at the end of the scope.
class TempDir {
  public:
    TempDir() {
        char tmpl[] = "/tmp/tarn_dbc_XXXXXX";
        m_path = mkdtemp(tmpl) ? tmpl : "";
    }
    ~TempDir() {
        std::error_code ec;
        if (!m_path.empty()) std::filesystem::remove_all(m_path, ec);
    }
    const std::string& Path() const { return m_path; }
    std::string Write(const std::string& name, const std::string& text) const {
        std::ofstream(m_path + "/" + name, std::ios::binary) << text;
        return m_path + "/" + name;
    }

  private:
    std::string m_path;
};

// Routes the logger into a file while alive; Messages() drops the "file:line[level] " prefix.
class LogCapture {
  public:
    LogCapture() { kq::LogInit(m_file.c_str(), kq::LOG_DEBUG); }
    ~LogCapture() { kq::LogInit(nullptr, kq::LOG_DEBUG); }
    std::string Raw() const { return ReadFile(m_file); }
    std::vector<std::string> Messages() const {
        std::vector<std::string> out;
        std::istringstream in(Raw());
        for (std::string line; std::getline(in, line);)
            if (line.find("] ") != std::string::npos)
                out.push_back(line.substr(line.find("] ") + 2));
        return out;
    }

  private:
    TempDir m_dir;
    std::string m_file = m_dir.Path() + "/log.txt";
};

class Quiet : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { kq::LogInit("/dev/null", kq::LOG_ERROR); }
    static void TearDownTestSuite() { kq::LogInit(nullptr, kq::LOG_DEBUG); }
};

inline std::unique_ptr<DBC> Load(const std::string& text, bool ordered = false,
                                 bool* ok = nullptr) {
    auto db = std::make_unique<DBC>();
    db->Impl()->SetOrdered(ordered);
    bool result = db->LoadContent(text);
    if (ok) *ok = result;
    return db;
}

inline const Signal* Sig(const DBC& db, uint64_t id, const char* name) {
    return db.FindSignal(db.FindMsg(id), name);
}

inline std::vector<Message*> Messages(const DBC& db) {
    std::vector<Message*> all;
    db.GetAllMessage(all);
    return all;
}

}  // namespace dbctest
