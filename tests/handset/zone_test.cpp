// Local time in the diagnostic file: a change of daylight saving and a change of the zone itself, both while the agent
// runs. Two handsets share the wait for one whole minute, the time at which zones change.
#include <stdlib.h>
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

static void request(desk *h, const std::string &bytes) {
    const int channel = desk_open_tty(h, "/dev/ttyCMD0");
    ASSERT_GE(channel, 0) << desk_error();
    ASSERT_EQ(write(channel, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    EXPECT_TRUE(desk_wait_text(h, kSaLog, "req[" + bytes + "] ret_val[0]"));
    close(channel);
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

TEST_F(Zone, ChangesAreFollowedWithinAMinute) {
    // The first handset's zone goes from one hour to two hours east at the next whole minute but one at the most.
    const time_t now = time(nullptr);
    const time_t change = (now + 10 + 59) / 60 * 60;
    struct tm standard;
    const time_t shown = change + 3600;
    gmtime_r(&shown, &standard);
    char rule[64];
    snprintf(rule, sizeof(rule), "DESK-1SUMMER-2,%d/%d:%02d,%d/23:59", standard.tm_yday, standard.tm_hour,
             standard.tm_min, (standard.tm_yday + 100) % 365);
    desk_options options = quiet_options();
    options.timezone = rule;
    ASSERT_NO_FATAL_FAILURE(boot(options));
    hang_up();

    // The second one's is changed below.
    desk *other = desk_boot(quiet_options());
    ASSERT_NE(other, nullptr) << desk_error();
    ASSERT_NO_FATAL_FAILURE(request(other, "utc\r"));
    const time_t early = time(nullptr);
    EXPECT_EQ(offset_of(other, "sa_handle_read_cmd_loop req[utc\r] ret_val[0]", early), 0);
    ASSERT_NO_FATAL_FAILURE(set_zone(other, "5:30"));

    ASSERT_NO_FATAL_FAILURE(request(h, "standard\r"));
    const time_t before = time(nullptr);
    if (before < change) {
        EXPECT_EQ(offset_of(h, "sa_handle_read_cmd_loop req[standard\r] ret_val[0]", before), 60);
    }
    ASSERT_TRUE(desk_until([&] { return time(nullptr) > change; }, 75000));
    ASSERT_NO_FATAL_FAILURE(request(h, "summer\r"));
    EXPECT_EQ(offset_of(h, "sa_handle_read_cmd_loop req[summer\r] ret_val[0]", time(nullptr)), 120);
    ASSERT_NO_FATAL_FAILURE(request(other, "east\r"));
    EXPECT_EQ(offset_of(other, "sa_handle_read_cmd_loop req[east\r] ret_val[0]", time(nullptr)), 330);
    desk_end(other);
}
