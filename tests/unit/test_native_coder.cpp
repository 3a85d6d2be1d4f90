// The native coder against the bit-by-bit reference packer: random signals of
// every length, both byte orders, signed, float and double, at random start
// bits in payloads up to transfer size.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "coder/plan.h"
#include "support/ref_packer.h"

namespace {

using tarn::coder::NetworkPlan;
using tarn::net::Network;
using tarn::net::ValueType;

struct Case {
    uint32_t length;
    bool motorola, isSigned;
    ValueType type;
    uint64_t start;
    uint32_t payload;  // bytes
};

Case RandomCase(refpack::Rng& rng) {
    static const uint32_t kPayloads[] = {1, 8, 12, 64, 200};
    Case c;
    c.type = static_cast<ValueType>(rng.Next() % 3);
    c.length = c.type == ValueType::Float    ? 32
               : c.type == ValueType::Double ? 64
                                             : static_cast<uint32_t>(rng.Next() % 64) + 1;
    c.motorola = rng.Next() & 1;
    c.isSigned = c.type == ValueType::Integer && (rng.Next() & 1);
    c.payload = std::max<uint32_t>(kPayloads[rng.Next() % 5], (c.length + 7) / 8);
    const uint64_t linear = rng.Next() % (c.payload * 8 - c.length + 1);
    c.start = c.motorola ? (linear / 8) * 8 + (7 - linear % 8) : linear;
    return c;
}

// One message per case, each with its single signal.
struct Fixture {
    Network net;
    NetworkPlan plan;
    std::vector<Case> cases;

    Fixture(uint64_t seed, size_t n) {
        refpack::Rng rng(seed);
        for (size_t i = 0; i < n; ++i) {
            const Case c = RandomCase(rng);
            tarn::net::Signal s;
            s.name = net.pool.Store("S" + std::to_string(i));
            s.startBit = static_cast<uint32_t>(c.start);
            s.length = c.length;
            s.bigEndian = c.motorola;
            s.isSigned = c.isSigned;
            s.type = c.type;
            s.factor = 0.5;
            s.offset = -3;
            tarn::net::Message m;
            m.name = net.pool.Store("M" + std::to_string(i));
            m.id = static_cast<uint32_t>(i);
            m.length = c.payload;
            m.signals = {static_cast<uint32_t>(net.signals.size()), 1};
            net.signals.push_back(s);
            net.messages.push_back(m);
            cases.push_back(c);
        }
        net.BuildIndex();
        plan.Build(net);
    }
};

// What the reference says a raw field means, as the decoder should report it.
void ExpectValue(const Case& c, uint64_t field, const tarn_value& v) {
    if (c.type != ValueType::Integer) {
        // Bit patterns, so that NaN payloads of doubles must survive too.
        ASSERT_EQ(v.flags, unsigned{TARN_RAW_FLOAT});
        const float f = static_cast<float>(v.raw.f);
        uint64_t back = 0;
        if (c.type == ValueType::Double) std::memcpy(&back, &v.raw.f, 8);
        if (c.type == ValueType::Float) std::memcpy(&back, &f, 4);
        if (!std::isnan(f) || c.type == ValueType::Double) {
            EXPECT_EQ(back, field);
        }
    } else if (c.isSigned) {
        const bool negative = (field >> (c.length - 1)) & 1;
        const int64_t expect = negative && c.length < 64
                                   ? -static_cast<int64_t>(refpack::Mask(c.length) - field) - 1
                                   : static_cast<int64_t>(field);
        ASSERT_EQ(v.flags, unsigned{TARN_RAW_SIGNED});
        EXPECT_EQ(v.raw.i, expect);
        EXPECT_DOUBLE_EQ(v.physical, static_cast<double>(expect) * 0.5 - 3);
    } else {
        ASSERT_EQ(v.flags, 0u);
        EXPECT_EQ(v.raw.u, field);
    }
}

int Encode(Fixture& fx, size_t i, const tarn_input& in, std::vector<uint8_t>& out) {
    out.assign(fx.cases[i].payload, 0);
    size_t written = 0, failed = 0;
    const int rc = fx.plan.Encode(fx.net, i, &in, 1, 0, out.data(), out.size(), &written, &failed);
    EXPECT_EQ(written, rc == TARN_OK ? out.size() : 0);
    return rc;
}

TEST(NativeCoder, DecodeAndEncodeMatchTheReference) {
    Fixture fx(1, 3000);
    refpack::Rng rng(2);
    std::vector<uint8_t> data(256), out, expect;
    for (size_t i = 0; i < fx.cases.size(); ++i) {
        const Case& c = fx.cases[i];
        SCOPED_TRACE("case " + std::to_string(i) + " start " + std::to_string(c.start) + " len " +
                     std::to_string(c.length) + (c.motorola ? " motorola" : " intel"));
        for (auto& b : data) b = static_cast<uint8_t>(rng.Next());
        tarn_value v{};
        uint32_t count = 0, absent = 0;
        ASSERT_EQ(fx.plan.Decode(i, data.data(), c.payload, &v, 1, &count, &absent), TARN_OK);
        ASSERT_EQ(count, 1u);
        ExpectValue(c, refpack::Extract(data.data(), c.start, c.length, c.motorola), v);

        // Encoding writes exactly the reference bits, the rest of the frame zero.
        const uint64_t field = rng.Next() & refpack::Mask(c.length);
        const bool negative = c.isSigned && c.length < 64 && ((field >> (c.length - 1)) & 1);
        tarn_input in{};
        in.kind = TARN_INPUT_RAW;
        in.raw.u = negative ? field | ~refpack::Mask(c.length) : field;
        ASSERT_EQ(Encode(fx, i, in, out), TARN_OK);
        expect.assign(c.payload, 0);
        refpack::Pack(expect.data(), c.start, c.length, c.motorola, field);
        ASSERT_EQ(out, expect);
        if (c.type != ValueType::Integer) {
            // Floats take their value as well; what is not finite is refused.
            const uint64_t was = refpack::Extract(data.data(), c.start, c.length, c.motorola);
            in.kind = TARN_INPUT_RAW_FLOAT;
            in.physical = v.raw.f;
            const bool finite = std::isfinite(v.raw.f);
            ASSERT_EQ(Encode(fx, i, in, out), finite ? TARN_OK : TARN_ERR_NOT_FINITE);
            expect.assign(c.payload, 0);
            refpack::Pack(expect.data(), c.start, c.length, c.motorola, was);
            if (finite) {
                EXPECT_EQ(out, expect);
            }
            continue;
        }

        // Raw values one past either end of the field are refused, never wrapped.
        const uint64_t top = c.isSigned ? refpack::Mask(c.length - 1) : refpack::Mask(c.length);
        if (c.length < 64) {
            in.raw.u = top + 1;
            EXPECT_EQ(Encode(fx, i, in, out), TARN_ERR_RANGE);
            in.raw.i = c.isSigned ? -static_cast<int64_t>(top) - 2 : -1;
            EXPECT_EQ(Encode(fx, i, in, out), TARN_ERR_RANGE);
        }
        in.kind = TARN_INPUT_RAW_FLOAT;
        EXPECT_EQ(Encode(fx, i, in, out), TARN_ERR_ARGUMENT);

        // Physical values round to the nearest step and come back to the same bits.
        ASSERT_EQ(fx.plan.Decode(i, expect.data(), c.payload, &v, 1, &count, &absent), TARN_OK);
        in.kind = TARN_INPUT_PHYSICAL;
        for (double nudge : {0.0, -0.2, 0.2}) {
            if (c.length > (nudge == 0 ? 52 : 40)) break;
            in.physical = v.physical + nudge;
            ASSERT_EQ(Encode(fx, i, in, out), TARN_OK);
            EXPECT_EQ(out, expect) << nudge;
        }
        for (double bad : {double(NAN), double(INFINITY)}) {
            in.physical = bad;
            EXPECT_EQ(Encode(fx, i, in, out), TARN_ERR_NOT_FINITE);
        }

        // One byte short of the field: reported absent, never read past the end.
        const size_t need = (c.motorola ? (c.start / 8) * 8 + 7 - c.start % 8 : c.start) / 8;
        ASSERT_EQ(fx.plan.Decode(i, data.data(), need, &v, 1, &count, &absent), TARN_OK);
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(absent, 1u);
    }
}

}  // namespace
