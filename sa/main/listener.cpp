// The remote-shell listener. It owns the listener's master; a connection's master belongs to the launcher's waiter once the
// child shell runs. Main thread alone. State: whether that thread waits for a request, for its own signal handlers.
#include "sa/main/listener.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>

#include "pub/pty/pty.h"
#include "sa/main/base/codes.h"
#include "sa/main/base/log.h"
#include "sa/main/base/subproc.h"
#include "sa/main/base/text.h"

static const char kListenerName[] = "/dev/ttysa1";
static const char kKillRequest[] = "host:kill";
static const char kShellRequest[] = "shell:";
static const size_t kShellRequestLength = sizeof(kShellRequest) - 1;
static const int kRequestSize = 1024;
static const int kAcknowledgementSize = 512;

static std::atomic<bool> m_is_waiting(false);

bool sa_listener_is_waiting(void) {
    return m_is_waiting.load() && syscall(SYS_gettid) == getpid();
}

// ---- pseudo-terminals ----

static void set_ptm_attr(int fd) {
    sa_log_entry();
    struct termios attr;
    int result = tcgetattr(fd, &attr);
    if (result == 0) {
        pub_pty_make_raw(&attr);
        result = tcsetattr(fd, TCSANOW, &attr);
    }
    if (result != 0) {
        sa_log_failed_call("tcsetattr", SA_ERR_FAIL);
    }
}

int open_ptm(char *name_ptr) {
    sa_log_entry();
    sa_log("symname[%s]", name_ptr);
    const int ptm = open("/dev/ptmx", O_RDWR | O_CLOEXEC);  // O_CLOEXEC here: another thread may fork at any moment
    sa_log("ptm[%d]", ptm);
    if (ptm < 0) {
        sa_log_platform("%s open error[%d-%s]", __func__, errno, pub_util_error_text(errno));
        sa_log_file_errno("open");
        return -1;
    }
    fcntl(ptm, F_SETFD, FD_CLOEXEC);
    char devname[SA_PTM_NAME_SIZE];
    const char *failed = nullptr;
    if (grantpt(ptm) != 0 || unlockpt(ptm) != 0 || ptsname_r(ptm, devname, sizeof(devname)) != 0) {
        failed = "ptsname";
    } else {
        sa_log("devname[%s]", devname);
        if (name_ptr[0] == '\0') {
            sa_copy_cut(name_ptr, SA_PTM_NAME_SIZE, devname);
            sa_log("symname[%s]", name_ptr);
        } else {
            unlink(name_ptr);
            const int ret = symlink(devname, name_ptr);
            sa_log("ret[%d]", ret);
            failed = ret != 0 ? "symlink" : nullptr;
        }
    }
    if (failed != nullptr) {
        const int error = errno;
        close(ptm);
        sa_log_platform("%s %s error[%d-%s]", __func__, failed, error, pub_util_error_text(error));
        errno = error;
        sa_log_file_errno(failed);
        return -1;
    }
    (void)!chmod(name_ptr, PUB_PTY_MODE);
    (void)!chown(name_ptr, PUB_PTY_USER, PUB_PTY_GROUP);
    set_ptm_attr(ptm);
    return ptm;
}

static void close_ptm(int fd, const char *symname) {
    sa_log_entry();
    sa_log("fd[%d] symname[%s]", fd, symname);
    unlink(symname);
    close(fd);
}

// ---- one request ----

// Makes a connection, announces its slave and waits for the client's acknowledgement. Returns its master, or -1.
static int open_ptm_connection(int fd1) {
    char name_a[SA_PTM_NAME_SIZE] = "";
    char acknowledgement_a[kAcknowledgementSize] = "";
    sa_log_entry();
    sa_log("fd1[%d]", fd1);
    const int fd = open_ptm(name_a);
    sa_log("fd[%d]", fd);
    if (fd < 0) {
        sa_log_platform("%s open_ptm failed", __func__);
        sa_log_file_errno("open_ptm");
        return -1;
    }
    int size = static_cast<int>(write(fd1, name_a, strlen(name_a)));
    sa_log("write size[%d]", size);
    size = static_cast<int>(read(fd1, acknowledgement_a, sizeof(acknowledgement_a)));
    sa_log("read size[%d]", size);
    if (size < 0) {
        const int error = errno;
        close(fd);
        errno = error;
        sa_log_file_errno("read");
        return -1;
    }
    return fd;
}

// Gives a connection to a child shell. Any other request is refused, after its connection has been announced.
static void handle_service(int fd, const char *name) {
    sa_log_entry();
    sa_log("fd[%d] name[%s]", fd, name);
    const bool is_shell = strncmp(name, kShellRequest, kShellRequestLength) == 0;
    const char *command = is_shell ? name + kShellRequestLength : "";
    const int ret = is_shell ? create_subproc_thread(fd, command[0] != '\0' ? command : nullptr) : -1;
    sa_log("ret[%d]", ret);
    if (ret >= 0) {
        fcntl(ret, F_SETFD, FD_CLOEXEC);
    } else if (!is_shell) {
        close(fd);  // a failed launcher has closed it already; a second close could hit another thread's descriptor
    }
}

// ---- the loop ----

static int read_request(int fd, char *request_ptr, size_t size) {
    m_is_waiting.store(true);
    const int count = static_cast<int>(read(fd, request_ptr, size));
    const int saved_errno = errno;
    m_is_waiting.store(false);
    errno = saved_errno;
    return count;
}

int sa_listener_loop(void) {
    sa_log_entry_both();
    char name_a[SA_PTM_NAME_SIZE] = "";
    char request_a[kRequestSize] = "";
    memcpy(name_a, kListenerName, sizeof(kListenerName));

    int fd = open_ptm(name_a);
    sa_log("fd[%d]", fd);
    bool is_open = fd > 0;  // 0 is refused here, though a reopened listener may have it
    while (is_open) {
        const int size = read_request(fd, request_a, sizeof(request_a) - 1);
        sa_log("size[%d] service[%s]", size, request_a);
        if (size < 0 && errno == EIO) {  // the last client has closed the slave: a fresh one takes over the name
            close_ptm(fd, name_a);
            fd = open_ptm(name_a);
            sa_log("reopen fd[%d]", fd);
            is_open = fd >= 0;
            continue;
        }
        if (size < 0) {
            sa_log("exit while");
            break;
        }
        request_a[size] = '\0';
        sa_log("service[%s]", request_a);
        if (strcmp(request_a, kKillRequest) == 0) {
            sa_log_platform("%s exit(0)", __func__);
            sa_log_file("host:kill exit");
            _exit(0);  // at once, without teardown: the published names stay, and the next start replaces them
        }
        const int fd_pair = open_ptm_connection(fd);
        sa_log_platform("%s fd_pair[%d]", __func__, fd);  // the listener here, the connection in the file: on purpose
        sa_log_file("fd_pair[%d]", fd_pair);
        if (fd_pair >= 0) {
            handle_service(fd_pair, request_a);
        }
    }
    close_ptm(fd, name_a);
    sa_log_platform("%s exit loop", __func__);
    sa_log_file("exit");
    return 0;
}
