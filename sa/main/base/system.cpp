// The shell call. State: the two actions, written once by the main thread before there is another thread.
#include "sa/main/base/system.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>

static struct sigaction m_int_action;
static struct sigaction m_quit_action;
static bool m_has_actions = false;

void sa_system_keep_signals(void) {
    m_has_actions = sigaction(SIGINT, nullptr, &m_int_action) == 0 && sigaction(SIGQUIT, nullptr, &m_quit_action) == 0;
}

int sa_system(const char *command) {
    const int result = system(command);
    const int saved_errno = errno;
    // Put back after every call, whatever the call has restored: of two that overlap, the second may have saved "ignore" as
    // the action to restore.
    if (m_has_actions) {
        sigaction(SIGINT, &m_int_action, nullptr);
        sigaction(SIGQUIT, &m_quit_action, nullptr);
    }
    errno = saved_errno;
    return result;
}
