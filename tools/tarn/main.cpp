// tarn: decode, encode and inspect CAN traffic with a DBC file.
#include <cstdio>
#include <string>

#include "args.h"
#include "commands.h"

using namespace tarncli;

namespace {

// The library prints nothing; its messages reach us here. Standard error is
// written through the stream we already have, never reopened by path.
void logToStream(void* user, int, const char* text) {
    std::FILE* f = static_cast<std::FILE*>(user);
    std::fputs(text, f);
    std::fputc('\n', f);
    std::fflush(f);
}

bool routeDiagnostics(const Options& opts) {
    if (!opts.logFile.empty()) {
        std::FILE* f = std::fopen(opts.logFile.c_str(), "a");
        if (!f) {
            std::fprintf(stderr, "tarn: cannot open log file %s\n", opts.logFile.c_str());
            return false;
        }
        tarn_set_log_handler(logToStream, f);  // closed at exit
    } else if (opts.verbose) {
        tarn_set_log_handler(logToStream, stderr);
    }
    return true;
}

int help(const Options& opts) {
    const std::string topic = opts.command == "help" && !opts.operands.empty() ? opts.operands[0]
                              : opts.command == "help"                         ? std::string()
                                                                               : opts.command;
    const std::string text = usageText(topic);
    if (text.empty()) {
        std::fprintf(stderr, "tarn: no help for '%s'\n\n%s", topic.c_str(), usageText().c_str());
        return kExitUsage;
    }
    std::fputs(text.c_str(), stdout);
    return kExitOk;
}

}  // namespace

namespace tarncli {

std::unique_ptr<tarn::Database> openDatabase(const std::string& path, const Options& opts) {
    unsigned flags = (opts.strict ? TARN_OPEN_STRICT : 0) | (opts.j1939 ? TARN_OPEN_J1939 : 0);
    try {
        return std::make_unique<tarn::Database>(tarn::Database::open(path, flags));
    } catch (const tarn::Error& e) {
        std::fprintf(stderr, "tarn: %s: %s\n", path.c_str(), e.what());
        return nullptr;
    }
}

}  // namespace tarncli

int main(int argc, char** argv) {
    Options opts;
    std::string error;
    if (!parseArgs(argc, argv, opts, error)) {
        std::fprintf(stderr, "tarn: %s\n\n%s", error.c_str(), usageText().c_str());
        return kExitUsage;
    }
    if (opts.version) {
        std::printf("tarn %s\n", tarn_version());
        return kExitOk;
    }
    if (opts.help || opts.command == "help") return help(opts);
    if (!routeDiagnostics(opts)) return kExitFailure;
    if (opts.command == "dump") return runDump(opts);
    if (opts.command == "decode") return runDecode(opts);
    if (opts.command == "encode") return runEncode(opts);
    return runConvert(opts);
}
