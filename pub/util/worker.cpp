// Worker threads and their registry.
//
// State: m_worker_a, one slot a worker, under m_mutex. The creator claims a slot; the worker's end frees it, through a
// thread-specific key: the one hook that both C libraries run however a thread ends. While a slot carries a worker's
// serial that worker has not ended, so `thread` is safe to signal.
//
// The mutex is only taken with all signals blocked, for a few instructions and one pthread_kill. A signal handler may
// therefore wait for it: it has never interrupted the thread that holds it. Threads are created without it, since creating
// one takes the heap's lock, which the interrupted thread of a handler may hold.
#include "pub/util/worker.h"

#include <errno.h>
#include <signal.h>
#include <unistd.h>

#if defined(__GLIBC__)
#include <execinfo.h>
#endif

#include "pub/pub_codes.h"
#include "pub/util/error_text.h"
#include "pub/util/pub_log.h"
#include "pub/util/signal_mask.h"

struct worker {
    uint64_t serial;  // 0: free
    bool is_started;  // `thread` is valid
    pthread_t thread;
    void *(*routine)(void *);  // the creator until the thread starts, the worker afterwards
    void *arg;                 // likewise
    sigset_t mask;             // likewise: the signals that the worker begins with
    int owned_fd_a[2];         // the worker
};

static const int kWorkers = 16384;           // two descriptors each: the descriptor limit of a device comes first
static const useconds_t kStopPause = 10000;  // µs that a stopped worker is given to run its handler

static pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
static struct worker m_worker_a[kWorkers];
static int m_slots = 0;  // in use at some time: none beyond was ever touched
static uint64_t m_last_serial = 0;

// Creator alone.
static bool m_is_ready = false;
static pthread_key_t m_end_key;

static void close_owned(struct worker *self) {
    for (int &fd : self->owned_fd_a) {
        if (fd >= 0) {
            close(fd);
        }
        fd = -1;
    }
}

// ---- the worker's side ----

// Runs at a worker's end, on the worker, which takes no signal any more.
static void leave_registry(void *value) {
    struct worker *self = static_cast<struct worker *>(value);
    sigset_t mask;
    pub_util_block_signals(&mask);
    close_owned(self);
    pthread_mutex_lock(&m_mutex);
    self->serial = 0;
    pthread_mutex_unlock(&m_mutex);
}

static void *run_worker(void *value) {
    struct worker *self = static_cast<struct worker *>(value);
    sigset_t mask;
    if (pthread_setspecific(m_end_key, self) != 0) {
        pub_log_failed_call_as("pub_util_create_thread", "pthread_setspecific", PUB_ERR_SYSTEM);
        leave_registry(self);  // nothing would free the slot at the worker's end, so it ends now
        return nullptr;
    }
    pub_util_restore_signals(&self->mask);
    self->routine(self->arg);
    pub_util_block_signals(&mask);  // a stop that comes now finds the work already done
    return nullptr;
}

void pub_util_accept_stop(void) {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGUSR1);
    signal(SIGUSR1, pub_util_handle_thread_signal);
    pthread_sigmask(SIG_UNBLOCK, &stop, nullptr);
}

static struct worker *own_slot(void) {
    return m_is_ready ? static_cast<struct worker *>(pthread_getspecific(m_end_key)) : nullptr;
}

void pub_util_own_descriptors(int first_fd, int second_fd) {
    struct worker *self = own_slot();
    if (self != nullptr) {
        self->owned_fd_a[0] = first_fd;
        self->owned_fd_a[1] = second_fd;
    }
}

void pub_util_close_owned(void) {
    struct worker *self = own_slot();
    if (self != nullptr) {
        sigset_t mask;
        pub_util_block_signals(&mask);
        close_owned(self);
        pub_util_restore_signals(&mask);
    }
}

// ---- the creator's side ----

// glibc loads its unwinder when a thread first ends by pthread_exit, and aborts the process when it cannot. A backtrace
// loads the same unwinder and can fail, so it comes first. Returns 0 or ENOMEM.
static int load_unwinder(void) {
#if defined(__GLIBC__)
    void *frame = nullptr;
    return backtrace(&frame, 1) == 1 ? 0 : ENOMEM;
#else
    return 0;
#endif
}

// What the first worker needs. Without memory for it nothing is kept, and the next worker tries again.
static int make_ready(void) {
    if (m_is_ready) {
        return 0;
    }
    int result = load_unwinder();
    if (result == 0) {
        result = pthread_key_create(&m_end_key, leave_registry);
    }
    m_is_ready = result == 0;
    return result;
}

// The slot with a serial, or null. Under m_mutex.
static struct worker *find_slot(uint64_t serial) {
    for (int index = 0; index < m_slots; index++) {
        if (m_worker_a[index].serial == serial) {
            return &m_worker_a[index];
        }
    }
    return nullptr;
}

static struct worker *claim_slot(uint64_t *serial_ptr) {
    pthread_mutex_lock(&m_mutex);
    struct worker *slot = find_slot(0);
    if (slot == nullptr && m_slots < kWorkers) {
        slot = &m_worker_a[m_slots++];
    }
    if (slot != nullptr) {
        slot->serial = ++m_last_serial;
        slot->is_started = false;
        *serial_ptr = slot->serial;
    }
    pthread_mutex_unlock(&m_mutex);
    return slot;
}

static int start_detached(pthread_t *thread_ptr, struct worker *slot) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    const int result = pthread_create(thread_ptr, &attr, run_worker, slot);
    pthread_attr_destroy(&attr);
    return result;
}

// Starts a worker; all signals are blocked, as some C libraries hold a lock inside pthread_create that pthread_kill wants.
static int start_worker(struct pub_thread_id *id_ptr, void *(*routine)(void *), void *arg, const sigset_t *mask_ptr) {
    uint64_t serial = 0;
    struct worker *slot = claim_slot(&serial);
    if (slot == nullptr) {
        return EAGAIN;
    }
    slot->routine = routine;
    slot->arg = arg;
    slot->mask = *mask_ptr;
    sigaddset(&slot->mask, SIGUSR1);
    slot->owned_fd_a[0] = -1;
    slot->owned_fd_a[1] = -1;
    pthread_t thread;
    const int result = start_detached(&thread, slot);

    pthread_mutex_lock(&m_mutex);
    if (result != 0) {
        slot->serial = 0;
    } else if (slot->serial == serial) {  // else the worker has ended, and the slot may be another's
        slot->thread = thread;
        slot->is_started = true;
    }
    pthread_mutex_unlock(&m_mutex);
    if (result == 0) {
        id_ptr->thread = static_cast<unsigned long>(thread);
        id_ptr->serial = serial;
    }
    return result;
}

int pub_util_create_thread(struct pub_thread_id *id_ptr, void *(*routine)(void *), void *arg) {
    sigset_t mask;
    pub_util_block_signals(&mask);
    int result = make_ready();
    if (result == 0) {
        result = start_worker(id_ptr, routine, arg, &mask);
    }
    pub_util_restore_signals(&mask);
    return result;
}

// ---- stopping ----

int pub_util_signal_thread(struct pub_thread_id id, int signo) {
    if (id.serial == 0) {
        return ESRCH;
    }
    sigset_t mask;
    pub_util_block_signals(&mask);
    pthread_mutex_lock(&m_mutex);
    const struct worker *slot = find_slot(id.serial);
    const int result = slot != nullptr && slot->is_started ? pthread_kill(slot->thread, signo) : ESRCH;
    pthread_mutex_unlock(&m_mutex);
    pub_util_restore_signals(&mask);
    return result;
}

int pub_util_kill_thread(struct pub_thread_id *id_ptr) {
    pub_log_entry();
    if (pub_util_signal_thread(*id_ptr, 0) == ESRCH) {
        return 0;
    }
    const int result = pub_util_signal_thread(*id_ptr, SIGUSR1);
    if (result != 0) {
        pub_log_error(PUB_ERR_SYSTEM);
        pub_log_plain("pthread_kill(): %d - %s", result, pub_util_error_text(result));
        return result;
    }
    usleep(kStopPause);
    *id_ptr = {0, 0};
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
