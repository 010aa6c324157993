// Workers: what a stop ends and what it must not affect; leaks after workers have started and ended.
#include "pub/util/worker.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "tests/unit/faults.h"
#include "tests/unit/log_lines.h"

typedef std::vector<std::string> lines;

static bool operator==(const pub_thread_id &left, const pub_thread_id &right) {
    return left.thread == right.thread && left.serial == right.serial;
}

static const pub_thread_id kNobody = {0, 0};
static const pub_thread_id kUntouched = {4711, 4711};

static int threads() {
    const std::string status = read_file("/proc/self/status");
    return atoi(status.c_str() + status.find("\nThreads:") + 9);
}

static int m_threads_before = 0;

static bool all_have_ended() {
    return threads() == m_threads_before;
}

// What workers and tests share.
static std::atomic<int> m_arrived{0};
static std::atomic<int> m_finished{0};
static std::atomic<bool> m_may_end{false};
static std::atomic<bool> m_may_accept{false};
static std::atomic<int> m_self{0};
static sem_t m_here;

// A sanitizer adds a thread of its own to the first one. A joined thread is counted until the kernel has removed it.
static void start_a_first_thread() {
    std::string task;
    std::thread([&] { task = "/proc/self/task/" + std::to_string(gettid()); }).join();
    ASSERT_TRUE(wait_until([&] { return access(task.c_str(), F_OK) != 0; }));
}

class Worker : public LogLinesTest {
  protected:
    void SetUp() override {
        LogLinesTest::SetUp();
        start_a_first_thread();
        m_threads_before = threads();
        m_arrived = 0;
        m_finished = 0;
        m_may_end = false;
        m_may_accept = false;
        sem_init(&m_here, 0, 0);
    }
    void TearDown() override {
        pass_calls();
        m_may_end = true;
        m_may_accept = true;
        EXPECT_TRUE(wait_until(all_have_ended));
    }

    static pub_thread_id start(void *(*routine)(void *), void *arg = nullptr) {
        pub_thread_id id = kNobody;
        EXPECT_EQ(pub_util_create_thread(&id, routine, arg), 0);
        EXPECT_NE(id.serial, 0u);
        return id;
    }
    static void await_one() {
        while (sem_wait(&m_here) != 0) {
        }
    }
};

static void *end_at_once(void *) {
    m_finished++;
    return nullptr;
}

static void *live_until_told(void *) {
    pub_util_accept_stop();
    m_self = static_cast<int>(pthread_self());
    m_arrived++;
    sem_post(&m_here);
    while (!m_may_end) {
        usleep(1000);
    }
    m_finished++;
    return nullptr;
}

static void *accept_late(void *) {
    m_arrived++;
    sem_post(&m_here);
    while (!m_may_accept) {
        usleep(1000);
    }
    pub_util_accept_stop();
    m_finished++;
    return nullptr;
}

TEST_F(Worker, RunsItsRoutineWithItsArgument) {
    std::atomic<int> value{0};
    start(
        [](void *arg) -> void * {
            static_cast<std::atomic<int> *>(arg)->store(42);
            return nullptr;
        },
        &value);
    EXPECT_TRUE(wait_until(all_have_ended));
    EXPECT_EQ(value, 42);
}

TEST_F(Worker, IsNamedByItsOwnThreadNumber) {
    const pub_thread_id id = start(live_until_told);
    await_one();
    EXPECT_EQ(static_cast<int>(id.thread), m_self);
}

TEST_F(Worker, IsDetached) {
    static std::atomic<int> state{-1};
    start([](void *) -> void * {
        pthread_attr_t attr;
        int found = -1;
        pthread_getattr_np(pthread_self(), &attr);
        pthread_attr_getdetachstate(&attr, &found);
        pthread_attr_destroy(&attr);
        state = found;
        return nullptr;
    });
    EXPECT_TRUE(wait_until([] { return state != -1; }));
    EXPECT_EQ(state, PTHREAD_CREATE_DETACHED);
}

TEST_F(Worker, TakesTheSignalsOfItsCreatorButNoStopYet) {
    static sigset_t mask;
    static std::atomic<bool> is_known{false};
    start([](void *) -> void * {
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        is_known = true;
        return nullptr;
    });
    ASSERT_TRUE(wait_until([] { return is_known.load(); }));
    for (int signo = 1; signo < 32; signo++) {
        EXPECT_EQ(sigismember(&mask, signo), signo == SIGUSR1 ? 1 : 0) << signo;
    }
    sigset_t own;
    pthread_sigmask(SIG_SETMASK, nullptr, &own);
    EXPECT_EQ(sigismember(&own, SIGUSR1), 0) << "the creator's mask is as before";
}

// ---- stops ----

TEST_F(Worker, IsEndedByAStop) {
    pub_thread_id id = start(live_until_told);
    await_one();
    EXPECT_EQ(pub_util_kill_thread(&id), 0);
    EXPECT_EQ(id, kNobody);
    EXPECT_TRUE(wait_until(all_have_ended));
    EXPECT_EQ(m_finished, 0);
    EXPECT_EQ(platform(), (lines{"pub_util_kill_thread()", "pub_util_handle_thread_signal()",
                                 "thread " + std::to_string(m_self) + " will be end"}));
}

TEST_F(Worker, AStopOfNobodyReachesNobody) {
    start(live_until_told);
    await_one();
    pub_thread_id id = kNobody;
    EXPECT_EQ(pub_util_kill_thread(&id), 0);
    EXPECT_EQ(id, kNobody);
    EXPECT_EQ(platform(), lines{"pub_util_kill_thread()"});
    m_may_end = true;
    EXPECT_TRUE(wait_until(all_have_ended));
    EXPECT_EQ(m_finished, 1);
}

TEST_F(Worker, AStopOfAnEndedOneKeepsTheStoredId) {
    pub_thread_id id = start(end_at_once);
    ASSERT_TRUE(wait_until(all_have_ended));
    const pub_thread_id stored = id;
    EXPECT_EQ(pub_util_kill_thread(&id), 0);
    EXPECT_EQ(id, stored);
    EXPECT_EQ(pub_util_signal_thread(id, 0), ESRCH);
    EXPECT_EQ(pub_util_signal_thread(id, SIGUSR1), ESRCH);
    EXPECT_EQ(pub_util_signal_thread(kNobody, SIGUSR1), ESRCH);
}

TEST_F(Worker, AStopThatCannotBeSentIsReported) {
    pub_thread_id id = start(live_until_told);
    await_one();
    const pub_thread_id stored = id;
    errno = 0;
    fail_call("pthread_kill", EAGAIN, 1);  // the first tests whether it lives
    EXPECT_EQ(pub_util_kill_thread(&id), EAGAIN);
    EXPECT_EQ(pass_calls(), 1);
    EXPECT_EQ(id, stored);
    EXPECT_EQ(platform(), (lines{"pub_util_kill_thread()",
                                 "FILE-pub/util/util, LINE-*, FUNC-pub_util_kill_thread(), error_code=-118, errno=0",
                                 "pthread_kill(): 11 - Resource temporarily unavailable"}));
    EXPECT_EQ(pub_util_signal_thread(id, 0), 0) << "it lives";
}

TEST_F(Worker, AStopBeforeItIsReadyWaitsForIt) {
    pub_thread_id id = start(accept_late);
    await_one();
    EXPECT_EQ(pub_util_kill_thread(&id), 0);
    EXPECT_EQ(id, kNobody);
    EXPECT_FALSE(all_have_ended());
    m_may_accept = true;
    EXPECT_TRUE(wait_until(all_have_ended));
    EXPECT_EQ(m_finished, 0) << "it ended where it accepted the stop";
}

// The C library gives a new thread the id of one that has ended; ours must not.
TEST_F(Worker, StopsOfThousandsOfEndedOnesReachNobody) {
    std::vector<pub_thread_id> ended;
    std::vector<pub_thread_id> living;
    for (int round = 0; round < 30; round++) {
        for (int index = 0; index < 100; index++) {
            ended.push_back(start(end_at_once));
        }
        ASSERT_TRUE(wait_until(all_have_ended));
        living.push_back(start(live_until_told));  // on the stack, and with the pthread_t, of one of the ended
        await_one();
        m_threads_before++;
        for (const pub_thread_id id : ended) {
            ASSERT_EQ(pub_util_signal_thread(id, SIGUSR1), ESRCH);
        }
    }
    for (pub_thread_id &id : ended) {
        const pub_thread_id stored = id;
        ASSERT_EQ(pub_util_kill_thread(&id), 0);
        ASSERT_EQ(id, stored);
    }
    for (const pub_thread_id id : living) {
        EXPECT_EQ(pub_util_signal_thread(id, 0), 0);
    }
    EXPECT_EQ(m_finished, 3000);
    m_may_end = true;
    m_threads_before -= 30;
    EXPECT_TRUE(wait_until(all_have_ended));
    EXPECT_EQ(m_finished, 3030);
}

TEST_F(Worker, IdsAreNeverUsedTwice) {
    std::vector<uint64_t> ids;
    for (int index = 0; index < 1000; index++) {
        ids.push_back(start(end_at_once).serial);
        if (index % 100 == 99) {
            ASSERT_TRUE(wait_until(all_have_ended));
        }
    }
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(std::unique(ids.begin(), ids.end()), ids.end());
}

// Stoppers aim at whatever was ever started while threads start, end and are stopped.
TEST_F(Worker, SurviveManyStops) {
    static std::atomic<uint64_t> newest{0};
    newest = 0;
    pub_thread_id bystander = start(live_until_told);
    await_one();
    std::atomic<bool> is_over{false};
    std::vector<std::thread> crowd;
    for (int index = 0; index < 2; index++) {
        crowd.emplace_back([&] {
            for (int count = 0; count < 1000; count++) {
                pub_thread_id id = kNobody;
                const auto routine = [](void *) -> void * {
                    pub_util_accept_stop();
                    sched_yield();
                    return nullptr;
                };
                while (pub_util_create_thread(&id, routine, nullptr) != 0) {
                    sched_yield();  // all there is room for are alive: some will end
                }
                newest = id.serial;
            }
        });
        crowd.emplace_back([&, index] {
            unsigned seed = static_cast<unsigned>(index) + 1;
            while (!is_over) {
                const uint64_t last = newest;
                const uint64_t aim = last - static_cast<uint64_t>(rand_r(&seed) % 16);
                if (aim <= last && aim > bystander.serial) {
                    pub_util_signal_thread({0, aim}, SIGUSR1);
                }
                sched_yield();
            }
        });
    }
    crowd[0].join();
    crowd[2].join();
    is_over = true;
    crowd[1].join();
    crowd[3].join();
    EXPECT_EQ(pub_util_signal_thread(bystander, 0), 0);
    m_may_end = true;
    EXPECT_TRUE(wait_until(all_have_ended));
    EXPECT_EQ(m_finished, 1) << "the bystander reached its own end";
}

// ---- room ----

// More readers than a process can have with the usual limit of 1024 descriptors.
TEST_F(Worker, OneOfSixHundredIsStoppedAlone) {
    pthread_attr_t usual;
    pthread_attr_t small;
    pthread_getattr_default_np(&usual);
    pthread_attr_init(&small);
    pthread_attr_setstacksize(&small, 1 << 20);  // 600 of the usual size exceed an address space of 32 bits
    pthread_setattr_default_np(&small);
    std::vector<pub_thread_id> ids;
    for (int index = 0; index < 600; index++) {
        ids.push_back(start(live_until_told));
        await_one();
    }
    pthread_setattr_default_np(&usual);
    ASSERT_EQ(pub_util_kill_thread(&ids[100]), 0);
    m_threads_before += 599;
    ASSERT_TRUE(wait_until(all_have_ended));
    m_threads_before -= 599;
    m_may_end = true;
    EXPECT_TRUE(wait_until(all_have_ended));
    EXPECT_EQ(m_finished, 599);
}

TEST_F(Worker, ThatCouldNotStartTakesNoRoom) {
    pub_thread_id id = kUntouched;
    start(end_at_once);  // from here on a creation is one call
    ASSERT_TRUE(wait_until(all_have_ended));
    fail_every_call("pthread_create", EAGAIN);
    for (int index = 0; index < 300; index++) {
        ASSERT_EQ(pub_util_create_thread(&id, end_at_once, nullptr), EAGAIN);
    }
    EXPECT_EQ(pass_calls(), 300);
    EXPECT_EQ(id, kUntouched);
    start(end_at_once);
    EXPECT_TRUE(wait_until(all_have_ended));
    EXPECT_EQ(m_finished, 2);
}

// ---- descriptors ----

static int m_fd_a[3] = {-1, -1, -1};

static void *own_two_of_three(void *arg) {
    pub_util_own_descriptors(m_fd_a[0], m_fd_a[1]);
    pub_util_own_descriptors(m_fd_a[1], m_fd_a[2]);  // the first goes back to whoever had it
    return live_until_told(arg);
}

class WorkerDescriptors : public Worker {
  protected:
    void SetUp() override {
        Worker::SetUp();
        before = open_descriptors();
        for (int &fd : m_fd_a) {
            fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
            ASSERT_GT(fd, 0);
        }
    }
    void expect_the_first_alone() {
        std::vector<int> wanted = before;
        wanted.push_back(m_fd_a[0]);
        std::sort(wanted.begin(), wanted.end());
        EXPECT_EQ(open_descriptors(), wanted);
        close(m_fd_a[0]);
    }
    std::vector<int> before;
};

TEST_F(WorkerDescriptors, AreClosedAtTheEndOfTheRoutine) {
    start(own_two_of_three);
    await_one();
    EXPECT_EQ(open_descriptors().size(), before.size() + 3);
    m_may_end = true;
    ASSERT_TRUE(wait_until(all_have_ended));
    expect_the_first_alone();
}

static void *close_early(void *arg) {
    pub_util_own_descriptors(m_fd_a[1], m_fd_a[2]);
    pub_util_close_owned();
    return live_until_told(arg);
}

TEST_F(WorkerDescriptors, AreClosedOnRequestAndOnce) {
    start(close_early);
    await_one();
    EXPECT_EQ(open_descriptors().size(), before.size() + 1);
    const int others = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(others, m_fd_a[1]) << "the number is free again";
    m_may_end = true;
    ASSERT_TRUE(wait_until(all_have_ended));
    EXPECT_GE(fcntl(others, F_GETFD), 0) << "the worker's end closes nobody else's descriptor";
    close(others);
    expect_the_first_alone();
}

TEST_F(WorkerDescriptors, AreClosedByAStop) {
    pub_thread_id id = start(own_two_of_three);
    await_one();
    EXPECT_EQ(pub_util_kill_thread(&id), 0);
    ASSERT_TRUE(wait_until(all_have_ended));
    expect_the_first_alone();
}

TEST_F(WorkerDescriptors, OfAnyOtherThreadAreNotTaken) {
    std::thread([] { pub_util_own_descriptors(m_fd_a[0], m_fd_a[1]); }).join();
    EXPECT_EQ(open_descriptors().size(), before.size() + 3);
    for (const int fd : m_fd_a) {
        close(fd);
    }
}

// ---- handler ----

TEST_F(Worker, AnUnknownSignalIsReportedAndEndsNobody) {
    errno = 0;
    pub_util_handle_thread_signal(SIGUSR2);
    EXPECT_EQ(platform(),
              (lines{"pub_util_handle_thread_signal()",
                     "FILE-pub/util/util, LINE-*, FUNC-pub_util_handle_thread_signal(), error_code=-101, errno=0",
                     "unknown signal: 12"}));
}

TEST_F(Worker, TheHandlerEndsWhoeverReceivesTheSignal) {
    static std::atomic<bool> has_gone_on{false};
    std::thread([] {
        pub_util_accept_stop();
        pthread_kill(pthread_self(), SIGUSR1);
        has_gone_on = true;
    }).join();
    EXPECT_FALSE(has_gone_on);
}
