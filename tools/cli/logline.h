// Reading CAN frames from candump text: the log format
// "(1436509052.249713) can0 18FEF100#0102...", its CAN FD form "123##1AABB..."
// and the screen format "can0  123   [8]  01 02 ...".
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tarncli {

struct LogFrame {
    std::string time;   // time stamp as written, without the parentheses; may be empty
    std::string iface;  // interface name
    uint32_t id = 0;    // identifier without flags
    bool extended = false;
    bool remote = false;
    bool error = false;  // an error frame (error flag set in the identifier)
    bool fd = false;
    uint8_t flags = 0;  // CAN FD flags nibble
    uint8_t len = 0;
    uint8_t data[64] = {};
};

enum class LineResult { Frame, Blank, Malformed };

// Parses one line. Blank lines and lines starting with '#' are Blank; a
// Malformed result comes with a short reason in `error`.
LineResult parseLogLine(std::string_view line, LogFrame& frame, std::string& error);

}  // namespace tarncli
