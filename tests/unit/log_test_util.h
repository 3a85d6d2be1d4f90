// Helpers of the log reader tests: logs written to temporary files, frames
// described as one compact line each, and problems collected in order.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tarn/log.h"

namespace logtest {

struct Collected {
    std::vector<std::string> frames;         // Describe() of each frame
    std::vector<tarn_log_problem> problems;  // excerpt copied into `excerpts`
    std::vector<std::string> excerpts;
    tarn_log_info info{};
};

// "<time> <iface> <ID> <S|X>[F][R][E] <length> <hex data>", time "-" when NaN.
inline std::string Describe(const tarn_frame& f, const tarn_log_reader* r) {
    const char* name = "?";
    tarn_log_channel(r, f.channel, &name);
    char head[160];
    char time[32] = "-";
    if (!std::isnan(f.time)) std::snprintf(time, sizeof time, "%.6f", f.time);
    std::snprintf(head, sizeof head, "%s %s %X %c%s%s%s %u ", time, name, f.id,
                  f.extended ? 'X' : 'S', f.flags & TARN_FRAME_FD ? "F" : "",
                  f.flags & TARN_FRAME_REMOTE ? "R" : "", f.flags & TARN_FRAME_ERROR ? "E" : "",
                  f.length);
    std::string s = head;
    for (unsigned i = 0; i < f.length; ++i) {
        char b[3];
        std::snprintf(b, sizeof b, "%02X", f.data[i]);
        s += b;
    }
    return s;
}

inline void OnProblem(void* user, const tarn_log_problem* p) {
    auto* c = static_cast<Collected*>(user);
    c->problems.push_back(*p);
    c->excerpts.push_back(p->excerpt);
}

// Reads the whole of an open reader, then closes it.
inline Collected ReadAll(tarn_log_reader* r, size_t batch = 64) {
    Collected c;
    tarn_log_set_problem_handler(r, OnProblem, &c);
    std::vector<tarn_frame> frames(batch);
    size_t n = 0;
    while (tarn_log_read(r, frames.data(), frames.size(), &n) == TARN_OK && n > 0)
        for (size_t i = 0; i < n; ++i) c.frames.push_back(Describe(frames[i], r));
    EXPECT_EQ(tarn_log_at_end(r), 1);
    tarn_log_get_info(r, &c.info);
    tarn_log_close(r);
    return c;
}

// A temporary file holding `text`, removed at the end of the scope.
class TempLog {
  public:
    explicit TempLog(const std::string& text) {
        char tmpl[] = "/tmp/tarn_log_XXXXXX";
        int fd = mkstemp(tmpl);
        m_path = tmpl;
        EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        close(fd);
    }
    ~TempLog() { unlink(m_path.c_str()); }
    const char* Path() const { return m_path.c_str(); }

  private:
    std::string m_path;
};

inline Collected ReadText(const std::string& text, int format = TARN_LOG_FORMAT_AUTO) {
    TempLog log(text);
    tarn_log_reader* r = nullptr;
    EXPECT_EQ(tarn_log_open(log.Path(), format, &r), TARN_OK);
    return r ? ReadAll(r) : Collected{};
}

}  // namespace logtest
