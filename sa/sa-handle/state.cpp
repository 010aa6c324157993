// State of the command and log layer; the fields' owners are named in the header.
#include "sa/sa-handle/state.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>

#include "pub/util/signal_mask.h"

struct sa_handle_st m_sa_handle;

static std::atomic_flag m_is_channel_held = ATOMIC_FLAG_INIT;
static std::atomic<bool> m_is_channel_retired(false);
static int m_parked_fd = -1;  // the holder of the channel

bool sa_channel_hold(sigset_t *mask_ptr) {
    pub_util_block_signals(mask_ptr);
    while (m_is_channel_held.test_and_set()) {
        sched_yield();
    }
    return !m_is_channel_retired.load();
}

void sa_channel_release(const sigset_t *mask_ptr) {
    m_is_channel_held.clear();
    pub_util_restore_signals(mask_ptr);
}

void sa_channel_retire(void) {
    m_is_channel_retired.store(true);
}

void sa_channel_unpark(void) {
    if (m_parked_fd >= 0) {
        close(m_parked_fd);
        m_parked_fd = -1;
    }
}

// Without descriptors to spare the number is given up at once. One number is parked at a time: that of an earlier teardown,
// which could not close the channel, is given back.
void sa_channel_park(void) {
    struct pub_pty_st *pty_ptr = &m_sa_handle.pty;
    if (pty_ptr->m_ptm_fd <= 0) {
        return;  // 0 is a zeroed record
    }
    sa_channel_unpark();
    const int moved_fd = fcntl(pty_ptr->m_ptm_fd, F_DUPFD_CLOEXEC, 1);
    const int nowhere_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (moved_fd >= 0 && nowhere_fd >= 0 && dup3(nowhere_fd, pty_ptr->m_ptm_fd, O_CLOEXEC) >= 0) {
        m_parked_fd = pty_ptr->m_ptm_fd;
        pty_ptr->m_ptm_fd = moved_fd;
    } else if (moved_fd >= 0) {
        close(moved_fd);
    }
    if (nowhere_fd >= 0) {
        close(nowhere_fd);
    }
}

void sa_channel_reinstate(void) {
    m_is_channel_retired.store(false);
}
