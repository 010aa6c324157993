// Local time from a remembered offset to UTC.
//
// State: m_offset, the zone's offset in seconds, and m_minute, the minute of UTC it was looked up for; written by
// whichever thread holds m_is_looking, read by all. Zones change at whole minutes, so one look a minute follows every
// change, be it daylight saving or a new zone.
//
// Why a log line can never hang here: the look itself takes the C library's time-zone lock (and perhaps the heap's),
// but only one thread at a time goes there, with all signals blocked, so it is neither interrupted nor ended in there;
// everybody else goes on with the remembered offset. A signal handler may have interrupted a thread that holds the
// heap's lock, and a forked child may have lost the thread that was looking: both hold the zone and never look.
#include "sa/main/local_time.h"

#include <errno.h>
#include <stdint.h>

#include <atomic>

#include "pub/util/signal_mask.h"

static const int64_t kNever = -1;
static const int kDay = 86400;

static std::atomic<int32_t> m_offset(0);
static std::atomic<int32_t> m_minute(static_cast<int32_t>(kNever));  // minutes since 1970: enough until the year 6053
static std::atomic_flag m_is_looking = ATOMIC_FLAG_INIT;
static std::atomic<int> m_holds(0);

void sa_local_time_hold(void) {
    m_holds.fetch_add(1);
}

void sa_local_time_release(void) {
    m_holds.fetch_sub(1);
}

static void look_at_zone(time_t when) {
    const int saved_errno = errno;
    sigset_t mask;
    pub_util_block_signals(&mask);
    if (!m_is_looking.test_and_set()) {
        struct tm local;
        tzset();  // localtime_r alone need not notice a changed zone
        if (localtime_r(&when, &local) != nullptr) {
            m_offset.store(static_cast<int32_t>(local.tm_gmtoff));
            m_minute.store(static_cast<int32_t>(when / 60));  // after the offset: who sees the minute sees its offset
        }
        m_is_looking.clear();
    }
    pub_util_restore_signals(&mask);
    errno = saved_errno;
}

// Days since 1970-01-01 to a date of the Gregorian calendar, counted in eras of 400 years that begin on 1 March.
static void date_of_day(int64_t days, struct sa_local_time_st *out_ptr) {
    const int64_t shifted = days + 719468;
    const int64_t era = (shifted >= 0 ? shifted : shifted - 146096) / 146097;
    const int64_t day_of_era = shifted - era * 146097;
    const int64_t year_of_era = (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    const int64_t day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const int64_t month_from_march = (5 * day_of_year + 2) / 153;
    out_ptr->day = static_cast<int>(day_of_year - (153 * month_from_march + 2) / 5 + 1);
    out_ptr->month = static_cast<int>(month_from_march < 10 ? month_from_march + 3 : month_from_march - 9);
    out_ptr->year = static_cast<int>(year_of_era + era * 400 + (out_ptr->month <= 2 ? 1 : 0));
}

void sa_local_time(time_t when, struct sa_local_time_st *out_ptr) {
    if (m_minute.load() != static_cast<int32_t>(when / 60) && m_holds.load() == 0) {
        look_at_zone(when);
    }
    const int64_t local = static_cast<int64_t>(when) + m_offset.load();
    const int64_t second = ((local % kDay) + kDay) % kDay;
    date_of_day((local - second) / kDay, out_ptr);
    out_ptr->hour = static_cast<int>(second / 3600);
    out_ptr->minute = static_cast<int>(second / 60 % 60);
    out_ptr->second = static_cast<int>(second % 60);
}
