// Inputs the load benchmarks share: the largest public corpus file and the
// generated 5 MB file, made once per machine by the shared generator.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace bench {

inline int64_t FileSize(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) ? st.st_size : -1;
}

inline std::string Slurp(const std::string& path) {
    std::string text(static_cast<size_t>(std::max<int64_t>(FileSize(path), 0)), '\0');
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return std::string();
    text.resize(std::fread(&text[0], 1, text.size(), f));
    std::fclose(f);
    return text;
}

inline bool EndsWithDbc(const std::string& name) {
    const size_t n = name.size();
    return n > 4 && (name.compare(n - 4, 4, ".dbc") == 0 || name.compare(n - 4, 4, ".DBC") == 0);
}

// "" when the corpus is not there.
inline std::string LargestCorpusFile() {
    std::string best, dir = TARN_CORPUS_DIR;
    int64_t bestSize = -1;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            const std::string path = dir + "/" + e->d_name;
            const int64_t size = FileSize(path);
            if (EndsWithDbc(e->d_name) && size > bestSize) {
                best = path;
                bestSize = size;
            }
        }
        closedir(d);
    }
    return best;
}

// "" when python3 or the generator is missing.
inline const std::string& GeneratedFile() {
    static const std::string path = [] {
        const std::string tool = std::string(TARN_SHARED_DIR) + "/tools/gen_synthetic_dbc.py";
        const std::string dir = "/tmp/tarn_bench_dbc", out = dir + "/synthetic_seed1.dbc";
        if (FileSize(out) > 0) return out;
        if (FileSize(tool) <= 0) return std::string();
        mkdir(dir.c_str(), 0755);
        const std::string cmd = "python3 '" + tool + "' '" + out +
                                ".tmp' --seed 1 >/dev/null 2>&1 && mv '" + out + ".tmp' '" + out +
                                "'";
        return std::system(cmd.c_str()) == 0 && FileSize(out) > 0 ? out : std::string();
    }();
    return path;
}

}  // namespace bench
