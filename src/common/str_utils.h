// String helpers: formatting into a fixed scratch buffer, conversions.
#pragma once

#include <cstddef>
#include <string>

namespace kq {

class StrUtils {
public:
    static std::string FromInt(int v);
    static std::string FromFloat(float v);
    static long ToInt(const std::string& s);
    static int ToInt(const char* s);
    static float ToFloat(const std::string& s);
    static bool StartWith(const std::string& s, const std::string& prefix);
    static std::string& Replace(std::string& s, const std::string& from, const std::string& to);
    static char* Dup(const char* s, size_t n);
    // printf into an 8196-byte buffer: at most 8195 characters survive.
    static std::string FormatString(const char* format, ...)
        __attribute__((format(printf, 1, 2)));
};

}  // namespace kq
