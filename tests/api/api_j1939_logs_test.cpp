// Public J1939 logs replayed through a listen-only transport at their own
// time stamps, against transfers and trouble codes written out by hand from
// the logs; and the identifier helpers against hand-split identifiers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "tarn/j1939.h"

namespace {

struct LogFrame {
    uint64_t us;
    uint32_t id;
    std::vector<uint8_t> data;
};

std::vector<uint8_t> Hex(const std::string& text) {
    std::vector<uint8_t> out;
    std::istringstream in(text);
    for (unsigned byte; in >> std::hex >> byte;) out.push_back(uint8_t(byte));
    return out;
}

// Lines read "(seconds.fraction) interface ID#HEXDATA"; anything else is skipped.
std::vector<LogFrame> ReadLog(const std::string& name) {
    std::vector<LogFrame> frames;
    std::ifstream in(std::string(TARN_CORPUS_DIR) + "/logs/" + name);
    long double seconds;
    unsigned id;
    char data[32];
    for (std::string line; std::getline(in, line);) {
        if (sscanf(line.c_str(), " (%Lf) %*s %x#%31[0-9A-Fa-f]", &seconds, &id, data) != 3)
            continue;
        std::string spaced;
        for (const char* p = data; p[0] && p[1]; p += 2) spaced += std::string(p, 2) + " ";
        frames.push_back({uint64_t(seconds * 1e6L + 0.5L), id, Hex(spaced)});
    }
    return frames;
}

using Transfer = std::tuple<uint32_t, uint8_t, uint8_t, std::vector<uint8_t>>;

// Vehicle identification, 22 bytes from 0x49 to 0x00 by RTS/CTS.
const Transfer kVi{0xFEEC, 0x49, 0x00,
                   Hex("23 34 56 78 90 FF 23  23 34 56 78 90 FF 23  23 34 56 78 90 FF 23  23")};
// Engine configuration, 34 bytes broadcast by 0x00.
const Transfer kEc1{0xFEE3, 0x00, 0xFF,
                    Hex("50 14 BB 7A 44 B6 20  1C D1 60 22 E1 E0 2E  E1 C0 44 FF FF 75 09"
                        "  C0 44 03 41 DC 7D E1  7A 44 00 00 FF FF")};

TEST(LogReplay, EveryLogGivesItsTransfersByteExact) {
    const std::map<std::string, std::vector<Transfer>> logs = {
        {"pretty_j1939__multipacket_bam.txt", {kEc1}},
        {"pretty_j1939__multipacket_cts.txt", {kVi}},
        {"pretty_j1939__multipacket_interleaved.txt", {kEc1, kVi}},  // in completion order
        {"pretty_j1939__simplecandump.txt", {}},
        {"pretty_j1939__test_dm1.log", {}},
    };
    for (const auto& [name, want] : logs) {
        SCOPED_TRACE(name);
        const auto frames = ReadLog(name);
        if (frames.empty()) GTEST_SKIP() << "no log " << name;
        struct Replay {
            std::vector<Transfer> transfers;
            int ended = 0, sent = 0;
        } got;
        tarn_j1939_options o;
        tarn_j1939_options_init(&o);
        o.user = &got;
        o.send = [](void* u, uint32_t, const uint8_t*, size_t) {
            ++static_cast<Replay*>(u)->sent;
            return 0;
        };
        o.on_transfer = [](void* u, const tarn_j1939_transfer* t) {
            EXPECT_EQ(t->role, TARN_J1939_LISTENER);
            EXPECT_EQ(t->priority, 7);
            static_cast<Replay*>(u)->transfers.emplace_back(
                t->pgn, t->source, t->destination,
                std::vector<uint8_t>(t->data, t->data + t->size));
        };
        o.on_ended = [](void* u, const tarn_j1939_ended*) { ++static_cast<Replay*>(u)->ended; };
        tarn_j1939* j = nullptr;
        ASSERT_EQ(tarn_j1939_create(&o, &j), TARN_OK);
        for (const LogFrame& f : frames)
            ASSERT_EQ(tarn_j1939_receive(j, f.us, f.id, f.data.data(), f.data.size()), TARN_OK);
        tarn_j1939_stats st;
        tarn_j1939_get_stats(j, &st);
        tarn_j1939_destroy(j);
        EXPECT_EQ(got.transfers, want);
        EXPECT_EQ(got.ended + got.sent, 0) << "a listener never sends";
        EXPECT_EQ(st.open_sessions, 0u);
        EXPECT_EQ(st.frames, frames.size());
    }
}

// Lamps and trouble codes: the DM1 log's two frames, and a transfer-sized
// payload with every SPN bit in use, padding, a "no code" entry and a partial tail.
TEST(DmParse, LampsAndTroubleCodes) {
    struct Case {
        std::vector<uint8_t> payload;
        size_t capacity;
        int status;
        std::vector<uint32_t> got;  // four lamps, their flashing, then each code written
        uint32_t count;
    };
    const auto longer = Hex("44 C1  FF FF FF 7E  00 00 00 00  FF FF FF FF  12 34 A5 83  BE EF");
    std::vector<Case> cases = {
        {longer, 2, TARN_OK, {1, 0, 1, 0, 3, 0, 0, 1, 0x7FFFF, 31, 126, 0, 0x53412, 5, 3, 1}, 2},
        {longer, 1, TARN_ERR_BUFFER, {1, 0, 1, 0, 3, 0, 0, 1, 0x7FFFF, 31, 126, 0}, 2},
    };
    const auto log = ReadLog("pretty_j1939__test_dm1.log");
    if (log.size() == 2) {
        EXPECT_EQ(tarn_j1939_pgn(log[1].id), 0xFECAu);
        cases.push_back({log[0].data, 4, TARN_OK, {0, 0, 0, 0, 3, 3, 3, 3}, 0});
        cases.push_back({log[1].data, 4, TARN_OK, {1, 0, 0, 0, 3, 3, 3, 3, 91, 3, 1, 0}, 1});
    }
    for (const Case& c : cases) {
        tarn_j1939_dm dm;
        tarn_j1939_dtc dtcs[4];
        ASSERT_EQ(tarn_j1939_dm_parse(c.payload.data(), c.payload.size(), &dm, dtcs, c.capacity),
                  c.status);
        std::vector<uint32_t> got(dm.lamp_status, dm.lamp_status + 4);
        got.insert(got.end(), dm.lamp_flash, dm.lamp_flash + 4);
        for (uint32_t k = 0; k < std::min<size_t>(dm.dtc_count, c.capacity); ++k)
            got.insert(got.end(),
                       {dtcs[k].spn, dtcs[k].fmi, dtcs[k].occurrences, dtcs[k].conversion});
        EXPECT_EQ(got, c.got);
        EXPECT_EQ(dm.dtc_count, c.count);
    }
    tarn_j1939_dm dm;
    EXPECT_EQ(tarn_j1939_dm_parse(longer.data(), 1, &dm, nullptr, 0), TARN_ERR_ARGUMENT);
}

TEST(Identifiers, SplitAndBuild) {
    struct Case {
        uint32_t id, pgn;
        uint8_t priority, source, destination;
        int built;  // what building the identifier back gives
    } cases[] = {
        {0x18FECA00, 0xFECA, 6, 0x00, 0xFF, TARN_OK},   // PDU2: DM1
        {0x1CEC4900, 0xEC00, 7, 0x00, 0x49, TARN_OK},   // PDU1: TP.CM to 0x49
        {0x19EFA0F9, 0x1EF00, 6, 0xF9, 0xA0, TARN_OK},  // data page 1, PDU1
        {0, 0xFECA, 8, 0, 0xFF, TARN_ERR_ARGUMENT},     // priority
        {0, 0xEF01, 6, 0, 0x10, TARN_ERR_ARGUMENT},     // PDU1 with a low byte
        {0, 0xFECA, 6, 0, 0x10, TARN_ERR_ARGUMENT},     // PDU2 addressed
        {0, 0x40000, 6, 0, 0xFF, TARN_ERR_ARGUMENT},    // beyond 18 bits
    };
    for (const Case& c : cases) {
        uint32_t built = 0;
        EXPECT_EQ(tarn_j1939_make_id(c.priority, c.pgn, c.destination, c.source, &built), c.built);
        if (c.built != TARN_OK) continue;
        EXPECT_EQ(built, c.id);
        EXPECT_EQ(std::make_tuple(tarn_j1939_pgn(c.id), tarn_j1939_priority(c.id),
                                  tarn_j1939_source(c.id), tarn_j1939_destination(c.id)),
                  std::make_tuple(c.pgn, c.priority, c.source, c.destination));
    }
}

}  // namespace
