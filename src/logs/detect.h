// Telling the log format from a file's first lines.
#pragma once

#include <string_view>

#include "logs/parser.h"

namespace tarn::logs {

// The format a line shows, or Unknown. `neutral` is set for lines that
// decide nothing but are no fault either: blank lines and comments.
Format DetectFormat(std::string_view line, bool& neutral);

}  // namespace tarn::logs
