// The native face's only output channel: the process-wide log handler.
#pragma once

#include "tarn/db.h"

namespace tarn::native {

// Formats like printf and hands the text to the handler, if any.
void Log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace tarn::native
