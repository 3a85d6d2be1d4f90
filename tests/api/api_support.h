// Helpers shared by the interface tests: temporary DBC files, frames in both
// caller layouts, and an independent bit-by-bit signal packer.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tarn.h"

namespace apitest {

// A DBC text written to a unique temporary file, removed on destruction.
class TempDbc {
  public:
    explicit TempDbc(const std::string& text) {
        char name[] = "/tmp/tarn_api_XXXXXX.dbc";
        const int fd = mkstemps(name, 4);
        if (fd < 0) return;
        const ssize_t n = write(fd, text.data(), text.size());
        close(fd);
        if (n == static_cast<ssize_t>(text.size())) m_path = name;
    }
    ~TempDbc() {
        if (!m_path.empty()) std::remove(m_path.c_str());
    }
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

inline const DBCSignal* FindSignal(const DBCMessage& msg, const char* name) {
    for (uint32_t i = 0; i < msg.signalCount && i < TARN_MAX_SIGNALS; ++i) {
        if (std::strncmp(msg.signals[i].name, name, TARN_NAME_LEN) == 0) return &msg.signals[i];
    }
    return nullptr;
}

inline DBCSignal* FindSignal(DBCMessage& msg, const char* name) {
    return const_cast<DBCSignal*>(FindSignal(static_cast<const DBCMessage&>(msg), name));
}

// One classic frame as the library sees it, independent of the caller layout.
struct Frame {
    uint32_t id = 0;
    bool extended = false;
    bool remote = false;
    uint8_t len = 0;
    uint8_t data[8] = {};
};

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
        VCI_CAN_OBJ o;
        std::memset(&o, 0, sizeof(o));
        o.id = f.id;
        o.externFlag = f.extended ? 1 : 0;
        o.remoteFlag = f.remote ? 1 : 0;
        o.dataLen = f.len;
        std::memcpy(o.data, f.data, 8);
        std::memcpy(w.bytes, &o, sizeof(o));
    } else {
        TarnCanFrame c;
        std::memset(&c, 0, sizeof(c));
        c.can_id = f.id | (f.extended ? TARN_CAN_EFF_FLAG : 0) | (f.remote ? TARN_CAN_RTR_FLAG : 0);
        c.len = f.len;
        std::memcpy(c.data, f.data, 8);
        std::memcpy(w.bytes, &c, sizeof(c));
    }
    return w;
}

inline Frame FromWire(const void* p, uint32_t layout) {
    Frame f;
    if (layout == TARN_FRAME_VCI) {
        VCI_CAN_OBJ o;
        std::memcpy(&o, p, sizeof(o));
        f.id = o.id;
        f.extended = o.externFlag != 0;
        f.remote = o.remoteFlag != 0;
        f.len = o.dataLen;
        std::memcpy(f.data, o.data, 8);
    } else {
        TarnCanFrame c;
        std::memcpy(&c, p, sizeof(c));
        f.id = c.can_id & TARN_CAN_EFF_MASK;
        f.extended = (c.can_id & TARN_CAN_EFF_FLAG) != 0;
        f.remote = (c.can_id & TARN_CAN_RTR_FLAG) != 0;
        f.len = c.len;
        std::memcpy(f.data, c.data, 8);
    }
    return f;
}

// Frames laid out contiguously in the caller's layout.
inline std::vector<uint8_t> ToWireArray(const std::vector<Frame>& frames, uint32_t layout) {
    const size_t size = WireSize(layout);
    std::vector<uint8_t> out(frames.size() * size);
    for (size_t i = 0; i < frames.size(); ++i) {
        std::memcpy(out.data() + i * size, ToWire(frames[i], layout).bytes, size);
    }
    return out;
}

inline TarnCanFdFrame MakeFd(uint32_t canId, const std::vector<uint8_t>& payload) {
    TarnCanFdFrame fd;
    std::memset(&fd, 0, sizeof(fd));
    fd.can_id = canId;
    fd.len = static_cast<uint8_t>(payload.size());
    std::memcpy(fd.data, payload.data(), std::min<size_t>(payload.size(), 64));
    return fd;
}

// Reference packer, one bit at a time. Little-endian (@1) signals count bits
// upwards from the start bit; big-endian (@0) signals start at their most
// significant bit and walk down, jumping to the next byte's bit 7.
inline size_t NextBit(size_t bit, bool bigEndian) {
    if (!bigEndian) return bit + 1;
    return bit % 8 == 0 ? bit + 15 : bit - 1;
}

inline void PackBits(uint8_t* payload, size_t start, size_t len, uint64_t raw, bool bigEndian) {
    size_t bit = start;
    for (size_t i = 0; i < len; ++i) {
        const size_t valueBit = bigEndian ? len - 1 - i : i;
        const bool set = (raw >> valueBit) & 1u;
        if (set) {
            payload[bit / 8] |= static_cast<uint8_t>(1u << (bit % 8));
        } else {
            payload[bit / 8] &= static_cast<uint8_t>(~(1u << (bit % 8)));
        }
        bit = NextBit(bit, bigEndian);
    }
}

inline uint64_t ExtractBits(const uint8_t* payload, size_t start, size_t len, bool bigEndian) {
    uint64_t raw = 0;
    size_t bit = start;
    for (size_t i = 0; i < len; ++i) {
        const size_t valueBit = bigEndian ? len - 1 - i : i;
        if ((payload[bit / 8] >> (bit % 8)) & 1u) raw |= uint64_t{1} << valueBit;
        bit = NextBit(bit, bigEndian);
    }
    return raw;
}

inline uint64_t Mask(uint32_t len) {
    return len >= 64 ? ~uint64_t{0} : (uint64_t{1} << len) - 1;
}

// Deterministic generator, so failures reproduce.
class Rng {
  public:
    explicit Rng(uint64_t seed) : m_state(seed * 0x9E3779B97F4A7C15ull + 1) {}
    uint64_t Next() {
        m_state ^= m_state << 13;
        m_state ^= m_state >> 7;
        m_state ^= m_state << 17;
        return m_state;
    }

  private:
    uint64_t m_state;
};

inline std::string CorpusFile(const char* name) {
#ifdef TARN_CORPUS_DIR
    const std::string path = std::string(TARN_CORPUS_DIR) + "/" + name;
    if (access(path.c_str(), R_OK) == 0) return path;
#else
    (void)name;
#endif
    return std::string();
}

}  // namespace apitest
