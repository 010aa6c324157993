// Where an earlier run of logcat stopped.
#ifndef HANDSET_LOGCAT_RESUME_H
#define HANDSET_LOGCAT_RESUME_H

#include <time.h>

#include <string>

// The newest time stamp at the start of a line of `path`, as "S.NNNNNNNNN", rounded up to the end of what its digits
// mean so that the entry itself is not asked for again; "" without file or stamp. Lines hold no year: it is the one
// that makes the stamp the latest one not after `now`.
std::string resume_after(const char *path, time_t now);

#endif
