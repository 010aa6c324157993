// A long run: mixed requests, hang-ups, remote shells, deletions and saves, with all collectors active and a fast clock. The
// agent's resources and its answer time must stay the same.
#include <limits.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "tests/reliability/stress.h"
#include "tests/support/commands.h"
#include "tests/support/remote_shell.h"
#include "tests/support/sanitized.h"

static const char kClock[] = "/system/lib/quick_clock.so";

static const long kMayGain = 512;   // KiB
static const long kMayWait = 1000;  // µs that AT may take on top of twice the time that it took at first

// The quick clock's promise is 300; a loaded machine stops the agent between its own look at the clock and the test's.
static const double kLeastHaste = 200;

static const int kLeapYear = 2000 - 1900;  // has each day that a stamp can name

using steady = std::chrono::steady_clock;

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

// The number of requests between two of the rarer events.
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
    static bool has_quick_clock() {
        return sizeof(long) == 8;
    }

    static void add_clock(desk_options *options) {
        if (!has_quick_clock()) {
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
        ASSERT_TRUE(desk_until([&] { return reopened() > before; }, kStressLimit)) << evidence(h, agent);
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
            kStressLimit))
            << to_text(now) << evidence(h, agent);
        return now;
    }

    // Median of some, in microseconds.
    long time_of_attention() {
        std::vector<long> times;
        for (int i = 0; i < 31; i++) {
            const steady::time_point begin = steady::now();
            expect_answer("AT\r", kOk);
            times.push_back(std::chrono::duration_cast<std::chrono::microseconds>(steady::now() - begin).count());
        }
        std::nth_element(times.begin(), times.begin() + 15, times.end());
        return times[15];
    }

    // Ten medians are taken in the first tenth of the run and ten in the last. The best of ten is one that other work on
    // the machine has left alone.
    void note_attention(int number, int requests) {
        const int tenth = std::max(1, requests / 10);
        if (number % std::max(1, requests / 100) != 0) {
            return;
        }
        if (number <= tenth) {
            first_time = std::min(first_time, time_of_attention());
        }
        if (number > requests - tenth) {
            last_time = std::min(last_time, time_of_attention());
        }
    }

    // The same moment on two clocks.
    struct moment {
        steady::time_point machine;
        double agent = 0;  // seconds of some year
    };

    // The agent's own clock shows in the time that it gives its lines in the platform log. They are read without the
    // zone, whose summer time would leap.
    moment look_at_clocks() {
        moment now;
        expect_answer("AT\r", kOk);
        now.machine = steady::now();
        settle();
        const std::string shown = run({"env", "TZ=UTC0", "logcat", "-d", "-s", "zr-qel-sa"}).output;
        now.agent = last_stamp(shown);
        EXPECT_GE(now.agent, 0) << "no line of the agent's: " << shown;
        return now;
    }

    // The time of the last line "07-14 09:58:07.123     5     5 D zr-qel-sa: text"; -1 when there is none.
    static double last_stamp(const std::string &shown) {
        const size_t tag = shown.rfind(" zr-qel-sa: ");
        const size_t begin = tag == std::string::npos ? 0 : shown.rfind('\n', tag) + 1;
        struct tm day = {};
        double seconds = 0;
        if (sscanf(shown.c_str() + begin, "%d-%d %d:%d:%lf", &day.tm_mon, &day.tm_mday, &day.tm_hour, &day.tm_min,
                   &seconds) != 5) {
            return -1;
        }
        day.tm_mon--;
        day.tm_year = kLeapYear;
        return static_cast<double>(timegm(&day)) + seconds;
    }

    // Hours that have passed for the agent, which had the quick clock if there was one.
    static double hours_between(const moment &begin, const moment &end) {
        double passed = end.agent - begin.agent;
        passed += passed < 0 ? 366 * 24 * 3600.0 : 0;  // stamps have no year
        const double haste = passed / std::chrono::duration<double>(end.machine - begin.machine).count();
        EXPECT_GE(haste, has_quick_clock() ? kLeastHaste : 0) << "the agent has another clock";
        printf("the agent's clock ran %.0f times as fast as the machine's%s\n", haste,
               has_quick_clock() ? "" : ", without the quick clock");
        return passed / 3600;
    }

    long first_time = LONG_MAX;
    long last_time = LONG_MAX;
    chance dice;
    int hangups = 0;
    int shells = 0;
    int deletions = 0;
    int saves = 0;
};

TEST_F(Soak, HoldsWhatItHeldAndAnswersAsFast) {
    const int requests = stress_rounds(4000);
    const int warm = requests / 10;
    ASSERT_NO_FATAL_FAILURE(come_up_with_everything());
    const moment begin = look_at_clocks();
    holdings first;
    for (int number = 1; number <= requests; number++) {
        const mixed &one = any_request();
        SCOPED_TRACE("request " + std::to_string(number));
        ASSERT_NO_FATAL_FAILURE(expect_answer(one.request, one.answer));
        ASSERT_NO_FATAL_FAILURE(run_rarer_events(number));
        ASSERT_NO_FATAL_FAILURE(note_attention(number, requests));
        if (number == warm) {
            first = settled_holdings();
        }
        if (number % std::max(1, requests / 10) == 0) {
            printf("%7d requests: %s\n", number, to_text(settled_holdings()).c_str());
            fflush(stdout);
        }
    }
    const holdings last = settled_holdings();
    EXPECT_EQ(last.descriptors, first.descriptors);
    EXPECT_TRUE(is_sanitized() || last.resident <= first.resident + kMayGain)  // a sanitizer keeps what has been freed
        << last.resident << " KiB, at first " << first.resident;
    EXPECT_LE(last_time, 2 * first_time + kMayWait);
    EXPECT_EQ(desk_agent_pid(h), agent) << "the one that was started";
    const double hours = hours_between(begin, look_at_clocks());
    printf(
        "%d requests, %d hang-ups, %d remote shells, %d deletions, %d saves in %.1f hours; AT takes %ld us, at first "
        "%ld\n",
        requests, hangups, shells, deletions, saves, hours, last_time, first_time);
}
