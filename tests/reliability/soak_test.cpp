// A long day: mixed requests, hang-ups, remote shells, deletions and saves, with all collectors at work and a clock that
// makes hours of minutes. What the agent holds stays the same, and so does the time that it takes to answer.
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "tests/reliability/storm.h"
#include "tests/support/commands.h"
#include "tests/support/remote_shell.h"
#include "tests/support/sanitized.h"

static const char kClock[] = "/system/lib/quick_clock.so";

static const long kMayGain = 512;  // KiB

// One request of the mix; the answer's beginning, which is the whole answer where it says OK or ERROR.
struct mixed {
    int weight;
    const char *request;
    const char *answer;
};
static const mixed kMix[] = {
    {40, "AT\r", kOk},
    {10, "AT SA+QUERY_SERVICE=\"logd\"\r", "\r\nQUERY_SERVICE: 1\r\n"},
    {10, "AT SA+QUERY_SERVICE=\"no-such-service\"\r", "\r\nQUERY_SERVICE: 0\r\n"},
    {4, "AT SA+START_SERVICE=\"logd\"\r", kOk},
    {4, "AT SA+STOP_SERVICE=\"no-such-service\"\r", kOk},
    {3, "AT SA+AUTO_START_SERVICE=\"sister-a\",1\r", kOk},
    {3, "AT SA+AUTO_START_SERVICE=\"sister-a\",0\r", kOk},
    {3, "AT SA+AUTO_START_SERVICE=\"sister-a\",2\r", "\r\nAUTO_START_SERVICE: "},
    {3, "AT SA+SYSTEM=\"true\"\r", kOk},
    {1, "AT SA+KERNEL_LOG=1\r", kOk},
    {1, "AT SA+KERNEL_LOG=0\r", kOk},
    {3, "AT SA+KERNEL_LOG?\r", "\r\nKERNEL_LOG: "},
    {1, "AT SA+DMESG_LOG=1\r", kOk},
    {1, "AT SA+DMESG_LOG=0\r", kOk},
    {3, "AT SA+DMESG_LOG?\r", "\r\nDMESG_LOG: "},
    {4, "AT SA+NO_SUCH_COMMAND\r", kError},
    {3, "AT SA+SYSTEM=unquoted\r", kError},
    {3, "nothing that it knows\r", kError},
};

// How many requests come between two of the rarer events.
static const int kPerHangUp = 200;
static const int kPerShell = 1000;
static const int kPerDelete = 4000;
static const int kPerSave = 40000;
static const int kPerTidying = 1000;

class Soak : public RemoteShellTest {
  protected:
    void TearDown() override {
        if (listener >= 0) {
            close(listener);
            listener = -1;
        }
        end();
    }

    // A 32-bit clock is left out: the 64-bit programs of the handset would complain of it in their output.
    static void add_clock(desk_options *options) {
        if (sizeof(long) == 4) {
            return;
        }
        desk_file clock;
        clock.path = kClock;
        clock.host_source = QUICK_CLOCK;
        options->files.push_back(clock);
        options->environment.push_back(std::string("LD_PRELOAD=") + kClock);
        options->environment.push_back("ASAN_OPTIONS=verify_asan_link_order=0");
    }

    void come_up_with_everything() {
        const std::string all = log_property({{2, "2,1"}, {3, "2,50"}, {4, "2,50"}, {5, "2,50"}, {6, "2,50"}});
        desk_options options = with_log_property(all);
        add_clock(&options);
        options.timezone = "CET-1CEST,M3.5.0,M10.5.0/3";
        options.data_size = 256u << 20;
        add_quick_programs(&options);
        ASSERT_NO_FATAL_FAILURE(boot(options));
        agent = desk_agent_pid(h);
        open_listener();
        ASSERT_TRUE(desk_make_dir(h, "/data/log/SystemLog"));
    }

    const mixed &any_request() {
        int total = 0;
        for (const mixed &one : kMix) {
            total += one.weight;
        }
        int at = dice.below(total);
        const mixed *found = kMix;
        while (at >= found->weight) {
            at -= found->weight;
            found++;
        }
        return *found;
    }

    void expect_answer(const std::string &bytes, const std::string &answer) {
        const std::string got = ask(bytes, 60000);
        ASSERT_EQ(got.substr(0, answer.size()), answer) << bytes << evidence(h, agent);
    }

    // The channel is there again when the log has said so: until then the name may lead to the old one.
    void change_client() {
        const auto reopened = [this] {
            const std::string text = desk_file_text(h, kSaLog);
            int count = 0;
            for (size_t at = 0; (at = text.find(" reopen m_ptm_fd[", at)) != std::string::npos; at++) {
                count++;
            }
            return count;
        };
        const int before = reopened();
        hang_up();
        ASSERT_TRUE(desk_until([&] { return reopened() > before; }, kStormLimit)) << evidence(h, agent);
        ASSERT_NO_FATAL_FAILURE(open_channel());
    }

    void run_rarer_events(int number) {
        if (number % kPerHangUp == 0) {
            ASSERT_NO_FATAL_FAILURE(change_client());
            hangups++;
        }
        if (number % kPerShell == 0) {
            ASSERT_EQ(run_remote("echo shell"), "shell\n") << evidence(h, agent);
            desk_kmsg_feed(h, "<6>[  100.000000] one more thousand\n");
            shells++;
        }
        if (number % kPerDelete == kPerDelete / 2) {
            // A reader of the switch's that lives through a restart of collection lives on by design.
            ASSERT_NO_FATAL_FAILURE(expect_answer("AT SA+KERNEL_LOG=0\r", kOk));
            ASSERT_NO_FATAL_FAILURE(expect_answer("AT SA+DELETE_LOG\r", kOk));
            deletions++;
        }
        if (number % kPerSave == kPerDelete / 2) {
            ASSERT_NO_FATAL_FAILURE(expect_answer("AT SA+SAVE_LOG\r", kOk));
            ASSERT_TRUE(desk_remove(h, "/storage/real_sd/logs"));
            saves++;
        }
        if (number % kPerTidying == 0) {
            ASSERT_TRUE(desk_remove(h, kSaLog));  // it is shifted at a start alone, and would fill /data
        }
    }

    // With the switch off, and all that is under way come to its end: no more threads and children than collectors.
    holdings settled_holdings() {
        holdings now;
        expect_answer("AT SA+KERNEL_LOG=0\r", kOk);
        EXPECT_TRUE(desk_until(
            [&] {
                now = holdings_of(h, agent);
                return now.threads == 3 + 4 && now.children == 4 && now.zombies == 0;
            },
            kStormLimit))
            << to_text(now) << evidence(h, agent);
        return now;
    }

    // Median of many, in microseconds.
    long time_of_attention() {
        using clock = std::chrono::steady_clock;
        std::vector<long> times;
        for (int i = 0; i < 301; i++) {
            const clock::time_point begin = clock::now();
            expect_answer("AT\r", kOk);
            times.push_back(std::chrono::duration_cast<std::chrono::microseconds>(clock::now() - begin).count());
        }
        std::nth_element(times.begin(), times.begin() + 150, times.end());
        return times[150];
    }

    chance dice;
    int hangups = 0;
    int shells = 0;
    int deletions = 0;
    int saves = 0;
};

TEST_F(Soak, HoldsWhatItHeldAndAnswersAsFast) {
    const int requests = storm_rounds(4000);
    const int warm = requests / 10;
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_NO_FATAL_FAILURE(come_up_with_everything());
    holdings first;
    long first_time = 0;
    for (int number = 1; number <= requests; number++) {
        const mixed &one = any_request();
        SCOPED_TRACE("request " + std::to_string(number));
        ASSERT_NO_FATAL_FAILURE(expect_answer(one.request, one.answer));
        ASSERT_NO_FATAL_FAILURE(run_rarer_events(number));
        if (number == warm) {
            first = settled_holdings();
            first_time = time_of_attention();
        }
        if (number % std::max(1, requests / 10) == 0) {
            printf("%7d requests: %s\n", number, to_text(settled_holdings()).c_str());
            fflush(stdout);
        }
    }
    const holdings last = settled_holdings();
    const long last_time = time_of_attention();
    EXPECT_EQ(last.descriptors, first.descriptors);
    EXPECT_TRUE(is_sanitized() || last.resident <= first.resident + kMayGain)  // a sanitizer keeps what has been freed
        << last.resident << " KiB, at first " << first.resident;
    EXPECT_LT(last_time, 10 * first_time + 20000);
    EXPECT_EQ(desk_agent_pid(h), agent) << "the one that was started";
    const double hours = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count() * 300 / 3600;
    printf(
        "%d requests, %d hang-ups, %d remote shells, %d deletions, %d saves in %.1f hours; AT takes %ld us, at first "
        "%ld\n",
        requests, hangups, shells, deletions, saves, hours, last_time, first_time);
}
