/*
 * libtarn: CAN database (DBC) decoding and encoding with SAE J1939 transport.
 *
 * The records below are the library's binary interface: applications pass
 * pointers to caller-owned records and the library fills or reads them in
 * place. All records use natural alignment on 64-bit little-endian Linux.
 */
#ifndef TARN_H
#define TARN_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define TARN_API __attribute__((visibility("default")))
#else
#define TARN_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

enum {
    TARN_MAX_SIGNALS = 256, /* signal slots in one DBCMessage */
    TARN_NAME_LEN = 128,    /* message, signal and node names */
    TARN_COMMENT_LEN = 201, /* comments */
    TARN_UNIT_LEN = 11,     /* units */
    TARN_VALDESC_LEN = 128, /* value descriptions */
    TARN_PATH_LEN = 261     /* FileInfo path */
};

/* Protocol of a loaded database; only TARN_PROTOCOL_J1939 switches J1939 rules on. */
typedef enum ProtocolType {
    TARN_PROTOCOL_J1939 = 0,     /* "ProtocolType" attribute equals "J1939" */
    TARN_PROTOCOL_OTHER = 1,     /* the attribute holds another value */
    TARN_PROTOCOL_UNDECLARED = 2 /* the database declares no protocol */
} ProtocolType;

/* Multiplexing role of a signal (DBCSignal.multiplexerType). */
enum {
    TARN_MUX_NONE = 0,        /* plain signal */
    TARN_MUX_MULTIPLEXED = 1, /* present only at one switch value (m<n>) */
    TARN_MUX_SWITCH = 2       /* the multiplexer switch (M) */
};

/* Value type of a signal (DBCSignal.valueType). */
enum { TARN_VALUE_INTEGER = 0, TARN_VALUE_FLOAT = 1, TARN_VALUE_DOUBLE = 2 };

/* TARN_Send results. */
enum {
    TARN_SEND_OK = 0,     /* sent */
    TARN_SEND_FAILED = 1, /* not sent */
    TARN_SEND_QUEUED = 2, /* queued for the J1939 transport */
    TARN_SEND_REFUSED = 3 /* multi-packet sending is disabled, or 1,024 messages wait */
};

/* Frame layouts (TARN_SetFrameType / TARN_GetFrameType). */
enum {
    TARN_FRAME_SOCKETCAN = 0, /* TarnCanFrame / TarnCanFdFrame (the default) */
    TARN_FRAME_VCI = 1        /* VCI_CAN_OBJ */
};

typedef struct DBCSignal {
    uint32_t startBit;
    uint32_t length;
    double factor;
    double offset;
    double minimum;
    double maximum;
    uint64_t rawValue;
    uint8_t isSigned;
    uint8_t byteOrder;
    uint8_t multiplexerType;
    uint8_t valueType;
    uint32_t multiplexerValue;
    char unit[TARN_UNIT_LEN];
    char name[TARN_NAME_LEN];
    char comment[TARN_COMMENT_LEN];
    char valueDescription[TARN_VALDESC_LEN];
} DBCSignal;

typedef struct DBCMessage {
    uint32_t signalCount;
    uint32_t id; /* identifier without the extended flag bit */
    uint32_t size;
    double cycleTime;
    uint8_t extended;
    DBCSignal signals[TARN_MAX_SIGNALS];
    char name[TARN_NAME_LEN];
    char comment[TARN_COMMENT_LEN];
} DBCMessage;

typedef struct FileInfo {
    char path[TARN_PATH_LEN];
    uint8_t merge; /* nonzero: add to what the instance already loaded */
} FileInfo;

typedef struct ValDescPair {
    double value;
    char desc[TARN_VALDESC_LEN];
} ValDescPair;

typedef struct DBCNetworkNode {
    char name[TARN_NAME_LEN];
    uint32_t stationAddress;
} DBCNetworkNode;

/* CAN adapter frame record; also the library's internal frame. */
typedef struct VCI_CAN_OBJ {
    uint32_t id;
    uint32_t timeStamp;
    uint8_t timeFlag;
    uint8_t sendType;
    uint8_t remoteFlag;
    uint8_t externFlag;
    uint8_t dataLen;
    uint8_t data[8];
    uint8_t reserved[3];
} VCI_CAN_OBJ;

/* Flag bits of TarnCanFrame.can_id / TarnCanFdFrame.can_id. */
#define TARN_CAN_EFF_FLAG 0x80000000u
#define TARN_CAN_RTR_FLAG 0x40000000u
#define TARN_CAN_EFF_MASK 0x1FFFFFFFu

/* Same layout as the Linux SocketCAN struct can_frame. */
typedef struct TarnCanFrame {
    uint32_t can_id;
    uint8_t len;
    uint8_t pad;
    uint8_t res0;
    uint8_t res1;
    uint8_t data[8] __attribute__((aligned(8)));
} TarnCanFrame;

/* Same layout as the Linux SocketCAN struct canfd_frame. */
typedef struct TarnCanFdFrame {
    uint32_t can_id;
    uint8_t len;
    uint8_t flags;
    uint8_t res0;
    uint8_t res1;
    uint8_t data[64] __attribute__((aligned(8)));
} TarnCanFdFrame;

/* Callbacks. Contexts are the application's and are never owned. */
typedef void (*TARN_AsyncAnalyseCallback)(void* context, DBCMessage* msg, uint64_t tag);
typedef bool (*TARN_SenderFunc)(void* context, void* frame);
typedef void (*TARN_MultiTransDoneFunc)(void* context, DBCMessage* msg, uint8_t* data,
                                        uint16_t length, uint8_t value);

/* Instances */
TARN_API uint32_t TARN_Init(bool disableMultiSend, bool asyncAnalyse);
TARN_API void TARN_Release(uint32_t h);
TARN_API void TARN_SetLogFile(bool enable, const char* path);
TARN_API void TARN_SetFrameType(uint32_t type);
TARN_API uint32_t TARN_GetFrameType(void);
TARN_API bool TARN_LoadFile(uint32_t h, const FileInfo* info);
TARN_API void TARN_SetProtocol(uint32_t h, uint8_t protocol);
TARN_API uint8_t TARN_GetProtocol(uint32_t h);

/* Model queries */
TARN_API bool TARN_GetFirstMessage(uint32_t h, DBCMessage* msg);
TARN_API bool TARN_GetNextMessage(uint32_t h, DBCMessage* msg);
TARN_API uint32_t TARN_GetMessageCount(uint32_t h);
TARN_API bool TARN_GetMessageById(uint32_t h, uint32_t id, DBCMessage* msg);
TARN_API uint32_t TARN_GetValDescPairCount(uint32_t h, uint32_t msgId, const char* signal);
TARN_API void TARN_GetValDescPair(uint32_t h, uint32_t msgId, const char* signal,
                                  ValDescPair* pairs);
TARN_API uint32_t TARN_GetNetworkNodeCount(uint32_t h);
TARN_API bool TARN_GetNetworkNodeAt(uint32_t h, uint32_t index, DBCNetworkNode* node);

/* Frames */
TARN_API bool TARN_Analyse(uint32_t h, const void* frame, uint8_t fd, DBCMessage* out);
TARN_API bool TARN_Decode(uint32_t h, DBCMessage* out, const void* frames, uint32_t count);
TARN_API bool TARN_Encode(uint32_t h, void* frames, uint32_t* count, const DBCMessage* msg);
TARN_API void TARN_OnReceive(uint32_t h, const void* frame, uint8_t fd);
TARN_API bool TARN_AsyncAnalyse(uint32_t h, const void* frame, uint8_t fd, uint64_t tag);
TARN_API void TARN_SetAsyncAnalyseCallback(uint32_t h, TARN_AsyncAnalyseCallback callback,
                                           void* context);
TARN_API void TARN_SetSender(uint32_t h, TARN_SenderFunc sender, void* context);
TARN_API void TARN_SetOnMultiTransDoneFunc(uint32_t h, TARN_MultiTransDoneFunc callback,
                                           void* context);
TARN_API uint32_t TARN_Send(uint32_t h, const DBCMessage* msg, uint8_t fd);
TARN_API void TARN_SetCANFDSender(uint32_t h, TARN_SenderFunc sender, void* context);

/* Value conversion */
TARN_API double TARN_CalcActualValue(const DBCSignal* signal, uint64_t* raw);
TARN_API uint64_t TARN_CalcRawValue(const DBCSignal* signal, double* physical);

#ifdef __cplusplus
}
#endif

#endif /* TARN_H */
