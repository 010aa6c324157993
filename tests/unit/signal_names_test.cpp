// The names of signals, row by row.
#include "sa/main/signals.h"
#include "tests/unit/trail.h"

class SignalName : public TrailTest {};

TEST_F(SignalName, IsTheFirstOfItsNumber) {
    static const char *const names[] = {
        "SIGHUP",  "SIGINT",    "SIGQUIT", "SIGILL",   "SIGTRAP", "SIGABRT", "SIGBUS",  "SIGFPE",
        "SIGKILL", "SIGUSR1",   "SIGSEGV", "SIGUSR2",  "SIGPIPE", "SIGALRM", "SIGTERM", "SIGSTKFLT",
        "SIGCHLD", "SIGCONT",   "SIGSTOP", "SIGTSTP",  "SIGTTIN", "SIGTTOU", "SIGURG",  "SIGXCPU",
        "SIGXFSZ", "SIGVTALRM", "SIGPROF", "SIGWINCH", "SIGPOLL", "SIGPWR",  "SIGSYS",
    };
    for (int signo = 1; signo <= 31; signo++) {
        EXPECT_STREQ(sa_get_signal_name(signo), names[signo - 1]) << signo;
    }
}

TEST_F(SignalName, OfAnUnknownNumberIsEmpty) {
    for (const int signo : {0, -1, 32, 40, 64, 256 + 15, 0xffff}) {
        EXPECT_STREQ(sa_get_signal_name(signo), "") << signo;
    }
}

TEST_F(SignalName, LeavesOnlyItsEntryInTheTrail) {
    sa_get_signal_name(6);
    EXPECT_EQ(platform(), std::vector<std::string>{"sa_get_signal_name()"});
    EXPECT_EQ(file(), std::vector<std::string>{});
}
