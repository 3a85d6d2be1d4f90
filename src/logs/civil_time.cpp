#include "logs/civil_time.h"

#include "logs/text_scan.h"

namespace tarn::logs {

int64_t DaysFromCivil(int64_t year, unsigned month, unsigned day) {
    // Counted in 400-year eras starting in March, so that the leap day ends a year.
    year -= month <= 2;
    const int64_t era = (year >= 0 ? year : year - 399) / 400;
    const int64_t yoe = year - era * 400;
    const int64_t doy = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

unsigned MonthFromName(std::string_view name) {
    struct Name {
        const char* text;
        unsigned month;
    };
    static constexpr Name kNames[] = {
        {"jan", 1}, {"feb", 2}, {"mar", 3},  {"apr", 4},  {"may", 5},       {"jun", 6},
        {"jul", 7}, {"aug", 8}, {"sep", 9},  {"oct", 10}, {"nov", 11},      {"dec", 12},
        {"mrz", 3}, {"mai", 5}, {"okt", 10}, {"dez", 12}, {"m\xc3\xa4r", 3}};
    for (const Name& n : kNames)
        if (StartsWithNoCase(name, n.text)) return n.month;
    return 0;
}

bool ParseClock(std::string_view text, double& seconds) {
    uint32_t h = 0, m = 0;
    if (text.size() < 8 || text[2] != ':' || text[5] != ':') return false;
    if (!ParseDec32(text.substr(0, 2), h) || !ParseDec32(text.substr(3, 2), m)) return false;
    double s = 0;
    if (!ParseSeconds(text.substr(6), s) || h > 23 || m > 59 || s >= 61) return false;
    seconds = h * 3600.0 + m * 60.0 + s;
    return true;
}

bool ParseIsoDate(std::string_view date, std::string_view clock, double& epoch) {
    uint32_t y = 0, mo = 0, d = 0;
    double s = 0;
    if (date.size() != 10 || date[4] != '-' || date[7] != '-') return false;
    if (!ParseDec32(date.substr(0, 4), y) || !ParseDec32(date.substr(5, 2), mo) ||
        !ParseDec32(date.substr(8, 2), d) || mo < 1 || mo > 12 || d < 1 || d > 31)
        return false;
    if (!ParseClock(clock, s)) return false;
    epoch = static_cast<double>(DaysFromCivil(y, mo, d)) * 86400.0 + s;
    return true;
}

}  // namespace tarn::logs
