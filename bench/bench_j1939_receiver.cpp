// Cost per received frame of the J1939 transport receiver, listening only:
// many 1785-byte transfers open at once, their data packets interleaved one
// session after another, as busy buses deliver them.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "j1939/transport_node.h"

namespace {

struct Frame {
    uint32_t id;
    uint8_t data[8];
};

struct Sink final : j1939::Events {
    bool SendFrame(uint32_t, const uint8_t*, size_t) override { return false; }
    void OnTransfer(const j1939::Transfer& t) override { bytes += t.header.size; }
    void OnEnded(const j1939::Ended&) override { ++ended; }
    uint64_t bytes = 0, ended = 0;
};

// RTS or BAM: 1785 bytes in 255 packets of group 0xFEE3.
Frame Announce(uint8_t src, uint8_t dst, uint8_t control) {
    return {0x1CEC0000u | uint32_t(dst) << 8 | src,
            {control, 0xF9, 0x06, 255, 0xFF, 0xE3, 0xFE, 0}};
}

// Sessions 0..n-1: broadcasts from sources 0..n-1, or RTS/CTS transfers
// from source i / 64 to destination 0x80 + i % 64 with one CTS for all.
std::vector<Frame> Stream(int sessions, bool broadcast) {
    std::vector<Frame> frames;
    auto pair = [&](int i) {
        return broadcast ? std::make_pair(uint8_t(i), uint8_t(0xFF))
                         : std::make_pair(uint8_t(i / 64), uint8_t(0x80 + i % 64));
    };
    for (int i = 0; i < sessions; ++i) {
        const auto [s, d] = pair(i);
        frames.push_back(Announce(s, d, broadcast ? 0x20 : 0x10));
        if (!broadcast) {  // CTS: 255 packets from packet 1
            frames.push_back(
                {0x1CEC0000u | uint32_t(s) << 8 | d, {0x11, 255, 1, 0xFF, 0xFF, 0xE3, 0xFE, 0}});
        }
    }
    for (int seq = 1; seq <= 255; ++seq) {
        for (int i = 0; i < sessions; ++i) {
            const auto [s, d] = pair(i);
            Frame f{0x1CEB0000u | uint32_t(d) << 8 | s, {uint8_t(seq)}};
            for (int k = 1; k < 8; ++k) f.data[k] = uint8_t(seq * 7 + k + i);
            frames.push_back(f);
        }
    }
    return frames;
}

void Run(benchmark::State& state, bool broadcast) {
    const int sessions = int(state.range(0));
    const auto frames = Stream(sessions, broadcast);
    Sink sink;
    j1939::Node::Options options;
    options.maxSessions = 4096;
    j1939::Node node(options, sink);
    uint64_t now = 0;
    for (auto _ : state) {
        for (const Frame& f : frames) node.Receive(now += 10, f.id, f.data, 8);
    }
    if (sink.ended != 0 || sink.bytes != uint64_t(state.iterations()) * sessions * 1785) {
        state.SkipWithError("transfers were lost");
    }
    state.counters["frames"] = double(frames.size());
    state.counters["per_frame"] =
        benchmark::Counter(double(frames.size()), benchmark::Counter::kIsIterationInvariantRate |
                                                      benchmark::Counter::kInvert);
}

void BM_J1939ReceiveBam(benchmark::State& state) {
    Run(state, true);
}
void BM_J1939ReceiveRtsCts(benchmark::State& state) {
    Run(state, false);
}

BENCHMARK(BM_J1939ReceiveBam)->Arg(1)->Arg(16)->Arg(250);
BENCHMARK(BM_J1939ReceiveRtsCts)->Arg(1)->Arg(64)->Arg(1024)->Arg(4096);

}  // namespace

BENCHMARK_MAIN();
