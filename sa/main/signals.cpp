// Signals and teardown.
//
// The handler calls ordinary functions, by design. It can, because no thread is ever interrupted in the middle of a log line,
// of the registry of workers or of a step of the channel (signals are blocked there), because the C library's time zone is
// asked for only if the interrupted thread sleeps in the listener's read, and because the end runs no exit handler. State:
// the constant table of names, and how many handlers are running.
#include "sa/main/signals.h"

#include <signal.h>
#include <stdint.h>
#include <unistd.h>

#include <atomic>

#include <cutils/properties.h>

#include "sa/main/base/codes.h"
#include "sa/main/base/local_time.h"
#include "sa/main/base/log.h"
#include "sa/main/base/system.h"
#include "sa/main/listener.h"
#include "sa/sa-handle/collect/log_start.h"
#include "sa/sa-handle/handle.h"

struct sa_signal_row {
    int32_t signo;
    const char *name;
    char action;  // T terminate, A abort, I ignore, S stop, C continue
    const char *description;
};

static const struct sa_signal_row sa_signal_table[] = {
    {1, "SIGHUP", 'T', "Hangup (POSIX)."},
    {2, "SIGINT", 'T', "Terminal interrupt signal (ANSI)."},
    {3, "SIGQUIT", 'A', "Terminal quit signal (POSIX)."},
    {4, "SIGILL", 'A', "Illegal instruction (ANSI)."},
    {5, "SIGTRAP", 'A', "Trace/breakpoint trap (POSIX)."},
    {6, "SIGABRT", 'A', "Process abort signal (ANSI)."},
    {6, "SIGIOT", 'A', "IOT trap (4.2 BSD)."},
    {7, "SIGBUS", 'A', "Access to an undefined portion of a memory object (4.2 BSD)."},
    {8, "SIGFPE", 'A', "Erroneous arithmetic operation (ANSI)."},
    {9, "SIGKILL", 'T', "Kill (cannot be caught or ignored) (POSIX)."},
    {10, "SIGUSR1", 'T', "User-defined signal 1 (POSIX)."},
    {11, "SIGSEGV", 'A', "Invalid memory reference (ANSI)."},
    {12, "SIGUSR2", 'T', "User-defined signal 2 (POSIX)."},
    {13, "SIGPIPE", 'T', "Write on a pipe with no one to read it (POSIX)."},
    {14, "SIGALRM", 'T', "Alarm clock (POSIX)."},
    {15, "SIGTERM", 'T', "Termination signal (ANSI)."},
    {16, "SIGSTKFLT", '?', "Stack fault"},
    {17, "SIGCHLD", 'I', "Child process terminated, stopped (POSIX)."},
    {18, "SIGCONT", 'C', "Continue executing, if stopped (POSIX)."},
    {19, "SIGSTOP", 'S', "Stop executing (cannot be caught or ignored) (POSIX)."},
    {20, "SIGTSTP", 'S', "Terminal stop signal (POSIX)."},
    {21, "SIGTTIN", 'S', "Background process attempting read (POSIX)."},
    {22, "SIGTTOU", 'S', "Background process attempting write (POSIX)."},
    {23, "SIGURG", 'I', "High bandwidth data is available at a socket (4.2 BSD)."},
    {24, "SIGXCPU", 'A', "CPU time limit exceeded (4.2 BSD)."},
    {25, "SIGXFSZ", 'A', "File size limit exceeded (4.2 BSD)."},
    {26, "SIGVTALRM", 'T', "Virtual timer expired (4.2 BSD)."},
    {27, "SIGPROF", 'T', "Profiling timer expired (4.2 BSD)."},
    {28, "SIGWINCH", '?', "Window size change (4.3 BSD, Sun)."},
    {29, "SIGPOLL", 'T', "Pollable event (System V)."},
    {29, "SIGIO", 'T', "I/O now possible (4.2 BSD)."},
    {30, "SIGPWR", '?', "Power failure restart (System V)."},
    {31, "SIGSYS", 'A', "Bad system call."},
    {0xffff, nullptr, '\0', nullptr},
};

static std::atomic<int> m_handlers(0);

const char *sa_get_signal_name(int signo) {
    sa_log_entry();
    if (signo == sa_signal_table[0].signo) {
        return sa_signal_table[0].name;
    }
    for (uint8_t row = 1; sa_signal_table[row].name != nullptr; row++) {
        if (sa_signal_table[row].signo == signo) {
            return sa_signal_table[row].name;
        }
    }
    return "";
}

void sa_deinit_resource(void) {
    sa_log_entry();
    const long ret_val = sa_handle_deinit();
    sa_log_platform("%s exit", __func__);
    sa_log_file("exit ret_val[%ld]", ret_val);
}

void signal_treatment(int signo) {
    const int saved_errno = errno;
    const bool is_nested = m_handlers.fetch_add(1) > 0;
    const bool is_holding = is_nested || !sa_listener_is_waiting();
    if (is_holding) {
        sa_local_time_hold();
    }
    sa_log_entry_both();
    const char *name = sa_get_signal_name(signo);
    sa_log_platform("%s receive signal[%d-%s]", __func__, signo, name);
    sa_log_file("signal[%d-%s]", signo, name);
    sa_deinit_resource();
    if (signo != SIGUSR2) {
        sa_log("exit");
        _exit(0);  // another thread may be inside the loader, stdio or a foreign library: no exit handler may run
    }
    sa_log_platform("ready to kill all child service");
    sa_kill_all_child_service_ex();
    if (property_set("ctl.stop", SA_NAME) != 0) {
        sa_handle_resume();  // init does not stop the agent: it goes on
    }
    sa_log_file("PUB_UTIL_RESET_PROCESS_SIGNAL exit");
    if (is_holding) {
        sa_local_time_release();
    }
    m_handlers.fetch_sub(1);
    errno = saved_errno;
}

void sa_install_signals(void) {
    static const int kHandled[] = {SIGINT, SIGTERM, SIGSEGV, SIGBUS, SIGUSR2};
    for (const int signo : kHandled) {
        signal(signo, signal_treatment);
        // A stop of the interrupted thread, by the handler itself or by +DELETE_LOG meanwhile, would end the handler with the
        // thread: it is blocked until the handler returns.
        struct sigaction action;
        if (sigaction(signo, nullptr, &action) == 0) {
            sigaddset(&action.sa_mask, SIGUSR1);
            sigaction(signo, &action, nullptr);
        }
    }
    sa_system_keep_signals();
}

static void ignore_signal(int) {}

// A handler, not SIG_IGN: programs that the agent runs inherit an ignored signal, but not a handled one.
void sa_survive_failed_writes(void) {
    signal(SIGPIPE, ignore_signal);
    signal(SIGXFSZ, ignore_signal);
}
