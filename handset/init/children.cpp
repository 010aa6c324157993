// Starts every program of a handset and reaps every process that ends.
// State: the descriptor that reports SIGCHLD, and the callback of each process started here that has not ended.
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>

#include "handset/init/init.h"

static const char kPath[] =
    "PATH=/product/bin:/apex/com.android.runtime/bin:/system/bin:/system/xbin:/odm/bin:/vendor/bin:/vendor/xbin";

static int m_signals = -1;
static std::map<pid_t, std::function<void(pid_t, int)>> m_ended;

std::vector<std::string> platform_environment() {
    return {kPath,
            "ANDROID_ROOT=/system",
            "ANDROID_DATA=/data",
            "ANDROID_STORAGE=/storage",
            "EXTERNAL_STORAGE=/sdcard",
            "LD_LIBRARY_PATH=/system/lib"};  // the platform's linker needs no variable for that
}

std::vector<std::string> child_environment() {
    std::vector<std::string> all = platform_environment();
    all.insert(all.end(), options().environment.begin(), options().environment.end());
    return all;
}

static std::vector<char *> pointers(const std::vector<std::string> &texts) {
    std::vector<char *> result;
    for (const std::string &text : texts) {
        result.push_back(const_cast<char *>(text.c_str()));
    }
    result.push_back(nullptr);
    return result;
}

static void default_signals() {
    for (int number = 1; number < NSIG; number++) {
        signal(number, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Given descriptors are above 2, since init itself has 0 to 2 open.
static bool set_streams(const child_setup &setup) {
    for (int i = 0; i < 3; i++) {
        int fd = setup.fds[i];
        if (fd < 0 && i > 0 && !setup.output.empty()) {
            fd = open(setup.output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
        } else if (fd < 0) {
            fd = open("/dev/null", O_RDWR | O_CLOEXEC);
        }
        if (fd < 0 || dup2(fd, i) < 0) {
            return false;
        }
    }
    if (setup.closed_stdin) {
        close(0);
    }
    return true;
}

static bool set_identity(const child_setup &setup) {
    return setgroups(setup.groups.size(), setup.groups.data()) == 0 && setgid(setup.gid) == 0 && setuid(setup.uid) == 0;
}

static bool set_session(const child_setup &setup) {
    if (!setup.terminal) {
        return setpgid(0, 0) == 0;
    }
    return setsid() >= 0 && ioctl(setup.fds[0], TIOCSCTTY, 0) == 0;
}

[[noreturn]] static void run_child(const child_setup &setup) {
    default_signals();
    umask(static_cast<mode_t>(setup.umask));
    if (!set_session(setup) || !set_streams(setup) || chdir(setup.cwd.c_str()) != 0 || !set_identity(setup)) {
        _exit(126);
    }
    std::vector<char *> argv = pointers(setup.argv);
    std::vector<char *> env = pointers(setup.environment);
    if (setup.search) {
        clearenv();
        for (char *variable : env) {
            if (variable != nullptr) {
                putenv(variable);  // execvpe looks argv[0] up in the caller's PATH
            }
        }
        execvpe(argv[0], argv.data(), env.data());
    } else {
        execve(argv[0], argv.data(), env.data());
    }
    _exit(127);
}

// Waits for the end of a pipe whose other end closes when the child executes its program or dies.
static void wait_for_exec(const int *ends) {
    char byte;
    close(ends[1]);
    while (read(ends[0], &byte, 1) < 0 && errno == EINTR) {
    }
    close(ends[0]);
}

pid_t child_start(const child_setup &setup) {
    int ends[2];
    const bool waits = setup.waits_exec && pipe2(ends, O_CLOEXEC) == 0;
    const pid_t pid = fork();
    if (pid == 0) {
        run_child(setup);
    }
    if (waits) {
        wait_for_exec(ends);
    }
    if (pid > 0 && !setup.terminal) {
        setpgid(pid, pid);  // the child does the same; the group must exist when the caller continues
    }
    if (pid > 0) {
        m_ended[pid] = setup.ended;
    }
    return pid;
}

void children_reap() {
    int status;
    for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
        const auto found = m_ended.find(pid);
        if (found == m_ended.end()) {
            journal({"exit", "-", std::to_string(pid), std::to_string(status)});
            continue;
        }
        const std::function<void(pid_t, int)> ended = std::move(found->second);
        m_ended.erase(found);
        ended(pid, status);
    }
}

std::vector<process> processes() {
    std::vector<process> all;
    for (const std::string &name : text_names("/proc")) {
        process p = {atoi(name.c_str()), 0, 0};
        std::string stat;
        char state;
        if (p.pid <= 1 || !text_read_file("/proc/" + name + "/stat", &stat)) {
            continue;
        }
        const size_t close = stat.rfind(')');  // "pid (name) state parent group ..."
        if (close != std::string::npos &&
            sscanf(stat.c_str() + close + 1, " %c %d %d", &state, &p.parent, &p.group) == 3 && state != 'Z' &&
            state != 'X') {
            all.push_back(p);
        }
    }
    return all;
}

void children_end_all() {
    do {
        if (!is_in_place()) {
            kill(-1, SIGKILL);  // everything in this pid namespace
            continue;
        }
        for (const process &p : processes()) {
            if (p.parent == getpid()) {  // orphans become our children
                kill(p.pid, SIGKILL);
            }
        }
    } while (wait(nullptr) > 0);
}

bool children_open() {
    // In place, orphans would go to the container's init. The first process of a pid namespace inherits them anyway.
    prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    sigset_t chld;
    sigemptyset(&chld);
    sigaddset(&chld, SIGCHLD);
    sigprocmask(SIG_BLOCK, &chld, nullptr);
    m_signals = signalfd(-1, &chld, SFD_CLOEXEC | SFD_NONBLOCK);
    return m_signals >= 0 && loop_watch(m_signals, EPOLLIN, [](uint32_t) {
               struct signalfd_siginfo info;
               while (read(m_signals, &info, sizeof(info)) > 0) {
               }
               children_reap();
           });
}
