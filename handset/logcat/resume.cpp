// Finds the newest time stamp in a file that logcat has written. No state.
#include "handset/logcat/resume.h"

#include <algorithm>
#include <fstream>

static const time_t kDay = 24 * 60 * 60;

// Reads ".123 " as 123999999. False when there are no digits and a blank.
static bool take_fraction(const char *text, uint64_t *nsec) {
    uint64_t value = 0;
    uint64_t unit = 1000000000;
    const char *digit = text + 1;
    for (; *text == '.' && *digit >= '0' && *digit <= '9' && unit > 1; digit++) {
        unit /= 10;
        value += static_cast<uint64_t>(*digit - '0') * unit;
    }
    *nsec = value + unit - 1;
    return digit != text + 1 && *digit == ' ';
}

// Reads "01-31 23:59:59.123456 ..."; 0 for another line.
static uint64_t stamp_of(const std::string &line, time_t now) {
    struct tm parts = {};
    uint64_t nsec = 0;
    const char *rest = strptime(line.c_str(), "%m-%d %H:%M:%S", &parts);
    if (rest == nullptr || !take_fraction(rest, &nsec)) {
        return 0;
    }
    struct tm today = {};
    localtime_r(&now, &today);
    parts.tm_year = today.tm_year;
    parts.tm_isdst = -1;
    struct tm last_year = parts;
    last_year.tm_year--;
    time_t sec = mktime(&parts);
    if (sec > now + kDay) {  // of last December, read in January
        sec = mktime(&last_year);
    }
    return static_cast<uint64_t>(sec) * 1000000000 + nsec;
}

uint64_t resume_after(const std::string &path, time_t now) {
    std::ifstream file(path);
    uint64_t newest = 0;
    for (std::string line; std::getline(file, line);) {
        newest = std::max(newest, stamp_of(line, now));
    }
    return newest;
}
