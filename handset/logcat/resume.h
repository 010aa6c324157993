// Where an earlier run of logcat has ended.
#ifndef HANDSET_LOGCAT_RESUME_H
#define HANDSET_LOGCAT_RESUME_H

#include <stdint.h>
#include <time.h>

#include <string>

// The newest time stamp at the start of a line of `path`, in nanoseconds since 1970 and rounded up to the last moment
// that is printed like this; 0 without file or stamp. A stamp has no year: it is the latest that is not after `now`.
uint64_t resume_after(const std::string &path, time_t now);

#endif
