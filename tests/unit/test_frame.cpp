// Frame layouts: the SocketCAN <-> VCI conversions against a byte-level
// reference, and the process-wide layout switch.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "tarn.h"
#include "tarn_frame.h"

namespace {

// Byte images written straight from the record layouts (little-endian).
void PutU32(uint8_t* at, uint32_t v) {
    for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(v >> (8 * i));
}

std::vector<uint8_t> VciImage(uint32_t id, uint8_t remote, uint8_t ext, uint8_t len,
                              const uint8_t* data) {
    std::vector<uint8_t> b(24, 0);
    PutU32(&b[0], id);
    b[10] = remote;
    b[11] = ext;
    b[12] = len;
    std::memcpy(&b[13], data, 8);
    return b;
}

std::vector<uint8_t> CanImage(uint32_t canId, uint8_t len, const uint8_t* data) {
    std::vector<uint8_t> b(16, 0);
    PutU32(&b[0], canId);
    b[4] = len;
    std::memcpy(&b[8], data, 8);
    return b;
}

template <typename T>
std::vector<uint8_t> Bytes(const T& v) {
    const auto* p = reinterpret_cast<const uint8_t*>(&v);
    return std::vector<uint8_t>(p, p + sizeof(T));
}

struct ToVciCase {
    uint32_t canId;
    uint8_t len;
    uint32_t id;
    uint8_t remote;
    uint8_t ext;
};

class CanToVci : public ::testing::TestWithParam<ToVciCase> {};

TEST_P(CanToVci, MatchesTheReferenceImage) {
    const ToVciCase& c = GetParam();
    const uint8_t data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    TarnCanFrame f;
    std::memset(&f, 0xEE, sizeof(f));  // garbage in the pad bytes must not leak through
    f.can_id = c.canId;
    f.len = c.len;
    std::memcpy(f.data, data, 8);
    EXPECT_EQ(Bytes(CanFrameToVci(f)), VciImage(c.id, c.remote, c.ext, c.len, data));
}

INSTANTIATE_TEST_SUITE_P(
    Ids, CanToVci,
    ::testing::Values(ToVciCase{0xC0000123u, 8, 0x123, 1, 1},
                      ToVciCase{0x20000123u, 8, 0x123, 0, 0},  // bit 29 is ignored
                      ToVciCase{0x98FEF100u, 8, 0x18FEF100u, 0, 1},
                      ToVciCase{0x7FFu, 0, 0x7FF, 0, 0}, ToVciCase{0x40000001u, 2, 1, 1, 0},
                      // The length is taken as is, and all eight bytes are copied.
                      ToVciCase{0x100u, 15, 0x100, 0, 0},
                      ToVciCase{0xFFFFFFFFu, 255, 0x1FFFFFFFu, 1, 1}));

struct ToCanCase {
    uint32_t id;
    uint8_t remote;
    uint8_t ext;
    uint32_t canId;
};

class VciToCan : public ::testing::TestWithParam<ToCanCase> {};

TEST_P(VciToCan, MatchesTheReferenceImage) {
    const ToCanCase& c = GetParam();
    const uint8_t data[8] = {9, 8, 7, 6, 5, 4, 3, 2};
    VCI_CAN_OBJ o;
    std::memset(&o, 0xEE, sizeof(o));
    o.id = c.id;
    o.remoteFlag = c.remote;
    o.externFlag = c.ext;
    o.dataLen = 3;
    std::memcpy(o.data, data, 8);
    EXPECT_EQ(Bytes(VciToCanFrame(o)), CanImage(c.canId, 3, data));
}

INSTANTIATE_TEST_SUITE_P(Ids, VciToCan,
                         ::testing::Values(ToCanCase{0x123, 0, 0, 0x123},
                                           ToCanCase{0x18FEF100u, 0, 1, 0x98FEF100u},
                                           ToCanCase{0x123, 1, 0, 0x40000123u},
                                           ToCanCase{0x123, 2, 5, 0xC0000123u}));

TEST(FrameConversion, RoundTripKeepsEverythingButBit29AndPadding) {
    std::mt19937 rng(1234);
    for (int i = 0; i < 5000; ++i) {
        TarnCanFrame f;
        uint8_t raw[sizeof(f)];
        for (auto& b : raw) b = static_cast<uint8_t>(rng());
        std::memcpy(&f, raw, sizeof(f));
        TarnCanFrame back = VciToCanFrame(CanFrameToVci(f));
        EXPECT_EQ(back.can_id, f.can_id & ~0x20000000u);
        EXPECT_EQ(back.len, f.len);
        EXPECT_EQ(back.pad | back.res0 | back.res1, 0);
        EXPECT_EQ(std::memcmp(back.data, f.data, 8), 0);
    }
}

// No test before this one touches the switch, so it starts at its default.
TEST(FrameTypeSwitch, DefaultsToSocketCanAndFoldsNonzeroToOne) {
    EXPECT_EQ(TARN_GetFrameType(), 0u);
    const struct {
        uint32_t set;
        uint32_t got;
    } cases[] = {{1, 1}, {0, 0}, {7, 1}, {0xFFFFFFFFu, 1}, {0, 0}};
    for (const auto& c : cases) {
        TARN_SetFrameType(c.set);
        EXPECT_EQ(TARN_GetFrameType(), c.got) << c.set;
        EXPECT_EQ(libdbc::Env::Instance().GetFrameType(), c.got);
    }
}

TEST(FrameTypeSwitch, SingletonIsSharedAcrossThreads) {
    std::vector<const void*> seen(8);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&seen, i] { seen[i] = &libdbc::Env::Instance(); });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(std::set<const void*>(seen.begin(), seen.end()).size(), 1u);
}

}  // namespace
