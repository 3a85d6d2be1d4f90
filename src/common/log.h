// Process-wide logger: one prefixed, flushed line per message.
#pragma once

namespace kq {

enum LogLevel { LOG_DEBUG = 0, LOG_INFO = 1, LOG_WARN = 2, LOG_ERROR = 3 };

// Re-targets the logger: a null or empty path means standard output; a file
// is opened for appending (falling back to standard output if that fails).
void LogInit(const char* file, LogLevel level);
// Closes a log file; logging to standard output is never switched off.
void LogDeinit();
// Writes "name:line[level] " and the formatted text when level >= threshold.
void Log(const char* file, int line, LogLevel level, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

}  // namespace kq

#define KQ_LOG(level, ...) ::kq::Log(__FILE__, __LINE__, (level), __VA_ARGS__)
