// tarn encode: one message from signal values to candump log lines.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "commands.h"
#include "tarn/j1939.h"
#include "text.h"

namespace tarncli {
namespace {

constexpr uint32_t kMaxTransfer = 1785;  // 255 packets of 7 bytes
constexpr uint8_t kTransportPriority = 7;

bool parseDouble(const std::string& text, double& out) {
    char* end = nullptr;
    errno = 0;
    out = std::strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && errno != ERANGE;
}

bool parseInteger(const std::string& text, tarn_input& in) {
    char* end = nullptr;
    errno = 0;
    if (!text.empty() && text[0] == '-') {
        in.raw.i = std::strtoll(text.c_str(), &end, 0);
    } else {
        in.raw.u = std::strtoull(text.c_str(), &end, 0);
    }
    return !text.empty() && *end == '\0' && errno != ERANGE;
}

// A value-table text stands for its raw value.
bool fromChoice(const tarn::Signal& s, const std::string& text, tarn_input& in) {
    for (const auto& [raw, choice] : s.values()) {
        if (choice != text) continue;
        in.kind = TARN_INPUT_RAW;
        in.raw.i = raw;
        return true;
    }
    return false;
}

bool parseValue(const tarn::Signal& s, const std::string& text, bool raw, tarn_input& in) {
    const bool isFloat = s.value_type() != TARN_VALUE_INTEGER;
    if (raw && isFloat) {
        in.kind = TARN_INPUT_RAW_FLOAT;
        return parseDouble(text, in.physical);
    }
    if (raw) {
        in.kind = TARN_INPUT_RAW;
        return parseInteger(text, in) || fromChoice(s, text, in);
    }
    in.kind = TARN_INPUT_PHYSICAL;
    return parseDouble(text, in.physical) || fromChoice(s, text, in);
}

void printFrame(const Options& opts, double t, uint32_t id, bool extended, const uint8_t* data,
                size_t length, bool fd) {
    char time[32];
    std::snprintf(time, sizeof time, "(%.6f) ", t);
    OutBuf line;
    line += time + opts.interface + " ";
    appendHexId(line, id, extended);
    line += fd ? "##0" : "#";
    appendHexBytes(line, data, length, false);
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stdout);
}

size_t fdLength(size_t n) {
    static const size_t kSizes[] = {8, 12, 16, 20, 24, 32, 48, 64};
    for (size_t s : kSizes)
        if (n <= s) return s;
    return 0;
}

// A J1939 broadcast transfer as the library's sender puts it on the bus:
// the announcement, then the packets at its pace (50 ms apart).
struct BamPrinter {
    const Options& opts;
    uint64_t now = 0;
    static int send(void* user, uint32_t id, const uint8_t* data, size_t length) {
        const BamPrinter* self = static_cast<const BamPrinter*>(user);
        printFrame(self->opts, static_cast<double>(self->now) / 1e6, id, true, data, length, false);
        return 0;
    }
};

bool printBam(const Options& opts, const tarn_message_info& m, const std::vector<uint8_t>& data) {
    BamPrinter printer{opts};
    tarn_j1939_options o;
    tarn_j1939_options_init(&o);
    o.address = static_cast<int>(tarn_j1939_source(m.id));
    o.send = &BamPrinter::send;
    o.user = &printer;
    tarn_j1939* j = nullptr;
    if (tarn_j1939_create(&o, &j) != TARN_OK) return false;
    // Transport frames go at the lowest priority, as is usual for them.
    bool ok = tarn_j1939_send(j, 0, kTransportPriority, m.pgn, TARN_J1939_GLOBAL, data.data(),
                              data.size()) == TARN_OK;
    uint64_t next = 0;
    while (ok && tarn_j1939_poll(j, printer.now, &next) == TARN_OK && next != UINT64_MAX)
        printer.now = next;
    tarn_j1939_destroy(j);
    return ok;
}

}  // namespace

int runEncode(const Options& opts) {
    if (opts.operands.size() < 2) {
        std::fprintf(stderr, "tarn: encode needs a DBC file and a message\n\n%s",
                     usageText("encode").c_str());
        return kExitUsage;
    }
    auto db = openDatabase(opts.operands[0], opts);
    if (!db) return kExitFailure;
    std::optional<tarn::Message> m = db->find(opts.operands[1]);
    if (!m) {
        std::fprintf(stderr, "tarn: no message named %s\n", opts.operands[1].c_str());
        return kExitFailure;
    }
    std::vector<std::string> names;
    std::vector<tarn_input> inputs;
    for (size_t k = 2; k < opts.operands.size(); ++k) {
        const std::string& word = opts.operands[k];
        const size_t eq = word.find('=');
        std::optional<tarn::Signal> s;
        if (eq == std::string::npos || !(s = m->find_signal(word.substr(0, eq)))) {
            std::fprintf(stderr, "tarn: %s: expected SIGNAL=VALUE with a signal of %s\n",
                         word.c_str(), opts.operands[1].c_str());
            return kExitFailure;
        }
        tarn_input in{};
        in.signal = s->index();
        if (!parseValue(*s, word.substr(eq + 1), opts.raw, in)) {
            std::fprintf(stderr, "tarn: %s: not a %s value\n", word.c_str(),
                         opts.raw ? "raw" : "physical");
            return kExitFailure;
        }
        names.push_back(word.substr(0, eq));
        inputs.push_back(in);
    }
    const tarn_message_info& info = m->info();
    std::vector<uint8_t> data(info.length);
    size_t written = 0, failed = 0;
    const int rc =
        tarn_encode(m->handle(), inputs.data(), inputs.size(), opts.raw ? 0 : TARN_ENCODE_STRICT,
                    data.data(), data.size(), &written, &failed);
    if (rc != TARN_OK) {
        std::fprintf(stderr, "tarn: %s%s%s\n", failed < names.size() ? names[failed].c_str() : "",
                     failed < names.size() ? ": " : "", tarn_status_text(rc));
        return kExitFailure;
    }
    if (written <= 8) {
        printFrame(opts, 0, info.id, info.extended, data.data(), written, false);
    } else if (db->j1939() && info.extended && written <= kMaxTransfer) {
        if (!printBam(opts, info, data)) {
            std::fprintf(stderr, "tarn: %s cannot be sent as a J1939 broadcast\n", info.name);
            return kExitFailure;
        }
    } else if (fdLength(written)) {
        data.resize(fdLength(written), 0);
        printFrame(opts, 0, info.id, info.extended, data.data(), data.size(), true);
    } else {
        std::fprintf(stderr, "tarn: %s is %zu bytes: too long for one frame\n", info.name, written);
        return kExitFailure;
    }
    return kExitOk;
}

}  // namespace tarncli
