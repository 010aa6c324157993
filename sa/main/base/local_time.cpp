// Local time from a remembered offset to UTC.
//
// State: m_offset, the zone's offset in seconds, and m_second, the second in which the C library was asked for it. Written by
// the one thread that holds m_is_asking, read by all. The C library is asked once a second at most, so that a changed zone
// and daylight saving time show a second later at the latest.
//
// Asking takes the C library's time-zone lock and perhaps the heap's. One thread at a time does so, with all signals blocked,
// so it is neither interrupted nor ended while it holds them; the others use the remembered offset meanwhile. A signal
// handler may have interrupted a thread that holds the heap's lock, and a forked child may have lost the thread that was
// asking: both call sa_local_time_hold and never ask.
//
// What is left: a handler that has interrupted a thread anywhere but in the listener's read uses the remembered offset,
// however old it is; zones of the "right/" kind are off by their leap seconds.
#include "sa/main/base/local_time.h"

#include <errno.h>
#include <stdint.h>

#include <atomic>

#include "pub/util/signal_mask.h"

static const int kDay = 86400;

static std::atomic<int32_t> m_offset(0);
static std::atomic<uint32_t> m_second(0);  // the low bits of a time are enough: they are only compared
static std::atomic_flag m_is_asking = ATOMIC_FLAG_INIT;
static std::atomic<int> m_holds(0);

void sa_local_time_hold(void) {
    m_holds.fetch_add(1);
}

void sa_local_time_release(void) {
    m_holds.fetch_sub(1);
}

static void ask_for_offset(time_t when) {
    const int saved_errno = errno;
    sigset_t mask;
    pub_util_block_signals(&mask);
    if (!m_is_asking.test_and_set()) {
        struct tm local;
        tzset();  // localtime_r alone need not notice a changed zone
        m_offset.store(localtime_r(&when, &local) != nullptr ? static_cast<int32_t>(local.tm_gmtoff) : 0);
        m_second.store(static_cast<uint32_t>(when));  // last: who sees the second sees its offset
        m_is_asking.clear();
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
    if (m_second.load() != static_cast<uint32_t>(when) && m_holds.load() == 0) {
        ask_for_offset(when);
    }
    const int64_t local = static_cast<int64_t>(when) + m_offset.load();
    const int64_t second = ((local % kDay) + kDay) % kDay;
    date_of_day((local - second) / kDay, out_ptr);
    out_ptr->hour = static_cast<int>(second / 3600);
    out_ptr->minute = static_cast<int>(second / 60 % 60);
    out_ptr->second = static_cast<int>(second % 60);
}
