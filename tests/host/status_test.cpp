// What sa-host tells of the agent and of the card, and how it waits for the agent.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <regex>

#include "tests/host/links.h"

namespace {

const char kCard[] = "/storage/real_sd/logs";

class Status : public LinkTest {};

TEST_P(Status, TellsProcessSwitchesCollectorsSpaceListAndPanics) {
    ASSERT_NO_FATAL_FAILURE(boot_link(desk_options()));
    ASSERT_EQ(host({"kernel-log", "on"}).status, 0);
    ASSERT_EQ(host({"autostart", "add", "zr-elog"}).status, 0);
    ASSERT_TRUE(desk_make_dir(h, "/data/log/SystemLog"));
    ASSERT_TRUE(desk_write_file(h, "/data/log/SystemLog/apanic_console", "panic\n"));
    ASSERT_TRUE(desk_write_file(h, "/data/local/log/logcat.log.1", std::string(1500, 'x')));
    const host_result status = host({"status"});
    ASSERT_EQ(status.status, 0) << status.err;
    const std::string day = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} \\+0000";
    const std::string runs = " +runs +limit 5 x ";
    const std::string expected = "Agent:          process " + std::to_string(desk_agent_pid(h)) + ", up since " + day +
                                 " \\([0-9]:[0-9]{2}\\)\n"
                                 "Switches:       kernel-log on, dmesg-log off, packets off\n"
                                 "Property:       persist.sys.install.zr.log is unset: the default counts\n"
                                 "Collectors:     in /data/local/log\n"
                                 "  packets" +
                                 runs +
                                 "9.0 MB +1 file, [0-9.]+ k?B\n"
                                 "  kernel" +
                                 runs +
                                 "21.0 MB +2 files, [0-9.]+ k?B\n"
                                 "  main" +
                                 runs +
                                 "5.2 MB +2 files, [0-9.]+ kB\n"
                                 "  events" +
                                 runs +
                                 "5.2 MB +1 file, 0 B\n"
                                 "  radio" +
                                 runs +
                                 "5.2 MB +1 file, 0 B\n"
                                 "Free on /data:  [0-9.]+ MB of 67.1 MB; collectors start above 3.4 MB\n"
                                 "Auto-start:     zr-elog\n"
                                 "Panic records:  \n"
                                 "  apanic_console +" +
                                 day + "  6 B\n";
    EXPECT_TRUE(std::regex_match(status.out, std::regex(expected))) << status.out << "is not\n" << expected;
}

TEST_P(Status, JsonHasTheSame) {
    ASSERT_NO_FATAL_FAILURE(boot_link());
    ASSERT_EQ(host({"autostart", "add", "a\\b"}).status, 0);
    const host_result status = host({"status", "--json"});
    ASSERT_EQ(status.status, 0) << status.err;
    for (const std::string &part :
         {"{\"agent\": {\"pid\": " + std::to_string(desk_agent_pid(h)) + ", \"since\": \"20",
          std::string("\"switches\": {\"kernel_log\": false, \"dmesg_log\": false, \"packets\": false},\n"),
          std::string("\"directory\": \"/data/local/log\""),
          std::string("{\"place\": 4, \"name\": \"main\", \"runs\": false, \"files_limit\": 0, "
                      "\"file_bytes_limit\": 0, \"files\": 0, \"bytes\": 0}"),
          std::string("\"collect_above\": 3354624, \"reserve_below\": 3145728}"),
          std::string("\"auto_start\": [\"a\\\\b\"],\n \"panic_records\": []}\n")}) {
        EXPECT_NE(status.out.find(part), std::string::npos) << part << "\nis not in\n" << status.out;
    }
}

TEST_P(Status, SwitchesOfAnEarlierAgentCountAsOff) {
    ASSERT_NO_FATAL_FAILURE(boot_link());
    ASSERT_EQ(host({"dmesg-log", "on"}).status, 0);
    EXPECT_NE(host({"status"}).out.find("dmesg-log on"), std::string::npos);
    const struct timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, desk_host_path(h, "/data/zr-qel-sa.set").c_str(), times, 0), 0);
    EXPECT_NE(host({"status"}).out.find("dmesg-log off, packets off (none switched since the start)"),
              std::string::npos);
}

TEST_P(Status, APropertyThatEndsTooEarlyIsExplained) {
    ASSERT_NO_FATAL_FAILURE(boot_link());
    ASSERT_EQ(desk_shell(h, "setprop persist.sys.install.zr.log /data/x,I1,0,0,I2,5").status, 0);
    const host_result status = host({"status"});
    EXPECT_NE(status.out.find("Collectors:     none: it ends before the triple of place 2"), std::string::npos)
        << status.out;
}

OVER_EVERY_LINK(Status);

class Sets : public LinkTest {
  protected:
    void make_set(const std::string &name, const std::string &bug_report) {
        ASSERT_TRUE(desk_make_dir(h, std::string(kCard) + "/" + name));
        ASSERT_TRUE(desk_write_file(h, std::string(kCard) + "/" + name + "/ps.log", std::string(8192, 'x')));
        if (!bug_report.empty()) {
            ASSERT_TRUE(desk_write_file(h, std::string(kCard) + "/" + name + "/bugreport.log", bug_report));
        }
    }
};

TEST_P(Sets, ListsTimeSizeAndState) {
    ASSERT_NO_FATAL_FAILURE(boot_link());
    EXPECT_EQ(host({"sets", "--json"}).out, "[]\n");
    ASSERT_NO_FATAL_FAILURE(make_set("2026_01_02_03_04_05", "all"));
    ASSERT_NO_FATAL_FAILURE(make_set("2025_12_31_23_59_59", ""));
    ASSERT_NO_FATAL_FAILURE(make_set("2026_02_02_02_02_02", "beginning"));
    ASSERT_TRUE(desk_make_dir(h, std::string(kCard) + "/else"));
    desk_program saving;
    saving.argv = {"/system/bin/sh", "-c", "sleep 1000; : >/storage/real_sd/logs/2026_02_02_02_02_02/x"};
    desk_child child;
    ASSERT_TRUE(desk_start(h, saving, &child));
    const host_result sets = host({"sets"});
    EXPECT_EQ(sets.status, 0) << sets.err;
    EXPECT_EQ(sets.out,
              "2025_12_31_23_59_59  2025-12-31 23:59:59     8.2 kB  incomplete\n"
              "2026_01_02_03_04_05  2026-01-02 03:04:05    12.3 kB  complete\n"
              "2026_02_02_02_02_02  2026-02-02 02:02:02    12.3 kB  being saved\n");
    desk_kill(h, child.pid, SIGKILL);
    desk_wait(h, &child, 10000);
    EXPECT_NE(host({"sets", "-j"})
                  .out.find("{\"set\": \"2026_02_02_02_02_02\", \"time\": \"2026-02-02T02:02:02\", "
                            "\"bytes\": 12288, \"state\": \"complete\"}"),
              std::string::npos);
}

OVER_EVERY_LINK(Sets);

class Wait : public LinkTest {};

TEST_P(Wait, UpEndsOnceTheAgentAnswersAndListens) {
    ASSERT_NO_FATAL_FAILURE(boot_link_without_agent());
    host_job waiting;
    host_start(inside({"wait"}), false, &waiting);
    host_job bounded;
    host_start(inside({"-T", "100", "send", "AT"}), false, &bounded);
    EXPECT_EQ(host({"wait", "-T", "1"}).status, 2);
    ASSERT_EQ(desk_shell(h, "setprop ctl.start zr-qel-sa").status, 0);
    EXPECT_EQ(host_finish(&waiting).status, 0);
    EXPECT_EQ(host({"shell", "echo up"}).out, "up\n");
    const host_result answered = host_finish(&bounded);
    EXPECT_EQ(answered.out, "OK\n") << answered.err;
}

TEST_P(Wait, DownEndsOnceTheChannelIsGone) {
    desk_options options = quiet_options();
    options.restart_ms = 3600000;
    ASSERT_NO_FATAL_FAILURE(boot_link(options));
    EXPECT_EQ(host({"wait", "--for", "up"}).status, 0);
    const host_result too_early = host({"wait", "--for", "down", "-T", "2"});
    EXPECT_EQ(too_early.status, 2);
    EXPECT_NE(too_early.err.find("still publishes its command channel"), std::string::npos) << too_early.err;
    host_job waiting;
    host_start(inside({"wait", "--for=down"}), false, &waiting);
    EXPECT_EQ(host({"kill"}).status, 0);
    EXPECT_EQ(host_finish(&waiting).status, 0);
    EXPECT_EQ(host({"wait", "--for", "later"}).status, 3);
}

// A killed agent leaves its links. The new one may publish its listener under the number that the old channel had, before
// it publishes its own channel: no request may go to the listener then.
TEST_P(Wait, AChannelThatLeadsToTheListenerIsNotThereYet) {
    ASSERT_NO_FATAL_FAILURE(boot_link());
    const std::string listener = desk_link_target(h, "/dev/ttysa1");
    const std::string own = desk_link_target(h, "/dev/ttyCMD0");
    ASSERT_EQ(
        desk_shell(h, "ln -sfn " + listener + " /dev/ttyCMD0;sleep 0.1;ln -sfn " + listener + " /dev/ttysa1").status,
        0);
    const host_result early = host({"query", "x"});
    EXPECT_EQ(early.status, 2);
    EXPECT_NE(early.err.find("command channel"), std::string::npos) << early.err;
    host_job patient;
    host_start(inside({"-T", "100", "query", "x"}), false, &patient);
    EXPECT_EQ(host({"shell", "echo the listener is free"}).out, "the listener is free\n");
    ASSERT_EQ(desk_shell(h, "ln -sfn " + own + " /dev/ttyCMD0").status, 0);
    EXPECT_EQ(host_finish(&patient).out, "QUERY_SERVICE: 0\n");
    EXPECT_EQ(received(), words{"AT SA+QUERY_SERVICE=\"x\"\r"});
}

OVER_EVERY_LINK(Wait);

}  // namespace
