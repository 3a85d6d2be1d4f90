#include "common/str_utils.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kq {

namespace {
// Every formatted DBC line and message is bounded by this buffer.
constexpr size_t kFormatBufferSize = 8196;
}  // namespace

std::string StrUtils::FromInt(int v) {
    char buf[16];
    std::snprintf(buf, sizeof(buf), "%d", v);
    return buf;
}

std::string StrUtils::FromFloat(float v) {
    return FormatString("%f", static_cast<double>(v));
}

long StrUtils::ToInt(const std::string& s) {
    // The "0x" prefix is expected at the start; its two characters are skipped blindly.
    if (s.find("0x") != std::string::npos || s.find("0X") != std::string::npos) {
        return std::strtol(s.c_str() + 2, nullptr, 16);
    }
    return std::strtol(s.c_str(), nullptr, 10);
}

int StrUtils::ToInt(const char* s) {
    if (!s) return 0;
    return static_cast<int>(ToInt(std::string(s)));
}

float StrUtils::ToFloat(const std::string& s) {
    return static_cast<float>(std::strtod(s.c_str(), nullptr));
}

bool StrUtils::StartWith(const std::string& s, const std::string& prefix) {
    return s.rfind(prefix, 0) == 0;
}

std::string& StrUtils::Replace(std::string& s, const std::string& from, const std::string& to) {
    if (from.empty()) return s;  // nothing to find, and no way to advance
    size_t pos = 0;
    while ((pos = s.find(from, pos)) != std::string::npos) {
        s.replace(pos, from.size(), to);
        pos += to.size();  // never rescan the inserted text
    }
    return s;
}

char* StrUtils::Dup(const char* s, size_t n) {
    if (!s) return nullptr;
    size_t len = std::strlen(s);
    if (n != 0 && n < len) len = n;
    char* copy = static_cast<char*>(std::malloc(len + 1));
    if (!copy) return nullptr;
    std::memcpy(copy, s, len);
    copy[len] = '\0';
    return copy;
}

std::string StrUtils::FormatString(const char* format, ...) {
    char buf[kFormatBufferSize];
    buf[0] = '\0';
    va_list args;
    va_start(args, format);
    int n = std::vsnprintf(buf, sizeof(buf), format, args);
    va_end(args);
    if (n < 0) return std::string();
    size_t len = static_cast<size_t>(n) < sizeof(buf) ? static_cast<size_t>(n) : sizeof(buf) - 1;
    return std::string(buf, len);
}

}  // namespace kq
