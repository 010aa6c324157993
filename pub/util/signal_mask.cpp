// The calling thread's signal mask, around code that must not be left half-way. No state.
#include "pub/util/signal_mask.h"

#include <pthread.h>

void pub_util_block_signals(sigset_t *saved_ptr) {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, saved_ptr);  // returns its error, so errno stays the caller's
}

void pub_util_restore_signals(const sigset_t *saved_ptr) {
    pthread_sigmask(SIG_SETMASK, saved_ptr, nullptr);
}
