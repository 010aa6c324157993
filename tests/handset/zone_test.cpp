// Local time in the diagnostic file: a change of the zone while the agent runs, on its threads and in its signal handler.
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include "tests/support/agent.h"

class Zone : public AgentTest {};

// Minutes east of UTC that a line with this text was stamped with, or -1 when there is no such line. `when` is about the
// time at which it was written.
static int offset_of(desk *h, const std::string &text, time_t when) {
    const std::string file = desk_file_text(h, kSaLog);
    const size_t at = file.find("]" + text + "\n");
    if (at == std::string::npos) {
        return -1;
    }
    int day = 0;
    int hour = 0;
    int minute = 0;
    const size_t begin = file.rfind('\n', at) + 1;
    sscanf(file.c_str() + begin, "[%*2d-%2d %2d:%2d:", &day, &hour, &minute);
    struct tm utc;
    gmtime_r(&when, &utc);
    const int shown = hour * 60 + minute;
    const int meant = utc.tm_hour * 60 + utc.tm_min;
    const int across = ((shown - meant) % 1440 + 1440) % 1440;
    return (across + 7) / 15 * 15 % 1440;  // the request took its time
}

// A zone without daylight saving, made inside the handset by the system's own compiler, becomes the handset's zone.
static void set_zone(desk *h, const std::string &offset) {
    ASSERT_TRUE(desk_write_file(h, "/data/local/tmp/source", "Zone Desk " + offset + " - DESK\n"));
    ASSERT_EQ(desk_shell(h,
                         "/usr/sbin/zic -d /data/local/tmp/zones /data/local/tmp/source && "
                         "mv /data/local/tmp/zones/Desk /etc/localtime")
                  .status,
              0);
}

// Changes the zone and waits until the change must show: the agent looks once a second.
static void change_zone(desk *h) {
    ASSERT_NO_FATAL_FAILURE(set_zone(h, "5:30"));
    const time_t changed = time(nullptr);
    ASSERT_TRUE(desk_until([&] { return time(nullptr) >= changed + 2; }));
}

TEST_F(Zone, ChangeIsFollowedWithinASecondOnBothThreads) {
    const std::string served = "sa_handle_read_cmd_loop req[AT\r] ret_val[0]";
    const std::string listened = "sa_listener_loop service[no shell]";
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_EQ(ask("AT\r"), kOk);
    ASSERT_TRUE(wait_file_line(served));
    EXPECT_EQ(offset_of(h, served, time(nullptr)), 0);
    ASSERT_TRUE(desk_remove(h, kSaLog));
    ASSERT_NO_FATAL_FAILURE(change_zone(h));
    ASSERT_EQ(ask("AT\r"), kOk);
    ASSERT_TRUE(wait_file_line(served));
    EXPECT_EQ(offset_of(h, served, time(nullptr)), 330);
    const int listener = desk_open_tty(h, "/dev/ttysa1");
    ASSERT_EQ(write(listener, "no shell", 8), 8);
    ASSERT_TRUE(wait_file_line(listened));
    EXPECT_EQ(offset_of(h, listened, time(nullptr)), 330);
    close(listener);
}

// The handler interrupts the main thread in its listener, after a time without any line.
TEST_F(Zone, ChangeIsFollowedByASignalHandlerOfAnIdleAgent) {
    const std::string handled = "signal_treatment signal[15-SIGTERM]";
    desk_options options = quiet_options();
    options.agent = false;
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    desk_child agent = launch();
    ASSERT_TRUE(wait_listening(agent.pid));
    ASSERT_TRUE(desk_wait_text(h, kSaLog, "]sa_handle_read_cmd_loop ptm_fd["));
    ASSERT_NO_FATAL_FAILURE(change_zone(h));
    ASSERT_TRUE(desk_kill(h, agent.pid, SIGTERM));
    ASSERT_EQ(desk_wait(h, &agent, 10000), 0);
    EXPECT_EQ(offset_of(h, handled, time(nullptr)), 330);
}
