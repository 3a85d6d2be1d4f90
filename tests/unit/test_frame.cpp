// The SocketCAN <-> VCI conversions against a byte-level reference.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "legacy/tarn_frame.h"
#include "support/ref_packer.h"

namespace {

template <typename T>
std::vector<uint8_t> Bytes(const T& v) {
    const auto* p = reinterpret_cast<const uint8_t*>(&v);
    return std::vector<uint8_t>(p, p + sizeof(T));
}

template <typename T>
T RandomRecord(refpack::Rng& rng) {  // random bytes everywhere, padding included
    uint8_t raw[sizeof(T)];
    for (auto& b : raw) b = static_cast<uint8_t>(rng.Next() >> 24);
    T v;
    std::memcpy(&v, raw, sizeof(T));
    return v;
}

// Identifier bytes are little-endian: byte 3 holds the extended (0x80), remote
// (0x40) and unused (0x20) flag bits of a SocketCAN identifier.
TEST(FrameConversion, BothDirectionsMatchTheByteReference) {
    refpack::Rng rng(1234);
    for (int i = 0; i < 5000; ++i) {
        auto f = RandomRecord<TarnCanFrame>(rng);
        std::vector<uint8_t> in = Bytes(f), vci(24, 0);
        std::memcpy(&vci[0], &in[0], 4);
        vci[3] &= 0x1F;
        vci[10] = (in[3] >> 6) & 1;  // remoteFlag
        vci[11] = in[3] >> 7;        // externFlag
        vci[12] = in[4];             // dataLen, taken as is
        std::memcpy(&vci[13], &in[8], 8);
        ASSERT_EQ(Bytes(CanFrameToVci(f)), vci) << std::hex << f.can_id;

        auto o = RandomRecord<VCI_CAN_OBJ>(rng);
        if (i % 3 == 0) o.remoteFlag = 0;  // random flag bytes are nearly never zero
        if (i % 5 == 0) o.externFlag = 0;
        std::vector<uint8_t> obj = Bytes(o), can(16, 0);
        std::memcpy(&can[0], &obj[0], 4);
        can[3] |= (obj[11] ? 0x80 : 0) | (obj[10] ? 0x40 : 0);
        can[4] = obj[12];
        std::memcpy(&can[8], &obj[13], 8);
        ASSERT_EQ(Bytes(VciToCanFrame(o)), can) << std::hex << o.id;
    }
}

}  // namespace
