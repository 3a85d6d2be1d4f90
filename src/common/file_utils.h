// File helpers used by the DBC reader and writer.
#pragma once

#include <cstdint>
#include <string>

namespace kq {

class FileUtils {
  public:
    static bool DeleteFile(const std::string& path);
    static uint64_t FileSize(const std::string& path);
    static bool FileExist(const std::string& path);
    static bool DirExist(const std::string& path);
    static std::string NormalizeFileName(const std::string& path);
    static std::string DirName(const std::string& path);
    static std::string BaseName(const std::string& path);
    static std::string ReplaceBaseName(const std::string& path, const std::string& name);
    // Reads `length` bytes (-1: all) from `offset`; `out` stays empty on failure.
    static bool ReadFile(const std::string& path, std::string& out, int32_t offset, int32_t length);
    static bool ReadTextFile(const std::string& path, std::string& out);
    // Reads up to the size the file system reports, stopping after the
    // first NUL byte, where text ends for its readers: `out` grows with the
    // bytes read, so a huge sparse file holding little text costs little.
    // Fails like ReadTextFile (empty files, files of 2 GiB or more).
    static bool ReadText(const std::string& path, std::string& out);
    static bool WriteFile(const std::string& path, const std::string& data);
    static bool WriteTextFile(const std::string& path, const std::string& data);
};

}  // namespace kq
