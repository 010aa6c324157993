// Local time for log lines: without the C library's time-zone lock, yet following every change of the zone.
#ifndef SA_MAIN_LOCAL_TIME_H
#define SA_MAIN_LOCAL_TIME_H

#include <time.h>

/** A broken-down local time; month and day count from 1. */
struct sa_local_time_st {
    int year;
    int month;
    int day;
    int hour;
    int minute;
    int second;
};

/**
 * Breaks a time down into local time. Any thread, and with sa_local_time_hold also a signal handler and the child
 * between fork and exec. Takes no lock that can be left held. Keeps errno.
 */
void sa_local_time(time_t when, struct sa_local_time_st *out_ptr);

/**
 * From here to sa_local_time_release nobody looks at the time zone anew; the offset of the last look is used. Called by
 * whoever may have interrupted or lost a thread inside the C library: signal handlers, and children before exec.
 */
void sa_local_time_hold(void);
void sa_local_time_release(void);

#endif
