/* The public records are a binary interface: every size and offset is fixed. */
#include <stddef.h>

#include "tarn.h"

#define SIZE(type, size) _Static_assert(sizeof(type) == (size), #type " size")
#define AT(type, field, off) _Static_assert(offsetof(type, field) == (off), #type "." #field)

/* clang-format off */
SIZE(DBCSignal, 528); _Static_assert(_Alignof(DBCSignal) == 8, "DBCSignal alignment");
AT(DBCSignal, startBit, 0); AT(DBCSignal, length, 4); AT(DBCSignal, factor, 8);
AT(DBCSignal, offset, 16); AT(DBCSignal, minimum, 24); AT(DBCSignal, maximum, 32);
AT(DBCSignal, rawValue, 40); AT(DBCSignal, isSigned, 48); AT(DBCSignal, byteOrder, 49);
AT(DBCSignal, multiplexerType, 50); AT(DBCSignal, valueType, 51);
AT(DBCSignal, multiplexerValue, 52); AT(DBCSignal, unit, 56); AT(DBCSignal, name, 67);
AT(DBCSignal, comment, 195); AT(DBCSignal, valueDescription, 396);

SIZE(DBCMessage, 135536); _Static_assert(_Alignof(DBCMessage) == 8, "DBCMessage alignment");
AT(DBCMessage, signalCount, 0); AT(DBCMessage, id, 4); AT(DBCMessage, size, 8);
AT(DBCMessage, cycleTime, 16); AT(DBCMessage, extended, 24); AT(DBCMessage, signals, 32);
AT(DBCMessage, name, 135200); AT(DBCMessage, comment, 135328);

SIZE(FileInfo, 262); AT(FileInfo, path, 0); AT(FileInfo, merge, 261);
SIZE(ValDescPair, 136); AT(ValDescPair, value, 0); AT(ValDescPair, desc, 8);
SIZE(DBCNetworkNode, 132); AT(DBCNetworkNode, name, 0); AT(DBCNetworkNode, stationAddress, 128);

SIZE(VCI_CAN_OBJ, 24); AT(VCI_CAN_OBJ, id, 0); AT(VCI_CAN_OBJ, timeStamp, 4);
AT(VCI_CAN_OBJ, timeFlag, 8); AT(VCI_CAN_OBJ, sendType, 9); AT(VCI_CAN_OBJ, remoteFlag, 10);
AT(VCI_CAN_OBJ, externFlag, 11); AT(VCI_CAN_OBJ, dataLen, 12); AT(VCI_CAN_OBJ, data, 13);
AT(VCI_CAN_OBJ, reserved, 21);

SIZE(TarnCanFrame, 16); AT(TarnCanFrame, can_id, 0); AT(TarnCanFrame, len, 4);
AT(TarnCanFrame, pad, 5); AT(TarnCanFrame, res0, 6); AT(TarnCanFrame, res1, 7);
AT(TarnCanFrame, data, 8);
SIZE(TarnCanFdFrame, 72); AT(TarnCanFdFrame, can_id, 0); AT(TarnCanFdFrame, len, 4);
AT(TarnCanFdFrame, flags, 5); AT(TarnCanFdFrame, res0, 6); AT(TarnCanFdFrame, res1, 7);
AT(TarnCanFdFrame, data, 8);
/* clang-format on */

SIZE(ProtocolType, 4);
_Static_assert(TARN_PROTOCOL_J1939 == 0 && TARN_PROTOCOL_OTHER == 1 &&
                   TARN_PROTOCOL_UNDECLARED == 2,
               "protocol values");
_Static_assert(TARN_CAN_EFF_FLAG == 0x80000000u && TARN_CAN_RTR_FLAG == 0x40000000u &&
                   TARN_CAN_EFF_MASK == 0x1FFFFFFFu,
               "SocketCAN identifier flags");

int main(void) {
    return 0;
}
