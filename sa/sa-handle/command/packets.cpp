// +DATA_PACKETS_LOG: the packet-capture switch. It leaves the tcpdump collector alone, which follows the property.
//
// State: the switch in m_sa_handle, and m_packets_capture_pid, which nothing assigns.
#include <errno.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "sa/main/base/codes.h"
#include "sa/main/base/log.h"
#include "sa/main/base/subproc.h"
#include "sa/sa-handle/command/arguments.h"
#include "sa/sa-handle/command/handlers.h"
#include "sa/sa-handle/command/response.h"

// Always 0: switching off therefore signals process id 0, that is the agent's whole process group, the agent included;
// init starts it again. Kept on purpose.
static const pid_t m_packets_capture_pid = 0;

// A placeholder for a capture of its own: it starts nothing, on purpose.
static int reset_real_capture(void) {
    sa_log_entry();
    sa_log("file_count[%d] file_size[%d]", 0, 0);
    sa_log("need no ipdata");
    return 0;
}

// Runs in the watcher process: waits for a child of the watcher, logs how it ended and exits.
__attribute__((noreturn)) static void watch_packets_capture_child_death(void) {
    sa_log_entry();
    int status = 0;
    pid_t pid;
    do {
        pid = waitpid(-1, &status, WUNTRACED);
    } while (pid > 0 && WIFSTOPPED(status));
    if (pid < 0) {
        sa_log_platform("Packets capture SIGCHLD error in waitpid: %s", pub_util_error_text(errno));
    } else if (pid > 0 && WIFEXITED(status)) {
        sa_log_platform("Process%d exited, status=%d", pid, WEXITSTATUS(status));
        m_sa_handle.m_is_packets_capture = 0;  // the watcher's own copy
    } else if (pid > 0) {
        sa_log_platform("Process%d killed by signal %d", pid, WTERMSIG(status));
        m_sa_handle.m_is_packets_capture = 0;
    }
    _exit(0);
}

// Runs in the first child. It exits at once, so that init adopts the watcher.
__attribute__((noreturn)) static void detach_watcher(void) {
    const pid_t pid = fork();  // this child has one thread
    if (pid < 0) {
        sa_log_platform("error to call fork() to create second child");
    }
    if (pid == 0) {
        reset_real_capture();
        watch_packets_capture_child_death();
    }
    _exit(0);
}

static long packets_capture_process(void) {
    sa_log_entry();
    const pid_t pid = sa_fork();
    if (pid < 0) {
        sa_log_platform("error to call fork() to create first child");
        return SA_ERR_FAIL;
    }
    if (pid == 0) {
        detach_watcher();
    }
    if (waitpid(pid, nullptr, 0) != pid) {
        sa_log_platform("error to call waitpid()");
        return SA_ERR_FAIL;
    }
    return 0;
}

// Unlike the other two switches, this one does not rewrite the settings file.
static long change_packets_capture(uint8_t value) {
    if (value == m_sa_handle.m_is_packets_capture) {
        return 0;
    }
    m_sa_handle.m_is_packets_capture = value;
    if (value != 0) {
        return packets_capture_process();
    }
    kill(m_packets_capture_pid, SIGKILL);
    return 0;
}

long handle_sa_packets_log_set(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg) {
    sa_log_entry();
    if (sa_is_bad_call(fd, req_ptr, rsp_ptr, arg)) {
        return SA_ERR_PARAM;
    }
    uint8_t value = 0;
    if (!sa_take_switch(arg, &value)) {
        sa_log_error(SA_ERR_SYSTEM);
        sa_log_platform("error to sscanf(\"%s\")", arg);
        return send_rsp_err(fd, rsp_ptr, SA_ERR_FAIL);
    }
    return send_rsp_outcome(fd, rsp_ptr, change_packets_capture(value));
}
