// The command reader thread. It alone reads the channel and uses the request and response records of m_sa_handle; every
// command handler runs on it.
//
//   opening ─▶ reading ⇄ dispatching        EIO: the host closed the slave ─▶ reopening ─▶ reading
//                 └──────────────▶ closing ─▶ ended: the agent goes on without a command channel
#include "sa/sa-handle/command/reader.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include "sa/main/base/codes.h"
#include "sa/main/base/log.h"
#include "sa/sa-handle/command/channel.h"
#include "sa/sa-handle/command/command.h"
#include "sa/sa-handle/command/state.h"

static const size_t kDataLimit = sizeof(sa_msg_st::data) - 1;
static const useconds_t kAgainPause = 50000;  // µs
static const char kLogName[] = "sa_handle_read_cmd_loop";

// The host has closed the slave: a fresh pseudo-terminal takes the old one's place under the same name.
static bool reopen_channel(void) {
    struct pub_pty_st pty;
    long ret_val = sa_channel_close();
    sa_log_as(kLogName, "EIO pub_pty_close ret_val[%ld]", ret_val);
    ret_val = sa_channel_open(&pty);
    sa_log_platform(
        "%s EIO pub_pty_open m_ptm_fd[%d] pts_name_a[%s] pts_mapping_name_a[%s] is_nonblock_mode[%d] ret_val[%ld]",
        kLogName, pty.m_ptm_fd, pty.m_pts_name_a, pty.m_pts_mapping_name_a, pty.is_nonblock_mode, ret_val);
    sa_log_file_as(kLogName, "reopen m_ptm_fd[%d] pts_name_a[%s] pts_mapping_name_a[%s] ret_val[%ld]", pty.m_ptm_fd,
                   pty.m_pts_name_a, pty.m_pts_mapping_name_a, ret_val);
    if (ret_val != 0) {
        sa_log_file_errno_as(kLogName, "reopen");
    }
    return ret_val == 0;
}

// When the request buffer is full, read() is asked for 0 bytes and cannot report a hang-up.
static bool is_hung_up(int fd) {
    struct pollfd slave = {fd, 0, 0};
    return poll(&slave, 1, 0) == 1 && (slave.revents & POLLHUP) != 0;
}

// Reads behind what the request already holds. Returns the count, or -1 with errno; EIO when the host has gone.
static int read_request(struct sa_msg_st *req_ptr) {
    const int fd = sa_channel_fd();
    const int count = static_cast<int>(read(fd, req_ptr->data + req_ptr->len, kDataLimit - req_ptr->len));
    sa_log_as(kLogName, "read_len[%d]", count);
    if (count != 0) {
        return count;
    }
    sa_log_platform("WARNING !");
    sa_log_platform("read empty data");
    sa_log_as(kLogName, "read empty");
    if (is_hung_up(fd)) {
        errno = EIO;
        return -1;
    }
    return 0;
}

// Handles a failed read; the bytes read so far are dropped. Returns whether reading goes on.
static bool survive_read_error(struct sa_msg_st *req_ptr) {
    const int error = errno;
    sa_log_platform("%s errno[%d][%s]", kLogName, error, pub_util_error_text(error));
    sa_log_file_errno_as(kLogName, "read");
    memset(req_ptr, 0, sizeof(*req_ptr));
    if (error == EAGAIN) {
        sa_log_as(kLogName, "EAGAIN sleep 50ms then continue");
        usleep(kAgainPause);
        return true;
    }
    if (error == EIO) {
        return reopen_channel();
    }
    sa_log_failed_call_as(kLogName, "read", SA_ERR_FAIL);
    sa_log_as(kLogName, "other error");
    return false;
}

void *sa_handle_read_cmd_loop(void *arg) {
    struct sa_msg_st *req_ptr = &m_sa_handle.req;
    struct pub_pty_st pty;
    sa_log_entry();
    sa_log_file("param[%p]", arg);
    pub_util_accept_stop();
    memset(req_ptr, 0, sizeof(*req_ptr));
    memset(&m_sa_handle.rsp, 0, sizeof(m_sa_handle.rsp));

    long ret_val = sa_channel_open(&pty);
    sa_log_platform(
        "%s pub_pty_open m_ptm_fd[%d] pts_name_a[%s] pts_mapping_name_a[%s] is_nonblock_mode[%d] ret_val[%ld]",
        __func__, pty.m_ptm_fd, pty.m_pts_name_a, pty.m_pts_mapping_name_a, pty.is_nonblock_mode, ret_val);
    sa_log_file("ptm_fd[%d] pts_name[%s] pts_mapping_name[%s] ret_val[%ld]", pty.m_ptm_fd, pty.m_pts_name_a,
                pty.m_pts_mapping_name_a, ret_val);
    bool is_open = ret_val == 0;
    while (is_open) {
        const int count = read_request(req_ptr);
        if (count < 0) {
            is_open = survive_read_error(req_ptr);
        } else if (count > 0) {
            req_ptr->len = static_cast<uint16_t>(req_ptr->len + count);
            sa_log_platform("receive <== %s", req_ptr->data);
            ret_val = handle_sa_cmd_req(sa_channel_fd(), req_ptr, &m_sa_handle.rsp);
            sa_log_platform("%s handle_sa_cmd_req(%s) ret_val[%ld]", __func__, req_ptr->data, ret_val);
            sa_log_file("req[%s] ret_val[%ld]", req_ptr->data, ret_val);
            if (ret_val == 0) {  // else the request stays, and the next read is appended to it
                memset(req_ptr, 0, sizeof(*req_ptr));
            }
        }
    }

    ret_val = sa_channel_close();
    sa_log_platform("%s pub_pty_close ret_val[%ld]", __func__, ret_val);
    sa_log_file("exit ret_val[%ld]", ret_val);
    return nullptr;
}
