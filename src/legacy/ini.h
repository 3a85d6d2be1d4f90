// Minimal INI reader for applications: "[section]" headers and key=value
// lines, found by plain text search over the whole file image.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

class CINI {
  public:
    CINI() = default;
    virtual ~CINI() = default;
    CINI(const CINI&) = delete;
    CINI& operator=(const CINI&) = delete;

    bool Open(const char* path);
    // Fills `out` with the value, or with the default when the section or key
    // is missing. At most `outSize` characters and a terminator are written
    // (a default of `outSize` characters or more is left unterminated).
    void GetString(const char* section, const char* key, char* out, unsigned long outSize,
                   const char* defaultValue);
    // A present key converts its whole value; a missing one yields the number
    // made of the first character of the default's decimal text.
    unsigned long GetIntValue(const char* section, const char* key, unsigned long defaultValue);

  private:
    // Locates the value text of `key` after "[section]"; false when absent.
    bool FindValue(const char* section, const char* key, size_t* begin, size_t* length) const;

    std::string m_content;  // the file image
    bool m_opened = false;
    int64_t m_size = 0;
};
