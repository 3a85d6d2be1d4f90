// J1939 transport sequences from fuzz bytes: each step builds one TP.CM
// (RTS, CTS, EndOfMsgAck, Abort, BAM) or TP.DT frame, or takes a raw one,
// with fields drawn mostly from the groups and addresses the database knows,
// and hands it to TARN_Analyse or TARN_OnReceive in either caller layout.
// Transfers that complete are decoded and reported; the callbacks read all
// they are given, so the sanitizers see any short buffer.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "legacy_fuzz_support.h"

namespace {

constexpr uint8_t kRts = 0x10, kCts = 0x11, kAck = 0x13, kBam = 0x20, kAbort = 0xFF;
// Groups of the J1939 database (transport-sized ones first) and its nodes.
constexpr uint32_t kGroups[] = {0xE000, 0xE100, 0xE200, 0xFEF4, 0xFEF1};
constexpr uint8_t kAddresses[] = {0xFE, 0x20, 0xFF, 0x00};

void OnDone(void*, DBCMessage* msg, uint8_t* data, uint16_t length, uint8_t) {
    fuzz::Touch(msg, sizeof(*msg));
    fuzz::Touch(data, length);
}

void OnAsync(void*, DBCMessage* msg, uint64_t) {
    fuzz::Touch(msg, sizeof(*msg));
}

uint32_t Group(fuzz::Bytes& in) {
    const uint8_t pick = in.U8();
    if (pick < 0xF0) return kGroups[pick % (sizeof(kGroups) / sizeof(kGroups[0]))];
    return in.U32() & 0x3FFFF;
}

uint8_t Address(fuzz::Bytes& in) {
    const uint8_t pick = in.U8();
    return pick < 0xF0 ? kAddresses[pick % sizeof(kAddresses)] : in.U8();
}

// One frame as the library's record; the caller converts it to its layout.
VCI_CAN_OBJ NextFrame(fuzz::Bytes& in) {
    VCI_CAN_OBJ f;
    std::memset(&f, 0, sizeof(f));
    f.externFlag = 1;
    f.dataLen = 8;
    const uint8_t kind = in.U8() % 8;
    const uint8_t src = Address(in), dst = Address(in);
    const uint32_t pf = kind == 6 ? 0xEB : 0xEC;
    f.id = (6u << 26) | (pf << 16) | (uint32_t(dst) << 8) | src;
    if (kind < 6) {
        const uint8_t controls[] = {kRts, kCts, kAck, kAbort, kBam, kRts};
        const uint32_t group = Group(in);
        f.data[0] = controls[kind];
        in.Fill(f.data + 1, 4);
        if (kind == 5) f.data[0] = in.U8();  // any control byte
        f.data[5] = uint8_t(group);
        f.data[6] = uint8_t(group >> 8);
        f.data[7] = uint8_t(group >> 16);
    } else if (kind == 6) {
        in.Fill(f.data, 8);
        f.data[0] = 1 + in.U8() % 16;  // sequence numbers where transfers start
    } else {
        in.Fill(&f, sizeof(f));  // anything at all
    }
    return f;
}

void Deliver(uint32_t h, const VCI_CAN_OBJ& f, uint8_t route, DBCMessage* out) {
    alignas(8) uint8_t wire[sizeof(TarnCanFdFrame)] = {};
    uint8_t fd = 0;
    if (TARN_GetFrameType() == TARN_FRAME_VCI) {
        std::memcpy(wire, &f, sizeof(f));
    } else if (route & 2) {  // as an FD frame carrying the same bytes
        TarnCanFdFrame fdf;
        std::memset(&fdf, 0, sizeof(fdf));
        fdf.can_id = f.id | TARN_CAN_EFF_FLAG;
        fdf.len = f.dataLen;
        std::memcpy(fdf.data, f.data, 8);
        std::memcpy(wire, &fdf, sizeof(fdf));
        fd = 1;
    } else {
        TarnCanFrame cf;
        std::memset(&cf, 0, sizeof(cf));
        cf.can_id = f.id | (f.externFlag ? TARN_CAN_EFF_FLAG : 0);
        cf.len = f.dataLen;
        std::memcpy(cf.data, f.data, 8);
        std::memcpy(wire, &cf, sizeof(cf));
    }
    if (route & 1)
        TARN_OnReceive(h, wire, fd);
    else
        TARN_Analyse(h, wire, fd, out);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::QuietLog();
    fuzz::Files();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Bytes in(data, size);
    const uint8_t config = in.U8();
    TARN_SetFrameType(config & 1);
    const fuzz::Instance instance(fuzz::Files().J1939());
    const uint32_t h = instance.Handle();
    if (config & 2) TARN_SetProtocol(h, 1);  // the same frames without J1939 rules
    TARN_SetOnMultiTransDoneFunc(h, &OnDone, nullptr);
    TARN_SetAsyncAnalyseCallback(h, &OnAsync, nullptr);
    static DBCMessage out;  // reused: about 132 KiB, written before it is read
    for (int steps = 0; !in.Empty() && steps < 300; ++steps) {
        const uint8_t route = in.U8();
        Deliver(h, NextFrame(in), route, &out);
    }
    return 0;
}
