// The names of signals, and the handler called with signals for which it is not installed.
#include "sa/main/signals.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "tests/unit/log_lines.h"

class SignalName : public LogLinesTest {};

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

class SignalTreatment : public LogLinesTest {
  protected:
    // Runs the handler in a process without a channel and expects that it tells of the signal, tears down and ends.
    void expect_told(int signo, const std::string &text) {
        forget();
        const pid_t pid = fork();
        if (pid == 0) {
            signal_treatment(signo);
            _exit(99);
        }
        int status = -1;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(file(), (std::vector<std::string>{"signal_treatment ", "signal_treatment signal[" + text + "]",
                                                    "sa_handle_deinit exit ret_val[-1]",
                                                    "sa_deinit_resource exit ret_val[-1]", "signal_treatment exit"}));
        const std::vector<std::string> told = platform(pid);
        EXPECT_EQ(std::count(told.begin(), told.end(), "signal_treatment receive signal[" + text + "]"), 1);
    }
};

TEST_F(SignalTreatment, OfAnUnknownNumberHasNoName) {
    expect_told(40, "40-");
}

TEST_F(SignalTreatment, OfANumberWithTwoNamesHasTheFirst) {
    expect_told(6, "6-SIGABRT");
}
