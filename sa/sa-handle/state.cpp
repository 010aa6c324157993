// State of the command and log layer; the fields' owners are named in the header.
#include "sa/sa-handle/state.h"

#include <sched.h>

#include <atomic>

#include "pub/util/signal_mask.h"

struct sa_handle_st m_sa_handle;

static std::atomic_flag m_is_channel_held = ATOMIC_FLAG_INIT;
static std::atomic<bool> m_is_channel_retired(false);

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

void sa_channel_reinstate(void) {
    m_is_channel_retired.store(false);
}
