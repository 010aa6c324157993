// The agent's life in stages, each run in a handset of its own with at most one fault, and what came of it.
#ifndef TESTS_FAULTS_STAGE_H
#define TESTS_FAULTS_STAGE_H

#include <functional>
#include <string>
#include <vector>

#include "handset/desk/desk.h"
#include "tests/faults/call.h"

// Whose calls a stage is about.
enum tracee {
    FROM_EXEC,  // the main thread, from the program's first instruction
    EVERYBODY_FROM_EXEC,
    MAIN_THREAD,  // the same once it listens
    COMMAND_THREAD,
    KERNEL_READER,  // the collector's
    WAITER,         // of the logcat child for the main buffer
    EVERYBODY,      // all threads, and every child until its end
};

// A running agent, as a stage sees it.
struct subject {
    desk *h = nullptr;
    pid_t agent = -1;
    pid_t traced = -1;  // thread; -1: the main thread, from the start
    int channel = -1;
};

struct stage {
    std::string name;
    tracee who;
    bool collectors;                              // all of them run
    std::vector<std::string> before;              // requests sent first, "+KERNEL_LOG=1"
    std::function<std::string(subject *)> act;    // what is done under the fault; returns what was seen
    std::vector<std::string> calls = {};          // only these are tried; empty: all
    std::vector<std::string> paths = {};          // and only about paths with one of these as a part; empty: any
    std::function<void(desk_options *)> prepare;  // of the handset, may be empty
    std::function<void(subject *)> resume;        // once nothing fails any more, may be empty
};

// How the agent fares afterwards, when nothing fails any more.
struct health {
    std::string end;  // of the process, empty while it lives: "status 0 after its teardown", "a crash: signal[...]"
    bool has_channel = false;              // AT is answered OK on a fresh connection
    bool left_channel_in_order = false;    // its thread has logged its end
    bool has_shell = false;                // a remote shell runs
    std::vector<std::string> collectors;   // that run, a second one of a kind told twice
    std::vector<std::string> descriptors;  // what they lead to, without numbers
    int threads = 0;
};

struct ending {
    std::string seen;  // by the act
    std::string hit;   // title of the call that failed first; empty: none did
    health state;
    std::vector<std::string> trace;  // what strace wrote
    size_t first = 0;                // line of the trace from which on the calls are the agent's own
};

const std::vector<stage> &stages();

// Runs a stage; null: with no fault, else `plain` is how such a run ended. False when the handset did not come up
// (desk_error()).
bool run_stage(const stage &s, const fault *fault, const ending *plain, ending *end);

// Whether a stage is about all threads and children, not about one thread.
bool traces_children(const stage &s);

// Whether a fault is one that the stage is about.
bool is_concerned(const stage &s, const fault &fault);

// What came of a fault, in words, compared with the run that had none; empty `defect` when such an ending is foreseen.
std::string outcome(const stage &s, const fault &fault, const ending &plain, const ending &end, std::string *defect);
// What is wrong with a run without a fault; empty when nothing is.
std::string plain_defect(const stage &s, const ending &plain);

#endif
