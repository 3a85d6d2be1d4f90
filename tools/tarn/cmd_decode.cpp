// tarn decode: placeholder until the log readers are wired in.
#include <cstdio>

#include "commands.h"

namespace tarncli {

int runDecode(const Options&) {
    std::fprintf(stderr, "tarn: decode is not available yet\n");
    return kExitFailure;
}

}  // namespace tarncli
