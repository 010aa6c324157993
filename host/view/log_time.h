#pragma once
// Times of log lines. Every time is the handset's local time in microseconds since 1970, counted as if it were UTC.

#include <cstddef>
#include <cstdint>
#include <string>

constexpr int64_t NO_TIME = INT64_MIN;
constexpr int64_t SECOND_US = 1000000;
constexpr int64_t DAY_US = 86400 * SECOND_US;

// Most log lines carry no year. A line belongs to the latest year in which it is not after `limit`.
struct year_rule {
    int64_t limit = 0;
    int year = 1970;  // of limit
};

// A time as a line has it.
struct line_time {
    int64_t us = NO_TIME;
    int digits = 0;   // of the fraction
    size_t used = 0;  // bytes of the text that the time takes
};

// The handset's time zone.
struct handset_zone {
    std::string name;      // a zone that this machine has, or empty
    int64_t offset_s = 0;  // east of UTC, where there is no name
};

// The time of a date and time of day. Fields out of range carry over, as with timegm().
int64_t time_make(int year, int month, int day, int64_t us_of_day);

// The rule for a set whose last line is from `latest`, with one day of slack.
year_rule time_rule(int64_t latest);

// Reads "MM-DD hh:mm:ss.fff" (one to six digits of fraction). Result: false when the text does not begin with that.
bool time_read_stamp(const char *text, size_t len, const year_rule &rule, line_time *time);

// Reads "YYYY-MM-DDThh:mm:ss.fff"; a blank may stand for the T, and the fraction may be missing.
bool time_read_date(const char *text, size_t len, line_time *time);

// Reads what a person gives as a bound: [YYYY-]MM-DD hh:mm[:ss[.fraction]], or without the date (then it is the day of
// `latest`). `is_end`: the result is the last microsecond of what the text names, else the first.
bool time_read_bound(const std::string &text, int64_t latest, bool is_end, int64_t *us);

// Appends "MM-DD hh:mm:ss.ffffff" with so many digits, padded with blanks to six; with 0 digits ends with the second.
void time_append(int64_t us, int digits, std::string *out);

// Chooses the zone. `name` is taken when this machine has it; `offset` ("+0100", or empty) must then agree with it at
// the time `utc_us` (NO_TIME: unknown). Result: false when neither says anything.
bool zone_choose(const std::string &name, const std::string &offset, int64_t utc_us, handset_zone *zone);

// The local time of a UTC time. Keeps the last offset, since finding one is slow: not thread-safe.
int64_t zone_local(const handset_zone &zone, int64_t utc_us);
