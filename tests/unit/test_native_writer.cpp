// Normalised DBC text round-trips: on every corpus file, writing, reading
// the text back and writing again gives the same bytes and the same model.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "dbc/network_writer.h"
#include "support/ref_packer.h"

namespace {

using namespace tarn::net;

// The parts of a model a reader must rebuild from the text, one line each.
std::string Summary(const Network& n) {
    std::string s = std::to_string(n.j1939) + " nodes " + std::to_string(n.nodes.size()) +
                    " defs " + std::to_string(n.attrDefs.size()) + " attrs " +
                    std::to_string(n.attrValues.size()) + " tables " +
                    std::to_string(n.valueTables.size()) + "\n";
    for (const Message& m : n.messages) {
        s += std::string(m.name) + " " + std::to_string(m.id) + " " + std::to_string(m.extended) +
             " " + std::to_string(m.length) + " " + std::to_string(m.senders.count) + " " +
             std::string(m.comment) + "\n";
        for (uint32_t i = m.signals.first; i < m.signals.end(); ++i) {
            const Signal& g = n.signals[i];
            s += "  " + std::string(g.name) + " " + std::to_string(g.startBit) + "|" +
                 std::to_string(g.length) + " " + std::to_string(g.bigEndian) +
                 std::to_string(g.isSigned) + std::to_string(int(g.type)) +
                 std::to_string(g.isSwitch) + " sw" + std::to_string(g.switchIndex) + " mux" +
                 std::to_string(g.muxValues.count) + " " + std::to_string(g.factor) + " " +
                 std::to_string(g.offset) + " [" + std::to_string(g.minimum) + "|" +
                 std::to_string(g.maximum) + "] " + std::string(g.unit) + " v" +
                 std::to_string(g.values.count) + " r" + std::to_string(g.receivers.count) +
                 " a" + std::to_string(g.attrs.count) + " " + std::string(g.comment) + "\n";
        }
    }
    return s;
}

TEST(NativeWriter, CorpusRoundTripsToTheSameBytesAndModel) {
    const std::string dir = refpack::CorpusFile("");
    if (dir.empty()) GTEST_SKIP() << "corpus not present";
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        const std::string ext = entry.path().extension().string();
        if (ext != ".dbc" && ext != ".DBC") continue;
        SCOPED_TRACE(entry.path().filename().string());
        Network first;
        ASSERT_EQ(ReadFile(entry.path().string(), ReadOptions{}, first), ReadStatus::Ok);
        const std::string text = WriteDbc(first);
        Network second;
        ASSERT_EQ(Read(text, ReadOptions{}, second), ReadStatus::Ok);
        EXPECT_TRUE(second.diagnostics.empty())
            << second.diagnostics.front().line << ": " << second.diagnostics.front().reason;
        EXPECT_EQ(Summary(second), Summary(first));
        EXPECT_EQ(WriteDbc(second), text);
    }
}

}  // namespace
