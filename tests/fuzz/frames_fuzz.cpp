// Fuzz bytes as a script of frame calls on one fresh instance: classic and
// FD frames in both caller layouts into TARN_Analyse, TARN_Decode and
// TARN_OnReceive; J1939 transport frames (TP.CM and TP.DT with fields drawn
// mostly from the groups and addresses the database knows); records with
// fuzzed raw values into TARN_Encode and TARN_Send; lookups and the
// raw/physical conversions. The first byte picks the database and the
// layout; each further step is an opcode byte and its arguments. The
// sanitizers report what goes wrong; every callback reads all it is given.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "legacy_fuzz_support.h"

namespace {

// The largest frame of either layout, and room for a TARN_Decode batch.
constexpr size_t kFrameBytes = sizeof(TarnCanFdFrame);
constexpr uint32_t kMaxBatch = 8;
// Opcodes from here on build one J1939 transport frame: a quarter of steps.
constexpr uint8_t kTransportOp = 0xC0;
constexpr uint8_t kRts = 0x10, kCts = 0x11, kAck = 0x13, kBam = 0x20, kAbort = 0xFF;
// Groups of the J1939 database (transport-sized ones first) and its nodes.
constexpr uint32_t kGroups[] = {0xE000, 0xE100, 0xE200, 0xFEF4, 0xFEF1};
constexpr uint8_t kAddresses[] = {0xFE, 0x20, 0xFF, 0x00};

struct State {
    uint32_t h;
    DBCMessage msg;  // the record that encoding and sending work on
    DBCMessage out;  // where decoding writes
};

bool Sender(void*, void* frame) {
    const size_t size =
        TARN_GetFrameType() == TARN_FRAME_VCI ? sizeof(VCI_CAN_OBJ) : sizeof(TarnCanFrame);
    return fuzz::Touch(frame, size) % 2 == 0;
}

bool FdSender(void*, void* frame) {
    return fuzz::Touch(frame, sizeof(TarnCanFdFrame)) % 2 == 0;
}

void Done(void*, DBCMessage* msg, uint8_t* data, uint16_t length, uint8_t) {
    fuzz::Touch(msg, sizeof(*msg));
    fuzz::Touch(data, length);
}

void Async(void*, DBCMessage* msg, uint64_t) {
    fuzz::Touch(msg, sizeof(*msg));
}

size_t FrameSize(uint8_t fd) {
    if (TARN_GetFrameType() == TARN_FRAME_VCI) return sizeof(VCI_CAN_OBJ);
    return fd == 1 ? sizeof(TarnCanFdFrame) : sizeof(TarnCanFrame);
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

// A record to encode: a message of the database (picked by an index into
// the list) with fuzzed raw values, or a fuzzed header over it.
void PickMessage(State& s, fuzz::Bytes& in) {
    uint8_t steps = in.U8();
    bool found = TARN_GetFirstMessage(s.h, &s.msg);
    while (found && steps-- > 0) found = TARN_GetNextMessage(s.h, &s.msg);
    if (!found) std::memset(&s.msg, 0, sizeof(s.msg));
    for (uint32_t i = 0; i < s.msg.signalCount && i < TARN_MAX_SIGNALS; ++i)
        in.Fill(&s.msg.signals[i].rawValue, sizeof(uint64_t));
    if (in.U8() == 0xFF) {
        s.msg.size = in.U8();
        s.msg.signalCount = in.U8();
        s.msg.id = in.U32();
        s.msg.extended = in.U8() & 1;
    }
}

void Step(State& s, fuzz::Bytes& in) {
    alignas(8) uint8_t frames[kMaxBatch * kFrameBytes];
    const uint8_t op = in.U8();
    if (op >= kTransportOp) {
        const uint8_t route = in.U8();
        Deliver(s.h, NextFrame(in), route, &s.out);
        return;
    }
    const uint8_t fd = in.U8() % 3;  // 2 is a value the functions must refuse
    switch (op % 10) {
        case 0:
            in.Fill(frames, FrameSize(fd));
            TARN_Analyse(s.h, frames, fd, &s.out);
            break;
        case 1: {
            const uint32_t count = 1 + in.U8() % kMaxBatch;
            in.Fill(frames, count * FrameSize(0));
            TARN_Decode(s.h, &s.out, frames, count);
            break;
        }
        case 2:
            in.Fill(frames, FrameSize(fd));
            TARN_OnReceive(s.h, frames, fd);
            break;
        case 3: {
            PickMessage(s, in);
            uint32_t count = in.U8() % (kMaxBatch + 1);
            TARN_Encode(s.h, count == 0 ? nullptr : frames, &count, &s.msg);
            break;
        }
        case 4:
            PickMessage(s, in);
            TARN_Send(s.h, &s.msg, fd);
            break;
        case 5: {
            DBCSignal sig;
            in.Fill(&sig, sizeof(sig));
            uint64_t raw = sig.rawValue;
            double physical = TARN_CalcActualValue(&sig, &raw);
            TARN_CalcRawValue(&sig, &physical);
            break;
        }
        case 6: {
            PickMessage(s, in);
            const DBCSignal& sig = s.msg.signals[in.U8() % TARN_MAX_SIGNALS];
            char name[TARN_NAME_LEN + 1] = {};
            std::memcpy(name, sig.name, TARN_NAME_LEN);
            const uint32_t n = TARN_GetValDescPairCount(s.h, s.msg.id, name);
            auto pairs = std::make_unique<ValDescPair[]>(n + 1);
            TARN_GetValDescPair(s.h, s.msg.id, name, pairs.get());
            break;
        }
        case 7: {
            DBCNetworkNode node;
            TARN_GetNetworkNodeAt(s.h, in.U8() % 4, &node);
            TARN_GetMessageById(s.h, in.U32(), &s.out);
            break;
        }
        case 8:
            TARN_SetFrameType(TARN_GetFrameType() ^ 1);
            break;
        default:
            TARN_SetProtocol(s.h, in.U8());
            break;
    }
}

}  // namespace

// The CAN FD sender map keeps one entry for every handle it was given, for
// the life of the process, so every input allocates more than it frees and
// libFuzzer would scan the whole heap for leaks after each new unit (ten
// times slower). Unless the caller says otherwise, leaks are not looked for
// here; the DBC reader harness still looks for them.
static char g_noLeaks[] = "-detect_leaks=0";
static std::vector<char*> g_args;

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    fuzz::QuietLog();
    fuzz::Files();
    bool given = false;
    for (int i = 1; i < *argc; ++i) given |= std::strncmp((*argv)[i], "-detect_leaks=", 14) == 0;
    if (*argc >= 1 && !given) {
        g_args.assign(*argv, *argv + *argc);
        g_args.insert(g_args.begin() + 1, g_noLeaks);
        g_args.push_back(nullptr);
        *argv = g_args.data();
        *argc += 1;
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Bytes in(data, size);
    const uint8_t config = in.U8();
    TARN_SetFrameType(config & 1);
    // Reused: two records of about 132 KiB each would cost more than the
    // input. Nothing reads what an earlier input left in them.
    static State s;
    const fuzz::Instance instance(config & 2 ? fuzz::Files().J1939() : fuzz::Files().Classic());
    s.h = instance.Handle();
    TARN_SetSender(s.h, &Sender, nullptr);
    TARN_SetCANFDSender(s.h, &FdSender, nullptr);
    TARN_SetOnMultiTransDoneFunc(s.h, &Done, nullptr);
    TARN_SetAsyncAnalyseCallback(s.h, &Async, nullptr);
    // Enough steps for a transfer of the largest J1939 message.
    for (int steps = 0; !in.Empty() && steps < 300; ++steps) Step(s, in);
    return 0;
}
