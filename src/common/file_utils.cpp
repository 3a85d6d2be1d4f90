#include "common/file_utils.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace kq {

namespace {

// Single-bit mode tests: a socket also counts as a file, a block device as a directory.
constexpr unsigned kRegularBit = 0x8000;
constexpr unsigned kDirectoryBit = 0x4000;

bool ModeHasBit(const std::string& path, unsigned bit) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return false;
    return (static_cast<unsigned>(st.st_mode) & bit) != 0;
}

// ReadText reads in growing steps, so small files cost one read and the
// memory of a large one stays within twice the bytes read.
constexpr size_t kFirstChunk = 64 * 1024;
constexpr size_t kLargestChunk = 16 * 1024 * 1024;

// Closes the stream on every path out of a function.
struct FileCloser {
    FILE* f;
    ~FileCloser() {
        if (f) std::fclose(f);
    }
};

}  // namespace

bool FileUtils::DeleteFile(const std::string& path) {
    ::unlink(path.c_str());
    return true;
}

uint64_t FileUtils::FileSize(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return 0;
    return static_cast<uint64_t>(st.st_size);
}

bool FileUtils::FileExist(const std::string& path) {
    return ModeHasBit(path, kRegularBit);
}

bool FileUtils::DirExist(const std::string& path) {
    return ModeHasBit(path, kDirectoryBit);
}

std::string FileUtils::NormalizeFileName(const std::string& path) {
    std::string out(path);
    for (char& c : out) {
        if (c == '\\') c = '/';
    }
    return out;
}

std::string FileUtils::DirName(const std::string& path) {
    std::string norm = NormalizeFileName(path);
    size_t slash = norm.rfind('/');
    if (slash == std::string::npos) return std::string();
    return norm.substr(0, slash + 1);
}

std::string FileUtils::BaseName(const std::string& path) {
    std::string norm = NormalizeFileName(path);
    size_t slash = norm.rfind('/');
    if (slash == std::string::npos) return norm;
    return norm.substr(slash + 1);
}

std::string FileUtils::ReplaceBaseName(const std::string& path, const std::string& name) {
    return DirName(path) + name;
}

bool FileUtils::ReadFile(const std::string& path, std::string& out, int32_t offset,
                         int32_t length) {
    out.clear();
    FileCloser file{std::fopen(path.c_str(), "rb")};
    if (!file.f) return false;
    if (std::fseek(file.f, 0, SEEK_END) != 0) return false;
    // Sizes are 32-bit: files of 2 GiB or more are refused rather than misread.
    long end = std::ftell(file.f);
    if (end < 0 || end > INT32_MAX) return false;
    int32_t size = static_cast<int32_t>(end);
    if (length == 0) return true;
    int32_t wanted = (length == -1) ? size : length;
    if (size <= offset || offset < 0 || wanted <= 0) return false;
    int32_t count = size - offset < wanted ? size - offset : wanted;
    if (std::fseek(file.f, offset, SEEK_SET) != 0) return false;
    out.resize(static_cast<size_t>(count));
    if (std::fread(&out[0], 1, out.size(), file.f) != out.size()) {
        out.clear();  // the file shrank under us: report nothing rather than a torn read
        return false;
    }
    return true;
}

bool FileUtils::ReadTextFile(const std::string& path, std::string& out) {
    return ReadFile(path, out, 0, -1);
}

bool FileUtils::ReadText(const std::string& path, std::string& out) {
    out.clear();
    FileCloser file{std::fopen(path.c_str(), "rb")};
    if (!file.f || std::fseek(file.f, 0, SEEK_END) != 0) return false;
    const long size = std::ftell(file.f);
    if (size <= 0 || size > INT32_MAX || std::fseek(file.f, 0, SEEK_SET) != 0) return false;
    size_t chunk = kFirstChunk;
    while (out.size() < static_cast<size_t>(size)) {
        const size_t at = out.size();
        const size_t want = std::min(chunk, static_cast<size_t>(size) - at);
        out.resize(at + want);
        const size_t got = std::fread(&out[at], 1, want, file.f);
        out.resize(at + got);
        if (std::memchr(out.data() + at, 0, got) != nullptr) break;
        if (got < want) {
            out.clear();  // the file shrank under us, as in ReadFile
            return false;
        }
        chunk = std::min(chunk * 2, kLargestChunk);
    }
    return true;
}

bool FileUtils::WriteFile(const std::string& path, const std::string& data) {
    if (path.empty()) return false;
    FILE* f = std::fopen(path.c_str(), "wb+");
    if (!f) return false;
    bool ok = true;
    if (!data.empty()) {
        ok = std::fwrite(data.data(), 1, data.size(), f) == data.size();
        ok = (std::fflush(f) == 0) && ok;  // a full disk shows up only at the flush
    }
    ok = (std::fclose(f) == 0) && ok;
    return ok;
}

bool FileUtils::WriteTextFile(const std::string& path, const std::string& data) {
    return WriteFile(path, data);
}

}  // namespace kq
