// Initialisation of the command and log layer: the steps and their order.
#include "tests/support/collectors.h"

class Initialisation : public CollectorTest {};

TEST_F(Initialisation, TakesItsStepsInThisOrder) {
    desk_options options = with_log_property(log_property({{3, "2,5"}, {4, "2,5"}}));
    options.files.push_back({"/data/zr-qel-sa/auto-start.lst", "zr-elog" + std::string(393, '\0'), "", 0600, 0, 0});
    options.files.push_back({"/data/dontpanic/apanic_console", "panic\n", "", 0640, 0, 1007});
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_TRUE(in_order(
        without_thread_ids(main_thread_lines()),
        {"sa_handle_init()", "auto_start_service_list_read()", "auto_start_service_list_run()",
         "Try to start service: zr-elog", "sa_handle_init m_pts_mapping_name_a[/dev/ttyCMD0]",
         "sa_is_can_start_log_service()", "start_log_service()", "get_zr_log_config()", "parse_zr_log_config()",
         "check_zr_log_path()", "start_zr_log_service()", "start_logcat_service_ex()", "start_zr_log_service()",
         "start_log_service All Log Service Start Success.", "sa_handle_init m_read_cmd_thread_id[N] ret_val[0]",
         "PUB_UTIL_CALL_SYSTEM(256, cp /data/dontpanic/apanic_console /data/log/SystemLog)", "sa_handle_init exit",
         "sa_listener_loop()"}));
    EXPECT_TRUE(in_order(
        without_thread_ids(file_lines()),
        {"sa_handle_init m_pts_mapping_name_a[/dev/ttyCMD0]", "start_log_service All Log Service Start Success.",
         "sa_handle_init m_read_cmd_thread_id[N] ret_val[0]", "sa_handle_init exit ret_val[0]",
         "main sa_handle_init ret_val[0]"}));
    EXPECT_EQ(count_lines(file_lines(), "sa_handle_init exit"), 0)
        << "without its result it goes to the platform alone";
}

TEST_F(Initialisation, MakesLocalPropertiesWritableAndRemountsTheSystem) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(desk_owner(h, "/data/local.prop"), "0666 0:0");
    EXPECT_EQ(desk_file_text(h, "/data/local.prop"), "");
    EXPECT_EQ(desk_file_text(h, "/dev/.desk/mount.calls"), "-o\tremount,rw\t/dev/block/mtdblock11\n");
}

TEST_F(Initialisation, KeepsExistingLocalProperties) {
    desk_options options = quiet_options();
    options.files.push_back({"/data/local.prop", "debug.one=1\n", "", 0600, 0, 0});
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(desk_owner(h, "/data/local.prop"), "0666 0:0");
    EXPECT_EQ(desk_file_text(h, "/data/local.prop"), "debug.one=1\n");
}

// Nobody looks at the results of the last three commands.
TEST_F(Initialisation, DoesNotMindCommandsThatFail) {
    desk_options options = quiet_options();
    options.files.push_back(script("/system/bin/mount", "exit 7\n"));
    options.files.push_back(script("/system/bin/touch", "exit 7\n"));
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_FALSE(desk_exists(h, "/data/local.prop"));
    EXPECT_EQ(rests(platform_lines(), "PUB_UTIL_CALL_SYSTEM").size(), 0u);
    EXPECT_EQ(count_lines(file_lines(), "sa_handle_init exit ret_val[0]"), 1);
    EXPECT_EQ(ask("AT\r"), kOk);
}

TEST_F(Initialisation, GoesOnWhenNoCollectorStarts) {
    desk_options options;  // the default: all collectors on
    options.absent = {"/system/bin/logcat", "/system/xbin/tcpdump"};
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_TRUE(in_order(file_lines(), {"start_log_service Not All Log Service Start Success.",
                                        "sa_handle_init exit ret_val[0]", "main sa_handle_init ret_val[0]"}));
    EXPECT_EQ(ask("AT\r"), kOk);
}
