// Launcher and waiters.
//
// Between fork and exec a child shares its memory image with threads that no longer exist. It therefore only makes
// system calls and writes log lines (see log.cpp for why those meet no lock); it never touches the heap or stdio.
// No state: a waiter owns its record and its descriptor.
#include "sa/main/base/subproc.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "pub/util/signal_mask.h"
#include "sa/main/base/codes.h"
#include "sa/main/base/local_time.h"
#include "sa/main/base/log.h"

static const char kShell[] = "/system/bin/sh";
static const char kNullDevice[] = "/dev/null";
static const char kPacketCapture[] = "tcpdump";
static const useconds_t kLaunchPause = 100000;  // µs after a command child
static const useconds_t kClosePause = 200000;   // µs in which a client can still read a child's last output
static const size_t kWaiterStack = 256 * 1024;  // a waiter writes log lines and nothing else
static const int kExecFailed = -1;              // 255 as the waiter sees it

// ---- both kinds of children ----

// The agent's handlers must not run in a child; and SIGINT and SIGQUIT are ignored while another thread is in `system`.
static void default_signals(void) {
    static const int handled_a[] = {SIGINT, SIGQUIT, SIGTERM, SIGSEGV, SIGBUS, SIGUSR1, SIGUSR2, SIGPIPE, SIGXFSZ};
    for (const int signo : handled_a) {
        signal(signo, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    pub_util_restore_signals(&none);
}

pid_t sa_fork(void) {
    sigset_t mask;
    pub_util_block_signals(&mask);
    const pid_t pid = fork();
    if (pid == 0) {
        sa_local_time_hold();  // until exec
        default_signals();
        return 0;
    }
    const int saved_errno = errno;
    pub_util_restore_signals(&mask);
    errno = saved_errno;
    return pid;
}

// Makes `fd` the child's three streams and closes it, unless it is one of them.
static void take_streams(const char *log_name, int fd) {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; stream++) {
        if (dup2(fd, stream) < 0) {
            sa_log_platform("%s dup2 error[%d-%s]", log_name, errno, pub_util_error_text(errno));
            sa_log_file_errno_as(log_name, "dup2");
            _exit(kExecFailed);  // a program must not run on the agent's own streams
        }
    }
    if (fd > STDERR_FILENO) {
        close(fd);
    } else {
        fcntl(fd, F_SETFD, 0);  // it was close-on-exec
    }
}

// Gives the child the ordinary out-of-memory score: it must not inherit the agent's protection.
static void allow_out_of_memory_kill(const char *log_name) {
    char text_a[64];
    snprintf(text_a, sizeof(text_a), "/proc/%d/oom_adj", getpid());
    sa_log_as(log_name, "text[%s]", text_a);
    const int fd = open(text_a, O_WRONLY | O_CLOEXEC);
    sa_log_as(log_name, "fdoo[%d]", fd);
    if (fd < 0) {
        sa_log_platform("%s open(fdoo) error[%d-%s]", log_name, errno, pub_util_error_text(errno));
        sa_log_file_errno_as(log_name, "open");
        return;
    }
    if (write(fd, "0", 1) < 0) {
        sa_log_platform("%s write(fdoo) error[%d-%s]", log_name, errno, pub_util_error_text(errno));
        sa_log_file_errno_as(log_name, "write");
    }
    close(fd);
}

// A descriptor that another thread opened in the moment of the fork may not be marked close-on-exec yet. It is marked, not
// closed: if the exec fails, the platform log still needs its own descriptor. Older kernels refuse the call, which is accepted.
static void mark_other_descriptors(void) {
#ifdef SYS_close_range
    const unsigned mark_close_on_exec = 1U << 2;
    syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, mark_close_on_exec);
#endif
}

// The program could not be executed: says so in the log and on the child's own error stream, and ends the child.
__attribute__((noreturn)) static void end_unexecuted(const char *log_name, const char *call, const char *program,
                                                     int ret_val) {
    char text_a[512];
    const int error = errno;
    sa_log_platform("%s %s(%s) ret_val[%d] error[%d-%s]", log_name, call, program, ret_val, error,
                    pub_util_error_text(error));
    sa_log_file_errno_as(log_name, call);
    const int length = snprintf(text_a, sizeof(text_a), "%s %s(%s) errno[%d-%s] -\n", log_name, call, program, error,
                                pub_util_error_text(error));
    const size_t size = length < static_cast<int>(sizeof(text_a)) ? static_cast<size_t>(length) : sizeof(text_a) - 1;
    (void)!write(STDERR_FILENO, text_a, size);
    _exit(kExecFailed);
}

// ---- waiters ----

int subproc_waiter_service(int fd, int pid) {
    sa_log("fd[%d] pid[%d]", fd, pid);
    int status = 0;
    pid_t result;
    do {  // by design there is no other way out: the child is this thread's alone to reap
        result = waitpid(pid, &status, 0);
        sa_log_platform("%s status[%d] p[%d]", __func__, status, result);
        sa_log_file("p[%d] status[%d]", result, status);
    } while (result != pid);

    sa_log("fd[%d] pid[%d]", fd, pid);
    if (WIFSIGNALED(status)) {
        sa_log_platform("%s Killed by signal[%d]", __func__, WTERMSIG(status));
        sa_log_file("pid[%d] killed by signal[%d]", pid, WTERMSIG(status));
    } else if (!WIFEXITED(status)) {
        sa_log_platform("%s Didn't exit!!. status[%d]", __func__, status);
        sa_log_file("pid[%d] terminated abnormally", pid);
    } else {
        sa_log_platform("%s Exit code[%d]", __func__, WEXITSTATUS(status));
        sa_log_file("pid[%d] exit code[%d]", pid, WEXITSTATUS(status));
    }
    sa_log_platform("%s shell exited fd[%d] pid[%d] errno[%d]", __func__, fd, pid, errno);
    sa_log_file("pid[%d] exit errno[%d-%s]", pid, errno, pub_util_error_text(errno));
    usleep(kClosePause);
    return close(fd);
}

void *service_bootstrap_func(void *info_ptr) {
    struct stinfo *st_ptr = static_cast<struct stinfo *>(info_ptr);
    pub_util_restore_signals(&st_ptr->mask);
    sa_log_entry();
    sa_log_platform("fd[%d] pid[%d]", st_ptr->fd, st_ptr->pid);
    st_ptr->func(st_ptr->fd, st_ptr->pid);
    free(st_ptr);
    return nullptr;
}

// All signals are blocked meanwhile: some C libraries hold a lock inside pthread_create that pthread_kill wants, and the
// handler of SIGUSR2 calls that. The thread takes its creator's mask on by itself.
int thread_create(pthread_t *id_ptr, struct stinfo *info_ptr) {
    sa_log_entry();
    pthread_attr_t attr;
    sigset_t mask;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attr, kWaiterStack);
    pub_util_block_signals(&mask);
    info_ptr->mask = mask;
    const int result = pthread_create(id_ptr, &attr, service_bootstrap_func, info_ptr);
    pub_util_restore_signals(&mask);
    // A detached thread may be gone by now; its id is still good for a log line.
    sa_log_file("thd[%d] pthread[%lu]", result, static_cast<unsigned long>(*id_ptr));
    return result;
}

// Starts the waiter of a child that runs. On failure the child goes on unwatched, and `fd` is closed.
// `notice`, if any, goes to standard output when there is no memory.
static bool watch_child(const char *log_name, int fd, int pid, const char *notice) {
    struct stinfo *st_ptr = static_cast<struct stinfo *>(malloc(sizeof(*st_ptr)));
    if (st_ptr == nullptr) {
        const int error = errno;
        close(fd);
        (void)!write(STDOUT_FILENO, notice, strlen(notice));
        errno = error;
        sa_log_platform("%s malloc error[%d-%s]", log_name, errno, pub_util_error_text(errno));
        sa_log_file_errno_as(log_name, "malloc");
        return false;
    }
    st_ptr->func = subproc_waiter_service;
    st_ptr->fd = fd;
    st_ptr->pid = pid;
    pthread_t thread_id = 0;
    const int result = thread_create(&thread_id, st_ptr);
    if (result != 0) {
        free(st_ptr);
        close(fd);
        errno = result;  // the call returns its error
        sa_log_platform("%s thread_create error[%d-%s]", log_name, errno, pub_util_error_text(errno));
        sa_log_file_errno_as(log_name, "thread_create");
        return false;
    }
    return true;
}

// ---- shell children ----

int create_subprocess(int fd, const char *arg0, const char *arg1, int *pid_ptr) {
    sa_log_entry();
    const pid_t pid = sa_fork();
    const int fork_errno = errno;
    *pid_ptr = pid;
    sa_log("fd[%d] cmd[%s] arg0[%s] arg1[%s] pid[%d]", fd, kShell, arg0, arg1 != nullptr ? arg1 : "(null)", pid);
    if (pid < 0) {
        sa_log("fork errno[%d-%s]", fork_errno, pub_util_error_text(fork_errno));
        close(fd);
        errno = fork_errno;
        return -1;
    }
    if (pid == 0) {
        setsid();
        take_streams(__func__, fd);
        allow_out_of_memory_kill(__func__);
        sa_log_file("child process pid[%d]", getpid());
        mark_other_descriptors();
        const int ret_val = execl(kShell, kShell, arg0, arg1, static_cast<char *>(nullptr));
        end_unexecuted(__func__, "execl", kShell, ret_val);
    }
    sa_log_file("parent process");
    return fd;
}

int create_subproc_thread(int fd, const char *name) {
    sa_log("fd[%d] name[%s]", fd, name != nullptr ? name : "(null)");
    int pid = 0;
    const int ret_fd = create_subprocess(fd, name != nullptr ? "-c" : "-", name, &pid);
    sa_log("ret_fd[%d] pid[%d]", ret_fd, pid);
    if (ret_fd < 0) {
        sa_log_platform("%s create_subprocess error[%d-%s]", __func__, errno, pub_util_error_text(errno));
        sa_log_file_errno("create_subprocess");
        return -1;
    }
    if (!watch_child(__func__, fd, pid, "malloc stinfo failed")) {
        return -1;
    }
    return fd;
}

// ---- command children ----

static void take_identity_of_packet_capture(void) {
    setsid();
    umask(077);
    (void)!chdir("/");
    (void)!setuid(0);
    (void)!setgid(getegid());
}

// Forks a command child. Returns the descriptor, or -1, with it closed, when the fork failed. Does not return in the child.
static int create_subprocess_ex(int fd, const char *cmd, char *const argv[], int *pid_ptr) {
    sa_log_entry();
    const pid_t pid = sa_fork();
    const int fork_errno = errno;
    *pid_ptr = pid;
    sa_log("fd[%d] cmd[%s] arg0_size[%d] pid[%d]", fd, cmd, argv[0] != nullptr ? static_cast<int>(strlen(argv[0])) : 0,
           pid);
    if (pid < 0) {
        sa_log("fork errno[%d-%s]", fork_errno, pub_util_error_text(fork_errno));
        close(fd);
        errno = fork_errno;
        return -1;
    }
    if (pid > 0) {
        sa_log_file("parent process");
        return fd;
    }
    const bool is_packet_capture = strstr(cmd, kPacketCapture) != nullptr;
    sa_log("tcpdump[%d]", is_packet_capture ? 1 : 0);
    if (is_packet_capture) {
        take_identity_of_packet_capture();
    } else {
        setpgid(0, getpid());
        setsid();  // refused, since the child leads a group by now; the order is kept as it is
    }
    take_streams(__func__, fd);
    allow_out_of_memory_kill(__func__);
    if (!is_packet_capture && setgid(SA_AID_LOG) != 0) {
        sa_log_platform("%s setgid(AID_LOG) error[%d-%s]", __func__, errno, pub_util_error_text(errno));
        sa_log_file_errno("setgid");
        _exit(-1);
    }
    if (!is_packet_capture && setuid(SA_AID_SHELL) != 0) {
        sa_log_platform("%s setuid(AID_SHELL) error[%d-%s]", __func__, errno, pub_util_error_text(errno));
        sa_log_file_errno("setuid");
        _exit(-1);
    }
    sa_log_file("child process pid[%d]", getpid());
    mark_other_descriptors();
    const int ret_val = execvp(cmd, argv);
    end_unexecuted(__func__, "execvp", cmd, ret_val);
}

static int create_subproc_thread_ex(int fd, const char *cmd, char *const argv[], int param_size) {
    sa_log_entry();
    sa_log("fd[%d] cmd[%s] param_size[%d]", fd, cmd, param_size);
    int pid = 0;
    const int ret_fd = create_subprocess_ex(fd, cmd, argv, &pid);
    sa_log("ret_fd[%d] pid[%d]", ret_fd, pid);
    if (ret_fd < 0) {
        sa_log_platform("%s create_subprocess_ex error[%d-%s]", __func__, errno, pub_util_error_text(errno));
        sa_log_file_errno("create_subprocess_ex");
        return -1;
    }
    if (!watch_child(__func__, ret_fd, pid, "")) {
        return -1;
    }
    sa_log("pid[%d]", pid);
    return pid;
}

int sa_create_subproc_thread(const char *cmd, char *const argv[], int param_size) {
    sa_log_entry();
    if (cmd == nullptr || argv == nullptr) {
        sa_log("parameters invalid");
        return -1;
    }
    sa_log("cmd[%s] param_size[%d]", cmd, param_size);
    const int fd = open(kNullDevice, O_RDWR | O_CLOEXEC);
    sa_log("fd[%d]", fd);
    if (fd <= 0) {  // a descriptor 0 is refused too, and left open: the free standard input stays taken from now on
        sa_log_platform("%s open error[%d-%s]", __func__, errno, pub_util_error_text(errno));
        sa_log_file_errno("open");
        return -1;
    }
    const int ret = create_subproc_thread_ex(fd, cmd, argv, param_size);
    sa_log("ret[%d]", ret);
    usleep(kLaunchPause);
    return ret;
}
