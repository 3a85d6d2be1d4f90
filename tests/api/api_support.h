// Helpers shared by the interface tests: DBC texts written to temporary files,
// frames in both caller layouts, and one instance fixture per layout.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/ref_packer.h"
#include "tarn.h"

namespace apitest {

// Three messages: a classic one with both byte orders, signs, a value table
// and a cycle time; an extended multiplexed one; and a 20-byte one that needs
// sequence-numbered packets.
inline const char* kSmallDbc = R"(VERSION ""

BU_: ECU1 Gateway Display

BO_ 291 Engine: 8 ECU1
 SG_ Speed : 0|16@1+ (0.1,0) [0|6553.5] "km/h" Gateway
 SG_ Temp : 16|8@1- (1,-40) [-168|87] "degC" Gateway,Display
 SG_ Gear : 24|4@1+ (1,0) [0|15] "" Gateway
 SG_ Flags : 28|4@1+ (1,0) [0|15] "" Gateway
 SG_ Torque : 39|12@0- (0.5,0) [-1024|1023.5] "Nm" Gateway
 SG_ Odo : 48|16@1+ (2,100) [100|131170] "km" Gateway

BO_ 2566844672 Ext: 8 ECU1
 SG_ Mode M : 0|8@1+ (1,0) [0|255] "" Gateway
 SG_ A m1 : 8|16@1+ (1,0) [0|65535] "" Gateway
 SG_ B m2 : 8|8@1+ (1,0) [0|255] "" Gateway
 SG_ C : 56|8@1+ (1,0) [0|255] "" Gateway

BO_ 1024 Long20: 20 Gateway
 SG_ Head : 0|32@1+ (1,0) [0|4294967295] "" ECU1
 SG_ Mid : 64|32@1+ (1,0) [0|4294967295] "" ECU1
 SG_ Tail : 128|32@1+ (1,0) [0|4294967295] "" ECU1

CM_ BO_ 291 "Engine data";
CM_ SG_ 291 Speed "Vehicle speed";
BA_DEF_ BO_ "GenMsgCycleTime" INT 0 10000;
BA_DEF_ BU_ "NmStationAddress" INT 0 255;
BA_ "GenMsgCycleTime" BO_ 291 100;
BA_ "NmStationAddress" BU_ ECU1 17;
BA_ "NmStationAddress" BU_ Display 42;
VAL_ 291 Gear 0 "Neutral" 1 "First" 2 "Second" 3 "Third" ;
)";

constexpr uint32_t kEngineId = 291;
constexpr uint32_t kExtId = 0x18FEF100;  // declared as 0x98FEF100
constexpr uint32_t kLong20Id = 1024;

// PDU1 groups sent from address 0xFE to 0x20 (priority 6).
constexpr uint32_t kJ9Id = 0x18E020FE;
constexpr uint32_t kJ100Id = 0x18E120FE;
constexpr uint32_t kJ1785Id = 0x18E220FE;
constexpr uint32_t kJShortId = 0x18E320FE;

// A J1939 database whose payloads are tiled by 64-bit signals (the last one
// shorter), so a payload and its signal values determine each other.
inline std::string J1939Dbc() {
    std::string text = "VERSION \"\"\n\nBU_: Sender Receiver\n\n";
    const std::pair<const char*, uint32_t> msgs[] = {
        {"J9", 9}, {"J100", 100}, {"J1785", 1785}, {"JShort", 8}};
    const uint32_t ids[] = {kJ9Id, kJ100Id, kJ1785Id, kJShortId};
    for (int m = 0; m < 4; ++m) {
        const std::string name = msgs[m].first;
        text += "BO_ " + std::to_string(ids[m] | 0x80000000u) + " " + name + ": " +
                std::to_string(msgs[m].second) + " Sender\n";
        for (uint32_t start = 0, bits = msgs[m].second * 8; start < bits; start += 64) {
            text += " SG_ " + name + "_" + std::to_string(start / 64) + " : " +
                    std::to_string(start) + "|" + std::to_string(std::min(64u, bits - start)) +
                    "@1+ (1,0) [0|0] \"\" Receiver\n";
        }
        text += "\n";
    }
    return text + "BA_DEF_ \"ProtocolType\" STRING ;\nBA_ \"ProtocolType\" \"J1939\";\n";
}

// A DBC text written to a unique temporary file, removed on destruction.
class TempDbc {
  public:
    explicit TempDbc(const std::string& text) {
        char name[] = "/tmp/tarn_api_XXXXXX.dbc";
        const int fd = mkstemps(name, 4);
        if (fd < 0) return;
        const bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        close(fd);
        if (ok) m_path = name;
    }
    ~TempDbc() { std::remove(m_path.c_str()); }
    const std::string& path() const { return m_path; }

  private:
    std::string m_path;
};

inline FileInfo MakeFileInfo(const std::string& path, bool merge = false) {
    FileInfo info;
    std::memset(&info, 0, sizeof(info));
    std::snprintf(info.path, sizeof(info.path), "%s", path.c_str());
    info.merge = merge ? 1 : 0;
    return info;
}

inline bool LoadPath(uint32_t h, const std::string& path) {
    const FileInfo info = MakeFileInfo(path);
    return TARN_LoadFile(h, &info);
}

// DBCMessage is ~132 KiB: always on the heap.
inline std::unique_ptr<DBCMessage> NewMessage() {
    auto msg = std::make_unique<DBCMessage>();
    std::memset(msg.get(), 0, sizeof(DBCMessage));
    return msg;
}

inline DBCSignal* FindSignal(DBCMessage& msg, const char* name) {
    for (uint32_t i = 0; i < msg.signalCount && i < TARN_MAX_SIGNALS; ++i) {
        if (std::strncmp(msg.signals[i].name, name, TARN_NAME_LEN) == 0) return &msg.signals[i];
    }
    return nullptr;
}

inline std::vector<uint64_t> RawValues(const DBCMessage& msg) {
    std::vector<uint64_t> raw;
    for (uint32_t i = 0; i < msg.signalCount; ++i) raw.push_back(msg.signals[i].rawValue);
    return raw;
}

// Fills every signal with a random raw value and returns the payload those
// values make, packed by the reference packer.
inline std::vector<uint8_t> FillRandom(DBCMessage& msg, uint64_t seed) {
    refpack::Rng rng(seed);
    std::vector<uint8_t> payload(msg.size);
    for (uint32_t i = 0; i < msg.signalCount; ++i) {
        DBCSignal& s = msg.signals[i];
        s.rawValue = rng.Next() & refpack::Mask(s.length);
        refpack::Pack(payload.data(), s.startBit, s.length, s.byteOrder == 0, s.rawValue);
    }
    return payload;
}

// One classic frame as the library sees it, independent of the caller layout.
struct Frame {
    uint32_t id = 0;
    bool extended = false;
    uint8_t len = 8;
    uint8_t data[8] = {};
};

inline Frame MakeFrame(uint32_t id, bool extended, const uint8_t* data = nullptr) {
    Frame f;
    f.id = id;
    f.extended = extended;
    if (data) std::memcpy(f.data, data, 8);
    return f;
}

// Storage big enough for any caller frame record.
struct WireFrame {
    alignas(8) uint8_t bytes[sizeof(TarnCanFdFrame)];
};

inline size_t WireSize(uint32_t layout) {
    return layout == TARN_FRAME_VCI ? sizeof(VCI_CAN_OBJ) : sizeof(TarnCanFrame);
}

inline WireFrame ToWire(const Frame& f, uint32_t layout) {
    WireFrame w{};
    if (layout == TARN_FRAME_VCI) {
        VCI_CAN_OBJ o{};
        o.id = f.id;
        o.externFlag = f.extended ? 1 : 0;
        o.dataLen = f.len;
        std::memcpy(o.data, f.data, 8);
        std::memcpy(w.bytes, &o, sizeof(o));
    } else {
        TarnCanFrame c{};
        c.can_id = f.id | (f.extended ? TARN_CAN_EFF_FLAG : 0);
        c.len = f.len;
        std::memcpy(c.data, f.data, 8);
        std::memcpy(w.bytes, &c, sizeof(c));
    }
    return w;
}

inline Frame FromWire(const void* p, uint32_t layout) {
    if (layout == TARN_FRAME_VCI) {
        VCI_CAN_OBJ o;
        std::memcpy(&o, p, sizeof(o));
        Frame f = MakeFrame(o.id, o.externFlag != 0, o.data);
        f.len = o.dataLen;
        return f;
    }
    TarnCanFrame c;
    std::memcpy(&c, p, sizeof(c));
    Frame f = MakeFrame(c.can_id & TARN_CAN_EFF_MASK, (c.can_id & TARN_CAN_EFF_FLAG) != 0, c.data);
    f.len = c.len;
    return f;
}

inline TarnCanFdFrame MakeFd(uint32_t canId, const std::vector<uint8_t>& payload) {
    TarnCanFdFrame fd;
    std::memset(&fd, 0, sizeof(fd));
    fd.can_id = canId;
    fd.len = static_cast<uint8_t>(payload.size());
    std::memcpy(fd.data, payload.data(), std::min<size_t>(payload.size(), 64));
    return fd;
}

// The same tests in both caller layouts.
class LayoutTest : public ::testing::TestWithParam<uint32_t> {
  protected:
    uint32_t layout() const { return GetParam(); }
    WireFrame Wire(const Frame& f) const { return ToWire(f, layout()); }
    void UseLayout() { TARN_SetFrameType(layout()); }
    ~LayoutTest() override { TARN_SetFrameType(TARN_FRAME_SOCKETCAN); }
};

inline std::string LayoutName(const ::testing::TestParamInfo<uint32_t>& info) {
    return info.param == TARN_FRAME_VCI ? "Vci" : "SocketCan";
}

#define TARN_BOTH_LAYOUTS(suite)                                                     \
    INSTANTIATE_TEST_SUITE_P(                                                        \
        BothLayouts, suite,                                                          \
        ::testing::Values(uint32_t{TARN_FRAME_SOCKETCAN}, uint32_t{TARN_FRAME_VCI}), \
        ::apitest::LayoutName)

}  // namespace apitest
