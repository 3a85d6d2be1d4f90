// DBC texts written for the interface tests.
#pragma once

#include <cstdint>
#include <string>

namespace apitest {

// Three messages: a classic one with both byte orders, signs, a value table
// and a cycle time; an extended multiplexed one; and a 20-byte one that needs
// sequence-numbered packets.
inline const char* kSmallDbc = R"(VERSION ""

NS_ :
	CM_
	BA_DEF_
	BA_
	VAL_

BS_:

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
BA_DEF_DEF_ "GenMsgCycleTime" 0;
BA_DEF_DEF_ "NmStationAddress" 0;
BA_ "GenMsgCycleTime" BO_ 291 100;
BA_ "NmStationAddress" BU_ ECU1 17;
BA_ "NmStationAddress" BU_ Display 42;
VAL_ 291 Gear 0 "Neutral" 1 "First" 2 "Second" 3 "Third" ;
)";

constexpr uint32_t kEngineId = 291;
constexpr uint32_t kExtId = 0x18FEF100;  // declared as 0x98FEF100
constexpr uint32_t kLong20Id = 1024;

// A J1939 database with messages that need the transport protocol. Every
// payload is covered by 64-bit signals (the last one shorter), so a payload
// and its signal values determine each other.
inline std::string J1939Message(const char* name, uint32_t id, uint32_t size) {
    std::string text = "BO_ " + std::to_string(id | 0x80000000u) + " " + name + ": " +
                       std::to_string(size) + " Sender\n";
    const uint32_t bits = size * 8;
    for (uint32_t start = 0, i = 0; start < bits; start += 64, ++i) {
        const uint32_t len = bits - start < 64 ? bits - start : 64;
        text += " SG_ " + std::string(name) + "_" + std::to_string(i) + " : " +
                std::to_string(start) + "|" + std::to_string(len) +
                "@1+ (1,0) [0|0] \"\" Receiver\n";
    }
    return text + "\n";
}

// PDU1 groups sent from address 0xFE to 0x20 (priority 6).
constexpr uint32_t kJ9Id = 0x18E020FE;
constexpr uint32_t kJ100Id = 0x18E120FE;
constexpr uint32_t kJ1785Id = 0x18E220FE;
constexpr uint32_t kJShortId = 0x18E320FE;

inline std::string J1939Dbc() {
    std::string text = "VERSION \"\"\n\nNS_ :\n\nBS_:\n\nBU_: Sender Receiver\n\n";
    text += J1939Message("J9", kJ9Id, 9);
    text += J1939Message("J100", kJ100Id, 100);
    text += J1939Message("J1785", kJ1785Id, 1785);
    text += J1939Message("JShort", kJShortId, 8);
    text += "BA_DEF_  \"ProtocolType\" STRING ;\n";
    text += "BA_DEF_DEF_  \"ProtocolType\" \"\";\n";
    text += "BA_ \"ProtocolType\" \"J1939\";\n";
    return text;
}

}  // namespace apitest
