// The native J1939 transport through its C interface: nodes on a bus that
// loses, repeats and swaps frames under a seeded generator; a scripted peer
// walking each timeout and abort frame by frame; a full session table; and
// the timer thread. Time is injected everywhere but in the last.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "tarn/j1939.h"

namespace {

struct Frame {
    uint32_t id = 0;
    std::vector<uint8_t> data;
};

std::string Show(const Frame& f) {
    char buf[16];
    std::string s(buf, snprintf(buf, sizeof buf, "%08X#", f.id));
    for (uint8_t b : f.data) s += std::string(buf, snprintf(buf, sizeof buf, "%02X", b));
    return s;
}

constexpr uint32_t kPgn = 0xEF00;  // proprietary A: addressed
constexpr uint8_t P = 0x20, D = 0x80, G = 0xFF;

Frame Cm(uint8_t from, uint8_t to, std::vector<uint8_t> head, uint32_t pgn = kPgn) {
    head.resize(5, 0xFF);
    head.insert(head.end(), {uint8_t(pgn), uint8_t(pgn >> 8), uint8_t(pgn >> 16)});
    return {0x1CEC0000u | uint32_t(to) << 8 | from, head};
}
// Packet `seq` of `payload`, padded with 0xFF; `flip` corrupts its first byte.
Frame Dt(uint8_t from, uint8_t to, const std::vector<uint8_t>& payload, uint8_t seq,
         uint8_t flip = 0) {
    std::vector<uint8_t> d(8, 0xFF);
    d[0] = seq;
    for (size_t i = 0; i < 7 && (seq - 1u) * 7 + i < payload.size(); ++i)
        d[1 + i] = payload[(seq - 1u) * 7 + i];
    d[1] = uint8_t(d[1] ^ flip);
    return {0x1CEB0000u | uint32_t(to) << 8 | from, d};
}

std::vector<uint8_t> Bytes(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> v(n);
    for (auto& b : v) b = uint8_t(rng());
    return v;
}

struct Report {
    bool transfer;
    uint32_t pgn;
    uint8_t source, destination, role, reason, abort;
    std::vector<uint8_t> data;
};

struct Node {
    tarn_j1939* j = nullptr;
    std::vector<Frame> sent;
    std::vector<Report> reports;

    explicit Node(int address, unsigned window = 16, unsigned gap = 50, unsigned cap = 4096) {
        tarn_j1939_options o;
        tarn_j1939_options_init(&o);
        o.address = address;
        o.cts_window = window;
        o.bam_gap_ms = gap;
        o.max_sessions = cap;
        o.user = this;
        o.send = [](void* u, uint32_t id, const uint8_t* d, size_t n) {
            static_cast<Node*>(u)->sent.push_back({id, std::vector<uint8_t>(d, d + n)});
            return 0;
        };
        o.on_transfer = [](void* u, const tarn_j1939_transfer* t) {
            static_cast<Node*>(u)->reports.push_back({true,
                                                      t->pgn,
                                                      t->source,
                                                      t->destination,
                                                      t->role,
                                                      0,
                                                      0,
                                                      {t->data, t->data + t->size}});
        };
        o.on_ended = [](void* u, const tarn_j1939_ended* e) {
            static_cast<Node*>(u)->reports.push_back({false,
                                                      e->pgn,
                                                      e->source,
                                                      e->destination,
                                                      e->role,
                                                      e->reason,
                                                      e->abort_reason,
                                                      {}});
        };
        EXPECT_EQ(tarn_j1939_create(&o, &j), TARN_OK);
    }
    ~Node() { tarn_j1939_destroy(j); }
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    void Receive(uint64_t us, const Frame& f) {
        ASSERT_EQ(tarn_j1939_receive(j, us, f.id, f.data.data(), f.data.size()), TARN_OK);
    }
    tarn_j1939_stats Stats() const {
        tarn_j1939_stats s;
        tarn_j1939_get_stats(j, &s);
        return s;
    }
};

struct Faults {
    double loss, duplicate, swap;
};

class LossyBus : public ::testing::TestWithParam<std::tuple<Faults, uint32_t>> {};

// Each of five nodes sends three transfers to every other node and three
// broadcasts, one at a time per destination, while a listen-only node
// watches. Frames reach every other node in 1 ms ticks; idle time jumps to
// the next timer.
TEST_P(LossyBus, EveryTransferArrivesExactOrIsReportedEnded) {
    const Faults faults = std::get<0>(GetParam());
    const uint32_t seed = std::get<1>(GetParam());
    constexpr int kNodes = 5, kRounds = 3;
    std::vector<std::unique_ptr<Node>> nodes;
    for (int i = 0; i < kNodes; ++i)
        nodes.emplace_back(new Node(0x10 + i, 1 + (i * 5) % 16, 50 + 30 * i));
    nodes.emplace_back(new Node(TARN_J1939_NO_ADDRESS));
    // Transfer `r` from node `from` to node `to` (kNodes: a broadcast).
    auto key = [](int from, int to, int r) {
        return to == kNodes
                   ? std::make_tuple(uint8_t(0x10 + from), G, 0xFF00u + r)
                   : std::make_tuple(uint8_t(0x10 + from), uint8_t(0x10 + to), (0x80u + r) << 8);
    };
    auto payload = [&](int from, int to, int r) {
        std::mt19937 g(seed << 12 | from << 8 | to << 4 | r);
        return Bytes(9 + g() % 1777, g());
    };
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> p(0, 1);
    std::deque<std::pair<size_t, Frame>> queue;
    int round[kNodes][kNodes + 1] = {};
    for (uint64_t ms = 0;;) {
        ASSERT_LT(ms, 1000000u) << "the bus never went quiet";
        bool busy = false;
        for (int from = 0; from < kNodes; ++from) {
            for (int to = 0; to <= kNodes; ++to) {
                int& r = round[from][to];
                if (from == to || r >= kRounds) continue;
                busy = true;
                const auto [src, dst, pgn] = key(from, to, r);
                const auto data = payload(from, to, r);
                const int rc = tarn_j1939_send(nodes[from]->j, ms * 1000, 6, pgn, dst, data.data(),
                                               data.size());
                ASSERT_TRUE(rc == TARN_OK || rc == TARN_ERR_STATE) << rc;
                r += rc == TARN_OK;
            }
        }
        for (int guard = 0;; ++guard) {
            ASSERT_LT(guard, 100000) << "frames never stopped";
            for (size_t k = 0; k < nodes.size(); ++k) {
                for (const Frame& f : nodes[k]->sent) {
                    if (p(rng) < faults.loss) continue;
                    for (int c = p(rng) < faults.duplicate ? 2 : 1; c > 0; --c) {
                        queue.emplace_back(k, f);
                        if (queue.size() > 1 && p(rng) < faults.swap)
                            std::swap(queue.back(), queue[queue.size() - 2]);
                    }
                }
                nodes[k]->sent.clear();
            }
            if (queue.empty()) break;
            const auto [from, frame] = queue.front();
            queue.pop_front();
            for (size_t k = 0; k < nodes.size(); ++k)
                if (k != from) nodes[k]->Receive(ms * 1000, frame);
        }
        uint64_t next = UINT64_MAX;
        for (auto& node : nodes) {
            uint64_t due;
            tarn_j1939_poll(node->j, ms * 1000, &due);
            next = std::min(next, due);
            busy |= node->Stats().open_sessions > 0;
        }
        if (!busy && next == UINT64_MAX) break;
        ms = std::max(ms + 1, (next + 999) / 1000);
    }

    const bool clean = faults.loss == 0 && faults.duplicate == 0 && faults.swap == 0;
    for (int from = 0; from < kNodes; ++from) {
        for (int to = 0; to <= kNodes; ++to) {
            for (int round = 0; round < kRounds && from != to; ++round) {
                const auto sent = key(from, to, round);
                bool originatorDone = false;
                // A repeated or reordered announcement may open (and end) a
                // session again, so only transfers are bounded; the
                // originator reports once.
                for (size_t k = 0; k < nodes.size(); ++k) {
                    int transfers = 0, endings = 0;
                    for (const Report& r : nodes[k]->reports) {
                        if (std::make_tuple(r.source, r.destination, r.pgn) != sent) continue;
                        (r.transfer ? transfers : endings) += 1;
                        EXPECT_TRUE(r.transfer ? r.data == payload(from, to, round) : r.reason != 0)
                            << "node " << k;
                        if (r.role == TARN_J1939_ORIGINATOR) originatorDone = r.transfer;
                    }
                    EXPECT_LE(transfers, 1) << "node " << k;
                    EXPECT_TRUE(int(k) != from || transfers + endings == 1) << "node " << k;
                    EXPECT_TRUE(!clean || (transfers == 1 && endings == 0)) << "node " << k;
                }
                // An acknowledged transfer was delivered to its destination.
                if (originatorDone && to != kNodes) {
                    const auto& got = nodes[to]->reports;
                    EXPECT_TRUE(std::any_of(got.begin(), got.end(), [&](const Report& r) {
                        return r.transfer &&
                               std::make_tuple(r.source, r.destination, r.pgn) == sent;
                    }));
                }
            }
        }
    }
    for (const auto& node : nodes) EXPECT_EQ(node->Stats().open_sessions, 0u);
    // The listener follows all 20 RTS/CTS pairs and 5 broadcasts at once.
    EXPECT_GE(nodes.back()->Stats().peak_sessions, clean ? 25u : 10u);
}

INSTANTIATE_TEST_SUITE_P(Seeds, LossyBus,
                         ::testing::Combine(::testing::Values(Faults{0, 0, 0},
                                                              Faults{0.01, 0.01, 0.05},
                                                              Faults{0.05, 0.05, 0.2}),
                                            ::testing::Range(1u, 9u)));

const std::vector<uint8_t> kPayload = Bytes(20, 7);  // three packets

// A frame as scripts name it, "[from:to] kind numbers": rts size packets
// [pgn], cts count next, ack size packets, abort reason [pgn], bam size
// packets, dt seq [flip] (a packet of kPayload).
Frame Parse(std::istringstream& in, unsigned from, unsigned to) {
    std::string kind;
    in >> kind;
    if (kind.find(':') != std::string::npos) {
        sscanf(kind.c_str(), "%x:%x", &from, &to);
        in >> kind;
    }
    uint32_t a[3] = {0, 0, 0};
    std::string n;
    for (int i = 0; i < 3 && in >> n; ++i) a[i] = uint32_t(std::stoul(n, nullptr, 0));
    const uint8_t f = uint8_t(from), t = uint8_t(to);
    if (kind == "rts")
        return Cm(f, t, {0x10, uint8_t(a[0]), uint8_t(a[0] >> 8), uint8_t(a[1])},
                  a[2] ? a[2] : kPgn);
    if (kind == "cts") return Cm(f, t, {0x11, uint8_t(a[0]), uint8_t(a[1])});
    if (kind == "ack") return Cm(f, t, {0x13, uint8_t(a[0]), uint8_t(a[0] >> 8), uint8_t(a[1])});
    if (kind == "abort") return Cm(f, t, {0xFF, uint8_t(a[0])}, a[1] ? a[1] : kPgn);
    if (kind == "bam")
        return Cm(f, G, {0x20, uint8_t(a[0]), uint8_t(a[0] >> 8), uint8_t(a[1])}, 0xFEE3);
    EXPECT_EQ(kind, "dt");
    return Dt(f, t, kPayload, uint8_t(a[0]), uint8_t(a[1]));
}

// Steps "ms op ...", comma-separated. Every step first polls the node at its
// time; then "<" a peer frame reaches it (default 20 to 80), ">" it has sent
// exactly this frame next (default 80 to 20), "." it has sent nothing more,
// "!" it starts sending kPayload to 20 (or to the address given).
struct Script {
    const char* name;
    const char* steps;
    const char* end;  // the last report: role, then the transfer or how it ended
    unsigned window = 16, cap = 4096;
};

void PrintTo(const Script& s, std::ostream* os) {
    *os << s.name;
}

// clang-format off
const Script kScripts[] = {
    // Receiving an RTS addressed to us.
    {"T2", "0 < rts 20 3, 0 > cts 3 1, 1249 ., 1250 > abort 3", "responder T2 3"},
    {"T1", "0 < rts 20 3, 0 > cts 3 1, 10 < dt 1, 759 ., 760 > abort 3", "responder T1 3"},
    {"Busy", "0 < rts 20 3, 0 > cts 3 1, 5 < rts 20 3 0xEE00, 5 > abort 1 0xEE00",
     "responder refused 1"},
    {"Resources", "0 < 21:80 rts 20 3, 0 > 80:21 cts 3 1, 5 < rts 20 3, 5 > abort 2",
     "responder refused 2", 16, 1},
    {"TooLarge", "0 < rts 1786 255, 0 > abort 9", "responder refused 9"},
    {"CountMismatch", "0 < rts 20 4, 0 > abort 255", "responder refused 255"},
    {"BadSequence", "0 < rts 20 3, 0 > cts 3 1, 1 < dt 4, 1 > abort 7", "responder aborted 7"},
    {"OutsideWindow", "0 < rts 20 3, 0 > cts 2 1, 1 < dt 1, 2 < dt 3, 2 > abort 6",
     "responder aborted 6", 2},
    {"DuplicateDiffers", "0 < rts 20 3, 0 > cts 3 1, 1 < dt 1, 2 < dt 1, 3 < dt 1 0x5A, "
     "3 > abort 8", "responder aborted 8"},
    {"AskAgainRecovers", "0 < rts 20 3, 0 > cts 3 1, 1 < dt 1, 2 < dt 3, 2 > cts 2 2, 3 < dt 2, "
     "4 < dt 3, 4 > ack 20 3", "responder transfer 0", 3},
    {"AskAgainLimit", "0 < rts 20 3, 0 > cts 3 1, 1 < dt 1, 2 < dt 3, 2 > cts 2 2, 3 < dt 3, "
     "3 > cts 2 2, 4 < dt 3, 4 > abort 5", "responder aborted 5", 3},
    {"PeerAbortsToUs", "0 < rts 20 3, 0 > cts 3 1, 5 < abort 4, 2000 .", "responder peer 4"},
    // Sending by RTS/CTS.
    {"T3AfterRts", "0 !, 0 > rts 20 3, 1249 ., 1250 > abort 3", "originator T3 3"},
    {"T4AfterHold", "0 !, 0 > rts 20 3, 100 < cts 0 1, 1149 ., 1150 > abort 3", "originator T4 3"},
    {"HoldThenGrant", "0 !, 0 > rts 20 3, 100 < cts 0 1, 1000 < cts 3 1, 1000 > dt 1, "
     "1000 > dt 2, 1000 > dt 3, 1001 < ack 20 3, 5000 .", "originator transfer 0"},
    {"T3AwaitingAck", "0 !, 0 > rts 20 3, 1 < cts 3 1, 1 > dt 1, 1 > dt 2, 1 > dt 3, 1250 ., "
     "1251 > abort 3", "originator T3 3"},
    {"WindowsAndResend", "0 !, 0 > rts 20 3, 1 < cts 2 1, 1 > dt 1, 1 > dt 2, 2 < cts 2 2, "
     "2 > dt 2, 2 > dt 3, 3 < ack 20 3", "originator transfer 0"},
    {"ResendLimit", "0 !, 0 > rts 20 3, 1 < cts 1 1, 1 > dt 1, 2 < cts 1 1, 2 > dt 1, "
     "3 < cts 1 1, 3 > dt 1, 4 < cts 1 1, 4 > abort 5", "originator aborted 5"},
    {"CtsOutOfRange", "0 !, 0 > rts 20 3, 1 < cts 3 4, 1 > abort 7", "originator aborted 7"},
    {"AckMismatch", "0 !, 0 > rts 20 3, 1 < cts 3 1, 1 > dt 1, 1 > dt 2, 1 > dt 3, "
     "2 < ack 21 3, 2 > abort 255", "originator aborted 255"},
    {"PeerAbortsOurs", "0 !, 0 > rts 20 3, 5 < abort 9, 2000 .", "originator peer 9"},
    // Broadcasting: one packet per 50 ms gap.
    {"BamPacing", "0 ! FF, 0 > bam 20 3, 49 ., 50 > 80:FF dt 1, 99 ., 100 > 80:FF dt 2, 149 ., "
     "150 > 80:FF dt 3", "originator transfer 0"},
    // Following broadcasts and others' transfers: nothing is ever sent.
    {"BamT1", "0 < bam 20 3, 10 < 20:FF dt 1, 759 ., 760 .", "listener T1 3"},
    {"BamReplaced", "0 < bam 20 3, 10 < 20:FF dt 1, 20 < bam 20 3, 21 .", "listener replaced 0"},
    {"BamGap", "0 < bam 20 3, 10 < 20:FF dt 1, 20 < 20:FF dt 3, 21 .", "listener aborted 7"},
    {"OthersT3", "0 < 20:30 rts 20 3, 1249 ., 1250 .", "listener T3 3"},
    {"OthersT4", "0 < 20:30 rts 20 3, 1 < 30:20 cts 0 1, 1050 ., 1051 .", "listener T4 3"},
};
// clang-format on

class Scripted : public ::testing::TestWithParam<Script> {};

TEST_P(Scripted, NodeAnswersFrameByFrame) {
    const Script& sc = GetParam();
    Node dut(D, sc.window, 50, sc.cap);
    size_t checked = 0;
    std::istringstream steps(sc.steps);
    for (std::string step; std::getline(steps, step, ',');) {
        SCOPED_TRACE(step);
        std::istringstream in(step);
        uint64_t ms = 0;
        char op = 0;
        in >> ms >> op;
        ASSERT_EQ(tarn_j1939_poll(dut.j, ms * 1000, nullptr), TARN_OK);
        if (op == '<') {
            dut.Receive(ms * 1000, Parse(in, P, D));
        } else if (op == '>') {
            ASSERT_LT(checked, dut.sent.size());
            EXPECT_EQ(Show(dut.sent[checked++]), Show(Parse(in, D, P)));
        } else if (op == '.') {
            ASSERT_EQ(checked, dut.sent.size()) << "sent " << Show(dut.sent.back());
        } else {
            std::string text;
            const unsigned to = in >> text ? unsigned(std::stoul(text, nullptr, 16)) : P;
            ASSERT_EQ(tarn_j1939_send(dut.j, ms * 1000, 7, to == G ? 0xFEE3 : kPgn, uint8_t(to),
                                      kPayload.data(), kPayload.size()),
                      TARN_OK);
        }
    }
    EXPECT_EQ(checked, dut.sent.size());
    ASSERT_FALSE(dut.reports.empty());
    static const char* const kRoles[] = {"listener", "responder", "originator"};
    static const char* const kEnds[] = {"transfer", "T1",   "T2",       "T3",     "T4",
                                        "aborted",  "peer", "replaced", "refused"};
    const Report& r = dut.reports.back();
    EXPECT_EQ(std::string(kRoles[r.role]) + " " + kEnds[r.reason] + " " + std::to_string(r.abort),
              sc.end);
    EXPECT_EQ(r.data, r.transfer ? kPayload : std::vector<uint8_t>());
}

INSTANTIATE_TEST_SUITE_P(Peer, Scripted, ::testing::ValuesIn(kScripts),
                         [](const auto& info) { return std::string(info.param.name); });

// A listener holds max_sessions transfers at once, all interleaved packet by
// packet, and refuses (and counts) one more.
TEST(Capacity, FourThousandConcurrentSessionsThenRefusal) {
    constexpr unsigned kCap = 4096;
    Node listener(TARN_J1939_NO_ADDRESS, 16, 50, kCap);
    auto from = [](size_t i) { return uint8_t(i / 32); };
    auto to = [](size_t i) { return uint8_t(0x80 + i % 32); };
    for (size_t i = 0; i <= kCap; ++i) listener.Receive(0, Cm(from(i), to(i), {0x10, 20, 0, 3}));
    for (size_t i = 0; i < kCap; ++i) listener.Receive(1, Cm(to(i), from(i), {0x11, 3, 1}));
    for (uint8_t seq = 1; seq <= 3; ++seq) {
        for (size_t i = 0; i < kCap; ++i)
            listener.Receive(2 + seq, Dt(from(i), to(i), Bytes(20, uint32_t(i)), seq));
    }
    const tarn_j1939_stats st = listener.Stats();
    EXPECT_EQ(std::make_tuple(st.peak_sessions, st.refused, st.received, st.open_sessions),
              std::make_tuple(uint64_t{kCap}, uint64_t{1}, uint64_t{kCap}, uint64_t{0}));
    ASSERT_EQ(listener.reports.size(), kCap + 1);
    EXPECT_EQ(listener.reports[0].reason, TARN_J1939_END_REFUSED);
    EXPECT_EQ(listener.reports[0].abort, TARN_J1939_ABORT_RESOURCES);
    for (size_t i = 0; i < kCap; ++i) {
        const Report& r = listener.reports[i + 1];
        ASSERT_TRUE(r.transfer);
        EXPECT_EQ(std::make_tuple(r.source, r.destination, r.data),
                  std::make_tuple(from(i), to(i), Bytes(20, uint32_t(i))));
    }
    EXPECT_TRUE(listener.sent.empty());
}

// A sender and a listener, each polled by its own timer thread: the sender's
// timer paces a broadcast straight into the listener. Mostly a check for the
// thread sanitizer; waits are for the sender's count, bounded generously.
TEST(TimerThread, PacesABroadcastOnTheMonotonicClock) {
    Node listener(TARN_J1939_NO_ADDRESS);
    tarn_j1939_options o;
    tarn_j1939_options_init(&o);
    o.address = 0x30;
    o.user = listener.j;
    o.send = [](void* u, uint32_t id, const uint8_t* d, size_t n) {
        return tarn_j1939_receive(static_cast<tarn_j1939*>(u), tarn_j1939_clock_us(), id, d, n);
    };
    tarn_j1939* sender = nullptr;
    ASSERT_EQ(tarn_j1939_create(&o, &sender), TARN_OK);
    for (tarn_j1939* x : {sender, listener.j}) ASSERT_EQ(tarn_j1939_start_timer(x), TARN_OK);
    EXPECT_EQ(tarn_j1939_start_timer(sender), TARN_ERR_STATE);
    // The second send finds the timer asleep with nothing due: it must wake it.
    const auto bam = Bytes(30, 2);
    tarn_j1939_stats st{};
    for (uint64_t n = 1; n <= 2; ++n) {
        ASSERT_EQ(tarn_j1939_send(sender, tarn_j1939_clock_us(), 6, 0xFEE3, G, bam.data(), 30),
                  TARN_OK);
        for (int i = 0; i < 30000 && st.sent < n; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            tarn_j1939_get_stats(sender, &st);
        }
    }
    tarn_j1939_destroy(sender);  // stops its timer first
    EXPECT_EQ(tarn_j1939_stop_timer(listener.j), TARN_OK);
    ASSERT_EQ(listener.reports.size(), 2u);
    EXPECT_EQ(listener.reports[1].data, bam);
}

}  // namespace
