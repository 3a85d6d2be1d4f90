#include "common/platform.h"

#include <sys/time.h>
#include <unistd.h>

#include <cstring>

#include "common/func.h"

namespace kq {

namespace {

std::string s_exe_filename;
std::string s_exe_dir;

constexpr size_t kWorkSize = 256;

// Leaves `work` holding the working directory and one '/' (empty when unknown).
void CurrentDirWithSlash(char* work) {
    if (!::getcwd(work, kWorkSize)) {
        work[0] = '\0';
        return;
    }
    size_t len = std::strlen(work);
    if (len + 1 < kWorkSize) {
        work[len] = '/';
        work[len + 1] = '\0';
    }
}

// Cuts `work` behind the last separator at or before `from`.
void CutBehindLastSeparator(char* work, size_t from) {
    if (from >= kWorkSize) from = kWorkSize - 1;
    for (size_t i = from + 1; i-- > 0;) {
        if (work[i] == '/' || work[i] == '\\') {
            work[i + 1] = '\0';
            return;
        }
    }
}

}  // namespace

bool Platform::Init(int argc, char** argv) {
    socketInit();
    char work[kWorkSize + 1] = {};
    if (argc >= 1 && argv && argv[0]) {
        if (argv[0][0] == '/') {
            s_exe_filename = argv[0];
        } else {
            // The directory of a relative start is the working directory itself.
            CurrentDirWithSlash(work);
            s_exe_filename = std::string(work) + "/" + argv[0];
        }
    }
    if (!s_exe_filename.empty()) CutBehindLastSeparator(work, s_exe_filename.size() - 1);
    s_exe_dir = work;
    return true;
}

void Platform::Deinit() {
    socketDeinit();
}

std::string Platform::GetExeFileName() {
    return s_exe_filename;
}

std::string Platform::GetExeDir() {
    return s_exe_dir;
}

uint64_t Platform::Now() {
    struct timeval tv;
    ::gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000u + static_cast<uint64_t>(tv.tv_usec) / 1000u;
}

void Platform::Sleep(unsigned long ms) {
    msleep(static_cast<int>(ms));
}

int Platform::CloseSocket(int fd) {
    return closeSocket(fd);
}

}  // namespace kq
