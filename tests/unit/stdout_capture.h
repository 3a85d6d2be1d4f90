// Test helpers: scratch files under /tmp, and a capture of standard output.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

// A fresh path under /tmp that the test owns and removes; no file is left at it.
class TempPath {
  public:
    explicit TempPath(const char* tag) : path_(std::string("/tmp/tarn_") + tag + "_XXXXXX") {
        close(mkstemp(&path_[0]));
        unlink(path_.c_str());
    }
    ~TempPath() { unlink(path_.c_str()); }
    const std::string& str() const { return path_; }
    const char* c_str() const { return path_.c_str(); }
    std::string Read() const {
        std::stringstream ss;
        ss << std::ifstream(path_, std::ios::binary).rdbuf();
        return ss.str();
    }
    void Write(const std::string& data) const { std::ofstream(path_, std::ios::binary) << data; }

  private:
    std::string path_;
};

// Redirects the process's standard output into a scratch file until Text().
class StdoutCapture {
  public:
    StdoutCapture() : saved_((std::fflush(stdout), dup(STDOUT_FILENO))) {
        FILE* f = std::fopen(file_.c_str(), "wb");
        dup2(fileno(f), STDOUT_FILENO);
        std::fclose(f);
    }
    ~StdoutCapture() { Text(); }
    // Stops capturing and returns everything written meanwhile.
    std::string Text() {
        if (saved_ >= 0) {
            std::fflush(stdout);
            dup2(saved_, STDOUT_FILENO);
            close(saved_);
            saved_ = -1;
        }
        return file_.Read();
    }

  private:
    TempPath file_{"stdout"};
    int saved_;
};
