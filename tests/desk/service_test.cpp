// Services: start, states, what a stop kills, restarts, and replies for unknown services.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include "tests/desk/fixture.h"

static const char kSleeper[] = "service sleeper /system/bin/sleep 1000\n    class main\n    user root\n    disabled\n";

static desk_options with_rc(const std::string &text) {
    desk_options options = handset::no_agent();
    options.files.push_back(rc_file(text));
    return options;
}

static std::string status_field(desk *h, pid_t pid, const std::string &field) {
    std::string text = desk_file_text(h, "/proc/" + std::to_string(pid) + "/status");
    size_t at = text.find("\n" + field + ":\t");
    if (at == std::string::npos) {
        return "";
    }
    at += field.size() + 3;
    return text.substr(at, text.find('\n', at) - at);
}

// Fields 3 to 6 of /proc/PID/stat behind the name: state, parent, process group, session.
static void group_and_session(desk *h, pid_t pid, int *group, int *session) {
    std::string text = desk_file_text(h, "/proc/" + std::to_string(pid) + "/stat");
    *group = *session = -1;
    sscanf(text.c_str() + text.rfind(')') + 1, " %*c %*d %d %d", group, session);
}

TEST(Service, StatesOfStartAndStop) {
    handset set(with_rc(kSleeper));
    BOOTED(set);
    EXPECT_EQ(desk_service_state(set.h, "sleeper"), "") << "never started";
    EXPECT_EQ(desk_service_start(set.h, "sleeper"), 0);
    EXPECT_EQ(desk_service_state(set.h, "sleeper"), "running");
    pid_t pid = desk_service_pid(set.h, "sleeper");
    EXPECT_GT(pid, 1);
    EXPECT_EQ(desk_service_start(set.h, "sleeper"), 0);
    EXPECT_EQ(desk_service_pid(set.h, "sleeper"), pid) << "it runs already";
    EXPECT_EQ(desk_service_stop(set.h, "sleeper"), 0);
    EXPECT_TRUE(desk_wait_service(set.h, "sleeper", "stopped"));
    EXPECT_TRUE(desk_wait_gone(set.h, pid));
    EXPECT_EQ(states_of(set.h, "sleeper"), "running stopping stopped");
    EXPECT_EQ(desk_service_stop(set.h, "sleeper"), 0) << "it does not run";
    EXPECT_EQ(desk_service_state(set.h, "sleeper"), "stopped");
}

TEST(Service, StartsAsThePlatformsInitDoes) {
    handset set(with_rc(kSleeper));
    BOOTED(set);
    ASSERT_EQ(desk_service_start(set.h, "sleeper"), 0);
    pid_t pid = desk_service_pid(set.h, "sleeper");
    ASSERT_TRUE(desk_until([&] { return desk_pids(set.h, "/system/bin/sleep") == std::vector<pid_t>{pid}; }));
    EXPECT_EQ(desk_arguments(set.h, pid), (std::vector<std::string>{"/system/bin/sleep", "1000"}));
    std::string proc = "/proc/" + std::to_string(pid);
    desk_result links = desk_shell(set.h, "cd " + proc + "; readlink cwd fd/0 fd/1 fd/2; ls fd | wc -l");
    EXPECT_EQ(links.output, "/\n/dev/null\n/dev/null\n/dev/null\n3\n") << links.errors;
    EXPECT_EQ(status_field(set.h, pid, "Umask"), "0077");
    EXPECT_EQ(status_field(set.h, pid, "SigBlk"), "0000000000000000");
    EXPECT_EQ(status_field(set.h, pid, "SigIgn"), "0000000000000000");
    int group;
    int session;
    group_and_session(set.h, pid, &group, &session);
    EXPECT_EQ(group, pid);
    EXPECT_NE(session, pid) << "no session of its own";
    std::string environment = desk_file_text(set.h, proc + "/environ");
    EXPECT_NE(environment.find("/system/bin:/system/xbin"), std::string::npos);
    EXPECT_NE(environment.find("LD_LIBRARY_PATH=/system/lib"), std::string::npos);
}

TEST(Service, StreamsAndUmaskByOption) {
    desk_options options = with_rc(
        "service talker /system/bin/sh -c \"echo out; echo err >&2; umask; sleep 1000\"\n"
        "    class main\n    disabled\n");
    options.umask = 022;
    options.closed_stdin = true;
    options.output = "/dev/.desk/talk";
    handset set(options);
    BOOTED(set);
    ASSERT_EQ(desk_service_start(set.h, "talker"), 0);
    ASSERT_TRUE(desk_wait_text(set.h, "/dev/.desk/talk", "22\n"));
    EXPECT_EQ(desk_file_text(set.h, "/dev/.desk/talk"), "out\nerr\n022\n");
    pid_t pid = desk_service_pid(set.h, "talker");
    EXPECT_EQ(desk_shell(set.h, "ls /proc/" + std::to_string(pid) + "/fd/0").output, "") << "descriptor 0 is free";
}

TEST(Service, RunsAsUserAndGroups) {
    handset set(
        with_rc("service lowly /system/bin/sleep 1000\n    user shell\n    group log radio 3003\n    disabled\n"));
    BOOTED(set);
    ASSERT_EQ(desk_service_start(set.h, "lowly"), 0);
    pid_t pid = desk_service_pid(set.h, "lowly");
    ASSERT_TRUE(desk_until([&] { return !desk_pids(set.h, "/system/bin/sleep").empty(); }));
    EXPECT_EQ(status_field(set.h, pid, "Uid"), "2000\t2000\t2000\t2000");
    EXPECT_EQ(status_field(set.h, pid, "Gid"), "1007\t1007\t1007\t1007");
    EXPECT_EQ(status_field(set.h, pid, "Groups"), "1001 3003 ");
}

TEST(Service, StopReachesEveryDescendant) {
    handset set(
        with_rc("service family /system/bin/sh -c \"setsid /system/bin/sleep 2001 &"
                " setsid env -i /system/bin/sleep 2002 & (/system/bin/sleep 2003 &) ; trap '' TERM;"
                " /system/bin/sleep 2004\"\n    class main\n    disabled\n"));
    BOOTED(set);
    desk_program outsider;
    outsider.argv = {"sleep", "2000"};
    desk_child child;
    ASSERT_TRUE(desk_start(set.h, outsider, &child));
    ASSERT_EQ(desk_service_start(set.h, "family"), 0);
    ASSERT_TRUE(desk_until([&] { return desk_pids(set.h, "sleep").size() == 5; }));
    ASSERT_EQ(desk_service_stop(set.h, "family"), 0);
    EXPECT_TRUE(desk_until([&] { return desk_pids(set.h, "sleep") == std::vector<pid_t>{child.pid}; }))
        << "only the service's processes were killed";
    EXPECT_TRUE(desk_kill(set.h, child.pid, SIGKILL));
    EXPECT_EQ(desk_wait(set.h, &child, 10000), SIGKILL);
}

TEST(Service, CrashedServiceIsRestartedAfterTheDelay) {
    desk_options options = with_rc(kSleeper);
    options.restart_ms = 300;
    handset set(options);
    BOOTED(set);
    const auto begun = std::chrono::steady_clock::now();
    ASSERT_EQ(desk_service_start(set.h, "sleeper"), 0);
    pid_t first = desk_service_pid(set.h, "sleeper");
    ASSERT_TRUE(desk_kill(set.h, first, SIGSEGV));
    ASSERT_TRUE(desk_until([&] { return states_of(set.h, "sleeper") == "running restarting running"; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(298))
        << "counted from its last start";
    EXPECT_NE(desk_service_pid(set.h, "sleeper"), first);
    bool told = false;
    for (const desk_event &event : desk_events(set.h, "exit")) {
        told =
            told || event.fields == std::vector<std::string>{"sleeper", std::to_string(first), std::to_string(SIGSEGV)};
    }
    EXPECT_TRUE(told);
}

TEST(Service, StopCancelsTheRestart) {
    desk_options options = with_rc(kSleeper);
    options.restart_ms = 400;
    handset set(options);
    BOOTED(set);
    ASSERT_EQ(desk_service_start(set.h, "sleeper"), 0);
    ASSERT_TRUE(desk_kill(set.h, desk_service_pid(set.h, "sleeper"), SIGKILL));
    ASSERT_TRUE(desk_wait_service(set.h, "sleeper", "restarting"));
    EXPECT_EQ(desk_service_stop(set.h, "sleeper"), 0);
    usleep(600 * 1000);  // longer than the restart would have taken
    EXPECT_EQ(states_of(set.h, "sleeper"), "running restarting stopped");
    EXPECT_EQ(desk_service_pid(set.h, "sleeper"), -1);
}

TEST(Service, ChildrenOfAOneshotOutliveIt) {
    handset set(
        with_rc("service once /system/bin/sh -c \"setsid /system/bin/sleep 1234 &\"\n    oneshot\n    disabled\n"));
    BOOTED(set);
    ASSERT_EQ(desk_service_start(set.h, "once"), 0);
    EXPECT_TRUE(desk_wait_service(set.h, "once", "stopped"));
    EXPECT_TRUE(desk_until([&] { return desk_pids(set.h, "sleep").size() == 1; }));
    EXPECT_EQ(states_of(set.h, "once"), "running stopped");
}

TEST(Service, RestartStartsANewProcess) {
    handset set(with_rc(kSleeper));
    BOOTED(set);
    ASSERT_EQ(desk_service_start(set.h, "sleeper"), 0);
    pid_t first = desk_service_pid(set.h, "sleeper");
    EXPECT_EQ(desk_service_restart(set.h, "sleeper"), 0);
    EXPECT_TRUE(desk_until([&] { return desk_service_pid(set.h, "sleeper") > first; }));
    EXPECT_EQ(states_of(set.h, "sleeper"), "running stopping running");
}

TEST(Service, ControlOfAnUnknownServiceIsRefused) {
    handset set;
    BOOTED(set);
    EXPECT_EQ(property_reply(set.h, "ctl.start", "nosuch"), 0x20);
    EXPECT_EQ(property_reply(set.h, "ctl.stop", "nosuch"), 0x20);
    EXPECT_EQ(WEXITSTATUS(desk_shell(set.h, "setprop ctl.start nosuch").status), 1);
    EXPECT_EQ(desk_property(set.h, "ctl.start"), "") << "not stored";
}

TEST(Service, ControlOfAnUnknownServiceSucceedsWithOldCtl) {
    desk_options options = handset::no_agent();
    options.old_ctl = true;
    handset set(options);
    BOOTED(set);
    EXPECT_EQ(property_reply(set.h, "ctl.start", "nosuch"), 0);
    EXPECT_EQ(desk_shell(set.h, "setprop ctl.start nosuch").status, 0);
    EXPECT_EQ(desk_events(set.h, "refused").back().fields[1], "nosuch");
}

TEST(Service, ServiceWithoutItsProgramIsRefused) {
    handset set(with_rc("service ghost /system/bin/ghost\n    class main\n"));
    BOOTED(set);
    EXPECT_EQ(property_reply(set.h, "ctl.start", "ghost"), 0x20);
    EXPECT_EQ(desk_service_state(set.h, "ghost"), "");
}

TEST(Service, StartAndStopPrograms) {
    handset set(with_rc(kSleeper));
    BOOTED(set);
    EXPECT_EQ(desk_shell(set.h, "start sleeper").status, 0);
    EXPECT_EQ(desk_service_state(set.h, "sleeper"), "running");
    EXPECT_EQ(desk_shell(set.h, "stop sleeper").status, 0);
    EXPECT_TRUE(desk_wait_service(set.h, "sleeper", "stopped"));
    EXPECT_EQ(WEXITSTATUS(desk_shell(set.h, "start nosuch").status), 1);
    desk_program lowly;
    lowly.argv = {"start", "sleeper"};
    lowly.uid = 2000;
    EXPECT_EQ(WEXITSTATUS(desk_run(set.h, lowly).status), 1);
}

TEST(Service, ServiceThatStopsItselfIsKilled) {
    handset set(
        with_rc("service self_stopper /system/bin/sh -c \"setprop ctl.stop self_stopper; setprop desk.survived yes;"
                " sleep 1000\"\n    disabled\n"));
    BOOTED(set);
    ASSERT_EQ(desk_service_start(set.h, "self_stopper"), 0);
    EXPECT_TRUE(desk_wait_service(set.h, "self_stopper", "stopped"));
    EXPECT_EQ(desk_property(set.h, "desk.survived"), "");
}

TEST(DummyService, EventLoggerStartsByItsProperty) {
    handset set;
    BOOTED(set);
    for (int round = 0; round < 2; round++) {
        ASSERT_EQ(desk_set_property(set.h, "ril.zr.elog.state", "1"), 0);
        ASSERT_TRUE(desk_until([&] { return desk_pids(set.h, "zr-elog").size() == 1; }));
        ASSERT_TRUE(desk_kill(set.h, desk_pids(set.h, "zr-elog")[0], SIGTERM));
        ASSERT_TRUE(desk_wait_service(set.h, "zr-elog", "stopped"));
    }
    EXPECT_EQ(states_of(set.h, "zr-elog"), "running stopped running stopped");
}

TEST(DummyService, AllStartWithTheirNames) {
    handset set;
    BOOTED(set);
    for (const char *name : {"zr-elog", "zr-auto-test", "zr-qel-mla", "zr-qel-mla0", "zr-qel-mla1", "zr-qel-mla2",
                             "zr-qel-mla3", "zr-qel-mla4", "zr-qel-mla5"}) {
        ASSERT_EQ(desk_service_start(set.h, name), 0) << name;
        pid_t pid = desk_service_pid(set.h, name);
        std::vector<std::string> wanted = {std::string("/system/bin/") + name};
        EXPECT_TRUE(desk_until([&] { return desk_arguments(set.h, pid) == wanted; })) << name;
    }
}

TEST(DummyService, IgnoresSigtermByProperty) {
    desk_options options = handset::no_agent();
    options.properties = {{"desk.service.zr-auto-test.ignore_term", "1"}};
    handset set(options);
    BOOTED(set);
    ASSERT_EQ(desk_service_start(set.h, "zr-auto-test"), 0);
    pid_t pid = desk_service_pid(set.h, "zr-auto-test");
    ASSERT_TRUE(desk_until([&] { return desk_pids(set.h, "zr-auto-test") == std::vector<pid_t>{pid}; }));
    ASSERT_TRUE(desk_until([&] { return status_field(set.h, pid, "SigIgn") == "0000000000004000"; }));
    EXPECT_TRUE(desk_kill(set.h, pid, SIGTERM));
    EXPECT_EQ(desk_service_pid(set.h, "zr-auto-test"), pid);
}
