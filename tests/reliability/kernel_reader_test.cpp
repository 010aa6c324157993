// The kernel-message reader stopped and started at random moments under a flood of messages: nobody else is hit, nothing
// is left held, nothing gained.
#include <stdio.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "tests/reliability/storm.h"
#include "tests/support/collectors.h"

static const char kKernelLog[] = "/data/local/log/kmsg.log";

// Feeds the handset messages as fast as they are read, for as long as it lives.
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

class KernelReaderStorm : public CollectorTest {
  protected:
    void TearDown() override {
        end();  // a failure has told the end of the log already
    }

    void come_up(const std::string &kernel_collector) {
        ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{3, kernel_collector}}))));
        ASSERT_TRUE(desk_kmsg_drained(h));  // a handset in place has no kernel messages: here it can be skipped
        agent = desk_agent_pid(h);
        ASSERT_EQ(ask("AT\r"), kOk);
        command_thread = storm_threads(h, agent).back();  // it is started last
        before = holdings_of(h, agent);
    }

    // The agent as it was before, but for its memory, and with the same command thread.
    ::testing::AssertionResult holds_nothing_more() {
        holdings now;
        const bool is_so = desk_until(
            [&] {
                now = holdings_of(h, agent);
                return now.descriptors == before.descriptors && now.threads == before.threads && now.children == 0;
            },
            kStormLimit);
        const std::vector<pid_t> threads = storm_threads(h, agent);
        if (is_so && std::count(threads.begin(), threads.end(), command_thread) == 1 && desk_agent_pid(h) == agent) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure() << to_text(now) << ", before: " << to_text(before) << evidence(h, agent);
    }

    // A message comes to the file: a reader lives and writes.
    void expect_copying(const std::string &message) {
        ASSERT_TRUE(desk_kmsg_feed(h, "<6>[  200.000000] " + message + "\n"));
        EXPECT_TRUE(desk_wait_text(h, kKernelLog, message, kStormLimit)) << evidence(h, agent);
    }

    chance dice;
    pid_t agent = -1;
    pid_t command_thread = -1;
    holdings before;
};

TEST_F(KernelReaderStorm, SwitchedOnAndOffAtRandomMoments) {
    const int rounds = storm_rounds(100);
    ASSERT_NO_FATAL_FAILURE(come_up("0,0"));
    ASSERT_EQ(before.threads, 2) << "main thread and command thread";
    int messages;
    {
        const flood messages_flood(h);
        for (int round = 0; round < rounds; round++) {
            SCOPED_TRACE("round " + std::to_string(round));
            ASSERT_EQ(command("+KERNEL_LOG=1"), kOk) << evidence(h, agent);
            dice.wait_up_to(3000);
            ASSERT_EQ(command("+KERNEL_LOG=0"), kOk) << evidence(h, agent);
            if (round % 50 == 49) {
                ASSERT_TRUE(holds_nothing_more());
            }
        }
        messages = messages_flood.messages();
    }
    EXPECT_TRUE(holds_nothing_more());
    ASSERT_EQ(command("+KERNEL_LOG=1"), kOk);
    expect_copying("after the storm");
    printf("%d stops and starts by the switch, %d messages fed; %s\n", rounds, messages,
           to_text(holdings_of(h, agent)).c_str());
}

TEST_F(KernelReaderStorm, CollectionRestartedAtRandomMoments) {
    const int rounds = storm_rounds(30);
    ASSERT_NO_FATAL_FAILURE(come_up("3,50"));
    expect_copying("before the storm");
    before = holdings_of(h, agent);
    ASSERT_EQ(before.threads, 3) << "main thread, kernel-message reader and command thread";
    int messages;
    {
        const flood messages_flood(h);
        for (int round = 0; round < rounds; round++) {
            SCOPED_TRACE("round " + std::to_string(round));
            dice.wait_up_to(3000);
            ASSERT_EQ(command("+DELETE_LOG"), kOk) << evidence(h, agent);
            if (round % 50 == 49) {
                ASSERT_TRUE(holds_nothing_more());
            }
        }
        messages = messages_flood.messages();
    }
    EXPECT_TRUE(holds_nothing_more());
    expect_copying("after the storm");
    printf("%d restarts of collection, %d messages fed; %s\n", rounds, messages,
           to_text(holdings_of(h, agent)).c_str());
}
