// Creation of workers without memory: each allocation of the first creation fails in turn. Each attempt runs in its own
// process, because the C library prepares for the end of threads only once in a process.
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>

#include "pub/util/worker.h"
#include "tests/unit/log_lines.h"

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && defined(__GLIBC__)

static std::atomic<bool> m_is_counting{false};
static std::atomic<int> m_granted{0};  // allocations that still succeed while m_is_counting

static bool is_refused() {
    if (!m_is_counting) {
        return false;
    }
    if (m_granted.fetch_sub(1) > 0) {
        return false;
    }
    errno = ENOMEM;
    return true;
}

// The C library's loader allocates through these, too.
extern "C" void *__libc_malloc(size_t size);
extern "C" void *__libc_calloc(size_t count, size_t size);
extern "C" void *__libc_realloc(void *old, size_t size);

extern "C" void *malloc(size_t size) {
    return is_refused() ? nullptr : __libc_malloc(size);
}

extern "C" void *calloc(size_t count, size_t size) {
    return is_refused() ? nullptr : __libc_calloc(count, size);
}

extern "C" void *realloc(void *old, size_t size) {
    return is_refused() ? nullptr : __libc_realloc(old, size);
}

static std::atomic<bool> m_has_run{false};

static void *run_at_once(void *) {
    m_has_run = true;
    return nullptr;
}

static std::atomic<bool> m_may_stop{false};

static void *wait_for_a_stop(void *) {
    pub_util_accept_stop();
    m_may_stop = true;
    while (true) {
        pause();
    }
}

enum verdict { FIRST_WORKER_RAN, FIRST_WORKER_REFUSED, LIED, NO_SECOND_WORKER, NOT_STOPPED };

// The life of an attempt.
static verdict create_with(int granted) {
    pub_thread_id id = {};
    m_granted = granted;
    m_is_counting = true;
    const int result = pub_util_create_thread(&id, run_at_once, nullptr);
    if (result == 0 && !wait_until([] { return m_has_run.load(); })) {
        return LIED;
    }
    m_is_counting = false;
    pub_thread_id second = {};
    if (pub_util_create_thread(&second, wait_for_a_stop, nullptr) != 0 ||
        !wait_until([] { return m_may_stop.load(); })) {
        return NO_SECOND_WORKER;
    }
    const pub_thread_id stopped = second;
    pub_util_kill_thread(&second);
    if (!wait_until([&] { return pub_util_signal_thread(stopped, 0) == ESRCH; })) {
        return NOT_STOPPED;
    }
    return result == 0 ? FIRST_WORKER_RAN : FIRST_WORKER_REFUSED;
}

TEST(WorkerMemory, FirstWorkerIsRefusedOrRunsAndTheProcessGoesOn) {
    verdict last = FIRST_WORKER_REFUSED;
    int refused = 0;
    for (int granted = 0; granted < 1000 && last == FIRST_WORKER_REFUSED; granted++) {
        const pid_t pid = fork();
        if (pid == 0) {
            _exit(create_with(granted));
        }
        int status = -1;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status)) << granted << " allocations, then signal " << WTERMSIG(status);
        last = static_cast<verdict>(WEXITSTATUS(status));
        refused += last == FIRST_WORKER_REFUSED ? 1 : 0;
    }
    EXPECT_EQ(last, FIRST_WORKER_RAN);
    EXPECT_GT(refused, 0) << "a creation allocates";
}

#else

TEST(WorkerMemory, FirstWorkerIsRefusedOrRunsAndTheProcessGoesOn) {
    GTEST_SKIP() << "a sanitizer has its own allocator";
}

#endif
