// Finds the newest time stamp in a file that logcat wrote. No state.
#include "handset/logcat/resume.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static constexpr time_t kDay = 24 * 60 * 60;
static constexpr uint32_t kSecond = 1000000000;

struct stamp {
    time_t sec = 0;
    uint32_t nsec = 0;
};

static time_t local_time(struct tm parts, int year) {
    parts.tm_year = year;
    parts.tm_isdst = -1;
    return mktime(&parts);
}

// Reads ".123" as 123999999, the last moment that prints like this. False when there are no digits and a blank.
static bool take_fraction(const char *text, uint32_t *nsec) {
    if (*text != '.') {
        return false;
    }
    uint32_t value = 0;
    uint32_t unit = kSecond;
    const char *digit = text + 1;
    for (; *digit >= '0' && *digit <= '9' && unit > 1; digit++) {
        unit /= 10;
        value += static_cast<uint32_t>(*digit - '0') * unit;
    }
    *nsec = value + unit - 1;
    return digit != text + 1 && *digit == ' ';
}

// "01-31 23:59:59.123456 ..."
static bool take_stamp(const char *line, time_t now, stamp *out) {
    struct tm parts = {};
    const char *rest = strptime(line, "%m-%d %H:%M:%S", &parts);
    if (rest == nullptr || !take_fraction(rest, &out->nsec)) {
        return false;
    }
    struct tm today = {};
    localtime_r(&now, &today);
    out->sec = local_time(parts, today.tm_year);
    if (out->sec > now + kDay) {  // a file of last December, read in January
        out->sec = local_time(parts, today.tm_year - 1);
    }
    return true;
}

static bool is_later(const stamp &a, const stamp &b) {
    return a.sec != b.sec ? a.sec > b.sec : a.nsec > b.nsec;
}

std::string resume_after(const char *path, time_t now) {
    FILE *file = fopen(path, "re");
    if (file == nullptr) {
        return "";
    }
    stamp newest;
    stamp found;
    char *line = nullptr;
    size_t size = 0;
    while (getline(&line, &size, file) != -1) {
        if (take_stamp(line, now, &found) && is_later(found, newest)) {
            newest = found;
        }
    }
    free(line);
    fclose(file);
    if (newest.sec == 0) {
        return "";
    }
    char text[48];
    snprintf(text, sizeof text, "%lld.%09u", static_cast<long long>(newest.sec), newest.nsec);
    return text;
}
