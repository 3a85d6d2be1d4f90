#include "legacy/ini.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/func.h"

namespace {

constexpr size_t kPatternSize = 100;  // "[section]" and "key=" are cut to fit this buffer
constexpr size_t kNumberSize = 50;

}  // namespace

bool CINI::Open(const char* path) {
    m_opened = false;
    if (!path) return false;
    FILE* f = std::fopen(path, "r");
    if (!f) return false;
    std::fseek(f, 0, SEEK_END);
    long size = std::ftell(f);
    std::fseek(f, 0, SEEK_SET);
    m_content.assign(size > 0 ? static_cast<size_t>(size) : 0, '\0');
    size_t got = m_content.empty() ? 0 : std::fread(&m_content[0], 1, m_content.size(), f);
    std::fclose(f);
    m_content.resize(got);
    m_size = static_cast<int64_t>(got);
    m_opened = true;
    return true;
}

bool CINI::FindValue(const char* section, const char* key, size_t* begin, size_t* length) const {
    if (!m_opened || !section || !key) return false;
    char pattern[kPatternSize];
    std::snprintf(pattern, sizeof(pattern), "[%s]", section);
    size_t at = m_content.find(pattern);
    if (at == std::string::npos) return false;
    at += std::strlen(pattern);
    // The key is searched through the rest of the file, across later sections.
    std::snprintf(pattern, sizeof(pattern), "%s=", key);
    at = m_content.find(pattern, at);
    if (at == std::string::npos) return false;
    at += std::strlen(pattern);
    size_t end = m_content.find('\n', at);
    if (end == std::string::npos) {
        // Without a final line feed the file's last byte is not part of the value.
        end = m_content.size() - 1;
        if (end < at) end = at;
    }
    *begin = at;
    *length = end - at;
    return true;
}

void CINI::GetString(const char* section, const char* key, char* out, unsigned long outSize,
                     const char* defaultValue) {
    if (!out) return;
    strcpy2_s(out, static_cast<unsigned int>(outSize), defaultValue ? defaultValue : "");
    size_t begin = 0;
    size_t length = 0;
    if (!FindValue(section, key, &begin, &length)) return;
    if (length > outSize) length = outSize;
    std::memcpy(out, m_content.data() + begin, length);
    out[length] = '\0';
}

unsigned long CINI::GetIntValue(const char* section, const char* key, unsigned long defaultValue) {
    size_t begin = 0;
    size_t length = 0;
    if (FindValue(section, key, &begin, &length)) {
        std::string value = m_content.substr(begin, length);
        return std::strtoul(value.c_str(), nullptr, 10);
    }
    // A missing key keeps only the first character of the default's text.
    char defaultText[kNumberSize];
    std::snprintf(defaultText, sizeof(defaultText), "%d", static_cast<int>(defaultValue));
    char result[kNumberSize] = {};
    strcpy2_s(result, 0, defaultText);
    return std::strtoul(result, nullptr, 10);
}
