// Frame entry points in both caller layouts, CAN FD, and the raw/physical
// conversions; payloads are checked against the reference packer.
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include "api_support.h"

using namespace apitest;

namespace {

class ApiFrames : public LayoutTest {
  protected:
    void SetUp() override {
        UseLayout();
        h = TARN_Init(true, false);
        ASSERT_TRUE(LoadPath(h, dbc.path()));
    }
    void TearDown() override { TARN_Release(h); }
    bool Analyse(const Frame& f) { return TARN_Analyse(h, Wire(f).bytes, 0, msg.get()); }
    std::vector<uint8_t> WireArray(const std::vector<Frame>& frames) {
        std::vector<uint8_t> out;
        for (const Frame& f : frames) {
            const WireFrame w = Wire(f);
            out.insert(out.end(), w.bytes, w.bytes + WireSize(layout()));
        }
        return out;
    }
    TempDbc dbc{kSmallDbc};
    uint32_t h = 0;
    std::unique_ptr<DBCMessage> msg = NewMessage();
    std::unique_ptr<DBCMessage> back = NewMessage();
};

// The record reports the received identifier and only the signals that the
// multiplexer switch selects; unknown frames and bad arguments fail.
TEST_P(ApiFrames, AnalyseSelectsMultiplexedSignalsAndRejectsBadInput) {
    const struct {
        uint8_t mode;
        std::vector<std::string> names;
    } cases[] = {{1, {"Mode", "A", "C"}}, {2, {"Mode", "B", "C"}}, {3, {"Mode", "C"}}};
    for (const auto& c : cases) {
        const uint8_t data[8] = {c.mode};
        ASSERT_TRUE(Analyse(MakeFrame(kExtId, true, data)));
        EXPECT_EQ(msg->id, kExtId);
        EXPECT_EQ(msg->extended, 1);
        std::vector<std::string> names;
        for (uint32_t i = 0; i < msg->signalCount; ++i) names.push_back(msg->signals[i].name);
        EXPECT_EQ(names, c.names) << "mode " << int(c.mode);
    }
    EXPECT_FALSE(Analyse(MakeFrame(0x555, false)));
    const WireFrame w = Wire(MakeFrame(kEngineId, false));
    EXPECT_FALSE(TARN_Analyse(h, nullptr, 0, msg.get()));
    EXPECT_FALSE(TARN_Analyse(h, w.bytes, 0, nullptr));
    EXPECT_FALSE(TARN_Analyse(h, w.bytes, 2, msg.get()));
    if (layout() == TARN_FRAME_VCI) {
        EXPECT_FALSE(TARN_Analyse(h, w.bytes, 1, msg.get())) << "no FD in this layout";
    }
}

// The Long20 payload as three sequence-numbered packets, padded with 0xFF.
std::vector<Frame> Packets(const std::vector<uint8_t>& payload) {
    std::vector<Frame> frames;
    for (uint8_t k = 0; k < 3; ++k) {
        Frame f = MakeFrame(kLong20Id, false);
        f.data[0] = static_cast<uint8_t>(k + 1);
        for (size_t i = 0; i < 7; ++i) f.data[1 + i] = 7 * k + i < 20 ? payload[7 * k + i] : 0xFF;
        frames.push_back(f);
    }
    return frames;
}

TEST_P(ApiFrames, DecodeReassemblesSequenceNumberedFrames) {
    ASSERT_TRUE(TARN_GetMessageById(h, kLong20Id, back.get()));
    std::vector<Frame> frames = Packets(FillRandom(*back, layout()));
    std::vector<uint8_t> wire = WireArray(frames);
    ASSERT_TRUE(TARN_Decode(h, msg.get(), wire.data(), 3));
    EXPECT_EQ(RawValues(*msg), RawValues(*back));
    EXPECT_FALSE(TARN_Decode(h, msg.get(), wire.data(), 2)) << "too few packets";
    EXPECT_FALSE(TARN_Decode(h, msg.get(), wire.data(), 0));
    EXPECT_FALSE(TARN_Decode(h, msg.get(), nullptr, 3));
    std::swap(frames[1], frames[2]);
    wire = WireArray(frames);
    EXPECT_FALSE(TARN_Decode(h, msg.get(), wire.data(), 3)) << "out of sequence";
}

// Encoded frames match the reference packer byte for byte and analyse back
// to the same raw values, with the value description of the decoded Gear.
TEST_P(ApiFrames, EncodeMatchesReferencePackerAndRoundTrips) {
    const char* gears[] = {"Neutral", "First", "Second", "Third"};
    ASSERT_TRUE(TARN_GetMessageById(h, kEngineId, msg.get()));
    for (uint64_t round = 0; round < 200; ++round) {
        const std::vector<uint8_t> expected = FillRandom(*msg, round * 2 + layout());
        WireFrame out[2] = {};
        uint32_t count = 2;
        ASSERT_TRUE(TARN_Encode(h, out, &count, msg.get()));
        ASSERT_EQ(count, 1u);
        const Frame f = FromWire(out[0].bytes, layout());
        EXPECT_EQ(f.id, kEngineId);
        EXPECT_FALSE(f.extended);
        EXPECT_EQ(f.len, 8);
        EXPECT_EQ(std::vector<uint8_t>(f.data, f.data + 8), expected) << "round " << round;
        ASSERT_TRUE(TARN_Analyse(h, out[0].bytes, 0, back.get()));
        EXPECT_EQ(RawValues(*back), RawValues(*msg));
        const uint64_t gear = FindSignal(*back, "Gear")->rawValue;
        EXPECT_STREQ(FindSignal(*back, "Gear")->valueDescription, gear < 4 ? gears[gear] : "");
    }
}

// *count is the capacity going in and the frames written coming out.
TEST_P(ApiFrames, EncodeHonoursCapacity) {
    ASSERT_TRUE(TARN_GetMessageById(h, kLong20Id, msg.get()));
    const std::vector<Frame> reference = Packets(FillRandom(*msg, 3));
    const size_t stride = WireSize(layout());
    for (uint32_t capacity : {0u, 1u, 2u, 3u, 10u}) {
        std::vector<WireFrame> out(capacity + 1);
        std::memset(out.data(), 0xEE, out.size() * sizeof(WireFrame));
        uint32_t count = capacity;
        EXPECT_TRUE(TARN_Encode(h, out.data(), &count, msg.get())) << capacity;
        ASSERT_EQ(count, std::min(capacity, 3u)) << capacity;
        const uint8_t* base = reinterpret_cast<const uint8_t*>(out.data());
        for (uint32_t i = 0; i < count; ++i) {
            const Frame f = FromWire(base + i * stride, layout());
            EXPECT_EQ(f.len, 8);
            EXPECT_EQ(std::memcmp(f.data, reference[i].data, 8), 0) << "frame " << i;
        }
        EXPECT_EQ(base[count * stride], 0xEE) << "written past the frames reported";
    }
    uint32_t count = 3;
    EXPECT_TRUE(TARN_Encode(h, nullptr, &count, msg.get()));  // no room at all
    EXPECT_EQ(count, 0u);
    WireFrame out[3] = {};
    EXPECT_FALSE(TARN_Encode(h, out, nullptr, msg.get()));
    count = 3;
    EXPECT_FALSE(TARN_Encode(h, out, &count, nullptr));
    std::strcpy(msg->name, "NoSuchMessage");
    EXPECT_FALSE(TARN_Encode(h, out, &count, msg.get()));
    EXPECT_EQ(count, 0u);
}

TARN_BOTH_LAYOUTS(ApiFrames);

// ---- CAN FD (SocketCAN layout only) ---------------------------------------

class ApiFd : public ApiFrames {};

// A long FD payload decodes like sequence-numbered packets; one of up to 8
// bytes like a classic frame, zero-filled; one over 64 bytes is rejected.
TEST_P(ApiFd, FramesAreSplitAndOverlongOnesRejected) {
    ASSERT_TRUE(TARN_GetMessageById(h, kLong20Id, back.get()));
    const std::vector<uint8_t> payload = FillRandom(*back, 5);
    TarnCanFdFrame fd = MakeFd(kLong20Id, payload);
    ASSERT_TRUE(TARN_Analyse(h, &fd, 1, msg.get()));
    EXPECT_STREQ(msg->name, "Long20");
    EXPECT_EQ(RawValues(*msg), RawValues(*back));

    for (size_t len : {8u, 5u}) {
        const std::vector<uint8_t> head(payload.begin(), payload.begin() + len);
        const TarnCanFdFrame classic = MakeFd(kEngineId, head);
        ASSERT_TRUE(TARN_Analyse(h, &classic, 1, msg.get()));
        EXPECT_EQ(FindSignal(*msg, "Odo")->rawValue, len < 8 ? 0u : payload[6] | payload[7] << 8);
    }
    for (uint8_t len : {65, 255}) {
        fd.len = len;
        EXPECT_FALSE(TARN_Analyse(h, &fd, 1, msg.get())) << int(len);
        TARN_OnReceive(h, &fd, 1);  // ignored, and must not read past the frame
    }
}

struct FdCapture {
    int calls = 0;
    TarnCanFdFrame last{};
    bool result = true;
    static bool Send(void* ctx, void* frame) {
        auto* self = static_cast<FdCapture*>(ctx);
        ++self->calls;
        std::memcpy(&self->last, frame, sizeof(TarnCanFdFrame));
        return self->result;
    }
};

// Sending as FD packs the encoded packets into one FD frame that decodes to
// the same values; sender failures come back as failures.
TEST_P(ApiFd, SendBuildsOneFdFrame) {
    FdCapture cap;
    for (uint32_t id : {kLong20Id, kEngineId}) {
        ASSERT_TRUE(TARN_GetMessageById(h, id, msg.get()));
        const std::vector<uint8_t> expected = FillRandom(*msg, id);
        TARN_SetCANFDSender(h, nullptr, nullptr);
        EXPECT_EQ(TARN_Send(h, msg.get(), 1), TARN_SEND_FAILED) << "no FD sender";
        TARN_SetCANFDSender(h, &FdCapture::Send, &cap);
        ASSERT_EQ(TARN_Send(h, msg.get(), 1), TARN_SEND_OK);
        EXPECT_EQ(cap.last.can_id, id);
        EXPECT_EQ(std::vector<uint8_t>(cap.last.data, cap.last.data + cap.last.len), expected);
        ASSERT_TRUE(TARN_Analyse(h, &cap.last, 1, back.get()));
        EXPECT_EQ(RawValues(*back), RawValues(*msg));
    }
    EXPECT_EQ(cap.calls, 2);
    cap.result = false;
    EXPECT_EQ(TARN_Send(h, msg.get(), 1), TARN_SEND_FAILED);
    EXPECT_EQ(TARN_Send(h, msg.get(), 2), TARN_SEND_FAILED);
    TARN_SetFrameType(TARN_FRAME_VCI);
    EXPECT_EQ(TARN_Send(h, msg.get(), 1), TARN_SEND_FAILED);
    EXPECT_EQ(cap.calls, 3) << "no FD send in the VCI layout";
}

INSTANTIATE_TEST_SUITE_P(SocketCan, ApiFd, ::testing::Values(uint32_t{TARN_FRAME_SOCKETCAN}));

// ---- Raw <-> physical -----------------------------------------------------

DBCSignal Sig(uint32_t length, bool isSigned, double factor, double offset,
              uint8_t valueType = TARN_VALUE_INTEGER) {
    DBCSignal s;
    std::memset(&s, 0, sizeof(s));
    s.length = length;
    s.isSigned = isSigned ? 1 : 0;
    s.factor = factor;
    s.offset = offset;
    s.valueType = valueType;
    return s;
}

template <class T>
uint64_t BitsOf(T value) {
    uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof value);
    return bits;
}

// CalcActual masks the raw value to the length (writing it back so) and
// sign-extends it; floating signals read the bit pattern.
TEST(ApiConversion, ActualValueScalesTheMaskedRawValue) {
    const uint64_t f15 = BitsOf(1.5f) | (0xABCDULL << 32), d10 = BitsOf(10.0);
    // Signal, raw value, result, raw value afterwards.
    const std::tuple<DBCSignal, uint64_t, double, uint64_t> cases[] = {
        {Sig(4, 1, 0.5, 10), 0xF, 9.5, 0xF},    {Sig(4, 0, 0.5, 10), 0xF, 17.5, 0xF},
        {Sig(4, 1, 1, 0), 0xFE, -2, 0xE},       {Sig(8, 1, 1, 0), 0x80, -128, 0x80},
        {Sig(64, 1, 1, 0), ~0ULL, -1, ~0ULL},   {Sig(64, 0, 1, 0), 1ULL << 63, 0x1p63, 1ULL << 63},
        {Sig(0, 1, 3, 7), 0xFF, 7, 0},          {Sig(32, 0, 2, 1, 1), f15, 4.0, f15},
        {Sig(64, 0, 0.5, -1, 2), d10, 4.0, d10}};
    for (const auto& [sig, in, expected, after] : cases) {
        uint64_t raw = in;
        EXPECT_EQ(TARN_CalcActualValue(&sig, &raw), expected) << std::hex << in;
        EXPECT_EQ(raw, after) << std::hex << in;
    }
    uint64_t raw = 5;
    EXPECT_EQ(TARN_CalcActualValue(nullptr, &raw), 0.0);
    EXPECT_EQ(TARN_CalcActualValue(&std::get<0>(cases[0]), nullptr), 0.0);
}

// CalcRaw clamps to the signal's range and rounds toward zero (a hair below
// an integer counts as it), writing back what the raw value means.
TEST(ApiConversion, RawValueClampsTruncatesAndWritesBack) {
    // Signal, physical value, raw value, physical value written back.
    const std::tuple<DBCSignal, double, uint64_t, double> cases[] = {
        {Sig(8, 0, 1, 0), 300, 255, 255},
        {Sig(8, 0, 1, 0), -5, 0, 0},
        {Sig(8, 0, 1, 0), 2.99999995, 3, 3},
        {Sig(8, 0, 1, 0), 2.5, 2, 2},
        {Sig(8, 1, 1, 0), -200, 0x81, -127},
        {Sig(8, 1, 1, 0), -3.7, 0xFD, -3},
        {Sig(16, 0, 0.1, 0), 0.3, 3, 0.30000000000000004},
        {Sig(8, 0, 0, 5), 7, 2, 5},
        {Sig(0, 0, 1, 0), 9, 0, 0},
        {Sig(63, 0, 1, 0), 1e30, (1ULL << 63) - 1, 0x1p63 - 1},
        {Sig(64, 0, 1, 0), 1e30, ~0ULL, 0x1p64 - 1},
        {Sig(64, 1, 1, 0), -1e30, (1ULL << 63) + 1, 1 - 0x1p63},
        {Sig(32, 0, 2, 1, 1), 4.0, BitsOf(1.5f), 4.0},
        {Sig(64, 0, 0.5, -1, 2), 4.0, BitsOf(10.0), 4.0}};
    for (const auto& [sig, physical, raw, written] : cases) {
        double p = physical;
        EXPECT_EQ(TARN_CalcRawValue(&sig, &p), raw) << physical;
        EXPECT_EQ(p, written) << physical;
    }
    double p = 5;
    EXPECT_EQ(TARN_CalcRawValue(nullptr, &p), 0u);
    EXPECT_EQ(TARN_CalcRawValue(&std::get<0>(cases[0]), nullptr), 0u);
    EXPECT_EQ(p, 5.0);
}

// For in-range physical values the raw value fits the signal's width and
// lands within one factor step of it.
TEST(ApiConversion, RawThenActualStaysWithinOneStep) {
    refpack::Rng rng(1);
    const double factors[] = {1, 0.5, 0.1, 0.125, 2, 0.001, 3.3, -0.25};
    for (int i = 0; i < 20000; ++i) {
        const uint32_t length = 1 + static_cast<uint32_t>(rng.Next() % 40);
        const bool isSigned = (rng.Next() & 1) && length > 1;
        const double factor = factors[rng.Next() % 8];
        const double offset = static_cast<double>(static_cast<int>(rng.Next() % 2001) - 1000) / 8;
        const DBCSignal s = Sig(length, isSigned, factor, offset);
        const double span = std::ldexp(1.0, static_cast<int>(length) - isSigned);
        const double lo = isSigned ? 1.0 - span : 0.0, hi = span - 1.0;
        const double unit = static_cast<double>(rng.Next() >> 11) / 9007199254740992.0;
        const double physical = (lo + (hi - lo) * unit) * factor + offset;
        double written = physical;
        uint64_t raw = TARN_CalcRawValue(&s, &written), copy = raw;
        EXPECT_EQ(written, TARN_CalcActualValue(&s, &copy));
        EXPECT_EQ(raw & ~refpack::Mask(length), 0u);
        EXPECT_LE(std::fabs(written - physical), std::fabs(factor) * (1 + 1e-9))
            << "length " << length << " signed " << isSigned << " factor " << factor << " physical "
            << physical;
    }
}

}  // namespace
