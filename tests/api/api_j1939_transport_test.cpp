// The native J1939 transport through its C interface. Several nodes share an
// in-memory bus that loses, repeats and swaps frames under a seeded
// generator; every transfer must arrive byte-exact or be reported ended.
// A scripted peer then walks each timeout and abort path frame by frame.
// Time is injected throughout, except for the timer thread's own test.
#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "tarn/j1939.h"

namespace {

// ---- Frames built independently of the library ---------------------------

struct Frame {
    uint32_t id = 0;
    std::vector<uint8_t> data;
};

std::string Show(const Frame& f) {
    char buf[64];
    std::string s(buf, snprintf(buf, sizeof buf, "%08X#", f.id));
    for (uint8_t b : f.data) s += std::string(buf, snprintf(buf, sizeof buf, "%02X", b));
    return s;
}

constexpr uint32_t kPgn = 0xEF00;  // proprietary A: addressed
constexpr uint8_t kPeer = 0x20, kDut = 0x80;

Frame Cm(uint8_t from, uint8_t to, std::vector<uint8_t> head, uint32_t pgn = kPgn) {
    head.resize(5, 0xFF);
    head.insert(head.end(), {uint8_t(pgn), uint8_t(pgn >> 8), uint8_t(pgn >> 16)});
    return {0x1CEC0000u | uint32_t(to) << 8 | from, head};
}
Frame Rts(uint8_t from, uint8_t to, uint16_t size, uint8_t packets, uint32_t pgn = kPgn) {
    return Cm(from, to, {0x10, uint8_t(size), uint8_t(size >> 8), packets, 0xFF}, pgn);
}
Frame Cts(uint8_t from, uint8_t to, uint8_t count, uint8_t next) {
    return Cm(from, to, {0x11, count, next});
}
Frame Ack(uint8_t from, uint8_t to, uint16_t size, uint8_t packets) {
    return Cm(from, to, {0x13, uint8_t(size), uint8_t(size >> 8), packets});
}
Frame Abort(uint8_t from, uint8_t to, uint8_t reason, uint32_t pgn = kPgn) {
    return Cm(from, to, {0xFF, reason}, pgn);
}
Frame Bam(uint8_t from, uint16_t size, uint8_t packets) {
    return Cm(from, 0xFF, {0x20, uint8_t(size), uint8_t(size >> 8), packets}, 0xFEE3);
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

// ---- One tarn_j1939 and what it reported -------------------------------

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
            static_cast<Node*>(u)->reports.push_back(
                {true, t->pgn, t->source, t->destination, t->role, 0, 0,
                 std::vector<uint8_t>(t->data, t->data + t->size)});
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

// ---- Nodes on a lossy bus ---------------------------------------------

struct Faults {
    double loss, duplicate, swap;
};

struct Sent {
    uint8_t source, destination;
    uint32_t pgn;
    std::vector<uint8_t> payload;
};

// Every node sends `rounds` transfers to each other node and `rounds`
// broadcasts, one at a time per destination, while a listen-only node
// watches. Frames reach every other node in 1 ms ticks; idle time jumps to
// the next timer.
class Bus {
  public:
    Bus(int nodes, Faults faults, uint32_t seed) : m_faults(faults), m_rng(seed) {
        for (int i = 0; i < nodes; ++i) {
            m_nodes.emplace_back(new Node(0x10 + i, 1 + (i * 5) % 16, 50 + 30 * i));
        }
        m_nodes.emplace_back(new Node(TARN_J1939_NO_ADDRESS));
    }

    // Time jumps to the next timer whenever the bus is idle.
    void Run(int rounds) {
        const int n = int(m_nodes.size()) - 1;
        std::map<std::pair<int, int>, Pending> pending;
        for (uint64_t ms = 0; ms < 1000000;) {
            bool open = false;
            for (int from = 0; from < n; ++from) {
                for (int to = 0; to <= n; ++to) {
                    if (from != to) open |= StartNext(ms, from, to, pending[{from, to}], rounds);
                }
            }
            Deliver(ms);
            uint64_t next = UINT64_MAX;
            for (auto& node : m_nodes) {
                uint64_t due;
                tarn_j1939_poll(node->j, ms * 1000, &due);
                next = std::min(next, due);
                open |= node->Stats().open_sessions > 0;
            }
            if (!open && next == UINT64_MAX) return;
            ms = std::max(ms + 1, (next + 999) / 1000);
        }
        FAIL() << "the bus never went quiet";
    }

    std::vector<std::unique_ptr<Node>> m_nodes;
    std::vector<Sent> m_sent;

  private:
    struct Pending {
        int round = 0;
        std::vector<uint8_t> payload;
    };

    // `to` == node count means a broadcast. True while that pair has work left.
    bool StartNext(uint64_t ms, int from, int to, Pending& p, int rounds) {
        if (p.round >= rounds) return false;
        const bool bam = to == int(m_nodes.size()) - 1;
        const uint8_t src = uint8_t(0x10 + from), dst = bam ? 0xFF : uint8_t(0x10 + to);
        const uint32_t pgn = bam ? 0xFF00u + p.round : (0x80u + p.round) << 8;
        if (p.payload.empty()) p.payload = Bytes(9 + m_rng() % 1777, m_rng());
        const int rc = tarn_j1939_send(m_nodes[from]->j, ms * 1000, 6, pgn, dst, p.payload.data(),
                                       p.payload.size());
        if (rc == TARN_OK) {
            m_sent.push_back({src, dst, pgn, std::move(p.payload)});
            p.payload.clear();
            ++p.round;
        } else {
            EXPECT_EQ(rc, TARN_ERR_STATE);
        }
        return true;
    }

    void Deliver(uint64_t ms) {
        for (int guard = 0; guard < 100000; ++guard) {
            Collect();
            if (m_queue.empty()) return;
            const auto [from, frame] = m_queue.front();
            m_queue.pop_front();
            for (size_t k = 0; k < m_nodes.size(); ++k) {
                if (int(k) != from) m_nodes[k]->Receive(ms * 1000, frame);
            }
        }
        FAIL() << "frames never stopped";
    }

    // Moves what the nodes sent onto the bus, applying the faults.
    void Collect() {
        std::uniform_real_distribution<double> p(0, 1);
        for (size_t k = 0; k < m_nodes.size(); ++k) {
            for (const Frame& f : m_nodes[k]->sent) {
                if (p(m_rng) < m_faults.loss) continue;
                const int copies = p(m_rng) < m_faults.duplicate ? 2 : 1;
                for (int c = 0; c < copies; ++c) {
                    m_queue.emplace_back(int(k), f);
                    if (m_queue.size() > 1 && p(m_rng) < m_faults.swap) {
                        std::swap(m_queue.back(), m_queue[m_queue.size() - 2]);
                    }
                }
            }
            m_nodes[k]->sent.clear();
        }
    }

    Faults m_faults;
    std::mt19937 m_rng;
    std::deque<std::pair<int, Frame>> m_queue;
};

class LossyBus : public ::testing::TestWithParam<std::tuple<Faults, uint32_t>> {};

TEST_P(LossyBus, EveryTransferArrivesExactOrIsReportedEnded) {
    const auto [faults, seed] = GetParam();
    Bus bus(5, faults, seed);
    bus.Run(3);
    const bool clean = faults.loss == 0 && faults.duplicate == 0 && faults.swap == 0;
    ASSERT_EQ(bus.m_sent.size(), 5u * 5 * 3);
    for (const Sent& s : bus.m_sent) {
        const auto key = std::make_tuple(s.source, s.destination, s.pgn);
        bool originatorDone = false;
        // A repeated or reordered announcement may open (and end) a session
        // again, so only transfers are bounded; the originator reports once.
        for (size_t k = 0; k < bus.m_nodes.size(); ++k) {
            int transfers = 0, endings = 0;
            for (const Report& r : bus.m_nodes[k]->reports) {
                if (std::make_tuple(r.source, r.destination, r.pgn) != key) continue;
                (r.transfer ? transfers : endings) += 1;
                EXPECT_TRUE(r.transfer ? r.data == s.payload : r.reason != 0) << "node " << k;
                if (r.role == TARN_J1939_ORIGINATOR) originatorDone = r.transfer;
            }
            EXPECT_LE(transfers, 1) << "node " << k;
            const bool sender = 0x10 + int(k) == s.source;
            EXPECT_TRUE(!sender || transfers + endings == 1) << "node " << k;
            EXPECT_TRUE(!clean || (transfers == 1 && endings == 0)) << "node " << k;
        }
        // An acknowledged transfer was delivered to its destination.
        if (originatorDone && s.destination != 0xFF) {
            const auto& to = bus.m_nodes[s.destination - 0x10]->reports;
            EXPECT_TRUE(std::any_of(to.begin(), to.end(), [&](const Report& r) {
                return r.transfer && std::make_tuple(r.source, r.destination, r.pgn) == key;
            }));
        }
    }
    for (const auto& node : bus.m_nodes) EXPECT_EQ(node->Stats().open_sessions, 0u);
    // The listener follows all 20 RTS/CTS pairs and 5 broadcasts at once.
    EXPECT_GE(bus.m_nodes.back()->Stats().peak_sessions, clean ? 25u : 10u);
}

INSTANTIATE_TEST_SUITE_P(Seeds, LossyBus,
                         ::testing::Combine(::testing::Values(Faults{0, 0, 0},
                                                              Faults{0.01, 0.01, 0.05},
                                                              Faults{0.05, 0.05, 0.2}),
                                            ::testing::Range(1u, 9u)));

// ---- A scripted peer ---------------------------------------------------

enum class Who { Peer, Dut, Quiet, Start };

// Peer: the peer's frame reaches the node under test. Dut: the node has
// sent exactly this frame next. Quiet: it has sent nothing more. Start: the
// node sends the 20-byte payload to frame.id (broadcast group for 0xFF).
// Every step first polls the node at its time.
struct Step {
    uint32_t ms;
    Who who;
    Frame frame;
};

struct Script {
    const char* name;
    unsigned window, cap;
    std::vector<Step> steps;
    bool transfer;  // the last report: a transfer, else an ended session
    uint8_t role, reason, abort;
};

const std::vector<uint8_t> kPayload = Bytes(20, 7);  // three packets
constexpr uint8_t P = kPeer, D = kDut, kG = 0xFF;
enum : uint8_t {
    kListen = TARN_J1939_LISTENER,
    kResp = TARN_J1939_RESPONDER,
    kOrig = TARN_J1939_ORIGINATOR
};

Step In(uint32_t ms, Frame f) {
    return {ms, Who::Peer, f};
}
Step Out(uint32_t ms, Frame f) {
    return {ms, Who::Dut, f};
}
Step Quiet(uint32_t ms) {
    return {ms, Who::Quiet, {}};
}
Step Start(uint32_t ms, uint8_t to) {
    return {ms, Who::Start, {to, kPayload}};
}
Frame Dp(uint8_t seq, uint8_t flip = 0) {
    return Dt(P, D, kPayload, seq, flip);
}
Frame Dd(uint8_t seq, uint8_t to = P) {
    return Dt(D, to, kPayload, seq);
}

// clang-format off
const Script kScripts[] = {
    // Receiving an RTS addressed to us.
    {"T2", 16, 4096, {In(0, Rts(P, D, 20, 3)), Out(0, Cts(D, P, 3, 1)), Quiet(1249),
                      Out(1250, Abort(D, P, 3))},
     false, kResp, TARN_J1939_END_T2, 3},
    {"T1", 16, 4096, {In(0, Rts(P, D, 20, 3)), Out(0, Cts(D, P, 3, 1)), In(10, Dp(1)), Quiet(759),
                      Out(760, Abort(D, P, 3))},
     false, kResp, TARN_J1939_END_T1, 3},
    {"Busy", 16, 4096, {In(0, Rts(P, D, 20, 3)), Out(0, Cts(D, P, 3, 1)),
                        In(5, Rts(P, D, 20, 3, 0xEE00)), Out(5, Abort(D, P, 1, 0xEE00))},
     false, kResp, TARN_J1939_END_REFUSED, 1},
    {"Resources", 16, 1, {In(0, Rts(0x21, D, 20, 3)), Out(0, Cts(D, 0x21, 3, 1)),
                          In(5, Rts(P, D, 20, 3)), Out(5, Abort(D, P, 2))},
     false, kResp, TARN_J1939_END_REFUSED, 2},
    {"TooLarge", 16, 4096, {In(0, Rts(P, D, 1786, 255)), Out(0, Abort(D, P, 9))},
     false, kResp, TARN_J1939_END_REFUSED, 9},
    {"CountMismatch", 16, 4096, {In(0, Rts(P, D, 20, 4)), Out(0, Abort(D, P, 255))},
     false, kResp, TARN_J1939_END_REFUSED, 255},
    {"BadSequence", 16, 4096, {In(0, Rts(P, D, 20, 3)), Out(0, Cts(D, P, 3, 1)), In(1, Dp(4)),
                               Out(1, Abort(D, P, 7))},
     false, kResp, TARN_J1939_END_ABORTED, 7},
    {"OutsideWindow", 2, 4096, {In(0, Rts(P, D, 20, 3)), Out(0, Cts(D, P, 2, 1)), In(1, Dp(1)),
                                In(2, Dp(3)), Out(2, Abort(D, P, 6))},
     false, kResp, TARN_J1939_END_ABORTED, 6},
    {"DuplicateDiffers", 16, 4096, {In(0, Rts(P, D, 20, 3)), Out(0, Cts(D, P, 3, 1)), In(1, Dp(1)),
                                    In(2, Dp(1)), In(3, Dp(1, 0x5A)), Out(3, Abort(D, P, 8))},
     false, kResp, TARN_J1939_END_ABORTED, 8},
    {"AskAgainRecovers", 3, 4096, {In(0, Rts(P, D, 20, 3)), Out(0, Cts(D, P, 3, 1)), In(1, Dp(1)),
                                   In(2, Dp(3)), Out(2, Cts(D, P, 2, 2)), In(3, Dp(2)),
                                   In(4, Dp(3)), Out(4, Ack(D, P, 20, 3))},
     true, kResp, 0, 0},
    {"AskAgainLimit", 3, 4096, {In(0, Rts(P, D, 20, 3)), Out(0, Cts(D, P, 3, 1)), In(1, Dp(1)),
                                In(2, Dp(3)), Out(2, Cts(D, P, 2, 2)), In(3, Dp(3)),
                                Out(3, Cts(D, P, 2, 2)), In(4, Dp(3)), Out(4, Abort(D, P, 5))},
     false, kResp, TARN_J1939_END_ABORTED, 5},
    {"PeerAbortsToUs", 16, 4096, {In(0, Rts(P, D, 20, 3)), Out(0, Cts(D, P, 3, 1)),
                                  In(5, Abort(P, D, 4)), Quiet(2000)},
     false, kResp, TARN_J1939_END_PEER_ABORTED, 4},
    // Sending by RTS/CTS.
    {"T3AfterRts", 16, 4096, {Start(0, P), Out(0, Rts(D, P, 20, 3)), Quiet(1249),
                              Out(1250, Abort(D, P, 3))},
     false, kOrig, TARN_J1939_END_T3, 3},
    {"T4AfterHold", 16, 4096, {Start(0, P), Out(0, Rts(D, P, 20, 3)), In(100, Cts(P, D, 0, 1)),
                               Quiet(1149), Out(1150, Abort(D, P, 3))},
     false, kOrig, TARN_J1939_END_T4, 3},
    {"HoldThenGrant", 16, 4096, {Start(0, P), Out(0, Rts(D, P, 20, 3)), In(100, Cts(P, D, 0, 1)),
                                 In(1000, Cts(P, D, 3, 1)), Out(1000, Dd(1)), Out(1000, Dd(2)),
                                 Out(1000, Dd(3)), In(1001, Ack(P, D, 20, 3)), Quiet(5000)},
     true, kOrig, 0, 0},
    {"T3AwaitingAck", 16, 4096, {Start(0, P), Out(0, Rts(D, P, 20, 3)), In(1, Cts(P, D, 3, 1)),
                                 Out(1, Dd(1)), Out(1, Dd(2)), Out(1, Dd(3)), Quiet(1250),
                                 Out(1251, Abort(D, P, 3))},
     false, kOrig, TARN_J1939_END_T3, 3},
    {"WindowsAndResend", 16, 4096, {Start(0, P), Out(0, Rts(D, P, 20, 3)), In(1, Cts(P, D, 2, 1)),
                                    Out(1, Dd(1)), Out(1, Dd(2)), In(2, Cts(P, D, 2, 2)),
                                    Out(2, Dd(2)), Out(2, Dd(3)), In(3, Ack(P, D, 20, 3))},
     true, kOrig, 0, 0},
    {"ResendLimit", 16, 4096, {Start(0, P), Out(0, Rts(D, P, 20, 3)), In(1, Cts(P, D, 1, 1)),
                               Out(1, Dd(1)), In(2, Cts(P, D, 1, 1)), Out(2, Dd(1)),
                               In(3, Cts(P, D, 1, 1)), Out(3, Dd(1)), In(4, Cts(P, D, 1, 1)),
                               Out(4, Abort(D, P, 5))},
     false, kOrig, TARN_J1939_END_ABORTED, 5},
    {"CtsOutOfRange", 16, 4096, {Start(0, P), Out(0, Rts(D, P, 20, 3)), In(1, Cts(P, D, 3, 4)),
                                 Out(1, Abort(D, P, 7))},
     false, kOrig, TARN_J1939_END_ABORTED, 7},
    {"AckMismatch", 16, 4096, {Start(0, P), Out(0, Rts(D, P, 20, 3)), In(1, Cts(P, D, 3, 1)),
                               Out(1, Dd(1)), Out(1, Dd(2)), Out(1, Dd(3)),
                               In(2, Ack(P, D, 21, 3)), Out(2, Abort(D, P, 255))},
     false, kOrig, TARN_J1939_END_ABORTED, 255},
    {"PeerAbortsOurs", 16, 4096, {Start(0, P), Out(0, Rts(D, P, 20, 3)), In(5, Abort(P, D, 9)),
                                  Quiet(2000)},
     false, kOrig, TARN_J1939_END_PEER_ABORTED, 9},
    // Broadcasting: one packet per 50 ms gap.
    {"BamPacing", 16, 4096, {Start(0, kG), Out(0, Bam(D, 20, 3)), Quiet(49), Out(50, Dd(1, kG)),
                             Quiet(99), Out(100, Dd(2, kG)), Quiet(149), Out(150, Dd(3, kG))},
     true, kOrig, 0, 0},
    // Following broadcasts and others' transfers: nothing is ever sent.
    {"BamT1", 16, 4096, {In(0, Bam(P, 20, 3)), In(10, Dt(P, kG, kPayload, 1)), Quiet(759),
                         Quiet(760)},
     false, kListen, TARN_J1939_END_T1, 3},
    {"BamReplaced", 16, 4096, {In(0, Bam(P, 20, 3)), In(10, Dt(P, kG, kPayload, 1)),
                               In(20, Bam(P, 20, 3)), Quiet(21)},
     false, kListen, TARN_J1939_END_REPLACED, 0},
    {"BamGap", 16, 4096, {In(0, Bam(P, 20, 3)), In(10, Dt(P, kG, kPayload, 1)),
                          In(20, Dt(P, kG, kPayload, 3)), Quiet(21)},
     false, kListen, TARN_J1939_END_ABORTED, 7},
    {"OthersT3", 16, 4096, {In(0, Rts(P, 0x30, 20, 3)), Quiet(1249), Quiet(1250)},
     false, kListen, TARN_J1939_END_T3, 3},
    {"OthersT4", 16, 4096, {In(0, Rts(P, 0x30, 20, 3)), In(1, Cm(0x30, P, {0x11, 0, 1})),
                            Quiet(1050), Quiet(1051)},
     false, kListen, TARN_J1939_END_T4, 3},
};
// clang-format on

class Scripted : public ::testing::TestWithParam<Script> {};

TEST_P(Scripted, NodeAnswersFrameByFrame) {
    const Script& sc = GetParam();
    Node dut(kDut, sc.window, 50, sc.cap);
    size_t checked = 0;
    for (const Step& st : sc.steps) {
        const uint64_t us = st.ms * 1000ull;
        ASSERT_EQ(tarn_j1939_poll(dut.j, us, nullptr), TARN_OK);
        if (st.who == Who::Peer) {
            dut.Receive(us, st.frame);
        } else if (st.who == Who::Start) {
            const uint8_t to = uint8_t(st.frame.id);
            ASSERT_EQ(tarn_j1939_send(dut.j, us, 7, to == kG ? 0xFEE3 : kPgn, to, kPayload.data(),
                                      kPayload.size()),
                      TARN_OK);
        } else if (st.who == Who::Dut) {
            ASSERT_LT(checked, dut.sent.size())
                << "at " << st.ms << " ms, expected " << Show(st.frame);
            EXPECT_EQ(Show(dut.sent[checked++]), Show(st.frame)) << "at " << st.ms << " ms";
        } else {
            ASSERT_EQ(checked, dut.sent.size())
                << "at " << st.ms << " ms, sent " << Show(dut.sent.back());
        }
    }
    EXPECT_EQ(checked, dut.sent.size());
    ASSERT_FALSE(dut.reports.empty());
    const Report& r = dut.reports.back();
    EXPECT_EQ(r.transfer, sc.transfer);
    EXPECT_EQ(r.role, sc.role);
    EXPECT_EQ(r.reason, sc.reason);
    EXPECT_EQ(r.abort, sc.abort);
    EXPECT_EQ(r.data, r.transfer ? kPayload : std::vector<uint8_t>());
}

INSTANTIATE_TEST_SUITE_P(Peer, Scripted, ::testing::ValuesIn(kScripts),
                         [](const auto& info) { return std::string(info.param.name); });

// A listener holds max_sessions transfers at once, all of them interleaved
// packet by packet, and refuses (and counts) one more.
TEST(Capacity, FourThousandConcurrentSessionsThenRefusal) {
    constexpr unsigned kCap = 4096;
    Node listener(TARN_J1939_NO_ADDRESS, 16, 50, kCap);
    std::vector<std::pair<uint8_t, uint8_t>> pairs;
    for (unsigned i = 0; i <= kCap; ++i)
        pairs.emplace_back(uint8_t(i / 32), uint8_t(0x80 + i % 32));
    auto payload = [](size_t i) { return Bytes(20, uint32_t(i)); };
    for (const auto& [s, d] : pairs) listener.Receive(0, Rts(s, d, 20, 3));
    for (size_t i = 0; i < kCap; ++i)
        listener.Receive(1, Cts(pairs[i].second, pairs[i].first, 3, 1));
    for (uint8_t seq = 1; seq <= 3; ++seq) {
        for (size_t i = 0; i < kCap; ++i) {
            listener.Receive(2 + seq, Dt(pairs[i].first, pairs[i].second, payload(i), seq));
        }
    }
    const tarn_j1939_stats st = listener.Stats();
    EXPECT_EQ(st.peak_sessions, kCap);
    EXPECT_EQ(st.refused, 1u);
    EXPECT_EQ(st.received, kCap);
    EXPECT_EQ(st.open_sessions, 0u);
    ASSERT_EQ(listener.reports.size(), kCap + 1);
    EXPECT_EQ(listener.reports[0].reason, TARN_J1939_END_REFUSED);
    EXPECT_EQ(listener.reports[0].abort, TARN_J1939_ABORT_RESOURCES);
    for (size_t i = 0; i < kCap; ++i) {
        const Report& r = listener.reports[i + 1];
        ASSERT_TRUE(r.transfer);
        EXPECT_EQ(std::make_pair(r.source, r.destination), pairs[i]);
        EXPECT_EQ(r.data, payload(i));
    }
    EXPECT_TRUE(listener.sent.empty());
}

// A sender and a listener, each polled by its own timer thread: the sender's
// timer paces a broadcast straight into the listener while the test thread
// reads both. Mostly a check for the thread sanitizer; the wait is for an
// event, bounded generously.
TEST(TimerThread, PacesABroadcastOnTheMonotonicClock) {
    struct Shared {
        tarn_j1939* listener = nullptr;
        std::mutex m;
        std::condition_variable cv;
        std::vector<uint8_t> got;
    } sh;
    tarn_j1939_options o;
    tarn_j1939_options_init(&o);
    o.user = &sh;
    o.on_transfer = [](void* u, const tarn_j1939_transfer* t) {
        auto* s = static_cast<Shared*>(u);
        std::lock_guard<std::mutex> lock(s->m);
        s->got.assign(t->data, t->data + t->size);
        s->cv.notify_all();
    };
    ASSERT_EQ(tarn_j1939_create(&o, &sh.listener), TARN_OK);
    o.address = 0x30;
    o.on_transfer = nullptr;
    o.send = [](void* u, uint32_t id, const uint8_t* d, size_t n) {
        return tarn_j1939_receive(static_cast<Shared*>(u)->listener, tarn_j1939_clock_us(), id, d,
                                  n);
    };
    tarn_j1939* sender = nullptr;
    ASSERT_EQ(tarn_j1939_create(&o, &sender), TARN_OK);
    for (tarn_j1939* x : {sender, sh.listener}) ASSERT_EQ(tarn_j1939_start_timer(x), TARN_OK);
    EXPECT_EQ(tarn_j1939_start_timer(sender), TARN_ERR_STATE);
    const auto bam = Bytes(30, 2);
    ASSERT_EQ(tarn_j1939_send(sender, tarn_j1939_clock_us(), 6, 0xFEE3, 0xFF, bam.data(), 30),
              TARN_OK);
    {
        std::unique_lock<std::mutex> lock(sh.m);
        EXPECT_TRUE(
            sh.cv.wait_for(lock, std::chrono::seconds(30), [&] { return !sh.got.empty(); }));
    }
    tarn_j1939_stats st;
    tarn_j1939_get_stats(sender, &st);
    EXPECT_EQ(st.sent, 1u);
    tarn_j1939_destroy(sender);  // stops its timer first
    EXPECT_EQ(tarn_j1939_stop_timer(sh.listener), TARN_OK);
    tarn_j1939_destroy(sh.listener);
    EXPECT_EQ(sh.got, bam);
}

}  // namespace
