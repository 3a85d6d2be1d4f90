/* The log reader's header compiles as C11 on its own (compiled, not run). */
#include "tarn/log.h"

_Static_assert(sizeof(tarn_frame) == 80, "tarn_frame is what tarn_log_read fills");
_Static_assert(TARN_LOG_FORMAT_TRC2 == 5, "format values are a binary interface");
