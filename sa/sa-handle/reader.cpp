// The command reader thread. It owns the channel's endpoint (a teardown may close it, see state.h) and the request and
// response records of m_sa_handle; every command handler runs on it.
//
//   opening ─▶ reading ⇄ dispatching        EIO: the host closed the slave ─▶ reopening ─▶ reading
//                 └──────────────▶ closing ─▶ ended: the agent goes on without a command channel
#include "sa/sa-handle/reader.h"

#include <poll.h>
#include <string.h>
#include <unistd.h>

#include "sa/main/codes.h"
#include "sa/main/log.h"
#include "sa/sa-handle/command.h"
#include "sa/sa-handle/state.h"

static const int kDataLimit = static_cast<int>(sizeof(sa_msg_st::data)) - 1;
static const useconds_t kAgainPause = 50000;            // µs
static const char kLoop[] = "sa_handle_read_cmd_loop";  // the steps below are the loop's and log under its name

static struct pub_pty_st *const m_pty_ptr = &m_sa_handle.pty;

// Opens or closes the endpoint as its holder. After a teardown it can still be closed, but not opened.
static long change_endpoint(int32_t (*step)(struct pub_pty_st *)) {
    sigset_t mask;
    long ret_val = SA_ERR_FAIL;
    const bool is_in_service = sa_channel_hold(&mask);
    sa_channel_unpark();
    if (is_in_service || step == pub_pty_close) {
        ret_val = step(m_pty_ptr);
    }
    const int saved_errno = errno;
    sa_channel_release(&mask);
    errno = saved_errno;
    return ret_val;
}

static long open_channel(void) {
    const long ret_val = change_endpoint(pub_pty_open);
    sa_log_platform(
        "%s pub_pty_open m_ptm_fd[%d] pts_name_a[%s] pts_mapping_name_a[%s] is_nonblock_mode[%d] ret_val[%ld]", kLoop,
        m_pty_ptr->m_ptm_fd, m_pty_ptr->m_pts_name_a, m_pty_ptr->m_pts_mapping_name_a, m_pty_ptr->is_nonblock_mode,
        ret_val);
    sa_log_file_as(kLoop, "ptm_fd[%d] pts_name[%s] pts_mapping_name[%s] ret_val[%ld]", m_pty_ptr->m_ptm_fd,
                   m_pty_ptr->m_pts_name_a, m_pty_ptr->m_pts_mapping_name_a, ret_val);
    return ret_val;
}

// The host has closed the slave: a fresh pseudo-terminal takes the old one's place under the same name.
static long reopen_channel(void) {
    long ret_val = change_endpoint(pub_pty_close);
    sa_log_as(kLoop, "EIO pub_pty_close ret_val[%ld]", ret_val);
    ret_val = change_endpoint(pub_pty_open);
    sa_log_platform(
        "%s EIO pub_pty_open m_ptm_fd[%d] pts_name_a[%s] pts_mapping_name_a[%s] is_nonblock_mode[%d] ret_val[%ld]",
        kLoop, m_pty_ptr->m_ptm_fd, m_pty_ptr->m_pts_name_a, m_pty_ptr->m_pts_mapping_name_a,
        m_pty_ptr->is_nonblock_mode, ret_val);
    sa_log_file_as(kLoop, "reopen m_ptm_fd[%d] pts_name_a[%s] pts_mapping_name_a[%s] ret_val[%ld]", m_pty_ptr->m_ptm_fd,
                   m_pty_ptr->m_pts_name_a, m_pty_ptr->m_pts_mapping_name_a, ret_val);
    if (ret_val != 0) {
        sa_log_file_errno_as(kLoop, "reopen");
    }
    return ret_val;
}

// A full request leaves no room, and a read of no bytes never reports the hang-up by itself.
static bool is_hung_up(void) {
    struct pollfd slave = {m_pty_ptr->m_ptm_fd, 0, 0};
    return poll(&slave, 1, 0) == 1 && (slave.revents & POLLHUP) != 0;
}

// Reads behind what the request already holds. Returns the count, or -1 with errno; EIO when the host has gone.
static int read_request(struct sa_msg_st *req_ptr) {
    const int count = static_cast<int>(
        read(m_pty_ptr->m_ptm_fd, req_ptr->data + req_ptr->len, static_cast<size_t>(kDataLimit - req_ptr->len)));
    sa_log_as(kLoop, "read_len[%d]", count);
    if (count != 0) {
        return count;
    }
    sa_log_platform("WARNING !");
    sa_log_platform("read empty data");
    sa_log_as(kLoop, "read empty");
    if (is_hung_up()) {
        errno = EIO;
        return -1;
    }
    return 0;
}

// Deals with a failed read; whatever had accumulated is dropped. Returns whether reading goes on.
static bool survive_read_error(struct sa_msg_st *req_ptr) {
    const int error = errno;
    sa_log_platform("%s errno[%d][%s]", kLoop, error, pub_util_error_text(error));
    sa_log_file_errno_as(kLoop, "read");
    memset(req_ptr, 0, sizeof(*req_ptr));
    if (error == EAGAIN) {
        sa_log_as(kLoop, "EAGAIN sleep 50ms then continue");
        usleep(kAgainPause);
        return true;
    }
    if (error == EIO) {
        return reopen_channel() == 0;
    }
    sa_log_failed_call_as(kLoop, "read", SA_ERR_FAIL);
    sa_log_as(kLoop, "other error");
    return false;
}

// A request whose result is not 0 stays, so that the next read is examined together with it.
static void serve_request(struct sa_msg_st *req_ptr, int count) {
    req_ptr->len = static_cast<uint16_t>(req_ptr->len + count);
    sa_log_platform("receive <== %s", req_ptr->data);
    const long ret_val = handle_sa_cmd_req(m_pty_ptr->m_ptm_fd, req_ptr, &m_sa_handle.rsp);
    sa_log_platform("%s handle_sa_cmd_req(%s) ret_val[%ld]", kLoop, req_ptr->data, ret_val);
    sa_log_file_as(kLoop, "req[%s] ret_val[%ld]", req_ptr->data, ret_val);
    if (ret_val == 0) {
        memset(req_ptr, 0, sizeof(*req_ptr));
    }
}

void *sa_handle_read_cmd_loop(void *arg) {
    sa_log_entry();
    sa_log_file("param[%p]", arg);
    pub_util_accept_stop();
    struct sa_msg_st *req_ptr = &m_sa_handle.req;
    memset(req_ptr, 0, sizeof(*req_ptr));
    memset(&m_sa_handle.rsp, 0, sizeof(m_sa_handle.rsp));

    bool is_open = open_channel() == 0;
    while (is_open) {
        const int count = read_request(req_ptr);
        if (count > 0) {
            serve_request(req_ptr, count);
        } else if (count < 0) {
            is_open = survive_read_error(req_ptr);
        }
    }

    const long ret_val = change_endpoint(pub_pty_close);
    sa_log_platform("%s pub_pty_close ret_val[%ld]", __func__, ret_val);
    sa_log_file("exit ret_val[%ld]", ret_val);
    return nullptr;
}
