// Starting logcat: argument vectors other than the usual three, and all cases in which nothing starts.
#include "tests/support/collectors.h"

class LogcatCollector : public CollectorTest {};

TEST_F(LogcatCollector, WritesTheseLines) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{5, "5,5120"}}))));
    const std::string pid = std::to_string(process_with("/data/local/log/logcat-events.log"));
    const std::vector<std::string> both = {
        "start_logcat_service_ex path[/system/bin/logcat] type[I5] file_num_val[5] file_size_val[5120]",
        "make_logcat_svc_argv_ex cmdline[/system/bin/logcat -r 5120 -v threadtime -v usec -v printable -n 5 -b events "
        "-f /data/local/log/logcat-events.log ]",
        "start_logcat_service_ex make_logcat_svc_argv_ex[0] svc_argv_num[15]",
        "sa_create_subproc_thread cmd[/system/bin/logcat] param_size[15]",
        "start_logcat_service_ex sa_create_subproc_thread[" + pid + "]",
        "start_logcat_service_ex path[/system/bin/logcat] type[I6] file_num_val[0] file_size_val[0]",
        "start_logcat_service_ex need no logcat"};
    EXPECT_TRUE(in_order(file_lines(), both));
    EXPECT_TRUE(in_order(main_thread_lines(), both));
    EXPECT_TRUE(
        in_order(main_thread_lines(), {"start_logcat_service_ex()", both[0], "make_logcat_svc_argv_ex()", both[1]}));
    EXPECT_EQ(count_lines(file_lines(), "start_logcat_service_ex need no logcat"), 2);
}

TEST_F(LogcatCollector, MainBufferHasThirteenArguments) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{4, "5,5120"}}))));
    EXPECT_TRUE(in_order(
        file_lines(),
        {"make_logcat_svc_argv_ex cmdline[/system/bin/logcat -r 5120 -v threadtime -v usec -v printable -n 5 -f "
         "/data/local/log/logcat.log ]",
         "start_logcat_service_ex make_logcat_svc_argv_ex[0] svc_argv_num[13]",
         "sa_create_subproc_thread cmd[/system/bin/logcat] param_size[13]"}));
}

// No start of its own, but a token may stand at another position.
TEST_F(LogcatCollector, OfTheFirstTypeFiltersOneTag) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property("/data/local/log,I1,3,5120,I2,0,0,I3,0,0,I4,0,0,I1,3,512,I6,0,0")));
    EXPECT_EQ(vector_of(process_with("EMSD:V")),
              "</system/bin/logcat><-r><512><-v><threadtime><-v><usec><-v><printable><-n><3><-f>"
              "</data/local/log/emsd.log><-s><EMSD:V>");
    EXPECT_EQ(count_lines(file_lines(), "start_logcat_service_ex make_logcat_svc_argv_ex[0] svc_argv_num[15]"), 1);
    ASSERT_EQ(desk_shell(h, "log -t EMSD mine; log -t EMSD2 not-mine; log -t EMSD last").status, 0);
    ASSERT_TRUE(desk_wait_text(h, "/data/local/log/emsd.log", ": last\n"));
    EXPECT_NE(desk_file_text(h, "/data/local/log/emsd.log").find("EMSD    : mine\n"), std::string::npos);
    EXPECT_EQ(desk_file_text(h, "/data/local/log/emsd.log").find("not-mine"), std::string::npos);
}

TEST_F(LogcatCollector, OfThePositionOneIsNeverStarted) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{1, "3,5120"}}))));
    EXPECT_EQ(children_of(desk_agent_pid(h)).size(), 0u);
    EXPECT_EQ(count_lines(file_lines(), "start_log_service All Log Service Start Success."), 1);
}

TEST_F(LogcatCollector, OfAnUnknownTypeStartsNothing) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property("/data/local/log,I1,0,0,I2,0,0,I3,0,0,I7,5,5,i5,5,5,I6,5,5")));
    const std::vector<std::string> wanted = {
        "make_logcat_svc_argv_ex Invalid Log Type, TypeID=i5",
        "make_logcat_svc_argv_ex cmdline[]",
        "start_logcat_service_ex make_logcat_svc_argv_ex[-100] svc_argv_num[0]",
        "start_logcat_service_ex Make logcat service args failed.",
        "start_logcat_service_ex path[/system/bin/logcat] type[I6] file_num_val[5] file_size_val[5]",
        "make_logcat_svc_argv_ex Invalid Log Type, TypeID=I7",
        "start_logcat_service_ex Make logcat service args failed.",
        "start_log_service Not All Log Service Start Success."};
    EXPECT_TRUE(in_order(file_lines(), wanted));
    EXPECT_TRUE(in_order(main_thread_lines(), wanted));
    EXPECT_EQ(children_of(desk_agent_pid(h)), std::vector<pid_t>{process_with("/data/local/log/logcat-radio.log")});
    EXPECT_EQ(command("+DELETE_LOG"), kError);
}

// The program is looked for before anybody asks whether it is needed.
TEST_F(LogcatCollector, WithoutItsProgramFailsEvenWhenItIsOff) {
    desk_options options = with_log_property(log_property({{4, "5,5"}}));
    options.absent.push_back("/system/bin/logcat");
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(count_lines(platform_lines(), "start_logcat_service_ex File \"/system/bin/logcat\" is not exist."), 3);
    EXPECT_EQ(count_lines(file_lines(),
                          "start_logcat_service_ex access path[/system/bin/logcat] errno[2-No such file "
                          "or directory]"),
              3);
    EXPECT_EQ(count_lines(file_lines(), "start_logcat_service_ex need no logcat"), 0);
    EXPECT_EQ(rests(platform_lines(), "make_logcat_svc_argv_ex").size(), 0u);
    EXPECT_EQ(count_lines(file_lines(), "start_log_service Not All Log Service Start Success."), 1);
    EXPECT_EQ(children_of(desk_agent_pid(h)).size(), 0u);
}

TEST_F(LogcatCollector, PathIsCutToItsArgumentsSlot) {
    // 30 characters and "/logcat.log" are more than 39.
    const std::string directory = "/data/directory_of_30_characte";
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{4, "5,5"}}, directory))));
    const std::string cut = (directory + "/logcat.log").substr(0, 39);
    EXPECT_EQ(vector_of(process_with(cut)),
              "</system/bin/logcat><-r><5><-v><threadtime><-v><usec><-v><printable><-n><5><-f><" + cut + ">");
    EXPECT_TRUE(desk_wait_path(h, cut));
    EXPECT_FALSE(desk_exists(h, directory + "/logcat.log"));
}

TEST_F(LogcatCollector, CommandLineInTheLogIsWhole) {
    // Bounded at 254 characters, which nothing that the slots hold can reach.
    const std::string digits = "000000000000000005";
    ASSERT_NO_FATAL_FAILURE(
        boot(with_log_property("/d,I1,0,0,I2,0,0,I3,0,0,I4,0,0,I5," + digits + "," + digits + ",I6,0,0")));
    EXPECT_EQ(count_lines(file_lines(), "make_logcat_svc_argv_ex cmdline[/system/bin/logcat -r " + digits +
                                            " -v threadtime -v usec -v printable -n " + digits +
                                            " -b events -f /d/logcat-events.log ]"),
              1);
}

TEST_F(LogcatCollector, ThatCannotBeLaunchedKeepsItsOldPid) {
    desk_options options = with_log_property(log_property({{6, "5,5"}}));
    add_failing_calls(&options);
    ASSERT_NO_FATAL_FAILURE(boot(options));
    const std::string pid = std::to_string(process_with("/data/local/log/logcat-radio.log"));
    ASSERT_NO_FATAL_FAILURE(fail_call(h, "fork", ENOMEM));
    EXPECT_EQ(command("+DELETE_LOG"), kError);
    EXPECT_TRUE(in_order(file_lines(), {"start_logcat_service_ex sa_create_subproc_thread[-1]",
                                        "start_logcat_service_ex create subprocess failed.",
                                        "start_log_service Not All Log Service Start Success."}));
    const size_t before = file_lines().size();
    EXPECT_EQ(command("+DELETE_LOG"), kError);
    EXPECT_EQ(count_lines(file_lines_from(before),
                          "sa_kill_all_child_service_ex log_type[I6], svc_pid[" + pid + "], mthread_id[0]"),
              1);
}
