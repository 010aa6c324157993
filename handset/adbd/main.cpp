// adbd: the stand-in for the platform's adb daemon. Standard input is a listening socket of the machine, which whoever
// starts it has opened: a handset has a network of its own. Each adb server that connects gets a process of its own,
// which ends with this one.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "stream.h"

// Without it every answer waits for the acknowledgement of the packet before it.
static void send_at_once(int fd) {
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

int main() {
    const pid_t self = getpid();
    signal(SIGCHLD, SIG_IGN);
    for (;;) {
        int fd = accept4(STDIN_FILENO, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            perror("adbd: accept");
            return 1;
        }
        if (fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != self) {
                _exit(1);
            }
            signal(SIGCHLD, SIG_DFL);
            close(STDIN_FILENO);
            send_at_once(fd);
            serve_connection(fd);
            _exit(0);
        }
        close(fd);
    }
}
