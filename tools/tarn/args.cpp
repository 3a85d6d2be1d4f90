#include "args.h"

#include <cstring>

namespace tarncli {
namespace {

struct OptionSpec {
    const char* name;
    const char* alias;
    const char* value;  // nullptr for a flag
    const char* help;
};

// Every option the tool knows; commands pick theirs by name.
const OptionSpec kOptions[] = {
    {"--json", nullptr, nullptr, "one JSON object per line"},
    {"--csv", nullptr, nullptr, "one CSV row per signal value"},
    {"--only", nullptr, "NAME[,NAME]", "print only these messages (repeatable)"},
    {"--all", nullptr, nullptr, "also print frames and transfers the database does not know"},
    {"--format", nullptr, "FMT", "log format: candump, asc or trc (default: detected)"},
    {"--j1939", nullptr, nullptr, "apply J1939 rules whatever the database declares"},
    {"--strict", nullptr, nullptr, "refuse a database with any line the reader cannot use"},
    {"--raw", nullptr, nullptr, "values are raw integers, not physical values"},
    {"--interface", nullptr, "NAME", "bus name to print (default can0)"},
    {"--verbose", "-v", nullptr, "show the library's diagnostics on standard error"},
    {"--log", nullptr, "FILE", "append the library's diagnostics to FILE"},
    {"--help", "-h", nullptr, "show this text"},
};

struct CommandSpec {
    const char* name;
    const char* synopsis;
    const char* description;
    std::vector<std::string> options;
};

const std::vector<std::string> kCommon = {"--verbose", "--log", "--help", "--strict"};

const CommandSpec kCommands[] = {
    {"decode",
     "decode [OPTIONS] DB.dbc [LOG|-]",
     "Decode a CAN log (candump, Vector ASC or PEAK TRC, detected from the content; standard\n"
     "input when LOG is - or missing) and print one line per message. J1939 transfers are\n"
     "reassembled and printed when complete. From a pipe or a terminal every line is written\n"
     "as soon as its frame has been read.",
     {"--json", "--csv", "--only", "--all", "--format", "--j1939"}},
    {"dump",
     "dump [OPTIONS] DB.dbc",
     "Print the database: nodes, messages, signals, value tables, attributes and\n"
     "multiplexing; --json prints the whole model as one JSON document.",
     {"--json", "--j1939"}},
    {"encode",
     "encode [OPTIONS] DB.dbc MESSAGE SIGNAL=VALUE ...",
     "Print the frames of one message as candump log lines. Values are physical (a\n"
     "value-table text is accepted too) unless --raw is given; a value outside the\n"
     "signal's range is refused and named. A long J1939 message is printed as a BAM\n"
     "sequence, any other long message as one CAN FD frame.",
     {"--raw", "--interface", "--j1939"}},
    {"convert",
     "convert [OPTIONS] IN.dbc OUT.dbc",
     "Write the database back as normalised DBC text (OUT may be - for standard output).\n"
     "Converting the output again gives the same bytes.",
     {}},
    {"help", "help [COMMAND]", "Show the overview or one command's reference.", {}},
};

const CommandSpec* findCommand(const std::string& name) {
    for (const CommandSpec& c : kCommands)
        if (name == c.name) return &c;
    return nullptr;
}

const OptionSpec* findOption(const std::string& word) {
    for (const OptionSpec& o : kOptions)
        if (word == o.name || (o.alias && word == o.alias)) return &o;
    return nullptr;
}

bool allowed(const CommandSpec* cmd, const OptionSpec& o) {
    for (const std::string& name : kCommon)
        if (name == o.name) return true;
    if (!cmd) return false;
    for (const std::string& name : cmd->options)
        if (name == o.name) return true;
    return false;
}

void splitList(const std::string& value, std::vector<std::string>& out) {
    size_t start = 0;
    while (start <= value.size()) {
        size_t comma = value.find(',', start);
        if (comma == std::string::npos) comma = value.size();
        if (comma > start) out.push_back(value.substr(start, comma - start));
        start = comma + 1;
    }
}

void apply(const std::string& name, const std::string& value, Options& opts) {
    if (name == "--only")
        splitList(value, opts.only);
    else if (name == "--interface")
        opts.interface = value;
    else if (name == "--log")
        opts.logFile = value;
    else if (name == "--format")
        opts.format = value;
    else if (name == "--json")
        opts.json = true;
    else if (name == "--csv")
        opts.csv = true;
    else if (name == "--all")
        opts.all = true;
    else if (name == "--j1939")
        opts.j1939 = true;
    else if (name == "--strict")
        opts.strict = true;
    else if (name == "--raw")
        opts.raw = true;
    else if (name == "--verbose")
        opts.verbose = true;
    else if (name == "--help")
        opts.help = true;
}

// Handles one option word; may consume the next word as its value.
bool parseOption(int argc, const char* const* argv, int& i, Options& opts, std::string& error) {
    std::string word = argv[i], value;
    const size_t eq = word.find('=');
    const bool inlineValue = word.rfind("--", 0) == 0 && eq != std::string::npos;
    if (inlineValue) {
        value = word.substr(eq + 1);
        word.resize(eq);
    }
    if (word == "--version" && opts.command.empty()) {
        opts.version = true;
        return true;
    }
    const OptionSpec* o = findOption(word);
    if (!o) {
        error = "unknown option '" + word + "'";
        return false;
    }
    if (!allowed(findCommand(opts.command), *o)) {
        error = opts.command.empty() ? "option " + word + " needs a command first"
                                     : "'" + opts.command + "' does not take " + word;
        return false;
    }
    if (o->value && !inlineValue) {
        if (i + 1 >= argc) {
            error = "option " + word + " needs a value";
            return false;
        }
        value = argv[++i];
    }
    if ((o->value && value.empty()) || (!o->value && inlineValue)) {
        error = o->value ? "option " + word + " needs a non-empty value"
                         : "option " + word + " takes no value";
        return false;
    }
    apply(o->name, value, opts);
    return true;
}

}  // namespace

bool parseArgs(int argc, const char* const* argv, Options& opts, std::string& error) {
    bool optionsDone = false;
    for (int i = 1; i < argc; ++i) {
        const char* word = argv[i];
        // A lone "-" is an operand: it names standard input.
        const bool isOption = !optionsDone && word[0] == '-' && word[1] != '\0';
        if (isOption && std::strcmp(word, "--") == 0) {
            optionsDone = true;
        } else if (isOption) {
            if (!parseOption(argc, argv, i, opts, error)) return false;
        } else if (opts.command.empty()) {
            opts.command = word;
            if (!findCommand(opts.command)) {
                error = "unknown command '" + opts.command + "'";
                return false;
            }
        } else {
            opts.operands.push_back(word);
        }
    }
    if (opts.help || opts.version) return true;
    if (opts.command.empty()) {
        error = "no command given";
        return false;
    }
    if (opts.json && opts.csv) {
        error = "--json and --csv exclude each other";
        return false;
    }
    return true;
}

std::string usageText(const std::string& command) {
    if (command.empty()) {
        std::string s = "usage: tarn COMMAND [OPTIONS] ARGS\n       tarn --version\n\ncommands:\n";
        for (const CommandSpec& c : kCommands) s += "  tarn " + std::string(c.synopsis) + "\n";
        s += "\nRun 'tarn help COMMAND' for a command's options.\n";
        s += "Exit status: 0 success, 1 the job failed, 2 usage error.\n";
        return s;
    }
    const CommandSpec* c = findCommand(command);
    if (!c) return std::string();
    std::string s = "usage: tarn " + std::string(c->synopsis) + "\n\n" + c->description + "\n\n";
    s += "options:\n";
    std::vector<std::string> names = c->options;
    names.insert(names.end(), kCommon.begin(), kCommon.end());
    for (const std::string& n : names) {
        const OptionSpec* o = findOption(n);
        std::string left = o->alias ? std::string(o->alias) + ", " + o->name : o->name;
        if (o->value) left += std::string(" ") + o->value;
        if (left.size() < 22) left.resize(22, ' ');
        s += "  " + left + " " + o->help + "\n";
    }
    return s;
}

}  // namespace tarncli
