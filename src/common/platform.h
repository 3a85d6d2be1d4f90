// Process facts and time.
#pragma once

#include <cstdint>
#include <string>

namespace kq {

class Platform {
public:
    static bool Init(int argc, char** argv);
    static void Deinit();
    static std::string GetExeFileName();
    static std::string GetExeDir();
    // Milliseconds since the Unix epoch.
    static uint64_t Now();
    static void Sleep(unsigned long ms);
    static int CloseSocket(int fd);
};

}  // namespace kq
