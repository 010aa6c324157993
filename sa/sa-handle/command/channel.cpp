// The command channel's endpoint.
//
// State, under m_mutex: m_sa_handle.pty, whether the channel is retired, whether it was ever opened, and the parked descriptor
// number. A thread that holds the mutex takes no signals, so a handler never waits for the thread that it has interrupted; a
// step makes a few system calls that do not block. m_fd is the master's number for the command reader thread, which reads
// it without the mutex.
#include "sa/sa-handle/command/channel.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

#include "pub/util/signal_mask.h"
#include "sa/sa-handle/command/state.h"

struct sa_handle_st m_sa_handle;

static const int kStopLimit = 3000;  // ms that init is given to stop an agent that still starts
static const int kStopPause = 10;    // ms

static struct pub_pty_st *const m_pty_ptr = &m_sa_handle.pty;
static pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
static bool m_is_retired = false;
static bool m_was_opened = false;  // by the command reader thread, in this process
static int m_parked_fd = -1;
static std::atomic<int32_t> m_fd(-1);

static void hold(sigset_t *mask_ptr) {
    pub_util_block_signals(mask_ptr);
    pthread_mutex_lock(&m_mutex);
}

// Keeps errno.
static void release(const sigset_t *mask_ptr) {
    pthread_mutex_unlock(&m_mutex);
    pub_util_restore_signals(mask_ptr);
}

static bool is_open(void) {
    // 0 is the descriptor of a cleared record, and also a valid one when the agent runs with standard input closed.
    return m_pty_ptr->m_ptm_fd > 0 || (m_pty_ptr->m_ptm_fd == 0 && m_pty_ptr->m_pts_name_a[0] != '\0');
}

static void publish_fd(void) {
    m_fd.store(is_open() ? m_pty_ptr->m_ptm_fd : -1);
}

static void unpark(void) {
    if (m_parked_fd >= 0) {
        close(m_parked_fd);
        m_parked_fd = -1;
    }
}

// Moves the master to another number and makes its old number refer to the null device. Only one number is parked at a
// time: that of an earlier teardown is given back. Without a free descriptor the number is not parked.
static void park(void) {
    unpark();
    const int moved_fd = fcntl(m_pty_ptr->m_ptm_fd, F_DUPFD_CLOEXEC, 1);
    const int null_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (moved_fd >= 0 && null_fd >= 0 && dup3(null_fd, m_pty_ptr->m_ptm_fd, O_CLOEXEC) >= 0) {
        m_parked_fd = m_pty_ptr->m_ptm_fd;
        m_pty_ptr->m_ptm_fd = moved_fd;
    } else if (moved_fd >= 0) {
        close(moved_fd);
    }
    if (null_fd >= 0) {
        close(null_fd);
    }
}

void sa_channel_prepare(const char *name) {
    sigset_t mask;
    const size_t limit = sizeof(m_pty_ptr->m_pts_mapping_name_a) - 1;
    hold(&mask);
    memset(m_pty_ptr, 0, sizeof(*m_pty_ptr));
    memcpy(m_pty_ptr->m_pts_mapping_name_a, name, strnlen(name, limit));
    publish_fd();
    release(&mask);
}

int32_t sa_channel_fd(void) {
    return m_fd.load();
}

// A teardown before the first open comes from a signal in the middle of the start. It ends the process, or init refuses to
// stop the agent and the channel is resumed, or init does not answer: then the start goes on here.
static void await_stop(sigset_t *mask_ptr) {
    for (int waited = 0; m_is_retired && waited < kStopLimit; waited += kStopPause) {
        release(mask_ptr);
        usleep(kStopPause * 1000);
        hold(mask_ptr);
    }
    m_is_retired = false;
}

long sa_channel_open(struct pub_pty_st *seen_ptr) {
    sigset_t mask;
    hold(&mask);
    if (!m_was_opened && m_is_retired) {
        await_stop(&mask);
    }
    m_was_opened = true;
    unpark();
    const long ret_val = m_is_retired ? -1 : pub_pty_open(m_pty_ptr);
    publish_fd();
    *seen_ptr = *m_pty_ptr;
    release(&mask);
    return ret_val;
}

long sa_channel_close(void) {
    sigset_t mask;
    hold(&mask);
    unpark();
    const long ret_val = pub_pty_close(m_pty_ptr);
    publish_fd();
    release(&mask);
    return ret_val;
}

long sa_channel_retire(void) {
    sigset_t mask;
    hold(&mask);
    if (!is_open()) {
        m_pty_ptr->m_ptm_fd = -1;
    } else if (m_pty_ptr->m_ptm_fd > 0) {
        park();
    }
    const long ret_val = pub_pty_close(m_pty_ptr);
    m_is_retired = true;
    publish_fd();
    release(&mask);
    return ret_val;
}

void sa_channel_resume(void) {
    sigset_t mask;
    hold(&mask);
    m_is_retired = false;
    release(&mask);
}
