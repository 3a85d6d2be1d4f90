// Replays files through a fuzz harness without libFuzzer: the committed
// seeds and the inputs of past crashes run as an ordinary test, under
// whichever compiler and sanitizer the build uses. Arguments are files or
// directories; a missing directory is skipped.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

std::vector<std::string> Expand(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return {};
    if (!S_ISDIR(st.st_mode)) return {path};
    std::vector<std::string> files;
    if (DIR* dir = ::opendir(path.c_str())) {
        while (const dirent* entry = ::readdir(dir)) {
            if (entry->d_name[0] != '.') files.push_back(path + "/" + entry->d_name);
        }
        ::closedir(dir);
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    size_t runs = 0;
    for (int i = 1; i < argc; ++i) {
        if (argv[i][0] == '-') continue;  // libFuzzer flags the harness may have added
        for (const std::string& file : Expand(argv[i])) {
            std::ifstream in(file, std::ios::binary);
            std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                       std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
            ++runs;
        }
    }
    std::printf("%zu inputs replayed\n", runs);
    return runs == 0 ? 1 : 0;
}
