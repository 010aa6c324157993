// Pseudo-terminal endpoints. All state is in the caller's record.
#include "pub/pty/pty.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include "pub/pub_codes.h"
#include "pub/util/pub_log.h"
#include "pub/util/util.h"

static const char kPtmx[] = "/dev/ptmx";
static const int kDevicePathSize = 512;

// Output processing that must not change raw bytes. OLCUC and ONOCR have no name everywhere; ONLCR is harmless without OPOST.
static const tcflag_t kCookedOutput = 0x3B;
static const tcflag_t kCookedLocal = ISIG | ICANON | ECHO | ECHOE;

int32_t pub_pty_delete_mapping(struct pub_pty_st *pty_ptr) {
    pub_log_entry();
    if (pty_ptr == nullptr) {
        pub_log_error(PUB_ERR_PARAM);
        pub_log_plain("[PTY]%d", 1);
        return PUB_ERR_PARAM;
    }
    const char *mapping = pty_ptr->m_pts_mapping_name_a;
    if (access(mapping, F_OK) != 0) {
        pub_log_plain("WARNING !");
        pub_log("\"%s\" does not exist", mapping);
        return 0;
    }
    const int result = unlink(mapping);
    pub_log("unlink(%s) ret_val[%d]", mapping, result);
    if (result != 0) {
        pub_log_failed_call("unlink", PUB_ERR_SYSTEM);
        return PUB_ERR_SYSTEM;
    }
    return 0;
}

int32_t pub_pty_close(struct pub_pty_st *pty_ptr) {
    pub_log_entry();
    if (pty_ptr == nullptr || pty_ptr->m_ptm_fd < 0) {
        pub_log_error(PUB_ERR_PARAM);
        pub_log_plain("%d, %d", pty_ptr == nullptr ? 1 : 0, pty_ptr != nullptr && pty_ptr->m_ptm_fd < 0 ? 1 : 0);
        return PUB_ERR_FAIL;
    }
    const int32_t result = pub_pty_delete_mapping(pty_ptr);
    pub_log("pub_pty_delete_mapping ret_val[%d]", result);
    if (result != 0) {
        return result;  // the master stays open on purpose: the published name still leads to it
    }
    memset(pty_ptr->m_pts_name_a, 0, sizeof(pty_ptr->m_pts_name_a));
    close(pty_ptr->m_ptm_fd);
    pty_ptr->m_ptm_fd = -1;
    return 0;
}

// After a failed step: the caller learns of the call that failed, not of the clean-up.
static void close_after_failure(struct pub_pty_st *pty_ptr) {
    const int saved_errno = errno;
    pub_pty_close(pty_ptr);
    errno = saved_errno;
}

// Takes the slave's name into the record; a longer one is cut, not refused.
static void take_slave_name(struct pub_pty_st *pty_ptr, const char *name) {
    const int limit = static_cast<int>(sizeof(pty_ptr->m_pts_name_a)) - 1;
    const int length = static_cast<int>(strlen(name));
    if (length > limit) {
        pub_log_plain("WARNING !");
        pub_log_plain("[PTY]%d > %d", length, limit);
    }
    memset(pty_ptr->m_pts_name_a, 0, sizeof(pty_ptr->m_pts_name_a));
    memcpy(pty_ptr->m_pts_name_a, name, static_cast<size_t>(length > limit ? limit : length));
}

// Takes the slave's name and publishes the slave under the mapping name. Mode and owner go through the link to the slave
// itself. The line of the chown shows the result of the chmod: the chown's own is deliberately not examined.
static int32_t create_pts_mapping(struct pub_pty_st *pty_ptr) {
    const char *mapping = pty_ptr->m_pts_mapping_name_a;
    const char *slave = pty_ptr->m_pts_name_a;
    char name_a[kDevicePathSize];  // ptsname's own buffer is shared with the threads that open other pseudo-terminals
    int32_t ret_val = PUB_ERR_SYSTEM;
    int result = 0;
    int error = 0;
    pub_log_entry();
    if (pty_ptr->m_ptm_fd < 0 || mapping[0] == '\0') {
        pub_log_error(PUB_ERR_PARAM);
        pub_log_plain("[PTY]%d, %d, %d", 0, pty_ptr->m_ptm_fd < 0 ? 1 : 0, mapping[0] == '\0' ? 1 : 0);
        close_after_failure(pty_ptr);
        return PUB_ERR_PARAM;
    }
    error = ptsname_r(pty_ptr->m_ptm_fd, name_a, sizeof(name_a));
    pub_log("pts_name_ptr[%s]", error == 0 ? name_a : "(null)");
    if (error != 0) {
        errno = error;
        pub_log_plain("sys call: %s() failed! errno = %d", "ptsname", error);
        pub_log("m_pts_name_a[%s] ret_val[%d]", slave, ret_val);
        goto done;
    }
    take_slave_name(pty_ptr, name_a);
    pub_log("m_pts_name_a[%s] ret_val[%d]", slave, 0);

    result = unlink(mapping);
    pub_log("unlink(%s) ret_val[%d]", mapping, result);
    if (result == 0) {  // else nothing was there
        pub_log(access(mapping, F_OK) == 0 ? "\"%s\" exists" : "\"%s\" not exists", mapping);
    }
    result = symlink(slave, mapping);
    error = errno;
    pub_log("symlink(%s, %s) ret_val[%d]", slave, mapping, result);
    if (result != 0) {
        pub_log_failed_call("symlink", PUB_ERR_FAIL);
        pub_log_error(PUB_ERR_SYSTEM);
        pub_log_plain("[PTY]map %s -> %s failed", slave, mapping);
        goto done;
    }
    result = chmod(mapping, PUB_PTY_MODE);
    error = errno;
    pub_log("chmod(%s, %d) ret_val[%d]", mapping, PUB_PTY_MODE, result);
    ret_val = result == 0 ? 0 : PUB_ERR_SYSTEM;
    if (result != 0) {
        pub_log_failed_call("chmod", PUB_ERR_SYSTEM);
    }
    (void)!chown(mapping, PUB_PTY_USER, PUB_PTY_GROUP);
    pub_log("chown(%s, %d, %d) ret_val[%d]", mapping, PUB_PTY_USER, PUB_PTY_GROUP, ret_val);
    if (result != 0) {
        pub_log_failed_call("chown", PUB_ERR_SYSTEM);
    }
done:
    pub_log("m_pts_mapping_name_a[%s] ret_val[%d]", mapping, ret_val);
    if (ret_val != 0) {
        pub_pty_delete_mapping(pty_ptr);
        pub_pty_close(pty_ptr);
        errno = error;
    }
    return ret_val;
}

void pub_pty_make_raw(struct termios *attr_ptr) {
    attr_ptr->c_iflag = 0;
    attr_ptr->c_oflag &= ~kCookedOutput;
    attr_ptr->c_lflag &= ~kCookedLocal;
}

// Prepares a master with four calls, in order, each logged; stops at the first that fails.
static int32_t set_ptm_attr(struct pub_pty_st *pty_ptr) {
    pub_log_entry();
    const int fd = pty_ptr->m_ptm_fd;
    if (fd < 0) {
        pub_log_error(PUB_ERR_PARAM);
        close_after_failure(pty_ptr);
        return PUB_ERR_PARAM;
    }
    pub_log("fd[%d]", fd);
    static const char *const kCalls[] = {"tcgetattr", "tcsetattr", "grantpt", "unlockpt"};
    struct termios attr;
    for (int step = 0; step < 4; step++) {
        int result = 0;
        switch (step) {
            case 0: result = tcgetattr(fd, &attr); break;
            case 1:
                pub_pty_make_raw(&attr);
                result = tcsetattr(fd, TCSANOW, &attr);
                break;
            case 2: result = grantpt(fd); break;
            default: result = unlockpt(fd); break;
        }
        if (result != 0) {
            pub_log_failed_call(kCalls[step], PUB_ERR_SYSTEM);
        }
        pub_log("%s(%d) ret_val[%d]", kCalls[step], fd, result);
        if (result != 0) {
            pub_log("fd[%d] ret_val[%d]", fd, PUB_ERR_SYSTEM);
            close_after_failure(pty_ptr);
            return PUB_ERR_SYSTEM;
        }
    }
    pub_log("fd[%d] ret_val[%d]", fd, 0);
    return 0;
}

// Opened with no flag but the access mode; marked afterwards, since a child that runs a program must not get the channel.
static int open_master(void) {
    const int fd = open(kPtmx, O_RDWR);
    if (fd >= 0) {
        fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    return fd;
}

int32_t pub_pty_open(struct pub_pty_st *pty_ptr) {
    pub_log_entry();
    if (pty_ptr == nullptr) {
        pub_log_error(PUB_ERR_PARAM);
        return PUB_ERR_PARAM;
    }
    pub_log("m_ptm_fd[%d]", pty_ptr->m_ptm_fd);
    if (pty_ptr->m_ptm_fd > 0) {  // 0 is a zeroed record: closing it would close standard input
        pub_pty_close(pty_ptr);
    }
    pty_ptr->m_ptm_fd = open_master();
    pub_log("m_ptm_fd[%d]", pty_ptr->m_ptm_fd);
    if (pty_ptr->m_ptm_fd < 0) {
        pub_log_failed_call("open", PUB_ERR_SYSTEM);
        close_after_failure(pty_ptr);
        return PUB_ERR_SYSTEM;
    }
    int32_t result = create_pts_mapping(pty_ptr);
    if (result == 0) {
        result = set_ptm_attr(pty_ptr);
    }
    if (result == 0 && pty_ptr->is_nonblock_mode != 0) {
        result = pub_util_set_fd_mode(pty_ptr->m_ptm_fd, pty_ptr->is_nonblock_mode);
        if (result != 0) {
            close_after_failure(pty_ptr);
        }
    }
    if (result != 0) {
        return result;
    }
    const char *mapping = pty_ptr->m_pts_mapping_name_a;
    pub_log(access(mapping, F_OK) == 0 ? "\"%s\" exists" : "\"%s\" not exists", mapping);
    pub_log("m_ptm_fd[%d]; m_pts_name_a[%s] m_pts_mapping_name_a[%s]", pty_ptr->m_ptm_fd, pty_ptr->m_pts_name_a,
            mapping);
    return 0;
}
