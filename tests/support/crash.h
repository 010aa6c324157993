// Crashes of the agent, which do not show by its end.
#ifndef TESTS_SUPPORT_CRASH_H
#define TESTS_SUPPORT_CRASH_H

#include <string>

struct desk;

// The agent takes SIGSEGV and SIGBUS for requests to end: teardown, status 0. Only its handler's line in either log tells
// of them: "signal[11-SIGSEGV]" when there is one, else "".
std::string crash_of(desk *h);

#endif
