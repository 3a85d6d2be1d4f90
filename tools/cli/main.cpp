// tarn: decode, encode and inspect CAN traffic with a DBC file.
#include <cstdio>
#include <string>

#include "args.h"
#include "commands.h"
#include "tarn.h"

using namespace tarncli;

namespace {

// The library writes its diagnostics to standard output unless told
// otherwise; keep standard output for the tool's own results. The parser's
// notes are chatty (one for every file with a signed signal), so they are
// shown only on request.
void routeDiagnostics(const Options& opts) {
    if (!opts.logFile.empty())
        TARN_SetLogFile(true, opts.logFile.c_str());
    else
        TARN_SetLogFile(true, opts.verbose ? "/dev/stderr" : "/dev/null");
}

}  // namespace

int main(int argc, char** argv) {
    Options opts;
    std::string error;
    if (!parseArgs(argc, argv, opts, error)) {
        std::fprintf(stderr, "tarn: %s\n\n%s", error.c_str(), usageText());
        return kExitUsage;
    }
    if (opts.help) {
        std::fputs(usageText(), stdout);
        return kExitOk;
    }
    routeDiagnostics(opts);
    if (opts.command == "dump") return runDump(opts);
    if (opts.command == "decode") return runDecode(opts);
    if (opts.command == "encode") return runEncode(opts);
    std::fprintf(stderr, "tarn: unknown command '%s'\n\n%s", opts.command.c_str(), usageText());
    return kExitUsage;
}
