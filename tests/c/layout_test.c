/* The public records are a binary interface: every size and offset is fixed. */
#include <stddef.h>

#include "tarn.h"

#define CHECK_OFFSET(type, field, off) \
    _Static_assert(offsetof(type, field) == (off), #type "." #field " offset")
#define CHECK_SIZE(type, size) _Static_assert(sizeof(type) == (size), #type " size")

CHECK_SIZE(DBCSignal, 528);
_Static_assert(_Alignof(DBCSignal) == 8, "DBCSignal alignment");
CHECK_OFFSET(DBCSignal, startBit, 0);
CHECK_OFFSET(DBCSignal, length, 4);
CHECK_OFFSET(DBCSignal, factor, 8);
CHECK_OFFSET(DBCSignal, offset, 16);
CHECK_OFFSET(DBCSignal, minimum, 24);
CHECK_OFFSET(DBCSignal, maximum, 32);
CHECK_OFFSET(DBCSignal, rawValue, 40);
CHECK_OFFSET(DBCSignal, isSigned, 48);
CHECK_OFFSET(DBCSignal, byteOrder, 49);
CHECK_OFFSET(DBCSignal, multiplexerType, 50);
CHECK_OFFSET(DBCSignal, valueType, 51);
CHECK_OFFSET(DBCSignal, multiplexerValue, 52);
CHECK_OFFSET(DBCSignal, unit, 56);
CHECK_OFFSET(DBCSignal, name, 67);
CHECK_OFFSET(DBCSignal, comment, 195);
CHECK_OFFSET(DBCSignal, valueDescription, 396);

CHECK_SIZE(DBCMessage, 135536);
_Static_assert(_Alignof(DBCMessage) == 8, "DBCMessage alignment");
CHECK_OFFSET(DBCMessage, signalCount, 0);
CHECK_OFFSET(DBCMessage, id, 4);
CHECK_OFFSET(DBCMessage, size, 8);
CHECK_OFFSET(DBCMessage, cycleTime, 16);
CHECK_OFFSET(DBCMessage, extended, 24);
CHECK_OFFSET(DBCMessage, signals, 32);
CHECK_OFFSET(DBCMessage, name, 135200);
CHECK_OFFSET(DBCMessage, comment, 135328);
_Static_assert(sizeof(((DBCMessage*)0)->signals) == 256 * 528, "DBCMessage signal slots");

CHECK_SIZE(FileInfo, 262);
CHECK_OFFSET(FileInfo, path, 0);
CHECK_OFFSET(FileInfo, merge, 261);

CHECK_SIZE(ValDescPair, 136);
CHECK_OFFSET(ValDescPair, value, 0);
CHECK_OFFSET(ValDescPair, desc, 8);

CHECK_SIZE(DBCNetworkNode, 132);
CHECK_OFFSET(DBCNetworkNode, name, 0);
CHECK_OFFSET(DBCNetworkNode, stationAddress, 128);

CHECK_SIZE(VCI_CAN_OBJ, 24);
CHECK_OFFSET(VCI_CAN_OBJ, id, 0);
CHECK_OFFSET(VCI_CAN_OBJ, timeStamp, 4);
CHECK_OFFSET(VCI_CAN_OBJ, timeFlag, 8);
CHECK_OFFSET(VCI_CAN_OBJ, sendType, 9);
CHECK_OFFSET(VCI_CAN_OBJ, remoteFlag, 10);
CHECK_OFFSET(VCI_CAN_OBJ, externFlag, 11);
CHECK_OFFSET(VCI_CAN_OBJ, dataLen, 12);
CHECK_OFFSET(VCI_CAN_OBJ, data, 13);
CHECK_OFFSET(VCI_CAN_OBJ, reserved, 21);

CHECK_SIZE(TarnCanFrame, 16);
CHECK_OFFSET(TarnCanFrame, can_id, 0);
CHECK_OFFSET(TarnCanFrame, len, 4);
CHECK_OFFSET(TarnCanFrame, data, 8);

CHECK_SIZE(TarnCanFdFrame, 72);
CHECK_OFFSET(TarnCanFdFrame, can_id, 0);
CHECK_OFFSET(TarnCanFdFrame, len, 4);
CHECK_OFFSET(TarnCanFdFrame, flags, 5);
CHECK_OFFSET(TarnCanFdFrame, data, 8);

_Static_assert(sizeof(ProtocolType) == 4, "ProtocolType is 32-bit");
_Static_assert(TARN_PROTOCOL_J1939 == 0 && TARN_PROTOCOL_OTHER == 1 &&
                   TARN_PROTOCOL_UNDECLARED == 2,
               "protocol values");
_Static_assert(TARN_CAN_EFF_FLAG == 0x80000000u && TARN_CAN_RTR_FLAG == 0x40000000u &&
                   TARN_CAN_EFF_MASK == 0x1FFFFFFFu,
               "SocketCAN identifier flags");

int main(void) {
    return 0;
}
