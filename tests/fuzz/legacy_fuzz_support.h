// Shared by the harnesses of the 28 exported functions: the databases they
// load, a reader that turns fuzz bytes into call arguments, and one fresh
// instance per input, so that no state carries over from one input to the
// next and every crash replays from its input alone.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "tarn.h"

namespace fuzz {

// A classic database: both byte orders, signs, a float, multiplexing, value
// tables, node attributes and two payloads longer than a classic frame.
inline const char kClassicDbc[] = R"(BU_: ECU Gateway
BO_ 291 Engine: 8 ECU
 SG_ Speed : 0|16@1+ (0.1,0) [0|6553.5] "km/h" Gateway
 SG_ Temp : 16|8@1- (1,-40) [-168|87] "degC" Gateway
 SG_ Gear : 24|4@1+ (1,0) [0|15] "" Gateway
 SG_ Torque : 39|12@0- (0.5,0) [-1024|1023.5] "Nm" Gateway
 SG_ Level : 32|32@1- (1,0) [0|0] "" Gateway
BO_ 2566844672 Mux: 8 ECU
 SG_ Mode M : 0|8@1+ (1,0) [0|255] "" Gateway
 SG_ A m1 : 8|16@1+ (1,0) [0|65535] "" Gateway
 SG_ B m2 : 8|64@0+ (2,1) [0|255] "" Gateway
 SG_ C : 56|8@1+ (1,0) [0|255] "" Gateway
BO_ 1024 Long20: 20 Gateway
 SG_ Head : 0|32@1+ (1,0) [0|0] "" ECU
 SG_ Tail : 128|32@0- (1,0) [0|0] "" ECU
BO_ 1025 Long64: 64 Gateway
 SG_ First : 0|64@1+ (1,0) [0|0] "" ECU
 SG_ Last : 504|8@1+ (1,0) [0|0] "" ECU
BA_DEF_ BO_ "GenMsgCycleTime" INT 0 10000;
BA_DEF_ BU_ "NmStationAddress" INT 0 255;
BA_ "GenMsgCycleTime" BO_ 291 100;
BA_ "NmStationAddress" BU_ ECU 17;
VAL_ 291 Gear 0 "Neutral" 1 "First" 15 "Invalid" ;
VAL_ 2566844672 Mode 1 "A" 2 "B" ;
SIG_VALTYPE_ 291 Level : 1;
)";

// A J1939 database: single-frame and transport-sized groups, PDU1 and PDU2.
inline const char kJ1939Dbc[] = R"(BU_: Sender Receiver
BO_ 2565874942 J9: 9 Sender
 SG_ J9_0 : 0|64@1+ (1,0) [0|0] "" Receiver
 SG_ J9_1 : 64|8@1+ (1,0) [0|0] "" Receiver
BO_ 2565940478 J100: 100 Sender
 SG_ J100_0 : 0|64@1+ (1,0) [0|0] "" Receiver
 SG_ J100_9 : 792|8@0+ (0.5,-10) [0|0] "" Receiver
BO_ 2566005758 J1785: 1785 Sender
 SG_ J1785_0 : 0|64@1+ (1,0) [0|0] "" Receiver
 SG_ J1785_27 : 14272|8@1- (1,0) [0|0] "" Receiver
BO_ 2566844926 Pdu2: 8 Sender
 SG_ P : 0|16@1+ (1,0) [0|0] "" Receiver
BO_ 2566845694 Pdu2Long: 30 Sender
 SG_ Q : 200|16@1+ (1,0) [0|0] "" Receiver
BA_DEF_ "ProtocolType" STRING ;
BA_ "ProtocolType" "J1939";
)";

// Call arguments from fuzz bytes; an exhausted input reads as zeros.
class Bytes {
  public:
    Bytes(const uint8_t* data, size_t size) : m_data(data), m_left(size) {}
    bool Empty() const { return m_left == 0; }
    uint8_t U8() {
        if (m_left == 0) return 0;
        --m_left;
        return *m_data++;
    }
    uint32_t U32() {
        uint32_t v = 0;
        Fill(&v, sizeof(v));
        return v;
    }
    void Fill(void* out, size_t n) {
        const size_t take = n < m_left ? n : m_left;
        std::memcpy(out, m_data, take);
        std::memset(static_cast<uint8_t*>(out) + take, 0, n - take);
        m_data += take;
        m_left -= take;
    }

  private:
    const uint8_t* m_data;
    size_t m_left;
};

// The databases as files (TARN_LoadFile reads paths), written once.
class DbcFiles {
  public:
    DbcFiles() {
        char dir[] = "/tmp/tarn_fuzz_XXXXXX";
        if (mkdtemp(dir) == nullptr) return;
        m_dir = dir;
        m_classic = Write("classic.dbc", kClassicDbc);
        m_j1939 = Write("j1939.dbc", kJ1939Dbc);
    }
    ~DbcFiles() {
        std::remove(m_classic.c_str());
        std::remove(m_j1939.c_str());
        rmdir(m_dir.c_str());
    }
    const std::string& Classic() const { return m_classic; }
    const std::string& J1939() const { return m_j1939; }

  private:
    std::string Write(const char* name, const char* text) {
        const std::string path = m_dir + "/" + name;
        if (FILE* f = std::fopen(path.c_str(), "wb")) {
            std::fputs(text, f);
            std::fclose(f);
        }
        return path;
    }
    std::string m_dir, m_classic, m_j1939;
};

inline const DbcFiles& Files() {
    static const DbcFiles files;
    return files;
}

// A fresh instance without threads, released when the input is done.
class Instance {
  public:
    explicit Instance(const std::string& dbc) : m_h(TARN_Init(true, false)) {
        FileInfo info;
        std::memset(&info, 0, sizeof(info));
        std::snprintf(info.path, sizeof(info.path), "%s", dbc.c_str());
        TARN_LoadFile(m_h, &info);
    }
    ~Instance() { TARN_Release(m_h); }
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;
    uint32_t Handle() const { return m_h; }

  private:
    uint32_t m_h;
};

// Reads every byte a callback is handed, so that the sanitizer sees any
// record or buffer that is shorter than the library claims.
inline uint32_t Touch(const void* p, size_t n) {
    uint32_t sum = 0;
    for (size_t i = 0; i < n; ++i) sum += static_cast<const uint8_t*>(p)[i];
    return sum;
}

// Logging is off: malformed frames would only slow the search.
inline void QuietLog() {
    TARN_SetLogFile(true, "/dev/null");
    TARN_SetLogFile(false, nullptr);
}

}  // namespace fuzz
