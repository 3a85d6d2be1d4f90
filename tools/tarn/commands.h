// The tool's commands. Each returns the process exit status.
#pragma once

#include <memory>
#include <string>

#include "args.h"
#include "tarn/tarn.hpp"

namespace tarncli {

enum ExitCode { kExitOk = 0, kExitFailure = 1, kExitUsage = 2 };

// Opens the command's database with its options; on failure says why on
// standard error and returns nothing.
std::unique_ptr<tarn::Database> openDatabase(const std::string& path, const Options& opts);

int runDump(const Options& opts);
int runDecode(const Options& opts);
int runEncode(const Options& opts);
int runConvert(const Options& opts);

}  // namespace tarncli
