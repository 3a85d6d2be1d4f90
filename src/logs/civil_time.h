// Wall-clock dates as written in log headers, turned into seconds since
// 1970-01-01. The formats record no time zone, so dates are read as UTC.
#pragma once

#include <cstdint>
#include <string_view>

namespace tarn::logs {

// Days since 1970-01-01 of a proleptic Gregorian date.
int64_t DaysFromCivil(int64_t year, unsigned month, unsigned day);

// 1..12 for an English or German month abbreviation ("Mar", "Mär", "Okt"), 0 otherwise.
unsigned MonthFromName(std::string_view name);

// "HH:MM:SS[.fraction]" as seconds since midnight.
bool ParseClock(std::string_view text, double& seconds);

// "YYYY-MM-DD" and a clock, as epoch seconds.
bool ParseIsoDate(std::string_view date, std::string_view clock, double& epoch);

}  // namespace tarn::logs
