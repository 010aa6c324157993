// What storms share: how many rounds, by which chance, what the agent holds, and what to show when a round has failed.
//
// A storm's number of rounds is small in CTest; ROUNDS=n in the environment asks for more. Its chance begins with a seed
// that is printed; SEED=n repeats it. `tests/reliability/run` sets both.
#ifndef TESTS_RELIABILITY_STORM_H
#define TESTS_RELIABILITY_STORM_H

#include <stdint.h>
#include <sys/types.h>

#include <random>
#include <string>
#include <vector>

#include "handset/desk/desk.h"

// How long a storm waits for anything, ms: enough for a machine that runs many tests at once.
const int kStormLimit = 30000;

// ROUNDS of the environment, or else the ordinary number, TIMES times.
int storm_rounds(int ordinary);

class chance {
  public:
    // Seeded by SEED of the environment or else by the machine; tells on standard output which seed it is.
    chance();
    // 0 to limit - 1.
    int below(int limit);
    bool one_in(int count);
    // Sleeps at most this long: the random moment of a storm.
    void wait_up_to(int microseconds);

  private:
    std::mt19937 numbers;
};

// What a process holds.
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
std::vector<pid_t> storm_children(desk *h, pid_t pid);
// Thread ids as the handset sees them, main thread first.
std::vector<pid_t> storm_threads(desk *h, pid_t pid);

// Whom a signal is meant for. Found beforehand, since finding takes longer than some of the moments that matter.
struct victim {
    pid_t process = -1;  // both as the machine sees them
    pid_t thread = 0;    // 0: whichever the kernel takes
};
victim find_victim(desk *h, pid_t pid, pid_t thread = 0);
// False when it is not there any more.
bool strike(const victim &whom, int signo);

// For a failure's message: the ends of sa.log and sa.log.1, and what each thread of the process is in.
std::string evidence(desk *h, pid_t pid);

#endif
