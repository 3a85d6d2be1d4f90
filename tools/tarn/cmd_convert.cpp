// tarn convert: the native model written back as normalised DBC text.
#include <cstdio>
#include <string>

#include "commands.h"

namespace tarncli {

int runConvert(const Options& opts) {
    if (opts.operands.size() != 2) {
        std::fprintf(stderr, "tarn: convert needs IN.dbc and OUT.dbc\n\n%s",
                     usageText("convert").c_str());
        return kExitUsage;
    }
    auto db = openDatabase(opts.operands[0], opts);
    if (!db) return kExitFailure;
    size_t needed = 0;
    tarn_db_write_dbc(db->handle(), nullptr, 0, &needed);
    std::string text(needed, '\0');
    if (tarn_db_write_dbc(db->handle(), text.data(), text.size(), &needed) != TARN_OK) {
        std::fprintf(stderr, "tarn: cannot write the database as text\n");
        return kExitFailure;
    }
    text.resize(needed - 1);
    const std::string& out = opts.operands[1];
    std::FILE* f = out == "-" ? stdout : std::fopen(out.c_str(), "wb");
    if (!f) {
        std::fprintf(stderr, "tarn: cannot create %s\n", out.c_str());
        return kExitFailure;
    }
    const bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    if ((f != stdout && std::fclose(f) != 0) || !ok) {
        std::fprintf(stderr, "tarn: cannot write %s\n", out.c_str());
        return kExitFailure;
    }
    return kExitOk;
}

}  // namespace tarncli
