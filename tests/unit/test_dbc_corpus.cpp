// Every DBC file of the public corpus through both readers and both writers:
// the two readers (which share no code) against each other, the native one
// also against a plain SG_ line scan, manifest.tsv and a reviewed list of
// its diagnostics; each writer's text against what it reads back into.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <set>

#include "dbc/network.h"
#include "dbc/network_writer.h"
#include "support/ref_packer.h"
#include "unit/dbc_test_util.h"

namespace fs = std::filesystem;

namespace {

std::string Str(const char* s) {
    return s ? s : "<null>";
}

// id -> message line, then one line per signal in position order, numbers
// as the writer keeps them. A bare "m" indicator is written as "m 0", which
// ends the list when read back: asWritten leaves out the signals from there.
using Model = std::map<uint64_t, std::vector<std::string>>;
Model Describe(const DBC& db, bool asWritten = false) {
    Model out;
    for (const Message* m : dbctest::Messages(db)) {
        std::vector<std::string>& lines = out[m->id];
        lines.resize(m->signals.size() + 1);
        lines[0] = Str(m->name) + " " + std::to_string(m->dlc) + " " + Str(m->transmitter);
        size_t end = lines.size();
        for (const auto& [name, s] : m->signals) {
            char buf[1024];
            std::snprintf(buf, sizeof buf, "%s %s %u %u|%u@%d%d (%.7f,%.7f) [%.7f|%.7f] \"%s\"",
                          name, s.multiplexer.c_str(), s.multiplexerValue, s.startBit, s.length,
                          s.bigEndian, s.isSigned, s.factor, s.offset, s.minimum, s.maximum,
                          Str(s.unit).c_str());
            lines.at(s.index + 1) = buf;
            if (asWritten && s.multiplexer == "m") end = std::min<size_t>(end, s.index + 1);
        }
        lines.resize(end);
    }
    return out;
}

std::vector<std::string> CorpusFiles() {
    std::vector<std::string> files;
    std::string dir = fs::path(refpack::CorpusFile("manifest.tsv")).parent_path();
    if (dir.empty()) return {""};  // one placeholder case that skips
    for (const auto& e : fs::directory_iterator(dir)) {
        std::string ext = e.path().extension().string();
        if (ext == ".dbc" || ext == ".DBC") files.push_back(e.path().filename().string());
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

class Corpus : public dbctest::Quiet, public ::testing::WithParamInterface<std::string> {
  protected:
    void SetUp() override {
        if (GetParam().empty()) GTEST_SKIP() << "DBC corpus not found";
        path_ = refpack::CorpusFile(GetParam());
        text_ = dbctest::ReadFile(path_);
    }
    std::string path_, text_;
};

TEST_P(Corpus, LegacyWriterOutputLoadsBackToTheSameModel) {
    DBCEx db, again;
    db.Load(path_, false);
    dbctest::TempDir dir;
    std::string cwd = fs::current_path();
    fs::current_path(dir.Path());
    db.Impl()->Dump();  // writes dump.txt into the working directory
    fs::current_path(cwd);
    ASSERT_TRUE(again.Load(dir.Path() + "/dump.txt", false));
    const Model want = Describe(db, true), got = Describe(again);
    ASSERT_EQ(want.size(), got.size());
    for (const auto& [id, lines] : want) EXPECT_EQ(lines, got.at(id)) << "message id " << id;
}

// Every BO_ and SG_ line (by a plain first-word scan) is a loaded object or
// a diagnosed line.
TEST_P(Corpus, NativeLoadsOrDiagnosesEveryLine) {
    using namespace tarn::net;
    Network net;
    ASSERT_EQ(ReadStatus::Ok, ReadFile(path_, {}, net));
    std::map<std::string, std::set<uint32_t>> read{{"BO_", {}}, {"SG_", {}}}, scanned = read;
    for (const tarn::net::Message& m : net.messages) read["BO_"].insert(m.line);
    for (const tarn::net::Signal& g : net.signals) read["SG_"].insert(g.line);
    EXPECT_EQ(net.signals.size(), read["SG_"].size()) << "one signal per line";
    for (const Diagnostic& d : net.diagnostics)
        if (d.section == "SG_" || d.section == "BO_") read[std::string(d.section)].insert(d.line);
    std::vector<std::string> lines = Lines(text_);
    for (size_t i = 0; i < lines.size(); ++i) {
        std::string word;
        if (std::istringstream(lines[i]) >> word && (word == "SG_" || word == "BO_"))
            scanned[word].insert(static_cast<uint32_t>(i + 1));
    }
    EXPECT_EQ(scanned, read);
}

// Written text reads back without diagnostics into as many objects, and
// writes the same bytes again. Field values are checked by the reader tests.
TEST_P(Corpus, NativeWriterRoundTrips) {
    using namespace tarn::net;
    auto counts = [](const Network& n) {
        size_t muxValues = 0;  // the array may hold ranges no signal uses
        for (const tarn::net::Signal& g : n.signals) muxValues += g.muxValues.count;
        return std::vector<size_t>{n.messages.size(),   n.signals.size(), n.valueTexts.size(),
                                   muxValues,           n.names.size(),   n.attrDefs.size(),
                                   n.attrValues.size(), n.nodes.size(),   n.valueTables.size()};
    };
    Network first, second;
    ASSERT_EQ(ReadStatus::Ok, ReadFile(path_, {}, first));
    const std::string text = WriteDbc(first);
    ASSERT_EQ(ReadStatus::Ok, Read(text, {}, second));
    EXPECT_TRUE(second.diagnostics.empty())
        << second.diagnostics.front().line << ": " << second.diagnostics.front().reason;
    EXPECT_EQ(counts(first), counts(second));
    EXPECT_EQ(first.j1939, second.j1939);
    EXPECT_EQ(WriteDbc(second), text);
}

// Two readers that share no code agree on every signal both read whole.
TEST_P(Corpus, ReadersAgreeOnTheSignalsBothRead) {
    DBCEx legacy;
    legacy.Load(path_, false);
    tarn::net::Network net;
    ASSERT_EQ(tarn::net::ReadStatus::Ok, tarn::net::Read(text_, {}, net));
    std::set<uint32_t> diagnosed;
    for (const tarn::net::Diagnostic& d : net.diagnostics) diagnosed.insert(d.line);
    // J1939 by the protocol attribute, which the legacy reader reads, or by its default alone.
    bool byDefault = text_.find("BA_DEF_DEF_  \"ProtocolType\" \"J1939\"") != std::string::npos ||
                     text_.find("BA_DEF_DEF_ \"ProtocolType\" \"J1939\"") != std::string::npos;
    EXPECT_EQ(legacy.GetProtocol() == 0 || byDefault, net.j1939);
    for (const Message* m : dbctest::Messages(legacy)) {
        const tarn::net::Message* n =
            net.FindMessage(static_cast<uint32_t>(m->id & 0x1FFFFFFF), (m->id >> 31) & 1);
        // Where the native reader dropped the message or one of its lines, the readers differ.
        const uint32_t end =
            n && n + 1 < net.messages.data() + net.messages.size() ? n[1].line : ~0u;
        if (!n || diagnosed.lower_bound(n->line) != diagnosed.lower_bound(end)) continue;
        for (const auto& [name, s] : m->signals) {
            int32_t k = net.FindSignal(*n, name);
            ASSERT_GE(k, 0) << name;
            const tarn::net::Signal& g = net.signals[n->signals.first + k];
            // Only the native reader converts Windows-1252 units and reads SG_MUL_VAL_.
            std::string unit = Str(s.unit),
                        mux = s.multiplexer.empty() ? "" : s.multiplexer.substr(0, 1);
            if (std::any_of(unit.begin(), unit.end(), [](char c) { return c & 0x80; }))
                unit = g.unit;
            if (s.multiplexer.size() > 1 && s.multiplexer.back() == 'M') mux += "M";
            char want[600], got[600];
            std::snprintf(want, sizeof want, "%u|%u@%d%d (%a,%a) [%a|%a] \"%s\" %s", s.startBit,
                          s.length, s.bigEndian, s.isSigned, s.factor, s.offset, s.minimum,
                          s.maximum, unit.c_str(), mux.c_str());
            std::snprintf(got, sizeof got, "%u|%u@%d%d (%a,%a) [%a|%a] \"%s\" %s%s", g.startBit,
                          g.length, g.bigEndian, g.isSigned, g.factor, g.offset, g.minimum,
                          g.maximum, std::string(g.unit).c_str(), g.switchIndex >= 0 ? "m" : "",
                          g.isSwitch ? "M" : "");
            EXPECT_STREQ(want, got) << Str(m->name) << "." << name;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Files, Corpus, ::testing::ValuesIn(CorpusFiles()),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             std::string name = info.param.empty() ? "NoCorpus" : info.param;
                             for (char& c : name)
                                 if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                             return name;
                         });

// The native reader's diagnostics over the corpus equal the reviewed list
// (TARN_UPDATE_CORPUS_DIAGNOSTICS=1 rewrites it; review the change).
TEST(NativeCorpus, DiagnosticsMatchTheReviewedList) {
    const std::string expected =
        std::string(TARN_SOURCE_DIR) + "/tests/unit/native_corpus_diagnostics.txt";
    std::vector<std::string> got;
    for (const std::string& file : CorpusFiles()) {
        if (file.empty()) GTEST_SKIP() << "DBC corpus not found";
        tarn::net::Network net;
        ASSERT_EQ(tarn::net::ReadStatus::Ok, ReadFile(refpack::CorpusFile(file), {}, net));
        for (const tarn::net::Diagnostic& d : net.diagnostics)
            got.push_back(file + ":" + std::to_string(d.line) + ": " + std::string(d.section) +
                          ": " + std::string(d.reason));
    }
    if (std::getenv("TARN_UPDATE_CORPUS_DIAGNOSTICS")) {
        std::ofstream out(expected, std::ios::binary);
        for (const std::string& line : got) out << line << '\n';
        GTEST_SKIP() << "rewrote " << expected;
    }
    std::vector<std::string> want = Lines(dbctest::ReadFile(expected));
    for (size_t i = 0; i < std::max(want.size(), got.size()); ++i) {
        ASSERT_EQ(i < want.size() ? want[i] : "", i < got.size() ? got[i] : "")
            << "first difference from " << expected;
    }
}

}  // namespace
