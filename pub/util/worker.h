// Worker threads that another thread may stop with SIGUSR1.
//
//   creator ── pub_util_create_thread ──▶ worker (SIGUSR1 blocked) ── pub_util_accept_stop ──▶ working
//   stopper ── pub_util_kill_thread ── SIGUSR1 ──▶ pub_util_handle_thread_signal ──▶ worker ends itself
//
// A stored id stays valid as a question for ever: ids are never used twice, so a stop aimed at a worker that has ended
// reaches nobody. The C library's own thread ids cannot promise that: they are addresses, reused by the next thread,
// and handing a stale one to pthread_kill hits a stranger on one C library and aborts the process on another.
#ifndef PUB_UTIL_WORKER_H
#define PUB_UTIL_WORKER_H

/** Names one worker for the life of the process; 0 names none. */
typedef unsigned long pub_thread_id;

/**
 * Starts a detached worker. It begins with SIGUSR1 blocked, so that a stop sent early waits for pub_util_accept_stop
 * instead of meeting the default action, which ends the process.
 *
 * @param id_ptr   receives the worker's id, before the worker can be stopped by anyone; untouched on failure.
 * @param routine  what the worker runs; its result is ignored.
 * @param arg      handed to the routine.
 * @return 0, or an error number: EAGAIN when the system or the registry (256 workers) has no room.
 */
int pub_util_create_thread(pub_thread_id *id_ptr, void *(*routine)(void *), void *arg);

/** Called by a worker: installs pub_util_handle_thread_signal for SIGUSR1 and lets it in. */
void pub_util_accept_stop(void);

/**
 * Called by a worker: hands it two descriptors that are closed when it ends, in whichever way. C libraries differ in
 * whether an ended thread's frames are unwound, so nothing on its stack could do this.
 *
 * @param first_fd, second_fd  descriptors, or -1 for none; each call replaces the pair without closing it.
 */
void pub_util_own_descriptors(int first_fd, int second_fd);

/**
 * Sends a signal to a worker.
 *
 * @param id     a stored id, however old.
 * @param signo  the signal; 0 only asks whether the worker lives.
 * @return 0, ESRCH when no such worker lives (0 included), or the error number of the failed send.
 */
int pub_util_signal_thread(pub_thread_id id, int signo);

/**
 * Stops a worker: sends SIGUSR1, gives it 10 ms to leave and clears the stored id. Does not join it, and promises
 * nothing about when its resources are gone. Blocks the caller for those 10 ms.
 *
 * @param id_ptr  a stored id; set to 0 after a stop, kept when there was nobody to stop.
 * @return 0, or the positive error number of a failed send.
 */
int pub_util_kill_thread(pub_thread_id *id_ptr);

/** The SIGUSR1 handler: ends the thread that receives it. Any other number is reported and ignored. */
void pub_util_handle_thread_signal(int signo);

#endif
