// Local time for log lines, without waiting for the C library's time-zone lock.
#ifndef SA_MAIN_BASE_LOCAL_TIME_H
#define SA_MAIN_BASE_LOCAL_TIME_H

#include <time.h>

/** A broken-down local time; month and day count from 1. */
struct sa_local_time_st {
    int year;    // all digits
    int month;   // 1 to 12
    int day;     // 1 to 31
    int hour;    // 0 to 23
    int minute;  // 0 to 59
    int second;  // 0 to 59
};

/**
 * Breaks a time down into local time. Any thread, and with sa_local_time_hold also a signal handler and the child
 * between fork and exec. Takes no lock that can be left held. Keeps errno.
 */
void sa_local_time(time_t when, struct sa_local_time_st *out_ptr);

/**
 * From here to sa_local_time_release no thread asks the C library for the time zone; the remembered offset is used. Called
 * where a thread may have been interrupted or lost inside the C library: in signal handlers, and in children before exec.
 */
void sa_local_time_hold(void);
/** Ends one sa_local_time_hold. */
void sa_local_time_release(void);

#endif
