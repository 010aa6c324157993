// The kernel-message reader is stopped and started at random times: no other thread ends and nothing leaks. It is stopped
// while it copies many messages, while it waits for a stream without a writer, and while its output is a FIFO without a
// reader.
#include <stdio.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include "tests/reliability/stress.h"
#include "tests/support/collectors.h"
#include "tests/support/sanitized.h"

static const char kKernelLog[] = "/data/local/log/kmsg.log";
static const long kMemoryAllowance = 1024;  // KiB

// Writes messages to the handset as fast as they are read, until it is destroyed.
class flood {
  public:
    explicit flood(desk *handset) : h(handset), feeder([this] { run(); }) {}
    ~flood() {
        is_over = true;
        feeder.join();
    }
    int messages() const {
        return fed;
    }

  private:
    void run() {
        while (!is_over) {
            for (int record = 0; record < 50; record++) {
                fed +=
                    desk_kmsg_feed(h, "<6>[  100.000000] flood " + std::to_string(fed) + std::string(60, '.') + "\n");
            }
            desk_kmsg_drained(h, 20);
        }
    }

    desk *h;
    std::atomic<bool> is_over{false};
    std::atomic<int> fed{0};
    std::thread feeder;  // last: it uses what stands above
};

struct reader_case {
    const char *name;
    const char *fifo_over;  // mounted there before the agent starts, without anybody at its other end; null for none
    int readers;            // that stay alive while they are switched on
};

static const reader_case kCases[] = {
    {"FlowingStream", nullptr, 1},
    {"SilentStream", "/proc/kmsg", 1},
    {"OutputWithoutAReader", kKernelLog, 0},  // its open fails, and the reader ends
};

static void PrintTo(const reader_case &one, std::ostream *out_ptr) {
    *out_ptr << one.name;
}

class KernelReaderStress : public CollectorTest, public ::testing::WithParamInterface<reader_case> {
  protected:
    void TearDown() override {
        end();  // a failure has told the end of the log already
    }

    void mount_fifo(const std::string &path) {
        const desk_result mounted = desk_shell(h, "busybox mkfifo /data/fifo && (test -e " + path + " || touch " +
                                                      path + ") && /usr/bin/mount --bind /data/fifo " + path);
        ASSERT_EQ(mounted.status, 0) << mounted.errors;
    }

    void come_up(const std::string &kernel_collector, int readers) {
        desk_options options = with_log_property(log_property({{3, kernel_collector}}));
        options.agent = false;
        ASSERT_NO_FATAL_FAILURE(boot_only(options));
        if (GetParam().fifo_over != nullptr) {
            ASSERT_NO_FATAL_FAILURE(mount_fifo(GetParam().fifo_over));
        }
        ASSERT_NO_FATAL_FAILURE(start_agent());
        agent = desk_agent_pid(h);
        ASSERT_EQ(ask("AT\r"), kOk);
        ASSERT_TRUE(desk_until([&] { return threads(agent) == 2 + readers; })) << threads(agent);
        command_thread = stress_threads(h, agent).back();  // it is started last
        if (GetParam().fifo_over == nullptr && readers > 0) {
            expect_copying("before the stress test");
        }
        before = holdings_of(h, agent);
    }

    // The agent as it was before, with the same command thread.
    ::testing::AssertionResult holds_nothing_more() {
        holdings now;
        const bool is_so = desk_until(
            [&] {
                now = holdings_of(h, agent);
                return now.descriptors == before.descriptors && now.threads == before.threads && now.children == 0 &&
                       (is_sanitized() || now.resident < before.resident + kMemoryAllowance);
            },
            kStressLimit);
        const std::vector<pid_t> threads = stress_threads(h, agent);
        if (is_so && std::count(threads.begin(), threads.end(), command_thread) == 1 && desk_agent_pid(h) == agent) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure() << to_text(now) << ", before: " << to_text(before) << evidence(h, agent);
    }

    // Runs one round after the other, with a flood of messages where they flow. Returns how many messages were fed.
    int run_rounds(int rounds, const std::function<void()> &one) {
        std::unique_ptr<flood> messages(GetParam().fifo_over == nullptr ? new flood(h) : nullptr);
        for (int round = 0; round < rounds && !HasFatalFailure(); round++) {
            SCOPED_TRACE("round " + std::to_string(round));
            one();
            if (round % 50 == 49) {
                check_holdings();
            }
        }
        return messages != nullptr ? messages->messages() : 0;
    }

    void check_holdings() {
        ASSERT_TRUE(holds_nothing_more());
    }

    // A message comes to the file: a reader lives and writes.
    void expect_copying(const std::string &message) {
        ASSERT_TRUE(desk_kmsg_feed(h, "<6>[  200.000000] " + message + "\n"));
        EXPECT_TRUE(desk_wait_text(h, kKernelLog, message, kStressLimit)) << evidence(h, agent);
    }

    // What was in the way is gone: the next reader copies.
    void expect_recovery(const std::string &start) {
        if (GetParam().fifo_over != nullptr) {
            ASSERT_EQ(desk_shell(h, std::string("/usr/bin/umount -l ") + GetParam().fifo_over).status, 0);
        }
        ASSERT_EQ(command(start), kOk);
        expect_copying("after the stress test");
    }

    chance dice;
    pid_t agent = -1;
    pid_t command_thread = -1;
    holdings before;
};

TEST_P(KernelReaderStress, SwitchedOnAndOffAtRandomMoments) {
    const int rounds = stress_rounds(GetParam().fifo_over == nullptr ? 100 : 50);
    ASSERT_NO_FATAL_FAILURE(come_up("0,0", 0));
    const int messages = run_rounds(rounds, [&] {
        ASSERT_EQ(command("+KERNEL_LOG=1"), kOk) << evidence(h, agent);
        dice.wait_up_to(3000);
        ASSERT_EQ(command("+KERNEL_LOG=0"), kOk) << evidence(h, agent);
    });
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_TRUE(holds_nothing_more());
    expect_recovery("+KERNEL_LOG=1");
    printf("%d stops and starts by the switch, %d messages fed; %s\n", rounds, messages,
           to_text(holdings_of(h, agent)).c_str());
}

TEST_P(KernelReaderStress, CollectionRestartedAtRandomMoments) {
    const int rounds = stress_rounds(30);
    ASSERT_NO_FATAL_FAILURE(come_up("3,50", GetParam().readers));
    const int messages = run_rounds(rounds, [&] {
        dice.wait_up_to(3000);
        ASSERT_EQ(command("+DELETE_LOG"), kOk) << evidence(h, agent);
    });
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_TRUE(holds_nothing_more());
    expect_recovery("+DELETE_LOG");
    printf("%d restarts of collection, %d messages fed; %s\n", rounds, messages,
           to_text(holdings_of(h, agent)).c_str());
}

INSTANTIATE_TEST_SUITE_P(Of, KernelReaderStress, ::testing::ValuesIn(kCases),
                         [](const auto &one) { return std::string(one.param.name); });
