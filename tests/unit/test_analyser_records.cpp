// Every message of every corpus file is decoded from payloads packed by the
// reference packer; whole records (padding and untouched bytes included),
// the walk afterwards and the log lines are checked against recorded
// checksums. A changed checksum means callers see different bytes.
#include <dirent.h>
#include <gtest/gtest.h>
#include <strings.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "analyser_test_util.h"
#include "stdout_capture.h"
#include "support/ref_packer.h"

namespace {

constexpr uint32_t kExtendedBit = 0x80000000u;
constexpr size_t kPacketBytes = 7;

class Checksum {
  public:
    void Add(const void* data, size_t size) {
        const auto* p = static_cast<const uint8_t*>(data);
        for (size_t i = 0; i < size; i += 8) {
            uint64_t w = 0;
            std::memcpy(&w, p + i, std::min<size_t>(8, size - i));
            m_sum = (m_sum ^ w) * 0x100000001B3ull;
        }
    }
    void Add(uint64_t v) { Add(&v, sizeof v); }
    uint64_t Sum() const { return m_sum; }

  private:
    uint64_t m_sum = 0xCBF29CE484222325ull;
};

// The record up to its last nonzero slot, and that slot count.
void AddRecord(Checksum& sum, const DBCMessage& m) {
    static const DBCSignal kZero{};
    size_t used = TARN_MAX_SIGNALS;
    while (used > 0 && std::memcmp(&m.signals[used - 1], &kZero, sizeof kZero) == 0) --used;
    sum.Add(used);
    sum.Add(&m, offsetof(DBCMessage, signals));
    sum.Add(m.signals, used * sizeof(DBCSignal));
    sum.Add(m.name, sizeof m - offsetof(DBCMessage, name));
}

struct Db {
    CAnalyser a;
    std::vector<std::unique_ptr<DBCMessage>> msgs;  // as the lookups report them
};

// Random bits, small values, a table entry's raw value, all ones, or for a
// switch a value some slot waits for.
uint64_t PickRaw(Db& db, const DBCMessage& m, const DBCSignal& s, refpack::Rng& rng) {
    const uint64_t pick = rng.Next() % 5;
    const uint32_t key = m.id | (m.extended ? kExtendedBit : 0u);
    const uint32_t pairs = db.a.GetValDescPairCount(key, s.name);
    if (pick == 2 && pairs > 0) {
        std::vector<ValDescPair> table(pairs);
        db.a.GetValDescPair(key, s.name, table.data());
        double physical = table[rng.Next() % pairs].value;
        return CalcRawValue(&s, &physical);
    }
    if (pick == 3 && s.multiplexerType == TARN_MUX_SWITCH) {
        return m.signals[rng.Next() % m.signalCount].multiplexerValue;
    }
    return pick == 0 ? rng.Next() : pick == 4 ? ~0ull : rng.Next() % 4;
}

// The frames of one message carrying a payload packed slot by slot.
std::vector<VCI_CAN_OBJ> FramesFor(Db& db, const DBCMessage& m, refpack::Rng& rng) {
    const size_t packets = m.size <= 8 ? 1 : std::min<size_t>((m.size + 6) / 7, 255);
    std::vector<uint8_t> payload(std::max<size_t>(8, packets * kPacketBytes), 0);
    for (uint8_t& b : payload) b = rng.Next() % 3 == 0 ? static_cast<uint8_t>(rng.Next()) : 0;
    for (uint32_t i = 0; i < m.signalCount; ++i) {
        const DBCSignal& s = m.signals[i];
        if (s.length == 0 || s.length > 64) continue;
        const auto bits = refpack::BitPositions(s.startBit, s.length, s.byteOrder == 0);
        if (*std::max_element(bits.begin(), bits.end()) / 8 >= payload.size()) continue;
        refpack::Pack(payload.data(), s.startBit, s.length, s.byteOrder == 0,
                      PickRaw(db, m, s, rng) & refpack::Mask(s.length));
    }
    // J1939 frames often come from another source address than the one declared.
    uint32_t id = m.id;
    if (m.extended && rng.Next() % 2) id = (id & ~0xFFu) | (rng.Next() & 0xFF);
    std::vector<VCI_CAN_OBJ> frames(packets);
    for (size_t k = 0; k < packets; ++k) {
        VCI_CAN_OBJ& f = frames[k];
        f.id = id;
        f.externFlag = m.extended;
        f.dataLen = static_cast<uint8_t>(std::min<uint32_t>(m.size, 8));
        if (packets == 1) {
            std::memcpy(f.data, payload.data(), 8);
        } else {
            f.data[0] = static_cast<uint8_t>(k + 1);
            std::memcpy(f.data + 1, payload.data() + kPacketBytes * k, kPacketBytes);
        }
    }
    return frames;
}

// Log lines without the source line numbers, which move with every edit.
std::string WithoutLineNumbers(const std::string& log) {
    static const std::regex kLine(R"(:[0-9]+\[)");
    return std::regex_replace(log, kLine, ":#[");
}

uint64_t DecodeAll(const std::string& path) {
    Db db;
    if (!atest::LoadPath(db.a, path)) return 0;
    for (auto m = atest::NewMessage(); db.a.GetNextMessage(m.get()); m = atest::NewMessage())
        db.msgs.push_back(std::move(m));
    EXPECT_EQ(db.a.GetMessageCount(), db.msgs.size()) << path;
    const bool j1939 = db.a.GetProtocol() == TARN_PROTOCOL_J1939;
    refpack::Rng rng(db.msgs.size());
    Checksum sum;
    auto out = atest::NewMessage();
    std::memset(out.get(), 0x5A, sizeof *out);  // bytes a decode leaves alone show up
    StdoutCapture log;
    for (const auto& m : db.msgs) {
        for (int round = 0; round < 2; ++round) {
            const std::vector<VCI_CAN_OBJ> frames = FramesFor(db, *m, rng);
            // Identifier lookups only differ from group lookups under J1939.
            for (bool byId : {false, true}) {
                if (byId && !j1939) continue;
                sum.Add(db.a.Decode(out.get(), frames.data(), frames.size(), byId));
                AddRecord(sum, *out);
            }
        }
    }
    // The lookups report the raw values the decodes left in the model.
    for (bool more = db.a.GetFirstMessage(out.get()); more; more = db.a.GetNextMessage(out.get()))
        AddRecord(sum, *out);
    const std::string text = WithoutLineNumbers(log.Text());
    sum.Add(text.data(), text.size());
    // Exact identifiers find every listed message again.
    db.a.SetProtocol(TARN_PROTOCOL_OTHER);
    for (const auto& m : db.msgs)
        EXPECT_TRUE(db.a.GetMessageById(m->id | (m->extended ? kExtendedBit : 0u), out.get()) &&
                    std::strncmp(out->name, m->name, TARN_NAME_LEN) == 0)
            << path << " " << m->name;
    return sum.Sum();
}

std::vector<std::string> CorpusFiles() {
    std::vector<std::string> names;
    const std::string any = refpack::CorpusFile("");
    if (DIR* dir = any.empty() ? nullptr : opendir(any.c_str())) {
        while (const dirent* e = readdir(dir)) {
            const std::string name = e->d_name;
            if (name.size() > 4 && strcasecmp(name.c_str() + name.size() - 4, ".dbc") == 0)
                names.push_back(name);
        }
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// One checksum over all files, names included; on a change the per-file sums
// are listed, to be compared with a run of the previous commit.
TEST(AnalyserRecords, EveryCorpusRecordKeepsItsBytes) {
    const std::vector<std::string> files = CorpusFiles();
    if (files.empty()) GTEST_SKIP() << "corpus not available";
    Checksum all;
    std::ostringstream sums;
    for (const std::string& name : files) {
        const uint64_t sum = DecodeAll(refpack::CorpusFile(name));
        all.Add(name.data(), name.size());
        all.Add(sum);
        sums << name << " 0x" << std::hex << sum << "\n";
    }
    EXPECT_EQ(all.Sum(), 0x2c1c6ac4ee979abaull) << sums.str();
}

}  // namespace
