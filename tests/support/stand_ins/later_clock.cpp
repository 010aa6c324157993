// The clock of whoever loads this library is 20 years ahead: beyond the last second of a 32-bit time. No state.
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static const time_t kAhead = static_cast<time_t>(20) * 365 * 86400;

extern "C" int clock_gettime(clockid_t clock, struct timespec *now) noexcept {
#ifdef SYS_clock_gettime64
    long long fields[2];  // a 32-bit machine's call for 64-bit times
    const long result = syscall(SYS_clock_gettime64, clock, fields);
    now->tv_sec = static_cast<time_t>(fields[0]);
    now->tv_nsec = static_cast<long>(fields[1]);
#else
    const long result = syscall(SYS_clock_gettime, clock, now);
#endif
    if (clock == CLOCK_REALTIME) {
        now->tv_sec += kAhead;
    }
    return static_cast<int>(result);
}

extern "C" time_t time(time_t *out) noexcept {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (out != nullptr) {
        *out = now.tv_sec;
    }
    return now.tv_sec;
}
