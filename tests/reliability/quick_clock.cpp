// Makes the wall clock of a process that loads this library run 300 times as fast: a day takes less than five minutes. It is
// computed from the machine's uptime, so all processes agree. No state.
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static const time_t kFaster = 299;

static void read_clock(clockid_t clock, struct timespec *now) {
#ifdef SYS_clock_gettime64
    long long fields[2];  // a 32-bit machine's call for 64-bit times
    syscall(SYS_clock_gettime64, clock, fields);
    now->tv_sec = static_cast<time_t>(fields[0]);
    now->tv_nsec = static_cast<long>(fields[1]);
#else
    syscall(SYS_clock_gettime, clock, now);
#endif
}

extern "C" int clock_gettime(clockid_t clock, struct timespec *now) noexcept {
    read_clock(clock, now);
    if (clock == CLOCK_REALTIME) {
        struct timespec uptime;
        read_clock(CLOCK_MONOTONIC, &uptime);
        now->tv_sec += uptime.tv_sec * kFaster + uptime.tv_nsec / 1000000 * kFaster / 1000;
    }
    return 0;
}

extern "C" time_t time(time_t *out) noexcept {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (out != nullptr) {
        *out = now.tv_sec;
    }
    return now.tv_sec;
}
