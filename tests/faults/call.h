// System calls as strace shows them, and the errors that each could plausibly end with. No state.
#ifndef TESTS_FAULTS_CALL_H
#define TESTS_FAULTS_CALL_H

#include <set>
#include <string>
#include <vector>

// An error to be injected, in strace's words.
struct fault {
    std::string call;
    std::string path;   // only where the call is about this path or a descriptor of it; empty: wherever it is
    std::string error;  // "ENOSPC"
    std::string when;   // "3": the third such call alone; "3+": that one and all behind it
};

struct traced_call {
    std::string name;
    std::string path;   // what it is about, empty when it is no path
    std::string title;  // for people: "openat /proc/kmsg", "clone3 of a thread"
    int thread = 0;     // that made it; 0 where one thread alone is traced
    bool creates = false;
};

// Splits a line of strace -y; false when the line is no call.
bool parse_call(const std::string &line, traced_call *call);

// Calls that strace has shown in two lines, since another thread came in between, become one, in the place of the first.
std::vector<std::string> whole_calls(const std::vector<std::string> &lines);

// The faults to be tried in a program that was recorded doing this. What stands before the line `first` counts, but is
// left in peace. strace counts in each thread for itself: of many threads, a fault meets all that get as far as it tells.
std::vector<fault> faults_of(const std::vector<std::string> &recording, size_t first);

// Names of the recorded calls from the line `first` on that are neither tried nor left out on purpose.
std::set<std::string> unknown_calls(const std::vector<std::string> &recording, size_t first);

#endif
