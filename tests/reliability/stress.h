// Helpers of the stress tests: number of rounds, random choices, the resources of the agent, and the output of a failed round.
//
// In CTest the number of rounds is small; ROUNDS=n in the environment sets it. The random choices depend on a seed, which
// is printed; SEED=n sets it. `tests/reliability/run` sets both.
#ifndef TESTS_RELIABILITY_STRESS_H
#define TESTS_RELIABILITY_STRESS_H

#include <stdint.h>
#include <sys/types.h>

#include <random>
#include <string>
#include <vector>

#include "handset/desk/desk.h"

// Deadline for any event, ms: long enough for a machine that runs many tests at once.
const int kStressLimit = 30000;

// ROUNDS of the environment, otherwise the default number times TIMES of the environment.
int stress_rounds(int ordinary);

class chance {
  public:
    // The seed is SEED of the environment, otherwise random. Prints the seed to standard output.
    chance();
    // 0 to limit - 1.
    int below(int limit);
    bool one_in(int count);
    // Sleeps for a random time, at most this long.
    void wait_up_to(int microseconds);

  private:
    std::mt19937 numbers;
};

// The resources of a process.
struct holdings {
    int descriptors = 0;
    int threads = 0;
    int children = 0;
    int zombies = 0;    // among the children
    long resident = 0;  // KiB
};
holdings holdings_of(desk *h, pid_t pid);
std::string to_text(const holdings &held);

// The processes whose parent this is, zombies included.
std::vector<pid_t> stress_children(desk *h, pid_t pid);
// Thread ids as the handset sees them, main thread first.
std::vector<pid_t> stress_threads(desk *h, pid_t pid);

// The target of a signal. Looked up in advance, because the look-up takes longer than some of the states to be hit.
struct victim {
    pid_t process = -1;  // both as host ids
    pid_t thread = 0;    // 0: the kernel chooses
};
victim find_victim(desk *h, pid_t pid, pid_t thread = 0);
// Sends the signal. Returns false if the target no longer exists.
bool strike(const victim &whom, int signo);

// For the message of a failure: the ends of sa.log and sa.log.1, and the stacks of all threads of the process.
std::string evidence(desk *h, pid_t pid);

#endif
