// Local time from a remembered offset to UTC.
//
// State: m_offset, the zone's offset in seconds, and m_minute, the minute of UTC it was looked up for; m_next, the next
// change that the zone's rules foresee within a year. Written by whichever thread holds m_is_looking, read by all. Zones
// change at whole minutes, so one look a minute follows every change, be it daylight saving or a new zone.
//
// Why a log line can never hang here: the look itself takes the C library's time-zone lock (and perhaps the heap's),
// but only one thread at a time goes there, with all signals blocked, so it is neither interrupted nor ended in there;
// everybody else goes on with what is remembered. A signal handler may have interrupted a thread that holds the heap's
// lock, and a forked child may have lost the thread that was looking: both hold the zone and never look, and the change
// that is foreseen keeps them right even after months without a look.
#include "sa/main/local_time.h"

#include <errno.h>
#include <stdint.h>

#include <atomic>

#include "pub/util/signal_mask.h"

static const int kDay = 86400;
static const time_t kProbeStep = 7 * kDay;  // no zone changes twice within a week
static const int kProbes = 53;

// A change of the offset: the minute it comes in (INT32_MAX for none) and the offset from then on. Read as a whole:
// aligned for one access.
struct alignas(8) change_st {
    int32_t minute;
    int32_t offset;
};
static constexpr struct change_st kNone = {INT32_MAX, 0};

static std::atomic<int32_t> m_offset(0);
static std::atomic<int32_t> m_minute(-1);  // minutes since 1970: enough until the year 6053
static std::atomic<struct change_st> m_next(kNone);
static std::atomic_flag m_is_looking = ATOMIC_FLAG_INIT;
static std::atomic<int> m_holds(0);
static_assert(std::atomic<struct change_st>::is_always_lock_free, "a signal handler reads it");

void sa_local_time_hold(void) {
    m_holds.fetch_add(1);
}

void sa_local_time_release(void) {
    m_holds.fetch_sub(1);
}

static int32_t minute_of(time_t when) {
    return static_cast<int32_t>(when / 60);
}

static int32_t offset_at(time_t when) {
    struct tm local;
    return localtime_r(&when, &local) != nullptr ? static_cast<int32_t>(local.tm_gmtoff) : 0;
}

// The first minute with another offset, known to come after `from` and not after `to`.
static time_t find_change(time_t from, time_t to, int32_t offset) {
    while (to - from > 60) {
        const time_t middle = from + (to - from) / 120 * 60;
        if (offset_at(middle) == offset) {
            from = middle;
        } else {
            to = middle;
        }
    }
    return to;
}

// The first change that comes after `minute`, when the offset is `offset`.
static struct change_st foresee_change(time_t minute, int32_t offset) {
    for (int probe = 1; probe <= kProbes; probe++) {
        const int64_t wide = static_cast<int64_t>(minute) + static_cast<int64_t>(probe) * kProbeStep;
        const time_t at = static_cast<time_t>(wide);
        if (at != wide) {
            return kNone;  // the end of a 32-bit time
        }
        if (offset_at(at) != offset) {
            const time_t change = find_change(at - kProbeStep, at, offset);
            return {minute_of(change), offset_at(change)};
        }
    }
    return kNone;
}

static void look_at_zone(time_t when) {
    const int saved_errno = errno;
    sigset_t mask;
    pub_util_block_signals(&mask);
    if (!m_is_looking.test_and_set()) {
        tzset();  // localtime_r alone need not notice a changed zone
        const int32_t offset = offset_at(when);
        const struct change_st next = foresee_change(when - when % 60, offset);
        m_offset.store(offset);  // before m_next: the change that was foreseen counts until its offset is everybody's
        m_next.store(next);
        m_minute.store(minute_of(when));  // last: who sees the minute sees its offset
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
    const int32_t minute = minute_of(when);
    if (m_minute.load() != minute && m_holds.load() == 0) {
        look_at_zone(when);
    }
    const struct change_st next = m_next.load();
    const int32_t offset = minute >= next.minute ? next.offset : m_offset.load();
    const int64_t local = static_cast<int64_t>(when) + offset;
    const int64_t second = ((local % kDay) + kDay) % kDay;
    date_of_day((local - second) / kDay, out_ptr);
    out_ptr->hour = static_cast<int>(second / 3600);
    out_ptr->minute = static_cast<int>(second / 60 % 60);
    out_ptr->second = static_cast<int>(second % 60);
}
