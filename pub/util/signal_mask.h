// Short stretches of code in which the calling thread takes no signal.
#ifndef PUB_UTIL_SIGNAL_MASK_H
#define PUB_UTIL_SIGNAL_MASK_H

#include <signal.h>

/**
 * Blocks every signal for the calling thread, so that nothing it is about to hold (a descriptor, a claim, a lock of the
 * C library) can be left behind by a handler that ends the thread or the process. Async-signal-safe; keeps errno.
 *
 * @param saved_ptr  receives the mask to give back to pub_util_restore_signals.
 */
void pub_util_block_signals(sigset_t *saved_ptr);

/** Restores the mask that pub_util_block_signals saved; pending signals are delivered before it returns. Keeps errno. */
void pub_util_restore_signals(const sigset_t *saved_ptr);

#endif
