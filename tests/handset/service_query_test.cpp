// +QUERY_SERVICE: whether a process with this name runs.
#include "tests/support/commands.h"

static const char kRuns[] = "\r\nQUERY_SERVICE: 1\r\n\r\nOK\r\n";
static const char kDoesNot[] = "\r\nQUERY_SERVICE: 0\r\n\r\nOK\r\n";

class ServiceQuery : public CommandTest {
  protected:
    void boot_with_program(const std::string &name) {
        desk_options options = quiet_options();
        options.prepare = [name](desk *handset) { return put_service_program(handset, name); };
        boot(options);
    }
};

TEST_F(ServiceQuery, OfWhatDoesNotRunAnswersZero) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(request("+QUERY_SERVICE=\"zr-elog\""), kDoesNot);
    EXPECT_EQ(steps(), joined({{"handle_sa_query_service_set()"},
                               lookup_steps("zr-elog"),
                               {"send_rsp()", std::string("send ==> ") + kDoesNot}}));
    EXPECT_EQ(
        file_steps(),
        joined({{"handle_sa_query_service_set req[\"zr-elog\"\r]"},
                lookup_file_lines("zr-elog"),
                {"handle_sa_query_service_set is_run[0]", "handle_sa_query_service_set service[zr-elog] sa_err[0]"}}));
    EXPECT_EQ(result(), "ret_val[0]");
}

TEST_F(ServiceQuery, FollowsAServiceOfInit) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_EQ(desk_service_start(h, "zr-elog"), 0);
    ASSERT_TRUE(desk_until([&] { return !desk_pids(h, "zr-elog").empty(); }));
    const pid_t pid = desk_service_pid(h, "zr-elog");
    EXPECT_EQ(request("+QUERY_SERVICE=\"zr-elog\""), kRuns);
    EXPECT_EQ(steps(), joined({{"handle_sa_query_service_set()"},
                               lookup_steps("zr-elog", pid, "/system/bin/zr-elog"),
                               {"send_rsp()", std::string("send ==> ") + kRuns}}));
    EXPECT_EQ(file_steps_of("handle_sa_query_service_set"),
              (lines{"req[\"zr-elog\"\r]", "is_run[1]", "service[zr-elog] sa_err[0]"}));
    ASSERT_EQ(desk_service_stop(h, "zr-elog"), 0);
    ASSERT_TRUE(desk_wait_service(h, "zr-elog", "stopped"));
    EXPECT_EQ(request("+QUERY_SERVICE=\"zr-elog\""), kDoesNot);
}

TEST_F(ServiceQuery, TakesAnyPartOfTheProgramsPathInItsOwnCase) {
    ASSERT_NO_FATAL_FAILURE(boot_with_program("kettle"));
    start_program("kettle");
    EXPECT_EQ(request("+QUERY_SERVICE=\"kettle\""), kRuns);
    EXPECT_EQ(request("+QUERY_SERVICE=\"ettl\""), kRuns);
    EXPECT_EQ(request("+QUERY_SERVICE=\"/system/bin/kettle\""), kRuns);
    EXPECT_EQ(request("+QUERY_SERVICE=\"Kettle\""), kDoesNot);
    EXPECT_EQ(request("+QUERY_SERVICE=\"kettle \""), kDoesNot);
}

TEST_F(ServiceQuery, IgnoresWhatStandsBehindTheName) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(request("+QUERY_SERVICE=\"zr-elog\",2 and more"), kDoesNot);
    EXPECT_EQ(file_steps_of("handle_sa_query_service_set").back(), "service[zr-elog] sa_err[0]");
    EXPECT_EQ(request(" +QUERY_SERVICE =  \"zr-qel-sa\""), kRuns) << "blanks in front of each piece";
}

TEST_F(ServiceQuery, RefusesWhatIsNoQuotedName) {
    ASSERT_NO_FATAL_FAILURE(boot());
    for (const std::string &argument : lines{"zr-qel-sa", "\"\"", "'zr-qel-sa'", "0", ""}) {
        SCOPED_TRACE(argument);
        EXPECT_EQ(request("+QUERY_SERVICE=" + argument), kError);
        EXPECT_EQ(steps(), joined({{"handle_sa_query_service_set()"}, error_steps()}));
        EXPECT_EQ(file_steps(), (lines{"handle_sa_query_service_set req[" + argument + "\r]",
                                       "handle_sa_query_service_set service[] sa_err[-1]"}));
        EXPECT_EQ(result(), "ret_val[0]");
    }
    EXPECT_EQ(request("+QUERY_SERVICE"), kError) << "no argument at all";
    EXPECT_EQ(request("+QUERY_SERVICE=\"zr-qel-sa"), kError) << "a quote that is never closed";
    EXPECT_EQ(steps(), error_steps()) << "no handler has seen it";
}

// A name is bounded to 39 characters: what is longer is looked for by its first 39.
TEST_F(ServiceQuery, CutsALongName) {
    const std::string name(39, 'k');
    ASSERT_NO_FATAL_FAILURE(boot_with_program(name));
    start_program(name);
    EXPECT_EQ(request("+QUERY_SERVICE=\"" + name.substr(1) + "\""), kRuns);
    EXPECT_EQ(request("+QUERY_SERVICE=\"" + name + "\""), kRuns);
    for (const std::string &rest : lines{"x", "xy", std::string(100, 'x')}) {
        EXPECT_EQ(request("+QUERY_SERVICE=\"" + name + rest + "\""), kRuns);
        EXPECT_EQ(file_steps_of("handle_sa_query_service_set"),
                  (lines{"req[\"" + name + rest + "\"\r]", "is_run[1]", "service[" + name + "] sa_err[0]"}));
    }
    EXPECT_EQ(request("+QUERY_SERVICE=\"x" + name + "\""), kDoesNot);
}

TEST_F(ServiceQuery, TakesNamesAsDataNeverAsFormats) {
    ASSERT_NO_FATAL_FAILURE(boot());
    for (const std::string &name : lines{"%s%n%d", "%99999d", "a b;c", "\xc3\xa4\xff"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(request("+QUERY_SERVICE=\"" + name + "\""), kDoesNot);
        EXPECT_EQ(file_steps(), joined({{"handle_sa_query_service_set req[\"" + name + "\"\r]"},
                                        lookup_file_lines(name),
                                        {"handle_sa_query_service_set is_run[0]",
                                         "handle_sa_query_service_set service[" + name + "] sa_err[0]"}}));
    }
}
