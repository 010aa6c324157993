// Local time compared with the C library's, in many zones, over decades and around every change.
#include "sa/main/base/local_time.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <string>
#include <vector>

static const time_t kHour = 3600;
static const time_t kDay = 24 * kHour;
static const time_t kBegin = 365 * kDay;   // 1971
static const time_t kEnd = 24836L * kDay;  // 2037, the last year of 32-bit times

static void set_zone(const char *zone) {
    setenv("TZ", zone, 1);
    tzset();
}

static std::string text_of(const struct sa_local_time_st &local) {
    char text[64];
    snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d", local.year, local.month, local.day, local.hour,
             local.minute, local.second);
    return text;
}

static std::string ours(time_t when) {
    struct sa_local_time_st local;
    sa_local_time(when, &local);
    return text_of(local);
}

static std::string theirs(time_t when) {
    struct tm local;
    char text[64];
    localtime_r(&when, &local);
    strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

static long offset_at(time_t when) {
    struct tm local;
    localtime_r(&when, &local);
    return local.tm_gmtoff;
}

// The moments at which the zone changes its offset.
static std::vector<time_t> changes(time_t begin, time_t end) {
    std::vector<time_t> found;
    for (time_t from = begin; from < end; from += 7 * kDay) {
        time_t low = from;
        time_t high = from + 7 * kDay;
        if (offset_at(low) == offset_at(high)) {
            continue;
        }
        while (high - low > 1) {
            const time_t middle = low + (high - low) / 2;
            (offset_at(middle) == offset_at(from) ? low : high) = middle;
        }
        found.push_back(high);
    }
    return found;
}

class LocalTime : public ::testing::TestWithParam<const char *> {
  protected:
    void SetUp() override {
        set_zone(GetParam());
    }
    void TearDown() override {
        unsetenv("TZ");
        tzset();
    }
};

TEST_P(LocalTime, IsTheCLibrarysOverDecades) {
    for (time_t when = kBegin; when < kEnd; when += 9 * kDay + 5 * kHour + 1237) {
        ASSERT_EQ(ours(when), theirs(when)) << when;
    }
}

TEST_P(LocalTime, FollowsEveryChange) {
    for (const time_t change : changes(kBegin, kEnd)) {
        for (const time_t when : {change - kHour, change - 60, change - 1, change, change + 1, change + kHour}) {
            ASSERT_EQ(ours(when), theirs(when)) << when;
        }
    }
}

// Both hemispheres, half and quarter hours, a change at midnight, a negative summer time, none at all; as rules and by name.
INSTANTIATE_TEST_SUITE_P(Zones, LocalTime,
                         ::testing::Values("UTC0", "CET-1CEST,M3.5.0,M10.5.0/3", "EST5EDT,M3.2.0,M11.1.0",
                                           "AEST-10AEDT,M10.1.0,M4.1.0/3", "IST-1GMT0,M10.5.0,M3.5.0/1", "<+0545>-5:45",
                                           "<-0330>3:30<-0230>,M3.2.0,M11.1.0", "Europe/Berlin", "Asia/Shanghai",
                                           "Australia/Lord_Howe", "America/Sao_Paulo", "Pacific/Apia"));

TEST(LocalTimeZone, ChangeShowsInTheNextSecond) {
    set_zone("UTC0");
    const time_t noon = 1700000000 / 60 * 60;
    EXPECT_EQ(ours(noon), "2023-11-14 22:13:00");
    set_zone("CET-1");
    EXPECT_EQ(ours(noon + 1), "2023-11-14 23:13:01");
    set_zone("EST5");
    EXPECT_EQ(ours(noon - 60), "2023-11-14 17:12:00") << "also after the clock was set back";
    unsetenv("TZ");
    tzset();
}

TEST(LocalTimeZone, IsNotLookedUpWhileHeld) {
    set_zone("UTC0");
    const time_t noon = 1700000000 / 60 * 60;
    ours(noon);
    sa_local_time_hold();
    sa_local_time_hold();
    set_zone("CET-1");
    EXPECT_EQ(ours(noon + 600), "2023-11-14 22:23:00");
    sa_local_time_release();
    EXPECT_EQ(ours(noon + 660), "2023-11-14 22:24:00") << "still held once";
    sa_local_time_release();
    EXPECT_EQ(ours(noon + 660), "2023-11-14 23:24:00");
    unsetenv("TZ");
    tzset();
}

TEST(LocalTimeZone, KnowsTheCalendarsEnds) {
    set_zone("UTC0");
    EXPECT_EQ(ours(0), "1970-01-01 00:00:00");
    EXPECT_EQ(ours(951782399), "2000-02-28 23:59:59");
    EXPECT_EQ(ours(951782400), "2000-02-29 00:00:00");
    EXPECT_EQ(ours(978307199), "2000-12-31 23:59:59");
    EXPECT_EQ(ours(1709251199), "2024-02-29 23:59:59");
    if (sizeof(time_t) == 8) {
        EXPECT_EQ(ours(static_cast<time_t>(4107542399LL)), "2100-02-28 23:59:59");
        EXPECT_EQ(ours(static_cast<time_t>(4107542400LL)), "2100-03-01 00:00:00");
    }
    unsetenv("TZ");
    tzset();
}

TEST(LocalTimeZone, LookKeepsErrno) {
    set_zone("No/Such_Zone");
    errno = ERANGE;
    ours(1234567890);
    EXPECT_EQ(errno, ERANGE);
    unsetenv("TZ");
    tzset();
}
