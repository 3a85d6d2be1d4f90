/*
 * libtarn example: load a DBC file and decode CAN frames into signal values.
 *
 *   tarn_example [file.dbc]
 *
 * Without an argument it loads example.dbc from this directory and decodes a
 * few recorded frames. With any DBC file it also encodes the first messages
 * with mid-range values and decodes the frames it made.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tarn.h"

/* Width and text of a fixed-size record buffer, for "%.*s". */
#define TEXT(buf) (int)sizeof(buf), (buf)

static void print_message(const DBCMessage* msg) {
    /* A text field that fills its buffer has no terminator: print at most
       the buffer's size. */
    printf("%.*s (0x%X%s, %u bytes)\n", TEXT(msg->name), (unsigned)msg->id,
           msg->extended ? ", extended" : "", (unsigned)msg->size);
    for (uint32_t i = 0; i < msg->signalCount; ++i) {
        const DBCSignal* sig = &msg->signals[i];
        uint64_t raw = sig->rawValue;
        const double value = TARN_CalcActualValue(sig, &raw);
        printf("  %.*s = %g", TEXT(sig->name), value);
        if (sig->unit[0] != '\0') printf(" %.*s", TEXT(sig->unit));
        if (sig->valueDescription[0] != '\0') printf(" (%.*s)", TEXT(sig->valueDescription));
        printf("\n");
    }
}

static int decode_frame(uint32_t h, uint32_t id, const uint8_t data[8], DBCMessage* out) {
    TarnCanFrame frame;
    memset(&frame, 0, sizeof(frame));
    frame.can_id = id > 0x7FF ? (id | TARN_CAN_EFF_FLAG) : id;
    frame.len = 8;
    memcpy(frame.data, data, 8);
    if (!TARN_Analyse(h, &frame, 0, out)) {
        printf("0x%X: no message in the database\n", (unsigned)id);
        return 0;
    }
    print_message(out);
    return 1;
}

/* Frames as a bus logger might have recorded them for example.dbc. */
static int decode_recorded(uint32_t h, DBCMessage* out) {
    static const struct {
        uint32_t id;
        uint8_t data[8];
    } frames[] = {
        {0x100, {0x40, 0x1F, 0x7A, 0xC8, 0x02, 0x00, 0x00, 0x00}},
        {0x200, {0x10, 0x27, 0x1A, 0x27, 0x05, 0x27, 0x12, 0x27}},
        {0x300, {0x01, 0x4C, 0x36, 0x00, 0x00, 0x00, 0x00, 0x02}},
        {0x123, {0}},
    };
    int decoded = 0;
    for (size_t i = 0; i < sizeof(frames) / sizeof(frames[0]); ++i) {
        decoded += decode_frame(h, frames[i].id, frames[i].data, out);
    }
    return decoded == 3;
}

/* Sets every signal to the middle of its declared range, encodes the message
 * and decodes the frames that came out. */
static int round_trip(uint32_t h, DBCMessage* msg, DBCMessage* out) {
    TarnCanFrame frames[256];
    uint32_t count = 256;
    for (uint32_t i = 0; i < msg->signalCount; ++i) {
        DBCSignal* sig = &msg->signals[i];
        double physical = (sig->minimum + sig->maximum) / 2;
        sig->rawValue = TARN_CalcRawValue(sig, &physical);
    }
    if (!TARN_Encode(h, frames, &count, msg) || count == 0) {
        printf("%.*s: nothing to encode\n", TEXT(msg->name));
        return 1;
    }
    if (!TARN_Decode(h, out, frames, count)) {
        printf("%.*s: encoded %u frame(s) but could not decode them\n", TEXT(msg->name),
               (unsigned)count);
        return 1;
    }
    print_message(out);
    return 1;
}

int main(int argc, char** argv) {
    char path[TARN_PATH_LEN];
    if (argc > 1) {
        snprintf(path, sizeof(path), "%s", argv[1]);
    } else {
        /* example.dbc sits beside this source file. */
        const char* slash = strrchr(__FILE__, '/');
        const int dir = slash ? (int)(slash - __FILE__ + 1) : 0;
        snprintf(path, sizeof(path), "%.*sexample.dbc", dir, __FILE__);
    }
    FileInfo info;
    memset(&info, 0, sizeof(info));
    snprintf(info.path, sizeof(info.path), "%s", path);

    const uint32_t h = TARN_Init(true, false);
    DBCMessage* msg = calloc(1, sizeof(DBCMessage));
    DBCMessage* out = calloc(1, sizeof(DBCMessage));
    int ok = msg != NULL && out != NULL && TARN_LoadFile(h, &info);
    if (!ok) {
        fprintf(stderr, "cannot load %s\n", path);
    } else {
        printf("%s: %u messages, %u nodes\n\n", path, (unsigned)TARN_GetMessageCount(h),
               (unsigned)TARN_GetNetworkNodeCount(h));
        if (argc <= 1) ok = decode_recorded(h, out);
        printf("\nEncoded and decoded again:\n");
        int shown = 0;
        for (int more = TARN_GetFirstMessage(h, msg); more && shown < 3;
             more = TARN_GetNextMessage(h, msg), ++shown) {
            ok = round_trip(h, msg, out) && ok;
        }
    }
    free(msg);
    free(out);
    TARN_Release(h);
    return ok ? 0 : 1;
}
