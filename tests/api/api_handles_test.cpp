// Handle numbering and the default frame type need a process in which
// nothing was done before, so this file holds nothing else.
#include <gtest/gtest.h>

#include "tarn.h"

TEST(ApiHandles, CountUpFromOneAndAreNeverReused) {
    EXPECT_EQ(TARN_GetFrameType(), static_cast<uint32_t>(TARN_FRAME_SOCKETCAN));
    EXPECT_EQ(TARN_Init(false, false), 1u);
    EXPECT_EQ(TARN_Init(true, false), 2u);
    EXPECT_EQ(TARN_Init(false, true), 3u);
    TARN_Release(2);
    EXPECT_EQ(TARN_GetMessageCount(2), 0u);
    EXPECT_EQ(TARN_GetProtocol(2), 1u);
    EXPECT_EQ(TARN_Init(false, false), 4u);
    TARN_Release(2);  // already gone: nothing happens
    TARN_Release(1);
    TARN_Release(3);
    EXPECT_EQ(TARN_Init(false, true), 5u);
    // Handle 5, with both its threads running, is left for the library to
    // release when the process ends.
}
