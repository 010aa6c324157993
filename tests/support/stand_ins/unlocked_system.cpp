// Preloaded into the agent: `system` as some C libraries have it. It ignores SIGINT and SIGQUIT while the command runs and
// restores both actions afterwards without a lock, so that calls that overlap may leave them ignored. No state.
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

static const int kIgnored[] = {SIGINT, SIGQUIT};

extern "C" int system(const char *command) {
    struct sigaction saved_a[2];
    struct sigaction ignore = {};
    sigset_t child_signal;
    sigset_t mask;
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&child_signal);
    sigaddset(&child_signal, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &child_signal, &mask);
    for (int index = 0; index < 2; index++) {
        sigaction(kIgnored[index], &ignore, &saved_a[index]);
    }
    int status = -1;
    const pid_t pid = fork();
    if (pid == 0) {
        for (int index = 0; index < 2; index++) {
            sigaction(kIgnored[index], &saved_a[index], nullptr);
        }
        pthread_sigmask(SIG_SETMASK, &mask, nullptr);
        execl("/system/bin/sh", "sh", "-c", command, static_cast<char *>(nullptr));
        _exit(127);
    }
    while (pid > 0 && waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    for (int index = 0; index < 2; index++) {
        sigaction(kIgnored[index], &saved_a[index], nullptr);
    }
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    return status;
}
