/* Minimal program linked against libtarn: prints the current frame layout. */
#include <stdio.h>

#include "tarn.h"

int main(void) {
    printf("frame type: %u\n", (unsigned)TARN_GetFrameType());
    return 0;
}
