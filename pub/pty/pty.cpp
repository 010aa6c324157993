// Pseudo-terminal endpoints. All state is in the caller's record.
#include "pub/pty/pty.h"

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
static const mode_t kSlaveMode = 0660;
static const uid_t kSlaveUser = 1000;   // AID_SYSTEM
static const gid_t kSlaveGroup = 1001;  // AID_RADIO

// Output processing that raw bytes must not meet. OLCUC and ONOCR have no name everywhere; ONLCR is harmless without OPOST.
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

// Takes the slave's name into the record; a longer one is cut, not refused.
static int32_t take_slave_name(struct pub_pty_st *pty_ptr, const char *function) {
    const int limit = static_cast<int>(sizeof(pty_ptr->m_pts_name_a)) - 1;
    char name[kDevicePathSize];  // ptsname's own buffer is shared with the threads that open other pseudo-terminals
    const int error = ptsname_r(pty_ptr->m_ptm_fd, name, sizeof(name));
    pub_log_line(function, "pts_name_ptr[%s]", error == 0 ? name : "(null)");
    if (error != 0) {
        pub_log_line(nullptr, "sys call: %s() failed! errno = %d", "ptsname", errno);
        pub_log_line(function, "m_pts_name_a[%s] ret_val[%d]", pty_ptr->m_pts_name_a, PUB_ERR_SYSTEM);
        return PUB_ERR_SYSTEM;
    }
    const int length = static_cast<int>(strlen(name));
    if (length > limit) {
        pub_log_plain("WARNING !");
        pub_log_plain("[PTY]%d > %d", length, limit);
    }
    memset(pty_ptr->m_pts_name_a, 0, sizeof(pty_ptr->m_pts_name_a));
    memcpy(pty_ptr->m_pts_name_a, name, static_cast<size_t>(length > limit ? limit : length));
    pub_log_line(function, "m_pts_name_a[%s] ret_val[%d]", pty_ptr->m_pts_name_a, 0);
    return 0;
}

static void remove_old_mapping(const char *mapping, const char *function) {
    const int result = unlink(mapping);
    pub_log_line(function, "unlink(%s) ret_val[%d]", mapping, result);
    if (result != 0) {
        return;  // nothing stood there
    }
    if (access(mapping, F_OK) == 0) {
        pub_log_line(function, "\"%s\" exists", mapping);
    } else {
        pub_log_line(function, "\"%s\" not exists", mapping);
    }
}

// Mode and owner go through the link to the slave itself. The chown line prints the chmod result: its own is not looked at.
static int32_t hand_over_slave(const char *mapping, const char *function) {
    const int user = static_cast<int>(kSlaveUser);
    const int group = static_cast<int>(kSlaveGroup);
    const int result = chmod(mapping, kSlaveMode);
    pub_log_line(function, "chmod(%s, %d) ret_val[%d]", mapping, static_cast<int>(kSlaveMode), result);
    if (result != 0) {
        pub_log_failed_call_as(function, "chmod", PUB_ERR_SYSTEM);
        (void)!chown(mapping, kSlaveUser, kSlaveGroup);
        pub_log_line(function, "chown(%s, %d, %d) ret_val[%d]", mapping, user, group, PUB_ERR_SYSTEM);
        pub_log_failed_call_as(function, "chown", PUB_ERR_SYSTEM);
        return PUB_ERR_SYSTEM;
    }
    (void)!chown(mapping, kSlaveUser, kSlaveGroup);
    pub_log_line(function, "chown(%s, %d, %d) ret_val[%d]", mapping, user, group, result);
    return 0;
}

static int32_t publish_slave(struct pub_pty_st *pty_ptr, const char *function) {
    const char *mapping = pty_ptr->m_pts_mapping_name_a;
    const char *slave = pty_ptr->m_pts_name_a;
    remove_old_mapping(mapping, function);
    const int result = symlink(slave, mapping);
    pub_log_line(function, "symlink(%s, %s) ret_val[%d]", slave, mapping, result);
    if (result != 0) {
        pub_log_failed_call_as(function, "symlink", PUB_ERR_FAIL);
        pub_log_error_as(function, PUB_ERR_SYSTEM);
        pub_log_plain("[PTY]map %s -> %s failed", slave, mapping);
        return PUB_ERR_SYSTEM;
    }
    return hand_over_slave(mapping, function);
}

static int32_t create_pts_mapping(struct pub_pty_st *pty_ptr) {
    pub_log_entry();
    const bool is_closed = pty_ptr->m_ptm_fd < 0;
    const bool is_unnamed = pty_ptr->m_pts_mapping_name_a[0] == '\0';
    if (is_closed || is_unnamed) {
        pub_log_error(PUB_ERR_PARAM);
        pub_log_plain("[PTY]%d, %d, %d", 0, is_closed ? 1 : 0, is_unnamed ? 1 : 0);
        pub_pty_close(pty_ptr);
        return PUB_ERR_PARAM;
    }
    int32_t result = take_slave_name(pty_ptr, __func__);
    if (result == 0) {
        result = publish_slave(pty_ptr, __func__);
    }
    pub_log("m_pts_mapping_name_a[%s] ret_val[%d]", pty_ptr->m_pts_mapping_name_a, result);
    if (result != 0) {
        pub_pty_delete_mapping(pty_ptr);
        pub_pty_close(pty_ptr);
    }
    return result;
}

static int make_raw(int fd, const struct termios *attr_ptr) {
    struct termios raw = *attr_ptr;
    raw.c_iflag = 0;
    raw.c_oflag &= ~kCookedOutput;
    raw.c_lflag &= ~kCookedLocal;
    return tcsetattr(fd, TCSANOW, &raw);
}

// The four calls that ready a master, in order, each traced; stops at the first that fails.
static int32_t ready_master(int fd, const char *function) {
    struct termios attr;
    const char *call = "tcgetattr";
    int result = tcgetattr(fd, &attr);
    if (result == 0) {
        pub_log_line(function, "tcgetattr(%d) ret_val[%d]", fd, result);
        call = "tcsetattr";
        result = make_raw(fd, &attr);
    }
    if (result == 0) {
        pub_log_line(function, "tcsetattr(%d) ret_val[%d]", fd, result);
        call = "grantpt";
        result = grantpt(fd);
    }
    if (result == 0) {
        pub_log_line(function, "grantpt(%d) ret_val[%d]", fd, result);
        call = "unlockpt";
        result = unlockpt(fd);
    }
    if (result == 0) {
        pub_log_line(function, "unlockpt(%d) ret_val[%d]", fd, result);
        return 0;
    }
    pub_log_failed_call_as(function, call, PUB_ERR_SYSTEM);
    pub_log_line(function, "%s(%d) ret_val[%d]", call, fd, result);
    return PUB_ERR_SYSTEM;
}

static int32_t set_ptm_attr(struct pub_pty_st *pty_ptr) {
    pub_log_entry();
    const int fd = pty_ptr->m_ptm_fd;
    if (fd < 0) {
        pub_log_error(PUB_ERR_PARAM);
        pub_pty_close(pty_ptr);
        return PUB_ERR_PARAM;
    }
    pub_log("fd[%d]", fd);
    const int32_t result = ready_master(fd, __func__);
    pub_log("fd[%d] ret_val[%d]", fd, result);
    if (result != 0) {
        pub_pty_close(pty_ptr);
    }
    return result;
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
        pub_pty_close(pty_ptr);
        return PUB_ERR_SYSTEM;
    }
    int32_t result = create_pts_mapping(pty_ptr);
    if (result == 0) {
        result = set_ptm_attr(pty_ptr);
    }
    if (result == 0 && pty_ptr->is_nonblock_mode != 0) {
        result = pub_util_set_fd_mode(pty_ptr->m_ptm_fd, pty_ptr->is_nonblock_mode);
        if (result != 0) {
            pub_pty_close(pty_ptr);
        }
    }
    if (result != 0) {
        return result;
    }
    if (access(pty_ptr->m_pts_mapping_name_a, F_OK) == 0) {
        pub_log("\"%s\" exists", pty_ptr->m_pts_mapping_name_a);
    } else {
        pub_log("\"%s\" not exists", pty_ptr->m_pts_mapping_name_a);
    }
    pub_log("m_ptm_fd[%d]; m_pts_name_a[%s] m_pts_mapping_name_a[%s]", pty_ptr->m_ptm_fd, pty_ptr->m_pts_name_a,
            pty_ptr->m_pts_mapping_name_a);
    return 0;
}
