// The tool's commands. Each returns the process exit status.
#pragma once

#include "args.h"

namespace tarncli {

enum ExitCode { kExitOk = 0, kExitFailure = 1, kExitUsage = 2 };

int runDump(const Options& opts);
int runDecode(const Options& opts);
int runEncode(const Options& opts);

}  // namespace tarncli
