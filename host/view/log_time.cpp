// Times of log lines: reading, writing, years and zones. Owns the last offset that was looked up.

#include "view/log_time.h"

#include <unistd.h>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr int64_t OFFSET_STEP_S = 900;  // no zone changes its offset within a quarter of an hour of UTC

// The last answer of named_offset.
std::string m_zone_name;
int64_t m_zone_step = INT64_MIN;
int64_t m_zone_offset = 0;

// The second up to which m_second_text is right, and its text: most neighbours share it.
int64_t m_second = INT64_MIN;
char m_second_text[16];  // "MM-DD hh:mm:ss"

struct text_cursor {
    const char *at;
    const char *end;
};

bool take_digits(text_cursor *in, int count, int *value) {
    *value = 0;
    for (int i = 0; i < count; ++i) {
        if (in->at == in->end || *in->at < '0' || *in->at > '9') {
            return false;
        }
        *value = *value * 10 + (*in->at++ - '0');
    }
    return true;
}

bool take(text_cursor *in, char wanted) {
    if (in->at == in->end || *in->at != wanted) {
        return false;
    }
    ++in->at;
    return true;
}

// "ddd..." as microseconds; further digits are skipped. Result: how many of the six digits there were.
int take_fraction(text_cursor *in, int64_t *us) {
    int digits = 0;
    int64_t unit = SECOND_US;
    *us = 0;
    while (in->at < in->end && *in->at >= '0' && *in->at <= '9') {
        if (digits < 6) {
            unit /= 10;
            *us += (*in->at - '0') * unit;
            ++digits;
        }
        ++in->at;
    }
    return digits;
}

bool take_month_day(text_cursor *in, int *month, int *day) {
    return take_digits(in, 2, month) && take(in, '-') && take_digits(in, 2, day) && *month >= 1 && *month <= 12 &&
           *day >= 1 && *day <= 31;
}

// "hh:mm[:ss[.fraction]]". `*unit` receives the length of what was named last. Result: false for anything else.
bool take_clock(text_cursor *in, int64_t *us, int64_t *unit, int *digits) {
    int hour = 0;
    int minute = 0;
    int second = 0;
    int64_t fraction = 0;
    if (!take_digits(in, 2, &hour) || !take(in, ':') || !take_digits(in, 2, &minute) || hour > 23 || minute > 59) {
        return false;
    }
    *unit = 60 * SECOND_US;
    *digits = 0;
    if (take(in, ':')) {
        if (!take_digits(in, 2, &second) || second > 60) {
            return false;
        }
        *unit = SECOND_US;
        if (take(in, '.')) {
            *digits = take_fraction(in, &fraction);
            for (int i = 0; i < *digits; ++i) {
                *unit /= 10;
            }
        }
    }
    *us = ((hour * 60 + minute) * 60 + second) * SECOND_US + fraction;
    return true;
}

// Days since 1970 of a date in the Gregorian calendar. Years begin in March, so that the leap day is their last.
int64_t days_of(int year, int month, int day) {
    int64_t years = month <= 2 ? year - 1 : year;
    int64_t era = (years >= 0 ? years : years - 399) / 400;
    int64_t year_of_era = years - era * 400;
    int64_t day_of_year = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    return era * 146097 + year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year - 719468;
}

struct tm fields_of(int64_t us) {
    time_t seconds = static_cast<time_t>((us - (us < 0 ? SECOND_US - 1 : 0)) / SECOND_US);
    struct tm fields = {};
    gmtime_r(&seconds, &fields);
    return fields;
}

bool is_leap_year(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int64_t time_in_year(const year_rule &rule, int month, int day, int64_t us_of_day) {
    for (int year = rule.year; year > rule.year - 9; --year) {  // leap years are at most eight years apart
        int64_t us = time_make(year, month, day, us_of_day);
        if (us <= rule.limit && (month != 2 || day != 29 || is_leap_year(year))) {
            return us;
        }
    }
    return time_make(rule.year - 1, month, day, us_of_day);
}

// A name that the C library finds among its zones; it takes any other silently for UTC.
bool has_zone(const std::string &name) {
    static const char usual[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_+-/";
    return !name.empty() && name[0] != '/' && name.find_first_not_of(usual) == std::string::npos &&
           access(("/usr/share/zoneinfo/" + name).c_str(), R_OK) == 0;
}

// Seconds east of UTC in the zone at this time. The environment is as before when it returns.
int64_t look_up_offset(const std::string &name, int64_t utc_s) {
    const char *found = getenv("TZ");
    std::string before = found != nullptr ? found : "";
    setenv("TZ", name.c_str(), 1);
    tzset();
    time_t seconds = static_cast<time_t>(utc_s);
    struct tm fields = {};
    localtime_r(&seconds, &fields);
    if (found != nullptr) {
        setenv("TZ", before.c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();
    return fields.tm_gmtoff;
}

int64_t named_offset(const std::string &name, int64_t utc_us) {
    int64_t step = utc_us / (OFFSET_STEP_S * SECOND_US);
    if (step != m_zone_step || name != m_zone_name) {
        m_zone_name = name;
        m_zone_step = step;
        m_zone_offset = look_up_offset(name, step * OFFSET_STEP_S);
    }
    return m_zone_offset;
}

// "+0100" as seconds.
bool read_offset(const std::string &text, int64_t *seconds) {
    text_cursor in = {text.data(), text.data() + text.size()};
    bool is_west = take(&in, '-');
    int hours = 0;
    int minutes = 0;
    if ((!is_west && !take(&in, '+')) || !take_digits(&in, 2, &hours) || !take_digits(&in, 2, &minutes) ||
        in.at != in.end) {
        return false;
    }
    *seconds = (hours * 60 + minutes) * 60 * (is_west ? -1 : 1);
    return true;
}

}  // namespace

int64_t time_make(int year, int month, int day, int64_t us_of_day) {
    return days_of(year, month, day) * DAY_US + us_of_day;
}

year_rule time_rule(int64_t latest) {
    year_rule rule;
    rule.limit = latest + DAY_US;
    rule.year = fields_of(rule.limit).tm_year + 1900;
    return rule;
}

bool time_read_stamp(const char *text, size_t len, const year_rule &rule, line_time *time) {
    text_cursor in = {text, text + len};
    int month = 0;
    int day = 0;
    int64_t us_of_day = 0;
    int64_t unit = 0;
    if (!take_month_day(&in, &month, &day) || !take(&in, ' ') || !take_clock(&in, &us_of_day, &unit, &time->digits) ||
        time->digits == 0) {
        return false;
    }
    time->us = time_in_year(rule, month, day, us_of_day);
    time->used = static_cast<size_t>(in.at - text);
    return true;
}

bool time_read_date(const char *text, size_t len, line_time *time) {
    text_cursor in = {text, text + len};
    int year = 0;
    int month = 0;
    int day = 0;
    int64_t us_of_day = 0;
    int64_t unit = 0;
    if (!take_digits(&in, 4, &year) || !take(&in, '-') || !take_month_day(&in, &month, &day) ||
        (!take(&in, 'T') && !take(&in, ' ')) || !take_clock(&in, &us_of_day, &unit, &time->digits)) {
        return false;
    }
    time->us = time_make(year, month, day, us_of_day);
    time->used = static_cast<size_t>(in.at - text);
    return true;
}

bool time_read_bound(const std::string &text, int64_t latest, bool is_end, int64_t *us) {
    text_cursor in = {text.data(), text.data() + text.size()};
    text_cursor start = in;
    struct tm today = fields_of(latest);
    int year = 0;
    int month = today.tm_mon + 1;
    int day = today.tm_mday;
    bool has_year = take_digits(&in, 4, &year) && take(&in, '-');
    in = has_year ? in : start;
    if (text.find('-') != std::string::npos &&
        (!take_month_day(&in, &month, &day) || (!take(&in, ' ') && !take(&in, 'T')))) {
        return false;
    }
    int64_t us_of_day = 0;
    int64_t unit = 0;
    int digits = 0;
    if (!take_clock(&in, &us_of_day, &unit, &digits) || in.at != in.end) {
        return false;
    }
    *us = has_year ? time_make(year, month, day, us_of_day) : time_in_year(time_rule(latest), month, day, us_of_day);
    *us += is_end ? unit - 1 : 0;
    return true;
}

void time_append(int64_t us, int digits, std::string *out) {
    int64_t second = us / SECOND_US - (us % SECOND_US < 0 ? 1 : 0);
    if (second != m_second) {
        struct tm fields = fields_of(us);
        strftime(m_second_text, sizeof(m_second_text), "%m-%d %H:%M:%S", &fields);
        m_second = second;
    }
    char fraction[8] = ".      ";
    int64_t rest = us - second * SECOND_US;
    for (int i = 6; i > 0; --i, rest /= 10) {
        if (i <= digits) {
            fraction[i] = static_cast<char>('0' + rest % 10);
        }
    }
    out->append(m_second_text);
    out->append(fraction, digits > 0 ? 7 : 0);
}

bool zone_choose(const std::string &name, const std::string &offset, int64_t utc_us, handset_zone *zone) {
    int64_t seconds = 0;
    bool has_offset = read_offset(offset, &seconds);
    if (has_zone(name) && (!has_offset || utc_us == NO_TIME || named_offset(name, utc_us) == seconds)) {
        zone->name = name;
        return true;
    }
    zone->name.clear();
    zone->offset_s = seconds;
    return has_offset;
}

int64_t zone_local(const handset_zone &zone, int64_t utc_us) {
    int64_t offset_s = zone.name.empty() ? zone.offset_s : named_offset(zone.name, utc_us);
    return utc_us + offset_s * SECOND_US;
}
