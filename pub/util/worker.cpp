// Worker threads and their registry.
//
// State: m_worker_a, one slot a live worker. A slot is claimed and filled by the creating thread and freed by the
// worker's own end through a thread-specific key: the one hook that both C libraries run however a thread ends. `use`
// says who may act on a slot:
//   FREE ──creator──▶ HELD ──creator, thread started──▶ LIVE ──worker's end──▶ HELD ──▶ FREE
//                                                       LIVE ──sender──▶ HELD ──sender──▶ LIVE
// Whoever holds a slot is alone with it. A worker that ends waits for a sender, so `thread` names a thread that still
// exists whenever pthread_kill is called. Holders take no signals: a slot is never left held.
#include "pub/util/worker.h"

#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>

#include "pub/pub_codes.h"
#include "pub/util/error_text.h"
#include "pub/util/pub_log.h"
#include "pub/util/signal_mask.h"

enum worker_use { FREE, HELD, LIVE };

struct worker {
    std::atomic<int> use;
    std::atomic<pub_thread_id> id;  // the holder; 0 in a free slot
    pthread_t thread;               // the creator; valid while LIVE
    void *(*routine)(void *);       // the creator before the start, the worker after
    void *arg;
    int owned_fd_a[2];  // likewise
};

static const int kWorkers = 256;
static const useconds_t kStopPause = 10000;  // µs that a stopped worker is given to run its handler

static worker m_worker_a[kWorkers];
static std::atomic<pub_thread_id> m_last_id(0);
static pthread_key_t m_end_key;
static pthread_once_t m_end_key_once = PTHREAD_ONCE_INIT;

// Waits for its turn with a live slot and holds it. Returns false when the slot is free.
static bool hold_live(worker *slot) {
    int expected = LIVE;
    while (!slot->use.compare_exchange_weak(expected, HELD)) {
        if (expected == FREE) {
            return false;
        }
        expected = LIVE;  // its holder is brief
        sched_yield();
    }
    return true;
}

static void close_owned(worker *self) {
    for (int &fd : self->owned_fd_a) {
        if (fd >= 0) {
            close(fd);
        }
        fd = -1;
    }
}

// Runs at a worker's end, on the worker.
static void leave_registry(void *value) {
    worker *self = static_cast<worker *>(value);
    sigset_t mask;
    pub_util_block_signals(&mask);  // for good: the thread is ending
    close_owned(self);
    hold_live(self);
    self->id.store(0);
    self->use.store(FREE);
}

static void *end_at_once(void *) {
    pthread_exit(nullptr);
}

// The first end of a thread may load a library (glibc's unwinder does), and fails the process where that is impossible:
// it is had now, not when a worker is stopped and no memory or descriptor is left.
static void rehearse_end(void) {
    pthread_t thread;
    sigset_t mask;
    pub_util_block_signals(&mask);  // the thread is to take none
    if (pthread_create(&thread, nullptr, end_at_once, nullptr) == 0) {
        pthread_join(thread, nullptr);
    }
    pub_util_restore_signals(&mask);
}

static void make_end_key(void) {
    pthread_key_create(&m_end_key, leave_registry);
    rehearse_end();
}

static void *run_worker(void *value) {
    worker *self = static_cast<worker *>(value);
    pthread_setspecific(m_end_key, self);
    self->routine(self->arg);
    sigset_t mask;
    pub_util_block_signals(&mask);  // a stop that comes now finds the work already done
    return nullptr;
}

static worker *claim_slot(void) {
    for (worker &slot : m_worker_a) {
        int expected = FREE;
        if (slot.use.compare_exchange_strong(expected, HELD)) {
            return &slot;
        }
    }
    return nullptr;
}

// Creates the thread with the mask that it is to begin with.
static int start_thread(worker *slot, const sigset_t *mask_ptr) {
    pthread_attr_t attr;
    sigset_t held;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_sigmask(SIG_SETMASK, mask_ptr, &held);
    const int result = pthread_create(&slot->thread, &attr, run_worker, slot);
    pthread_sigmask(SIG_SETMASK, &held, nullptr);
    pthread_attr_destroy(&attr);
    return result;
}

// Fills a held slot and starts its worker. Returns 0 or an error number.
static int start_worker(worker *slot, void *(*routine)(void *), void *arg, const sigset_t *mask_ptr) {
    slot->routine = routine;
    slot->arg = arg;
    slot->owned_fd_a[0] = -1;
    slot->owned_fd_a[1] = -1;
    slot->id.store(m_last_id.fetch_add(1) + 1);
    return start_thread(slot, mask_ptr);
}

int pub_util_create_thread(pub_thread_id *id_ptr, void *(*routine)(void *), void *arg) {
    sigset_t mask;
    pthread_once(&m_end_key_once, make_end_key);
    pub_util_block_signals(&mask);
    int result = EAGAIN;
    worker *slot = claim_slot();
    if (slot != nullptr) {
        // A handled signal that the creator takes, the worker takes too; a stop waits until the worker is ready for it.
        sigset_t worker_mask = mask;
        sigaddset(&worker_mask, SIGUSR1);
        result = start_worker(slot, routine, arg, &worker_mask);
        if (result == 0) {
            *id_ptr = slot->id.load();
        } else {
            slot->id.store(0);
        }
        slot->use.store(result == 0 ? LIVE : FREE);
    }
    pub_util_restore_signals(&mask);
    return result;
}

void pub_util_accept_stop(void) {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGUSR1);
    signal(SIGUSR1, pub_util_handle_thread_signal);
    pthread_sigmask(SIG_UNBLOCK, &stop, nullptr);
}

void pub_util_own_descriptors(int first_fd, int second_fd) {
    worker *self = static_cast<worker *>(pthread_getspecific(m_end_key));
    if (self == nullptr) {
        return;
    }
    self->owned_fd_a[0] = first_fd;
    self->owned_fd_a[1] = second_fd;
}

static int signal_slot(worker *slot, pub_thread_id id, int signo) {
    if (!hold_live(slot)) {
        return ESRCH;
    }
    // The slot may have changed hands between the look at its id and the hold.
    const int result = slot->id.load() == id ? pthread_kill(slot->thread, signo) : ESRCH;
    slot->use.store(LIVE);
    return result;
}

int pub_util_signal_thread(pub_thread_id id, int signo) {
    if (id == 0) {
        return ESRCH;
    }
    for (worker &slot : m_worker_a) {
        if (slot.id.load() != id) {
            continue;
        }
        sigset_t mask;
        pub_util_block_signals(&mask);
        const int result = signal_slot(&slot, id, signo);
        pub_util_restore_signals(&mask);
        return result;
    }
    return ESRCH;
}

int pub_util_kill_thread(pub_thread_id *id_ptr) {
    pub_log_entry();
    if (*id_ptr == 0 || pub_util_signal_thread(*id_ptr, 0) == ESRCH) {
        return 0;
    }
    const int result = pub_util_signal_thread(*id_ptr, SIGUSR1);
    if (result != 0) {
        pub_log_error(PUB_ERR_SYSTEM);
        pub_log_plain("pthread_kill(): %d - %s", result, pub_util_error_text(result));
        return result;
    }
    usleep(kStopPause);
    *id_ptr = 0;
    return 0;
}

void pub_util_handle_thread_signal(int signo) {
    pub_log_entry();
    if (signo != SIGUSR1) {
        pub_log_error(PUB_ERR_PARAM);
        pub_log_plain("unknown signal: %d", signo);
        return;
    }
    pub_log_plain("thread %d will be end", static_cast<int>(pthread_self()));
    pthread_exit(nullptr);
}
