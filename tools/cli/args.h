// Command-line options of the tarn tool.
#pragma once

#include <string>
#include <vector>

namespace tarncli {

struct Options {
    std::string command;                // dump, decode, encode
    std::vector<std::string> operands;  // positional words after the command
    std::vector<std::string> only;      // --only: message names to keep
    std::string interface = "can0";     // --interface: bus name printed by encode
    std::string logFile;                // --log: where library diagnostics go
    bool json = false;                  // --json
    bool physical = false;              // --physical: encode values are physical
    bool verbose = false;               // --verbose: library diagnostics on standard error
    bool help = false;
};

// Parses argv. Returns false and sets `error` when the words make no sense.
bool parseArgs(int argc, const char* const* argv, Options& opts, std::string& error);

// The usage text printed by --help and after a usage error.
const char* usageText();

}  // namespace tarncli
