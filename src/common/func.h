// Small free functions shared by the library.
#pragma once

#include <cstdint>

// Copies src into dst, stopping after the terminator or after the character
// at index `size`, whichever comes first; returns the index where it stopped.
// Up to size + 1 bytes are written: a source of `size` characters or more
// leaves no terminator, so callers reserve one byte beyond `size`.
uint64_t strcpy2_s(char* dst, unsigned int size, const char* src);

void socketInit();
void socketDeinit();
void msleep(int ms);
int closeSocket(int fd);
