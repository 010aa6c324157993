// +START_SERVICE: asks init for a service, then checks up to eight times, once a second, whether it runs.
#include <signal.h>

#include "tests/support/commands.h"

static const char kHandler[] = "handle_sa_start_service_set";

class ServiceStart : public CommandTest {
  protected:
    // A handset without collectors whose shell keeps records and whose init knows the service "kettle".
    void boot_with_kettle(desk_options options = quiet_options());
    // Ends a service of init and waits until nobody goes by its name.
    void put_out(const std::string &name);
    // Number of lines is_run[...] that the handler has in the diagnostic file.
    int looks();
};

void ServiceStart::boot_with_kettle(desk_options options) {
    options.files.push_back(service_file("kettle"));
    options.prepare = [](desk *handset) { return record_shell(handset) && put_service_program(handset, "kettle"); };
    boot(options);
    shell_lines();  // those of the start-up
}

void ServiceStart::put_out(const std::string &name) {
    ASSERT_EQ(desk_service_stop(h, name), 0);
    ASSERT_TRUE(desk_until([&] { return desk_pids(h, name).empty(); }));
}

int ServiceStart::looks() {
    return static_cast<int>(rests(file_lines(), std::string(kHandler) + " is_run[").size());
}

// The end of a start that has found the service at one of its looks.
static lines found_steps(const std::string &name, pid_t pid, int look) {
    return joined({lookup_steps(name, pid, "/system/bin/" + name),
                   {kHandler + (" " + std::to_string(look)) + " \"" + name + "\" is running: " + std::to_string(pid),
                    std::string(kHandler) + " \"" + name + "\" sa_err: 0"},
                   ok_steps()});
}

TEST_F(ServiceStart, GoesThroughInitAndWaitsForTheProcess) {
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle());
    EXPECT_EQ(request("+START_SERVICE=\"kettle\""), kOk);
    EXPECT_EQ(shell_lines(), (lines{"setprop ctl.start kettle"}));
    EXPECT_EQ(property_requests("ctl.start"), (lines{"kettle"}));
    const pid_t pid = desk_service_pid(h, "kettle");
    ASSERT_GT(pid, 0);
    EXPECT_EQ(steps(),
              joined({{"handle_sa_start_service_set()"}, lookup_steps("kettle"), found_steps("kettle", pid, 0)}));
    EXPECT_EQ(file_steps(), joined({{"handle_sa_start_service_set req[\"kettle\"\r]"},
                                    lookup_file_lines("kettle"),
                                    {"handle_sa_start_service_set is_run[0]", "handle_sa_start_service_set ret_val[0]"},
                                    lookup_file_lines("kettle", pid, "/system/bin/kettle"),
                                    {"handle_sa_start_service_set is_run[1]",
                                     "handle_sa_start_service_set 0 \"kettle\" is running: " + std::to_string(pid),
                                     "handle_sa_start_service_set \"kettle\" sa_err: 0",
                                     "handle_sa_start_service_set service[kettle] sa_err[0]"}}));
    EXPECT_TRUE(apart(moments("util_is_process_running()"), 0.99)) << "the first look comes after a second, too";
    EXPECT_EQ(result(), "ret_val[0]");
}

TEST_F(ServiceStart, LeavesARunningServiceAlone) {
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle());
    const pid_t pid = start_program("kettle");
    EXPECT_EQ(request("+START_SERVICE=\"kettle\""), kOk);
    EXPECT_EQ(shell_lines(), lines());
    EXPECT_EQ(desk_pids(h, "kettle"), std::vector<pid_t>{pid});
    EXPECT_EQ(steps(), joined({{"handle_sa_start_service_set()"},
                               lookup_steps("kettle", pid, "/system/bin/kettle"),
                               {"handle_sa_start_service_set \"kettle\" sa_err: 0"},
                               ok_steps()}));
    EXPECT_EQ(file_steps_of(kHandler),
              (lines{"req[\"kettle\"\r]", "is_run[1]", "\"kettle\" sa_err: 0", "service[kettle] sa_err[0]"}));
}

TEST_F(ServiceStart, RefusesWhatIsNoQuotedName) {
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle());
    for (const std::string &argument : lines{"kettle", "\"\"", "'kettle'", ""}) {
        SCOPED_TRACE(argument);
        EXPECT_EQ(request("+START_SERVICE=" + argument), kError);
        EXPECT_EQ(steps(), joined({{"handle_sa_start_service_set()", "handle_sa_start_service_set \"\" sa_err: -1"},
                                   error_steps()}));
        EXPECT_EQ(file_steps_of(kHandler),
                  (lines{"req[" + argument + "\r]", "\"\" sa_err: -1", "service[] sa_err[-1]"}));
        EXPECT_EQ(result(), "ret_val[0]");
    }
    EXPECT_EQ(shell_lines(), lines());
}

TEST_F(ServiceStart, FailsAtOnceWhenInitRefuses) {
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle());
    EXPECT_EQ(request("+START_SERVICE=\"nobody\""), kError);
    EXPECT_EQ(shell_lines(), (lines{"setprop ctl.start nobody"}));
    EXPECT_EQ(steps(), joined({{"handle_sa_start_service_set()"},
                               lookup_steps("nobody"),
                               {report(kHandler, -118), "error to exec: setprop ctl.start nobody",
                                "handle_sa_start_service_set \"nobody\" sa_err: -1"},
                               error_steps()}));
    EXPECT_EQ(file_steps_of(kHandler), (lines{"req[\"nobody\"\r]", "is_run[0]", "ret_val[256]", "\"nobody\" sa_err: -1",
                                              "service[nobody] sa_err[-1]"}));
    EXPECT_EQ(result(), "ret_val[0]");
}

TEST_F(ServiceStart, TakesNamesAsDataNeverAsFormats) {
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle());
    EXPECT_EQ(request("+START_SERVICE=\"%s%n%99999d\""), kError);
    EXPECT_EQ(shell_lines(), (lines{"setprop ctl.start %s%n%99999d"}));
    EXPECT_EQ(file_steps_of(kHandler), (lines{"req[\"%s%n%99999d\"\r]", "is_run[0]", "ret_val[256]",
                                              "\"%s%n%99999d\" sa_err: -1", "service[%s%n%99999d] sa_err[-1]"}));
}

TEST_F(ServiceStart, CutsALongName) {
    const std::string name = "kettle" + std::string(33, 'e');
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle());
    EXPECT_EQ(request("+START_SERVICE=\"" + name + "\""), kError);
    EXPECT_EQ(request("+START_SERVICE=\"" + name + "f\""), kError);
    EXPECT_EQ(request("+START_SERVICE=\"" + name + std::string(80, 'f') + "\""), kError);
    EXPECT_EQ(shell_lines(), repeated(3, "setprop ctl.start " + name));
}

// ---- how long it waits ----

// An init of old answers before it looks: what it does not know never comes.
TEST_F(ServiceStart, GivesUpAfterEightLooks) {
    desk_options options = quiet_options();
    options.old_ctl = true;
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle(options));
    EXPECT_EQ(request("+START_SERVICE=\"nobody\""), kError);
    EXPECT_EQ(shell_lines(), (lines{"setprop ctl.start nobody"}));
    EXPECT_EQ(file_steps_of(kHandler),
              joined({{"req[\"nobody\"\r]", "is_run[0]", "ret_val[0]"},
                      repeated(8, "is_run[0]"),
                      {"\"nobody\" is not running finally", "\"nobody\" sa_err: -1", "service[nobody] sa_err[-1]"}}));
    EXPECT_EQ(moments("util_is_process_running()").size(), 9u);
    EXPECT_TRUE(apart(moments("util_is_process_running()"), 0.99));
    const lines last = joined({lookup_steps("nobody"),
                               {"handle_sa_start_service_set \"nobody\" is not running finally",
                                "handle_sa_start_service_set \"nobody\" sa_err: -1"},
                               error_steps()});
    const lines all = steps();
    ASSERT_GT(all.size(), last.size());
    EXPECT_EQ(lines(all.end() - static_cast<ptrdiff_t>(last.size()), all.end()), last);
}

// The agent is held still between its looks while the service comes, so that the look is a certain one.
TEST_F(ServiceStart, FindsWhatComesAtTheEighthLook) {
    desk_options options = quiet_options();
    options.old_ctl = true;
    options.prepare = [](desk *handset) { return put_service_program(handset, "kettle"); };
    ASSERT_NO_FATAL_FAILURE(boot(options));
    begin("AT SA+START_SERVICE=\"kettle\"\r");
    ASSERT_TRUE(desk_until([&] { return looks() == 1 + 7; }, 30000));
    ASSERT_TRUE(desk_kill(h, desk_agent_pid(h), SIGSTOP));
    const pid_t pid = start_program("kettle");
    ASSERT_EQ(looks(), 1 + 7);
    ASSERT_TRUE(desk_kill(h, desk_agent_pid(h), SIGCONT));
    EXPECT_EQ(finish(), kOk);
    EXPECT_EQ(file_steps_of(kHandler), joined({{"req[\"kettle\"\r]", "is_run[0]", "ret_val[0]"},
                                               repeated(7, "is_run[0]"),
                                               {"is_run[1]", "7 \"kettle\" is running: " + std::to_string(pid),
                                                "\"kettle\" sa_err: 0", "service[kettle] sa_err[0]"}}));
}

TEST_F(ServiceStart, MissesWhatComesAfterTheEighthLook) {
    desk_options options = quiet_options();
    options.files.push_back(service_file("kettle"));
    // Comes by its name when the eighth look has been made, as a ninth would find it.
    options.files.push_back(
        script("/system/bin/slow", "until [ $(grep -c 'start_service_set is_run' " + std::string(kSaLog) +
                                       ") -ge 9 ]; do sleep 0.02; done\nexec /system/bin/kettle\n"));
    options.files[0].text.replace(options.files[0].text.find("dummy_service kettle"), 20, "slow");
    options.prepare = [](desk *handset) { return put_service_program(handset, "kettle"); };
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(request("+START_SERVICE=\"kettle\""), kError);
    EXPECT_EQ(file_steps_of(kHandler),
              joined({{"req[\"kettle\"\r]", "is_run[0]", "ret_val[0]"},
                      repeated(8, "is_run[0]"),
                      {"\"kettle\" is not running finally", "\"kettle\" sa_err: -1", "service[kettle] sa_err[-1]"}}));
    ASSERT_TRUE(desk_until([&] { return !desk_pids(h, "kettle").empty(); })) << "it was on its way";
    EXPECT_EQ(request("+START_SERVICE=\"kettle\""), kOk) << "by now it runs";
}

// ---- siblings ----

static const lines kAgents = {"zr-qel-mla1", "zr-qel-mla2", "zr-qel-mla3", "zr-qel-mla4", "zr-qel-mla5"};

static lines starts_of(lines names) {
    for (std::string &name : names) {
        name.insert(0, "setprop ctl.start ");
    }
    return names;
}

TEST_F(ServiceStart, OfTheTestServiceStartsTheFiveLogAgentsFirst) {
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle());
    EXPECT_EQ(request("+START_SERVICE=\"zr-auto-test\""), kOk);
    EXPECT_EQ(shell_lines(), starts_of(joined({kAgents, {"zr-auto-test"}})));
    EXPECT_EQ(property_requests("ctl.start"), joined({kAgents, {"zr-auto-test"}}));
    for (const std::string &name : joined({kAgents, {"zr-auto-test"}})) {
        EXPECT_TRUE(desk_until([&] { return desk_pids(h, name).size() == 1; })) << name;
    }
    EXPECT_EQ(request("+QUERY_SERVICE=\"zr-qel-mla0\""), "\r\nQUERY_SERVICE: 0\r\n\r\nOK\r\n") << "not one of the five";
    EXPECT_EQ(steps().front(), "handle_sa_query_service_set()");
}

TEST_F(ServiceStart, OfALogAgentStartsAllFiveAndThenTheNamedOne) {
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle());
    EXPECT_EQ(request("+START_SERVICE=\"zr-qel-mla0\""), kOk);
    EXPECT_EQ(shell_lines(), starts_of(joined({kAgents, {"zr-qel-mla0"}})));
    EXPECT_EQ(request("+START_SERVICE=\"zr-qel-mla\""), kOk) << "one that runs is found by a part of its name";
    EXPECT_EQ(shell_lines(), lines());
    for (const std::string &name : joined({kAgents, {"zr-qel-mla0"}})) {
        ASSERT_NO_FATAL_FAILURE(put_out(name));
    }
    EXPECT_EQ(request("+START_SERVICE=\"zr-qel-mla\""), kOk);
    EXPECT_EQ(shell_lines(), starts_of(joined({kAgents, {"zr-qel-mla"}})));
    EXPECT_TRUE(desk_until([&] { return desk_pids(h, "/system/bin/zr-qel-mla").size() == 6; }));
}

// Any name that contains one of the two does it, and nobody looks whether the agents obey.
TEST_F(ServiceStart, StartsTheLogAgentsForAnyNameAroundTheirsAndForgetsFailures) {
    desk_options options = quiet_options();
    options.absent = {"/system/bin/zr-qel-mla2", "/system/bin/zr-qel-mla5"};
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle(options));
    ASSERT_EQ(request("+START_SERVICE=\"my-zr-qel-mla7\""), kError);
    EXPECT_EQ(shell_lines(), starts_of(joined({kAgents, {"my-zr-qel-mla7"}})));
    EXPECT_EQ(steps(), joined({{"handle_sa_start_service_set()"},
                               lookup_steps("my-zr-qel-mla7"),
                               {report(kHandler, -118), "error to exec: setprop ctl.start my-zr-qel-mla7",
                                "handle_sa_start_service_set \"my-zr-qel-mla7\" sa_err: -1"},
                               error_steps()}));
    ASSERT_EQ(request("+START_SERVICE=\"old-zr-auto-test\""), kError);
    EXPECT_EQ(shell_lines(), starts_of(joined({kAgents, {"old-zr-auto-test"}})));
    ASSERT_TRUE(desk_until([&] { return !desk_pids(h, "zr-qel-mla").empty(); }));
    ASSERT_EQ(request("+START_SERVICE=\"zr-qel-ml\""), kOk) << "not around the name: merely found running";
    EXPECT_EQ(request("+START_SERVICE=\"zr-auto-tes\""), kError) << "a part of the name is not around it either";
    EXPECT_EQ(shell_lines(), (lines{"setprop ctl.start zr-auto-tes"}));
    EXPECT_EQ(request("+START_SERVICE=\"zr-auto-test\""), kOk) << "two of the five cannot start";
}

// ---- the event logger ----

static const char kElogFailed[] = "property_set:ril.zr.elog.state faild";

TEST_F(ServiceStart, OfTheEventLoggerSetsItsProperty) {
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle());
    EXPECT_EQ(request("+START_SERVICE=\"zr-elog\""), kOk);
    EXPECT_EQ(shell_lines(), lines()) << "no ctl.start";
    EXPECT_EQ(property_requests("ril.zr.elog.state"), (lines{"1"}));
    EXPECT_EQ(desk_property(h, "ril.zr.elog.state"), "1");
    const pid_t pid = desk_service_pid(h, "zr-elog");
    EXPECT_EQ(steps(), joined({{"handle_sa_start_service_set()"},
                               lookup_steps("zr-elog"),
                               {"property_set:ril.zr.elog.state successfully"},
                               found_steps("zr-elog", pid, 0)}));
    EXPECT_EQ(file_steps_of(kHandler)[2], "ret_val[0]");

    EXPECT_EQ(request("+START_SERVICE=\"zr-elog2\""), kError) << "the exact name alone is special";
    EXPECT_EQ(shell_lines(), (lines{"setprop ctl.start zr-elog2"}));
    EXPECT_EQ(property_requests("ril.zr.elog.state"), lines());
}

TEST_F(ServiceStart, OfTheEventLoggerTriesAgainWhenItsPropertyCannotBeSet) {
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle());
    for (int failures = 1; failures <= 4; failures++) {
        SCOPED_TRACE(failures);
        ASSERT_NO_FATAL_FAILURE(inject("connect:error=ECONNREFUSED:when=1.." + std::to_string(failures)));
        EXPECT_EQ(request("+START_SERVICE=\"zr-elog\""), kOk);
        ASSERT_NO_FATAL_FAILURE(stop_injecting());
        const pid_t pid = desk_service_pid(h, "zr-elog");
        EXPECT_EQ(steps(), joined({{"handle_sa_start_service_set()"},
                                   lookup_steps("zr-elog"),
                                   repeated(failures, kElogFailed),
                                   {"property_set:ril.zr.elog.state successfully"},
                                   found_steps("zr-elog", pid, 0)}));
        EXPECT_TRUE(apart(moments("property_set:"), 0.05));
        EXPECT_EQ(property_requests("ril.zr.elog.state"), (lines{"1"}));
        ASSERT_NO_FATAL_FAILURE(put_out("zr-elog"));
    }
}

TEST_F(ServiceStart, OfTheEventLoggerFailsWhenItsPropertyNeverCanBeSet) {
    ASSERT_NO_FATAL_FAILURE(boot_with_kettle());
    ASSERT_NO_FATAL_FAILURE(inject("connect:error=ECONNREFUSED"));
    EXPECT_EQ(request("+START_SERVICE=\"zr-elog\""), kError);
    ASSERT_NO_FATAL_FAILURE(stop_injecting());
    EXPECT_EQ(steps(),
              joined({{"handle_sa_start_service_set()"},
                      lookup_steps("zr-elog"),
                      repeated(5, kElogFailed),
                      {report(kHandler, -118), "error to exec: ", "handle_sa_start_service_set \"zr-elog\" sa_err: -1"},
                      error_steps()}));
    EXPECT_EQ(file_steps_of(kHandler), (lines{"req[\"zr-elog\"\r]", "is_run[0]", "ret_val[-1]",
                                              "\"zr-elog\" sa_err: -1", "service[zr-elog] sa_err[-1]"}));
    std::vector<double> pauses = moments("property_set:");
    pauses.push_back(moments("FILE-").front());
    EXPECT_TRUE(apart(pauses, 0.05)) << "a pause after each failure, the last included";
    EXPECT_EQ(property_requests("ril.zr.elog.state"), lines());
}
