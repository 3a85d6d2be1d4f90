// Redirects the process's standard output into a temporary file for the
// lifetime of the object, so that tests can read what the logger printed.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

class StdoutCapture {
  public:
    StdoutCapture() {
        char path[] = "/tmp/tarn_stdout_XXXXXX";
        int fd = mkstemp(path);
        path_ = path;
        std::fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        dup2(fd, STDOUT_FILENO);
        close(fd);
    }
    ~StdoutCapture() {
        Restore();
        unlink(path_.c_str());
    }
    // Stops capturing and returns everything written meanwhile.
    std::string Text() {
        Restore();
        std::ifstream in(path_);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

  private:
    void Restore() {
        if (saved_ < 0) return;
        std::fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        saved_ = -1;
    }
    std::string path_;
    int saved_ = -1;
};

// A fresh path under /tmp that the test owns and removes.
class TempPath {
  public:
    explicit TempPath(const char* tag) {
        std::string tmpl = std::string("/tmp/tarn_") + tag + "_XXXXXX";
        int fd = mkstemp(&tmpl[0]);
        if (fd >= 0) close(fd);
        unlink(tmpl.c_str());
        path_ = tmpl;
    }
    ~TempPath() { unlink(path_.c_str()); }
    const std::string& str() const { return path_; }
    const char* c_str() const { return path_.c_str(); }
    std::string Read() const {
        std::ifstream in(path_, std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    void Write(const std::string& data) const {
        std::ofstream out(path_, std::ios::binary);
        out << data;
    }

  private:
    std::string path_;
};
