#include "common/func.h"

#include <unistd.h>

uint64_t strcpy2_s(char* dst, unsigned int size, const char* src) {
    uint64_t i = 0;
    for (;; ++i) {
        dst[i] = src[i];
        if (src[i] == '\0' || i == size) break;
    }
    return i;
}

void socketInit() {}
void socketDeinit() {}

void msleep(int ms) {
    // The product is deliberately 32-bit: very long requests wrap.
    usleep(static_cast<useconds_t>(static_cast<unsigned int>(ms) * 1000u));
}

int closeSocket(int fd) { return close(fd); }
