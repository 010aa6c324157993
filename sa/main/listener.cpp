// The remote-shell listener. It owns the listener's master; a connection's master goes over to the launcher's waiter
// with the child shell. Main thread alone; no state between requests but the request buffer.
#include "sa/main/listener.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include "sa/main/codes.h"
#include "sa/main/log.h"
#include "sa/main/signals.h"
#include "sa/main/subproc.h"
#include "sa/main/text.h"

static const char kListenerName[] = "/dev/ttysa1";
static const char kKillRequest[] = "host:kill";
static const char kShellRequest[] = "shell:";
static const size_t kShellRequestLength = sizeof(kShellRequest) - 1;
static const int kRequestSize = 1024;
static const int kAcknowledgementSize = 512;
static const mode_t kSlaveMode = 0660;
static const uid_t kSlaveUser = 1000;        // AID_SYSTEM
static const gid_t kSlaveGroup = 1001;       // AID_RADIO
static const tcflag_t kCookedOutput = 0x3B;  // OPOST OLCUC OCRNL ONOCR ONLRET; not all have a name everywhere
static const tcflag_t kCookedLocal = ISIG | ICANON | ECHO | ECHOE;

// ---- pseudo-terminals ----

static void set_ptm_attr(int fd) {
    sa_log_entry();
    struct termios attr;
    int result = tcgetattr(fd, &attr);
    if (result == 0) {
        attr.c_iflag = 0;
        attr.c_oflag &= ~kCookedOutput;
        attr.c_lflag &= ~kCookedLocal;
        result = tcsetattr(fd, TCSANOW, &attr);
    }
    if (result != 0) {
        sa_log_failed_call("tcsetattr", SA_ERR_FAIL);
    }
}

// Gives up a master that cannot be used, with the reason in both logs.
static int abandon_ptm(const char *function, int ptm, const char *call) {
    const int error = errno;
    close(ptm);
    sa_log_platform("%s %s error[%d-%s]", function, call, error, pub_util_error_text(error));
    errno = error;
    sa_log_file_errno_as(function, call);
    return -1;
}

// Publishes a slave under a name, whatever stood there before.
static bool publish(const char *function, const char *devname, const char *name) {
    unlink(name);
    const int ret = symlink(devname, name);
    sa_log_as(function, "ret[%d]", ret);
    return ret == 0;
}

int open_ptm(char *name_ptr) {
    sa_log_entry();
    sa_log("symname[%s]", name_ptr);
    const int ptm = open("/dev/ptmx", O_RDWR | O_CLOEXEC);  // at birth: another thread may fork at any moment
    sa_log("ptm[%d]", ptm);
    if (ptm < 0) {
        sa_log_platform("%s open error[%d-%s]", __func__, errno, pub_util_error_text(errno));
        sa_log_file_errno("open");
        return -1;
    }
    fcntl(ptm, F_SETFD, FD_CLOEXEC);
    char devname[SA_PTM_NAME_SIZE];
    if (grantpt(ptm) != 0 || unlockpt(ptm) != 0 || ptsname_r(ptm, devname, sizeof(devname)) != 0) {
        return abandon_ptm(__func__, ptm, "ptsname");
    }
    sa_log("devname[%s]", devname);
    if (name_ptr[0] == '\0') {
        sa_copy_cut(name_ptr, SA_PTM_NAME_SIZE, devname);
        sa_log("symname[%s]", name_ptr);
    } else if (!publish(__func__, devname, name_ptr)) {
        return abandon_ptm(__func__, ptm, "symlink");
    }
    (void)!chmod(name_ptr, kSlaveMode);
    (void)!chown(name_ptr, kSlaveUser, kSlaveGroup);
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

// Hands a connection to a child shell. Whoever asked for anything else has been announced a connection all the same.
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
        close(fd);  // a launcher that failed has closed it already; twice could hit another thread's descriptor
    }
}

static void serve_request(const char *function, int fd, const char *service) {
    sa_log_as(function, "service[%s]", service);
    if (strcmp(service, kKillRequest) == 0) {
        sa_log_platform("%s exit(0)", function);
        sa_log_file_as(function, "host:kill exit");
        sa_exit(0);  // at once, without teardown: the published names stay, and the next start replaces them
    }
    const int fd_pair = open_ptm_connection(fd);
    sa_log_platform("%s fd_pair[%d]", function, fd);  // the listener here, the connection in the file: known to readers
    sa_log_file_as(function, "fd_pair[%d]", fd_pair);
    if (fd_pair >= 0) {
        handle_service(fd_pair, service);
    }
}

// ---- the loop ----

// The last client has closed the slave: a fresh pseudo-terminal takes the old one's place under the same name.
static int reopen_listener(const char *function, int old_fd, char *name_ptr) {
    close_ptm(old_fd, name_ptr);
    const int fd = open_ptm(name_ptr);
    sa_log_as(function, "reopen fd[%d]", fd);
    return fd;
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
        const int size = static_cast<int>(read(fd, request_a, sizeof(request_a) - 1));
        sa_log("size[%d] service[%s]", size, request_a);
        if (size >= 0) {
            request_a[size] = '\0';
            serve_request(__func__, fd, request_a);
        } else if (errno == EIO) {
            fd = reopen_listener(__func__, fd, name_a);
            is_open = fd >= 0;
        } else {
            sa_log("exit while");
            is_open = false;
        }
    }
    close_ptm(fd, name_a);
    sa_log_platform("%s exit loop", __func__);
    sa_log_file("exit");
    return 0;
}
