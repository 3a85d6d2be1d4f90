// Command-line words of the tarn tool: each command takes its own options,
// and an option a command does not take is a usage error.
#pragma once

#include <string>
#include <vector>

namespace tarncli {

struct Options {
    std::string command;                // dump, decode, encode, convert, help
    std::vector<std::string> operands;  // positional words after the command
    std::vector<std::string> only;      // decode --only: message names to keep
    std::string interface = "can0";     // encode --interface
    std::string logFile;                // --log FILE: library diagnostics
    std::string format;                 // decode --format: force the log format
    bool json = false;                  // decode, dump
    bool csv = false;                   // decode
    bool raw = false;                   // encode: values are raw integers
    bool all = false;                   // decode: also unknown frames
    bool j1939 = false;                 // decode, dump, encode: force J1939 rules
    bool strict = false;                // open the DBC strictly
    bool verbose = false;               // -v: diagnostics on standard error
    bool help = false;
    bool version = false;
};

// Parses argv. Returns false and sets `error` when the words make no sense.
bool parseArgs(int argc, const char* const* argv, Options& opts, std::string& error);

// The overview (no command) or one command's reference text; empty for an
// unknown command.
std::string usageText(const std::string& command = std::string());

}  // namespace tarncli
