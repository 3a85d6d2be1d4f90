// tarn dump: the database as the library presents it.
#include <cmath>
#include <cstdio>
#include <string>

#include "commands.h"
#include "database.h"
#include "format.h"

namespace tarncli {
namespace {

std::string num(double v) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "%.15g", v);
    return buf;
}

std::string quoted(const std::string& s) {
    std::string out;
    appendJsonString(out, s);
    return out;
}

std::string muxText(const DBCSignal& s) {
    if (s.multiplexerType == TARN_MUX_SWITCH) return "M";
    if (s.multiplexerType == TARN_MUX_MULTIPLEXED) return "m" + std::to_string(s.multiplexerValue);
    return "-";
}

const char* typeText(uint8_t t) {
    return t == TARN_VALUE_FLOAT ? "float" : t == TARN_VALUE_DOUBLE ? "double" : "integer";
}

void printSignal(const Database& db, const DBCMessage& m, const DBCSignal& s) {
    std::string name = fixedText(s.name);
    std::printf(
        "  signal %s: start=%u length=%u order=%s signed=%s type=%s factor=%s offset=%s "
        "range=[%s,%s] unit=%s mux=%s\n",
        name.c_str(), s.startBit, s.length, s.byteOrder ? "little" : "big",
        s.isSigned ? "yes" : "no", typeText(s.valueType), num(s.factor).c_str(),
        num(s.offset).c_str(), num(s.minimum).c_str(), num(s.maximum).c_str(),
        quoted(fixedText(s.unit)).c_str(), muxText(s).c_str());
    std::string comment = fixedText(s.comment);
    if (!comment.empty()) std::printf("    comment: %s\n", quoted(comment).c_str());
    std::vector<ValDescPair> table = db.valueTable(m.id, name.c_str());
    if (table.empty()) return;
    std::string line = "    values:";
    for (const ValDescPair& p : table) line += " " + num(p.value) + "=" + quoted(fixedText(p.desc));
    std::printf("%s\n", line.c_str());
}

void printMessage(const Database& db, const DBCMessage& m) {
    std::string cycle = std::isnan(m.cycleTime) ? "-" : num(m.cycleTime) + "ms";
    std::printf("\nmessage 0x%s %s size=%u cycle=%s name=%s\n", hexId(m.id, m.extended).c_str(),
                m.extended ? "extended" : "standard", m.size, cycle.c_str(),
                fixedText(m.name).c_str());
    std::string comment = fixedText(m.comment);
    if (!comment.empty()) std::printf("  comment: %s\n", quoted(comment).c_str());
    for (uint32_t i = 0; i < m.signalCount && i < TARN_MAX_SIGNALS; ++i)
        printSignal(db, m, m.signals[i]);
}

}  // namespace

int runDump(const Options& opts) {
    if (opts.operands.size() != 1) {
        std::fprintf(stderr, "tarn dump: expected one DBC file\n");
        return kExitUsage;
    }
    std::string error;
    std::unique_ptr<Database> db = Database::open(opts.operands[0], error);
    if (!db) {
        std::fprintf(stderr, "tarn dump: %s\n", error.c_str());
        return kExitFailure;
    }
    std::printf("protocol: %s\n", db->isJ1939() ? "J1939" : "CAN");
    std::vector<Database::Node> nodes = db->nodes();
    std::printf("nodes: %zu\n", nodes.size());
    for (const Database::Node& n : nodes) {
        if (n.hasAddress)
            std::printf("  %s address=0x%02X\n", n.name.c_str(), n.address);
        else
            std::printf("  %s address=-\n", n.name.c_str());
    }
    std::printf("messages: %u\n", db->messageCount());
    db->forEachMessage([&](const DBCMessage& m) { printMessage(*db, m); });
    return std::fflush(stdout) == 0 ? kExitOk : kExitFailure;
}

}  // namespace tarncli
