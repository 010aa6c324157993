// +STOP_SERVICE: sends SIGTERM to the process with that name, then checks up to ten times, once a second, whether it has ended.
#include <signal.h>

#include "tests/support/commands.h"

static const char kHandler[] = "handle_sa_stop_service_set";

class ServiceStop : public CommandTest {
  protected:
    void boot_with_kettle();
    // Starts a service of init and waits until it goes by its name; returns its pid.
    pid_t start(const std::string &name);
    // Raw wait statuses of the ends of a service that is to have ended.
    lines ends_of(const std::string &name);
};

void ServiceStop::boot_with_kettle() {
    desk_options options = quiet_options();
    options.files.push_back(service_file("kettle"));
    options.prepare = [](desk *handset) { return record_shell(handset) && put_service_program(handset, "kettle"); };
    boot(options);
    shell_lines();  // those of the start-up
}

pid_t ServiceStop::start(const std::string &name) {
    EXPECT_EQ(desk_service_start(h, name), 0);
    EXPECT_TRUE(desk_until([&] { return desk_pids(h, name).size() == 1; })) << name;
    return desk_service_pid(h, name);
}

lines ServiceStop::ends_of(const std::string &name) {
    lines ends;
    EXPECT_TRUE(desk_wait_service(h, name, "stopped")) << name;
    for (const desk_event &event : desk_events(h, "exit")) {
        if (event.fields.size() > 2 && event.fields[0] == name) {
            ends.push_back(event.fields[2]);
        }
    }
    return ends;
}

TEST_F(ServiceStop, EndsTheProcessAndWaitsUntilItHasGone) {
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle());
    const pid_t pid = start("kettle");
    const std::string number = std::to_string(pid);
    EXPECT_EQ(request("+STOP_SERVICE=\"kettle\""), kOk);
    EXPECT_EQ(ends_of("kettle"), (lines{std::to_string(SIGTERM)}));
    EXPECT_EQ(shell_lines(), lines());
    EXPECT_EQ(property_requests("ctl.stop"), lines());
    EXPECT_EQ(steps(), joined({{"handle_sa_stop_service_set()"},
                               lookup_steps("kettle", pid, "/system/bin/kettle"),
                               lookup_steps("kettle"),
                               {"handle_sa_stop_service_set 0 \"kettle\" is not running",
                                "handle_sa_stop_service_set \"kettle\" sa_err: 0"},
                               ok_steps()}));
    EXPECT_EQ(
        file_steps(),
        joined({{"handle_sa_stop_service_set req[\"kettle\"\r]"},
                lookup_file_lines("kettle", pid, "/system/bin/kettle"),
                {"handle_sa_stop_service_set is_run[1] pid[" + number + "]", "handle_sa_stop_service_set ret_val[0]"},
                lookup_file_lines("kettle"),
                {"handle_sa_stop_service_set is_run[0]", "handle_sa_stop_service_set 0 \"kettle\" is not running",
                 "handle_sa_stop_service_set \"kettle\" sa_err: 0",
                 "handle_sa_stop_service_set service[kettle] sa_err[0]"}}));
    EXPECT_TRUE(apart(moments("util_is_process_running()"), 0.99));
    EXPECT_EQ(result(), "ret_val[0]");
}

TEST_F(ServiceStop, OfWhatDoesNotRunIsDone) {
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle());
    EXPECT_EQ(request("+STOP_SERVICE=\"kettle\""), kOk);
    EXPECT_EQ(steps(), joined({{"handle_sa_stop_service_set()"},
                               lookup_steps("kettle"),
                               {"handle_sa_stop_service_set \"kettle\" sa_err: 0"},
                               ok_steps()}));
    EXPECT_EQ(file_steps_of(kHandler),
              (lines{"req[\"kettle\"\r]", "is_run[0] pid[0]", "\"kettle\" sa_err: 0", "service[kettle] sa_err[0]"}));
    EXPECT_EQ(request("+STOP_SERVICE=\"zr-auto-test\""), kOk);
    EXPECT_EQ(shell_lines(), lines()) << "nor are its siblings stopped";
}

TEST_F(ServiceStop, RefusesWhatIsNoQuotedName) {
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle());
    const pid_t pid = start("kettle");
    for (const std::string &argument : lines{"kettle", "\"\"", "'kettle'", ""}) {
        SCOPED_TRACE(argument);
        EXPECT_EQ(request("+STOP_SERVICE=" + argument), kError);
        EXPECT_EQ(steps(), joined({{"handle_sa_stop_service_set()", "handle_sa_stop_service_set \"\" sa_err: -1"},
                                   error_steps()}));
        EXPECT_EQ(file_steps_of(kHandler),
                  (lines{"req[" + argument + "\r]", "\"\" sa_err: -1", "service[] sa_err[-1]"}));
        EXPECT_EQ(result(), "ret_val[0]");
    }
    EXPECT_EQ(desk_pids(h, "kettle"), std::vector<pid_t>{pid});
}

// What is longer than 39 characters is looked for, and stopped, by its first 39.
TEST_F(ServiceStop, CutsALongNameAndTakesItAsData) {
    const std::string name(39, 'k');
    desk_options options = quiet_options();
    options.prepare = [name](desk *handset) { return put_service_program(handset, name); };
    ASSERT_NO_FATAL_FAILURE(boot(options));
    const pid_t pid = start_program(name);
    EXPECT_EQ(request("+STOP_SERVICE=\"%s%n" + name + "\""), kOk);
    EXPECT_EQ(file_steps_of(kHandler).back(), "service[%s%n" + name.substr(4) + "] sa_err[0]");
    EXPECT_EQ(desk_pids(h, name), std::vector<pid_t>{pid});
    EXPECT_EQ(request("+STOP_SERVICE=\"" + name + "x\""), kOk);
    EXPECT_EQ(file_steps_of(kHandler).back(), "service[" + name + "] sa_err[0]");
    EXPECT_EQ(desk_pids(h, name), std::vector<pid_t>());
}

// ---- what does not go ----

TEST_F(ServiceStop, GivesUpOnOneThatIgnoresTheSignal) {
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle());
    ASSERT_EQ(desk_set_property(h, "desk.service.kettle.ignore_term", "1"), 0);
    const pid_t pid = start("kettle");
    ASSERT_TRUE(desk_until([&] { return status(pid, "SigIgn") == "0000000000004000"; }));
    EXPECT_EQ(request("+STOP_SERVICE=\"kettle\""), kError);
    EXPECT_EQ(desk_pids(h, "kettle"), std::vector<pid_t>{pid});
    const std::string number = std::to_string(pid);
    EXPECT_EQ(file_steps_of(kHandler),
              joined({{"req[\"kettle\"\r]", "is_run[1] pid[" + number + "]", "ret_val[0]"},
                      repeated(10, "is_run[1]"),
                      {"\"kettle\" is still running finally", "\"kettle\" sa_err: -1", "service[kettle] sa_err[-1]"}}));
    EXPECT_EQ(moments("util_is_process_running()").size(), 11u);
    EXPECT_TRUE(apart(moments("util_is_process_running()"), 0.99));
    const lines last = joined({lookup_steps("kettle", pid, "/system/bin/kettle"),
                               {"handle_sa_stop_service_set \"kettle\" is still running finally",
                                "handle_sa_stop_service_set \"kettle\" sa_err: -1"},
                               error_steps()});
    const lines all = steps();
    ASSERT_GT(all.size(), last.size());
    EXPECT_EQ(lines(all.end() - static_cast<ptrdiff_t>(last.size()), all.end()), last);
    EXPECT_EQ(result(), "ret_val[0]");
}

TEST_F(ServiceStop, NoticesWhenTheProcessHasGone) {
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle());
    ASSERT_EQ(desk_set_property(h, "desk.service.kettle.ignore_term", "1"), 0);
    const pid_t pid = start("kettle");
    ASSERT_TRUE(desk_until([&] { return status(pid, "SigIgn") == "0000000000004000"; }));
    begin("AT SA+STOP_SERVICE=\"kettle\"\r");
    ASSERT_TRUE(desk_until([&] { return count_lines(file_lines(), std::string(kHandler) + " is_run[1]") == 2; }));
    ASSERT_TRUE(desk_kill(h, pid, SIGKILL));
    EXPECT_EQ(finish(), kOk);
    EXPECT_EQ(file_steps_of(kHandler),
              joined({{"req[\"kettle\"\r]", "is_run[1] pid[" + std::to_string(pid) + "]", "ret_val[0]"},
                      {"is_run[1]", "is_run[1]", "is_run[0]"},
                      {"2 \"kettle\" is not running", "\"kettle\" sa_err: 0", "service[kettle] sa_err[0]"}}));
}

TEST_F(ServiceStop, FailsAtOnceWhenTheSignalIsRefused) {
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle());
    const pid_t pid = start("kettle");
    ASSERT_NO_FATAL_FAILURE(inject("kill:error=EPERM"));
    EXPECT_EQ(request("+STOP_SERVICE=\"kettle\""), kError);
    ASSERT_NO_FATAL_FAILURE(stop_injecting());
    const std::string number = std::to_string(pid);
    EXPECT_EQ(steps(),
              joined({{"handle_sa_stop_service_set()"},
                      lookup_steps("kettle", pid, "/system/bin/kettle"),
                      {report(kHandler, -118), "error to exec: kill(" + number + ", SIGTERM), ret_val=-1, errno=1",
                       "handle_sa_stop_service_set \"kettle\" sa_err: -1"},
                      error_steps()}));
    EXPECT_EQ(file_steps_of(kHandler), (lines{"req[\"kettle\"\r]", "is_run[1] pid[" + number + "]", "ret_val[-100]",
                                              "\"kettle\" sa_err: -1", "service[kettle] sa_err[-1]"}));
    EXPECT_EQ(reports().back(), "FUNC-handle_sa_stop_service_set(), error_code=-118, errno=1");
    EXPECT_EQ(desk_pids(h, "kettle"), std::vector<pid_t>{pid});
}

// ---- siblings ----

TEST_F(ServiceStop, OfTheTestServiceStopsTheFiveLogAgentsFirst) {
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle());
    for (const char *name :
         {"zr-qel-mla0", "zr-qel-mla1", "zr-qel-mla2", "zr-qel-mla3", "zr-qel-mla4", "zr-qel-mla5"}) {
        start(name);
    }
    start("zr-auto-test");
    EXPECT_EQ(request("+STOP_SERVICE=\"zr-auto-test\""), kOk);
    EXPECT_EQ(shell_lines(),
              (lines{"setprop ctl.stop zr-qel-mla1", "setprop ctl.stop zr-qel-mla2", "setprop ctl.stop zr-qel-mla3",
                     "setprop ctl.stop zr-qel-mla4", "setprop ctl.stop zr-qel-mla5"}));
    EXPECT_EQ(property_requests("ctl.stop"),
              (lines{"zr-qel-mla1", "zr-qel-mla2", "zr-qel-mla3", "zr-qel-mla4", "zr-qel-mla5"}));
    EXPECT_EQ(ends_of("zr-auto-test"), (lines{std::to_string(SIGTERM)}));
    for (const char *name : {"zr-qel-mla1", "zr-qel-mla2", "zr-qel-mla3", "zr-qel-mla4", "zr-qel-mla5"}) {
        EXPECT_TRUE(desk_wait_service(h, name, "stopped")) << name;
    }
    EXPECT_EQ(desk_service_state(h, "zr-qel-mla0"), "running") << "not one of the five";
}

// Unlike a start.
TEST_F(ServiceStop, OfALogAgentLeavesTheOthersAlone) {
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle());
    start("zr-qel-mla1");
    start("zr-qel-mla3");
    EXPECT_EQ(request("+STOP_SERVICE=\"zr-qel-mla3\""), kOk);
    EXPECT_EQ(shell_lines(), lines());
    EXPECT_EQ(ends_of("zr-qel-mla3"), (lines{std::to_string(SIGTERM)}));
    EXPECT_EQ(desk_service_state(h, "zr-qel-mla1"), "running");
    EXPECT_EQ(request("+STOP_SERVICE=\"zr-qel-mla\""), kOk) << "the one that is left, by a part of its name";
    EXPECT_EQ(ends_of("zr-qel-mla1"), (lines{std::to_string(SIGTERM)}));
}
