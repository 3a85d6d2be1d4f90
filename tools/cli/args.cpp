#include "args.h"

#include <cstring>

namespace tarncli {
namespace {

// Options that take a value, both as "--name value" and "--name=value".
bool takesValue(const std::string& name) {
    return name == "--only" || name == "--interface" || name == "--log";
}

bool applyValue(const std::string& name, const std::string& value, Options& opts) {
    if (value.empty()) return false;
    if (name == "--only") {
        // A comma-separated list is as good as repeating the option.
        size_t start = 0;
        while (start <= value.size()) {
            size_t comma = value.find(',', start);
            if (comma == std::string::npos) comma = value.size();
            if (comma > start) opts.only.push_back(value.substr(start, comma - start));
            start = comma + 1;
        }
    } else if (name == "--interface") {
        opts.interface = value;
    } else {
        opts.logFile = value;
    }
    return true;
}

bool applyFlag(const std::string& word, Options& opts) {
    if (word == "--json") {
        opts.json = true;
    } else if (word == "--physical") {
        opts.physical = true;
    } else if (word == "-v" || word == "--verbose") {
        opts.verbose = true;
    } else if (word == "-h" || word == "--help") {
        opts.help = true;
    } else {
        return false;
    }
    return true;
}

// Handles one option word; may consume the next word as its value.
bool parseOption(int argc, const char* const* argv, int& i, Options& opts, std::string& error) {
    std::string word = argv[i];
    std::string value;
    size_t eq = word.find('=');
    bool inlineValue = word.rfind("--", 0) == 0 && eq != std::string::npos;
    if (inlineValue) {
        value = word.substr(eq + 1);
        word.resize(eq);
    }
    if (takesValue(word)) {
        if (!inlineValue) {
            if (i + 1 >= argc) {
                error = "option " + word + " needs a value";
                return false;
            }
            value = argv[++i];
        }
        if (!applyValue(word, value, opts)) {
            error = "option " + word + " needs a non-empty value";
            return false;
        }
        return true;
    }
    if (!inlineValue && applyFlag(word, opts)) return true;
    error = "unknown option '" + std::string(argv[i]) + "'";
    return false;
}

}  // namespace

bool parseArgs(int argc, const char* const* argv, Options& opts, std::string& error) {
    bool optionsDone = false;
    for (int i = 1; i < argc; ++i) {
        const char* word = argv[i];
        // A lone "-" is an operand: it names standard input.
        bool isOption = !optionsDone && word[0] == '-' && word[1] != '\0';
        if (isOption && std::strcmp(word, "--") == 0) {
            optionsDone = true;
        } else if (isOption) {
            if (!parseOption(argc, argv, i, opts, error)) return false;
        } else if (opts.command.empty()) {
            opts.command = word;
        } else {
            opts.operands.push_back(word);
        }
    }
    if (opts.help) return true;
    if (opts.command.empty()) {
        error = "no command given";
        return false;
    }
    return true;
}

const char* usageText() {
    return "usage: tarn COMMAND [OPTIONS] ARGS\n"
           "\n"
           "commands:\n"
           "  dump FILE.dbc                    list nodes, messages and signals\n"
           "  decode FILE.dbc [LOG|-]          decode a candump log (standard input by default)\n"
           "  encode FILE.dbc MESSAGE SIG=VALUE ...\n"
           "                                   print the frames of one message as a candump log\n"
           "\n"
           "options:\n"
           "  --json              decode: one JSON object per message\n"
           "  --only NAME[,NAME]  decode: print only these messages (repeatable)\n"
           "  --physical          encode: values are physical, not raw\n"
           "  --interface NAME    encode: bus name to print (default can0)\n"
           "  -v, --verbose       show the library's diagnostics on standard error\n"
           "  --log FILE          append the library's diagnostics to FILE\n"
           "  -h, --help          show this text\n";
}

}  // namespace tarncli
