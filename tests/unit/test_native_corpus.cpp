// Every public corpus file through the native reader:
// - its diagnostics equal the reviewed list in native_corpus_diagnostics.txt
//   (run with TARN_UPDATE_CORPUS_DIAGNOSTICS=1 to rewrite that file, then
//   review the change);
// - every SG_ line of the file (found by a plain line scan here) is either a
//   loaded signal or a diagnosed line, and the counts agree with the BO_ and
//   SG_ columns of manifest.tsv minus the diagnosed lines;
// - the J1939 flag follows the manifest, or the attribute's default alone.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "dbc/network.h"

namespace {

using namespace tarn::net;

const std::string kCorpus = TARN_CORPUS_DIR;
const std::string kExpected =
    std::string(TARN_SOURCE_DIR) + "/tests/unit/native_corpus_diagnostics.txt";

std::vector<std::string> CorpusFiles() {
    std::vector<std::string> out;
    if (DIR* d = opendir(kCorpus.c_str())) {
        while (dirent* e = readdir(d)) {
            std::string n = e->d_name;
            if (n.size() > 4 &&
                (n.substr(n.size() - 4) == ".dbc" || n.substr(n.size() - 4) == ".DBC"))
                out.push_back(n);
        }
        closedir(d);
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::vector<std::string> Lines(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

// file -> columns of manifest.tsv by header name.
std::map<std::string, std::map<std::string, std::string>> Manifest() {
    std::vector<std::string> lines = Lines(kCorpus + "/manifest.tsv");
    auto split = [](const std::string& s) {
        std::vector<std::string> f;
        std::stringstream in(s);
        for (std::string x; std::getline(in, x, '\t');) f.push_back(x);
        return f;
    };
    std::map<std::string, std::map<std::string, std::string>> out;
    std::vector<std::string> head = lines.empty() ? std::vector<std::string>() : split(lines[0]);
    for (size_t i = 1; i < lines.size(); ++i) {
        std::vector<std::string> f = split(lines[i]);
        for (size_t k = 0; k < f.size() && k < head.size(); ++k) out[f[0]][head[k]] = f[k];
    }
    return out;
}

// Line numbers whose first word is SG_, by the plainest rule there is; and
// whether a line reads BA_DEF_DEF_ "ProtocolType" "J1939";
std::set<uint32_t> SignalLines(const std::string& path, bool& j1939Default) {
    std::set<uint32_t> out;
    std::vector<std::string> lines = Lines(path);
    for (size_t i = 0; i < lines.size(); ++i) {
        std::stringstream in(lines[i]);
        std::string word, name, value;
        if (in >> word && word == "SG_") out.insert(static_cast<uint32_t>(i + 1));
        if (word == "BA_DEF_DEF_" && in >> name >> value)
            j1939Default |= name == "\"ProtocolType\"" && value.rfind("\"J1939\"", 0) == 0;
    }
    return out;
}

class NativeCorpus : public ::testing::Test {
  protected:
    void SetUp() override {
        if (CorpusFiles().empty()) GTEST_SKIP() << "no DBC corpus at " << kCorpus;
    }
};

TEST_F(NativeCorpus, DiagnosticsMatchTheReviewedList) {
    std::vector<std::string> got;
    for (const std::string& file : CorpusFiles()) {
        Network net;
        ASSERT_EQ(ReadStatus::Ok, ReadFile(kCorpus + "/" + file, {}, net)) << file;
        for (const Diagnostic& d : net.diagnostics) {
            got.push_back(file + ":" + std::to_string(d.line) + ": " + std::string(d.section) +
                          ": " + std::string(d.reason));
        }
    }
    if (std::getenv("TARN_UPDATE_CORPUS_DIAGNOSTICS")) {
        std::ofstream out(kExpected, std::ios::binary);
        for (const std::string& line : got) out << line << '\n';
        GTEST_SKIP() << "rewrote " << kExpected;
    }
    std::vector<std::string> want = Lines(kExpected);
    std::multiset<std::string> wantSet(want.begin(), want.end()), gotSet(got.begin(), got.end());
    std::string diff;
    for (const std::string& w : want)
        if (!gotSet.count(w)) diff += "- " + w + "\n";
    for (const std::string& g : got)
        if (!wantSet.count(g)) diff += "+ " + g + "\n";
    EXPECT_TRUE(diff.empty() && want == got)
        << "diagnostics differ from " << kExpected << " (- expected, + got):\n"
        << diff << "rerun with TARN_UPDATE_CORPUS_DIAGNOSTICS=1 to accept, then review";
}

TEST_F(NativeCorpus, EverySignalLineIsLoadedOrDiagnosed) {
    auto manifest = Manifest();
    for (const std::string& file : CorpusFiles()) {
        SCOPED_TRACE(file);
        Network net;
        ASSERT_EQ(ReadStatus::Ok, ReadFile(kCorpus + "/" + file, {}, net));
        std::set<uint32_t> loaded, lost, messagesLost;
        for (const Signal& s : net.signals) loaded.insert(s.line);
        for (const Diagnostic& d : net.diagnostics) {
            if (d.section == "SG_" && !loaded.count(d.line)) lost.insert(d.line);
            if (d.section == "BO_") messagesLost.insert(d.line);
        }
        std::set<uint32_t> all = loaded;
        all.insert(lost.begin(), lost.end());
        bool j1939Default = false;
        EXPECT_EQ(SignalLines(kCorpus + "/" + file, j1939Default), all);
        EXPECT_EQ(loaded.size(), net.signals.size());
        auto& row = manifest[file];
        ASSERT_FALSE(row.empty()) << "not in manifest.tsv";
        EXPECT_EQ(std::stoul(row["sg_lines"]), net.signals.size() + lost.size());
        EXPECT_EQ(std::stoul(row["bo_lines"]), net.messages.size() + messagesLost.size());
        EXPECT_EQ(row["has_j1939"] == "yes" || j1939Default, net.j1939);
    }
}

}  // namespace
