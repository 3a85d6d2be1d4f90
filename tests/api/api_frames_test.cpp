// Frame entry points in both caller layouts: analysis and decoding against an
// independent bit packer, encoding with its capacity rule, CAN FD splitting
// and sending, and the raw/physical conversions.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "api_support.h"
#include "api_test_dbc.h"
#include "tarn.h"

using namespace apitest;

namespace {

struct SignalDef {
    const char* name;
    uint32_t start;
    uint32_t len;
    bool bigEndian;
};

// The Engine message of kSmallDbc as the reference packer sees it.
const SignalDef kEngineSignals[] = {
    {"Speed", 0, 16, false}, {"Temp", 16, 8, false},   {"Gear", 24, 4, false},
    {"Flags", 28, 4, false}, {"Torque", 39, 12, true}, {"Odo", 48, 16, false},
};

class ApiFrames : public ::testing::TestWithParam<uint32_t> {
  protected:
    void SetUp() override {
        TARN_SetFrameType(layout());
        h = TARN_Init(true, false);
        TempDbc dbc(kSmallDbc);
        ASSERT_TRUE(LoadPath(h, dbc.path()));
    }
    void TearDown() override {
        TARN_Release(h);
        TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    }
    uint32_t layout() const { return GetParam(); }
    bool Analyse(const Frame& f, DBCMessage* out) {
        const WireFrame w = ToWire(f, layout());
        return TARN_Analyse(h, w.bytes, 0, out);
    }
    uint32_t h = 0;
};

TEST_P(ApiFrames, AnalyseMatchesReferenceExtraction) {
    auto msg = NewMessage();
    Rng rng(layout() + 1);
    for (int round = 0; round < 200; ++round) {
        Frame f;
        f.id = kEngineId;
        f.len = 8;
        const uint64_t bits = rng.Next();
        std::memcpy(f.data, &bits, 8);
        ASSERT_TRUE(Analyse(f, msg.get()));
        ASSERT_EQ(msg->signalCount, 6u);
        EXPECT_EQ(msg->id, kEngineId);
        for (const SignalDef& s : kEngineSignals) {
            const DBCSignal* sig = FindSignal(*msg, s.name);
            ASSERT_NE(sig, nullptr) << s.name;
            EXPECT_EQ(sig->rawValue, ExtractBits(f.data, s.start, s.len, s.bigEndian))
                << s.name << " round " << round;
        }
    }
}

TEST_P(ApiFrames, AnalyseFillsValueDescriptionOfDecodedValue) {
    auto msg = NewMessage();
    const char* expected[] = {"Neutral", "First", "Second", "Third", "", ""};
    for (uint8_t gear = 0; gear < 6; ++gear) {
        Frame f;
        f.id = kEngineId;
        f.len = 8;
        PackBits(f.data, 24, 4, gear, false);
        ASSERT_TRUE(Analyse(f, msg.get()));
        EXPECT_STREQ(FindSignal(*msg, "Gear")->valueDescription, expected[gear]);
    }
}

// The record reports the received identifier and only the signals that the
// multiplexer switch selects.
TEST_P(ApiFrames, AnalyseSelectsMultiplexedSignals) {
    auto msg = NewMessage();
    const struct {
        uint8_t mode;
        std::vector<std::string> names;
    } cases[] = {{1, {"Mode", "A", "C"}}, {2, {"Mode", "B", "C"}}, {3, {"Mode", "C"}}};
    for (const auto& c : cases) {
        Frame f;
        f.id = kExtId;
        f.extended = true;
        f.len = 8;
        f.data[0] = c.mode;
        ASSERT_TRUE(Analyse(f, msg.get()));
        EXPECT_EQ(msg->id, kExtId);
        EXPECT_EQ(msg->extended, 1);
        std::vector<std::string> names;
        for (uint32_t i = 0; i < msg->signalCount; ++i) names.push_back(msg->signals[i].name);
        EXPECT_EQ(names, c.names) << "mode " << int(c.mode);
    }
}

TEST_P(ApiFrames, AnalyseRejectsUnknownFramesAndBadArguments) {
    auto msg = NewMessage();
    Frame f;
    f.id = 0x555;
    f.len = 8;
    EXPECT_FALSE(Analyse(f, msg.get()));
    f.id = kEngineId;
    const WireFrame w = ToWire(f, layout());
    EXPECT_FALSE(TARN_Analyse(h, nullptr, 0, msg.get()));
    EXPECT_FALSE(TARN_Analyse(h, w.bytes, 0, nullptr));
    EXPECT_FALSE(TARN_Analyse(h, w.bytes, 2, msg.get()));
    // FD frames exist only in the SocketCAN layout.
    if (layout() == TARN_FRAME_VCI) {
        EXPECT_FALSE(TARN_Analyse(h, w.bytes, 1, msg.get()));
    }
}

std::vector<Frame> Long20Frames(const uint8_t (&payload)[20]) {
    std::vector<Frame> frames(3);
    for (int k = 0; k < 3; ++k) {
        frames[k].id = kLong20Id;
        frames[k].len = 8;
        frames[k].data[0] = static_cast<uint8_t>(k + 1);
        for (int i = 0; i < 7; ++i) {
            const int at = 7 * k + i;
            frames[k].data[1 + i] = at < 20 ? payload[at] : 0xFF;
        }
    }
    return frames;
}

TEST_P(ApiFrames, DecodeReassemblesSequenceNumberedFrames) {
    uint8_t payload[20];
    for (int i = 0; i < 20; ++i) payload[i] = static_cast<uint8_t>(0x11 * (i + 1));
    std::vector<Frame> frames = Long20Frames(payload);
    auto msg = NewMessage();
    std::vector<uint8_t> wire = ToWireArray(frames, layout());
    ASSERT_TRUE(TARN_Decode(h, msg.get(), wire.data(), 3));
    EXPECT_EQ(FindSignal(*msg, "Head")->rawValue, ExtractBits(payload, 0, 32, false));
    EXPECT_EQ(FindSignal(*msg, "Mid")->rawValue, ExtractBits(payload, 64, 32, false));
    EXPECT_EQ(FindSignal(*msg, "Tail")->rawValue, ExtractBits(payload, 128, 32, false));

    EXPECT_FALSE(TARN_Decode(h, msg.get(), wire.data(), 2));  // too few packets
    EXPECT_FALSE(TARN_Decode(h, msg.get(), wire.data(), 0));
    EXPECT_FALSE(TARN_Decode(h, msg.get(), nullptr, 3));
    std::swap(frames[1], frames[2]);
    wire = ToWireArray(frames, layout());
    EXPECT_FALSE(TARN_Decode(h, msg.get(), wire.data(), 3));  // out of sequence
}

// Encoding, then decoding what came out, gives back every raw value; the
// frames match the reference packer byte for byte.
TEST_P(ApiFrames, EncodeMatchesReferencePackerAndRoundTrips) {
    auto msg = NewMessage();
    auto back = NewMessage();
    ASSERT_TRUE(TARN_GetMessageById(h, kEngineId, msg.get()));
    Rng rng(layout() + 7);
    for (int round = 0; round < 100; ++round) {
        uint8_t expected[8] = {};
        for (const SignalDef& s : kEngineSignals) {
            const uint64_t raw = rng.Next() & Mask(s.len);
            FindSignal(*msg, s.name)->rawValue = raw;
            PackBits(expected, s.start, s.len, raw, s.bigEndian);
        }
        WireFrame out[2] = {};
        uint32_t count = 2;
        ASSERT_TRUE(TARN_Encode(h, out, &count, msg.get()));
        ASSERT_EQ(count, 1u);
        const Frame f = FromWire(out[0].bytes, layout());
        EXPECT_EQ(f.id, kEngineId);
        EXPECT_FALSE(f.extended);
        EXPECT_EQ(f.len, 8);
        EXPECT_EQ(std::memcmp(f.data, expected, 8), 0) << "round " << round;
        ASSERT_TRUE(TARN_Analyse(h, out[0].bytes, 0, back.get()));
        for (const SignalDef& s : kEngineSignals) {
            EXPECT_EQ(FindSignal(*back, s.name)->rawValue, FindSignal(*msg, s.name)->rawValue);
        }
    }
}

// *count is the capacity going in and the frames written coming out; the
// result says whether the encoder produced anything at all.
TEST_P(ApiFrames, EncodeHonoursCapacity) {
    auto msg = NewMessage();
    ASSERT_TRUE(TARN_GetMessageById(h, kLong20Id, msg.get()));
    uint8_t payload[20];
    for (int i = 0; i < 20; ++i) payload[i] = static_cast<uint8_t>(200 - i);
    FindSignal(*msg, "Head")->rawValue = ExtractBits(payload, 0, 32, false);
    FindSignal(*msg, "Mid")->rawValue = ExtractBits(payload, 64, 32, false);
    FindSignal(*msg, "Tail")->rawValue = ExtractBits(payload, 128, 32, false);
    // Bytes outside the signals stay zero in the encoded payload.
    std::memset(payload + 4, 0, 4);
    std::memset(payload + 12, 0, 4);
    const std::vector<Frame> reference = Long20Frames(payload);

    const struct {
        uint32_t capacity;
        uint32_t written;
    } cases[] = {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {10, 3}};
    for (const auto& c : cases) {
        std::vector<WireFrame> out(c.capacity + 1);
        std::memset(out.data(), 0xEE, out.size() * sizeof(WireFrame));
        uint32_t count = c.capacity;
        EXPECT_TRUE(TARN_Encode(h, out.data(), &count, msg.get())) << c.capacity;
        ASSERT_EQ(count, c.written) << c.capacity;
        const size_t stride = WireSize(layout());
        const uint8_t* base = reinterpret_cast<const uint8_t*>(out.data());
        for (uint32_t i = 0; i < count; ++i) {
            const Frame f = FromWire(base + i * stride, layout());
            EXPECT_EQ(f.len, 8);
            EXPECT_EQ(std::memcmp(f.data, reference[i].data, 8), 0) << "frame " << i;
        }
        // Nothing is written past the frames reported.
        EXPECT_EQ(base[count * stride], 0xEE);
    }
    uint32_t count = 3;
    EXPECT_TRUE(TARN_Encode(h, nullptr, &count, msg.get()));  // no room at all
    EXPECT_EQ(count, 0u);
    count = 3;
    WireFrame out[3] = {};
    std::strcpy(msg->name, "NoSuchMessage");
    EXPECT_FALSE(TARN_Encode(h, out, &count, msg.get()));
    EXPECT_EQ(count, 0u);
    EXPECT_FALSE(TARN_Encode(h, out, nullptr, msg.get()));
    count = 3;
    EXPECT_FALSE(TARN_Encode(h, out, &count, nullptr));
}

INSTANTIATE_TEST_SUITE_P(BothLayouts, ApiFrames,
                         ::testing::Values(uint32_t{TARN_FRAME_SOCKETCAN},
                                           uint32_t{TARN_FRAME_VCI}),
                         [](const ::testing::TestParamInfo<uint32_t>& info) {
                             return info.param == TARN_FRAME_VCI ? "Vci" : "SocketCan";
                         });

TEST(ApiFrameType, NonZeroReadsBackAsOne) {
    const struct {
        uint32_t set;
        uint32_t got;
    } cases[] = {{0, 0}, {1, 1}, {7, 1}, {0xFFFFFFFF, 1}, {0, 0}};
    for (const auto& c : cases) {
        TARN_SetFrameType(c.set);
        EXPECT_EQ(TARN_GetFrameType(), c.got) << c.set;
    }
    TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
}

// ---- CAN FD (SocketCAN layout only) ---------------------------------------

class ApiFd : public ::testing::Test {
  protected:
    void SetUp() override {
        TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
        h = TARN_Init(true, false);
        TempDbc dbc(kSmallDbc);
        ASSERT_TRUE(LoadPath(h, dbc.path()));
    }
    void TearDown() override { TARN_Release(h); }
    uint32_t h = 0;
};

std::vector<uint8_t> Payload(size_t n, uint8_t seed) {
    std::vector<uint8_t> p(n);
    for (size_t i = 0; i < n; ++i) p[i] = static_cast<uint8_t>(seed + 37 * i);
    return p;
}

// A 20-byte FD payload is decoded like three sequence-numbered packets.
TEST_F(ApiFd, LongPayloadDecodesAsPackets) {
    const std::vector<uint8_t> payload = Payload(20, 3);
    const TarnCanFdFrame fd = MakeFd(kLong20Id, payload);
    auto msg = NewMessage();
    ASSERT_TRUE(TARN_Analyse(h, &fd, 1, msg.get()));
    EXPECT_STREQ(msg->name, "Long20");
    EXPECT_EQ(FindSignal(*msg, "Head")->rawValue, ExtractBits(payload.data(), 0, 32, false));
    EXPECT_EQ(FindSignal(*msg, "Tail")->rawValue, ExtractBits(payload.data(), 128, 32, false));
}

TEST_F(ApiFd, ShortPayloadDecodesAsClassicFrame) {
    std::vector<uint8_t> payload = Payload(8, 9);
    const TarnCanFdFrame fd = MakeFd(kEngineId, payload);
    auto msg = NewMessage();
    ASSERT_TRUE(TARN_Analyse(h, &fd, 1, msg.get()));
    EXPECT_EQ(FindSignal(*msg, "Odo")->rawValue, ExtractBits(payload.data(), 48, 16, false));
    // A shorter FD frame carries zeros where the classic frame has no data.
    const TarnCanFdFrame shortFd =
        MakeFd(kEngineId, std::vector<uint8_t>(payload.begin(), payload.begin() + 5));
    ASSERT_TRUE(TARN_Analyse(h, &shortFd, 1, msg.get()));
    EXPECT_EQ(FindSignal(*msg, "Odo")->rawValue, 0u);
}

TEST_F(ApiFd, OverlongFramesAreRejected) {
    auto msg = NewMessage();
    for (uint8_t len : {65, 100, 255}) {
        TarnCanFdFrame fd = MakeFd(kLong20Id, Payload(64, 1));
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

// Sending as FD packs the encoded packets back into one FD frame, which then
// decodes to the same values.
TEST_F(ApiFd, SendBuildsOneFdFrame) {
    auto msg = NewMessage();
    auto back = NewMessage();
    ASSERT_TRUE(TARN_GetMessageById(h, kLong20Id, msg.get()));
    FindSignal(*msg, "Head")->rawValue = 0xA1B2C3D4;
    FindSignal(*msg, "Mid")->rawValue = 0x01020304;
    FindSignal(*msg, "Tail")->rawValue = 0xFFEEDDCC;
    FdCapture cap;
    EXPECT_EQ(TARN_Send(h, msg.get(), 1), TARN_SEND_FAILED);  // no FD sender yet
    TARN_SetCANFDSender(h, &FdCapture::Send, &cap);
    ASSERT_EQ(TARN_Send(h, msg.get(), 1), TARN_SEND_OK);
    ASSERT_EQ(cap.calls, 1);
    EXPECT_EQ(cap.last.can_id, kLong20Id);
    EXPECT_EQ(cap.last.len, 20);
    uint8_t expected[20] = {};
    PackBits(expected, 0, 32, 0xA1B2C3D4, false);
    PackBits(expected, 64, 32, 0x01020304, false);
    PackBits(expected, 128, 32, 0xFFEEDDCC, false);
    EXPECT_EQ(std::memcmp(cap.last.data, expected, 20), 0);
    ASSERT_TRUE(TARN_Analyse(h, &cap.last, 1, back.get()));
    EXPECT_EQ(FindSignal(*back, "Mid")->rawValue, 0x01020304u);

    ASSERT_TRUE(TARN_GetMessageById(h, kExtId, msg.get()));
    FindSignal(*msg, "Mode")->rawValue = 2;
    FindSignal(*msg, "C")->rawValue = 0x77;
    ASSERT_EQ(TARN_Send(h, msg.get(), 1), TARN_SEND_OK);
    EXPECT_EQ(cap.last.can_id, kExtId | TARN_CAN_EFF_FLAG);
    EXPECT_EQ(cap.last.len, 8);
    EXPECT_EQ(cap.last.data[0], 2);
    EXPECT_EQ(cap.last.data[7], 0x77);

    cap.result = false;
    EXPECT_EQ(TARN_Send(h, msg.get(), 1), TARN_SEND_FAILED);
    EXPECT_EQ(TARN_Send(h, msg.get(), 2), TARN_SEND_FAILED);
    TARN_SetFrameType(TARN_FRAME_VCI);
    const int before = cap.calls;
    EXPECT_EQ(TARN_Send(h, msg.get(), 1), TARN_SEND_FAILED);
    EXPECT_EQ(cap.calls, before);
    TARN_SetFrameType(TARN_FRAME_SOCKETCAN);
    TARN_SetCANFDSender(h, nullptr, nullptr);
}

// ---- Raw <-> physical -----------------------------------------------------

DBCSignal MakeSignal(uint32_t length, bool isSigned, double factor, double offset,
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

TEST(ApiConversion, RawValueClampsRoundsAndWritesBack) {
    const struct {
        DBCSignal sig;
        double physical;
        uint64_t raw;
        double writtenBack;
    } cases[] = {
        {MakeSignal(8, false, 1, 0), 300, 255, 255},
        {MakeSignal(8, false, 1, 0), -5, 0, 0},
        {MakeSignal(8, false, 1, 0), 2.99999995, 3, 3},
        {MakeSignal(8, false, 1, 0), 2.5, 2, 2},
        {MakeSignal(8, true, 1, 0), -200, 0x81, -127},
        {MakeSignal(8, true, 1, 0), 200, 0x7F, 127},
        {MakeSignal(8, true, 1, 0), -3, 0xFD, -3},
        {MakeSignal(16, false, 0.1, 0), 0.3, 3, 0.30000000000000004},
        {MakeSignal(16, false, 0.5, -10), 0, 20, 0},
        {MakeSignal(4, true, 0.5, 10), 9.5, 0xF, 9.5},
        {MakeSignal(12, false, 0, 5), 7, 2, 5},  // zero factor: x is left undivided
        {MakeSignal(0, false, 1, 0), 9, 0, 0},
    };
    for (const auto& c : cases) {
        double physical = c.physical;
        EXPECT_EQ(TARN_CalcRawValue(&c.sig, &physical), c.raw) << c.physical;
        EXPECT_DOUBLE_EQ(physical, c.writtenBack) << c.physical;
    }
    double physical = 1;
    EXPECT_EQ(TARN_CalcRawValue(nullptr, &physical), 0u);
    EXPECT_EQ(physical, 1);
    const DBCSignal sig = MakeSignal(8, false, 1, 0);
    EXPECT_EQ(TARN_CalcRawValue(&sig, nullptr), 0u);
}

TEST(ApiConversion, FloatingSignalsCarryBitPatterns) {
    const DBCSignal f32 = MakeSignal(32, false, 2, 1, TARN_VALUE_FLOAT);
    double physical = 7;  // (7 - 1) / 2 = 3.0f
    const uint64_t raw = TARN_CalcRawValue(&f32, &physical);
    const float three = 3.0f;
    uint32_t bits;
    std::memcpy(&bits, &three, 4);
    EXPECT_EQ(raw, bits);
    EXPECT_EQ(physical, 7);
    uint64_t rawCopy = raw;
    EXPECT_DOUBLE_EQ(TARN_CalcActualValue(&f32, &rawCopy), 7.0);

    const DBCSignal f64 = MakeSignal(64, false, 1, 0, TARN_VALUE_DOUBLE);
    physical = -1234.5;
    uint64_t raw64 = TARN_CalcRawValue(&f64, &physical);
    double back;
    std::memcpy(&back, &raw64, 8);
    EXPECT_EQ(back, -1234.5);
    EXPECT_DOUBLE_EQ(TARN_CalcActualValue(&f64, &raw64), -1234.5);
}

TEST(ApiConversion, ActualValueSignExtendsAndMasks) {
    const struct {
        DBCSignal sig;
        uint64_t raw;
        double physical;
        uint64_t rawAfter;
    } cases[] = {
        {MakeSignal(4, true, 0.5, 10), 0xF, 9.5, 0xF},
        {MakeSignal(4, false, 0.5, 10), 0xF, 17.5, 0xF},
        {MakeSignal(4, true, 1, 0), 0xFF, -1, 0xF},
        {MakeSignal(4, true, 1, 0), 0xF7, 7, 0x7},
        {MakeSignal(8, true, 1, 0), 0x80, -128, 0x80},
        {MakeSignal(64, true, 1, 0), ~uint64_t{0}, -1, ~uint64_t{0}},
        {MakeSignal(0, false, 1, 3), 0xFF, 3, 0},
    };
    for (const auto& c : cases) {
        uint64_t raw = c.raw;
        EXPECT_DOUBLE_EQ(TARN_CalcActualValue(&c.sig, &raw), c.physical) << std::hex << c.raw;
        EXPECT_EQ(raw, c.rawAfter);
    }
    uint64_t raw = 1;
    EXPECT_EQ(TARN_CalcActualValue(nullptr, &raw), 0.0);
}

// Writing back means the pair is a fixed point: converting the written-back
// physical value again gives the same raw value.
TEST(ApiConversion, WrittenBackValueIsStable) {
    Rng rng(42);
    for (int i = 0; i < 2000; ++i) {
        const uint32_t len = 1 + rng.Next() % 32;
        const bool isSigned = rng.Next() & 1;
        const double factor = (rng.Next() % 2) ? 1.0 : 0.25;
        const DBCSignal sig = MakeSignal(len, isSigned, factor, -3.0);
        double physical = static_cast<double>(static_cast<int64_t>(rng.Next() % 200000) - 100000);
        const uint64_t raw = TARN_CalcRawValue(&sig, &physical);
        EXPECT_EQ(raw & ~Mask(len), 0u);
        double again = physical;
        EXPECT_EQ(TARN_CalcRawValue(&sig, &again), raw) << len << " " << physical;
        EXPECT_EQ(again, physical);
    }
}

}  // namespace
