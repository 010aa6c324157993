// The log directory: existing, created or missing, and the free space that collectors need to start.
#include "tests/support/collectors.h"

class LogDirectory : public CollectorTest {};

TEST_F(LogDirectory, IsMadeWhenItIsMissing) {
    desk_options options = with_log_property(log_property({{3, "2,5"}}));
    options.log_dir = false;
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(desk_owner(h, "/data/local/log"), "0771 2000:2000");
    EXPECT_TRUE(in_order(main_thread_lines(), {"check_zr_log_path()", "check_zr_log_path log_path=[/data/local/log]",
                                               "ZR log path \"/data/local/log\" not exist, now create.",
                                               "ZR log path \"/data/local/log\" setup.", "start_zr_log_service()",
                                               "start_log_service All Log Service Start Success."}));
    EXPECT_TRUE(desk_wait_path(h, "/data/local/log/kmsg.log"));
}

// The command that follows the creation has a fixed text: it opens the ordinary directory, whichever was made.
TEST_F(LogDirectory, OfAnotherNameKeepsWhatTheCreationMaskLeaves) {
    desk_options options = with_log_property(log_property({}, "/data/elsewhere"));
    options.prepare = [](desk *handset) {
        return desk_remove(handset, "/data/local/log") && desk_make_dir(handset, "/data/local/log", 0700, 0, 0);
    };
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(desk_owner(h, "/data/elsewhere"), "0700 2000:2000");
    EXPECT_EQ(desk_owner(h, "/data/local/log"), "0771 0:0");
    EXPECT_EQ(count_lines(platform_lines(), "ZR log path \"/data/elsewhere\" setup."), 1);
}

TEST_F(LogDirectory, OfAnotherNameIsMadeWithMode0771) {
    desk_options options = with_log_property(log_property({}, "/data/elsewhere"));
    options.umask = 0;
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(desk_owner(h, "/data/elsewhere"), "0771 2000:2000");
}

TEST_F(LogDirectory, OrdinaryOneMissingBesideAnotherIsNoError) {
    desk_options options = with_log_property(log_property({{3, "2,5"}}, "/data/elsewhere"));
    options.log_dir = false;
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(rests(platform_lines(), "chmod 771 /data/elsewhere failed, errno(").size(), 1u);
    EXPECT_TRUE(in_order(main_thread_lines(), {"ZR log path \"/data/elsewhere\" setup.",
                                               "start_log_service All Log Service Start Success."}));
    EXPECT_TRUE(desk_wait_path(h, "/data/elsewhere/kmsg.log"));
    EXPECT_FALSE(desk_exists(h, "/data/local/log"));
}

TEST_F(LogDirectory, IsLeftAloneWhenItExists) {
    desk_options options = with_log_property(log_property({}));
    options.prepare = [](desk *handset) {
        return desk_remove(handset, "/data/local/log") && desk_make_dir(handset, "/data/local/log", 0705, 12, 34);
    };
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(desk_owner(h, "/data/local/log"), "0705 12:34");
    EXPECT_EQ(count_lines(platform_lines(), "ZR log path \"/data/local/log\" exist."), 1);
    EXPECT_EQ(count_lines(platform_lines(), "ZR log path \"/data/local/log\" setup."), 0);
}

TEST_F(LogDirectory, WithoutItsParentIsNotMade) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{3, "2,5"}, {4, "2,5"}}, "/data/no/such"))));
    EXPECT_TRUE(in_order(main_thread_lines(), {"ZR log path \"/data/no/such\" not exist, now create.",
                                               "sys call: mkdir() failed! errno = 2", "sa_handle_init exit"}));
    EXPECT_EQ(count_lines(reports(), "FUNC-check_zr_log_path(), error_code=-1, errno=2"), 1);
    EXPECT_EQ(rests(platform_lines(), "start_zr_log_service").size(), 0u);
    EXPECT_EQ(rests(platform_lines(), "start_log_service ").size(), 1u) << "the failure, and no verdict on the starts";
    EXPECT_EQ(children_of(desk_agent_pid(h)).size(), 0u);
    EXPECT_FALSE(desk_exists(h, "/data/no"));
    EXPECT_EQ(ask("AT\r"), kOk);
}

// Existence is all that is asked for: collectors meet the rest.
TEST_F(LogDirectory, ThatIsAFileCountsAsExisting) {
    desk_options options = with_log_property(log_property({{2, "2,5"}, {3, "2,5"}}, "/data/plain"));
    desk_file plain;
    plain.path = "/data/plain";
    plain.text = "here\n";
    options.files.push_back(plain);
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(count_lines(platform_lines(), "ZR log path \"/data/plain\" exist."), 1);
    EXPECT_TRUE(in_order(
        file_lines(), {"start_zr_log_service IPDATA open(/data/plain/ipdata.pcap0) fd[-1]",
                       "start_zr_log_service IPDATA chown(/data/plain/ipdata.pcap0) error[20-Not a directory]",
                       "start_zr_log_service IPDATA chmod(/data/plain/ipdata.pcap0) error[20-Not a directory]",
                       "start_zr_log_service IPDATA command[tcpdump -p -v -s 0 -i any -w /data/plain/ipdata.pcap -C 1 "
                       "-W 2]"}));
    EXPECT_NE(
        desk_wait_log(h, "zr-qel-sa", "read_kernel_log_loop open(/data/plain/kmsg.log) errno[20-Not a directory]"), 0u);
    EXPECT_EQ(desk_file_text(h, "/data/plain"), "here\n");
}

// ---- creation that fails ----

TEST_F(LogDirectory, ThatCannotBeGivenAwayStartsNothing) {
    desk_options options = with_log_property(log_property({{3, "2,5"}}, "/data/elsewhere"));
    options.agent = false;
    add_failing_calls(&options);
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    ASSERT_NO_FATAL_FAILURE(fail_call(h, "chown", EPERM));
    ASSERT_NO_FATAL_FAILURE(start_agent());
    EXPECT_TRUE(in_order(main_thread_lines(), {"ZR log path \"/data/elsewhere\" not exist, now create.",
                                               "sys call: chown() failed! errno = 1", "sa_handle_init exit"}));
    EXPECT_EQ(count_lines(reports(), "FUNC-check_zr_log_path(), error_code=-1, errno=1"), 1);
    EXPECT_EQ(rests(platform_lines(), "start_zr_log_service").size(), 0u);
    EXPECT_TRUE(desk_exists(h, "/data/elsewhere")) << "the directory stays";
}

// ---- free space ----

class FreeSpace : public CollectorTest {
  protected:
    // Starts the agent with this much of a /data of 64 MiB available. Nothing is written there before its look, since
    // the log directory is missing.
    void start_with_available(uint64_t bytes);
    // Starts the agent on a /data of this many blocks.
    void start_on_disk(uint64_t blocks, uint64_t available, int size);

  private:
    void boot_waiting();
};

void FreeSpace::boot_waiting() {
    desk_options options = with_log_property(log_property({{3, "2,5"}}));
    options.agent = false;
    options.log_dir = false;
    add_failing_calls(&options);
    boot_only(options);
}

void FreeSpace::start_with_available(uint64_t bytes) {
    ASSERT_NO_FATAL_FAILURE(boot_waiting());
    ASSERT_TRUE(desk_fill_data(h, bytes)) << desk_error();
    start_agent();
}

void FreeSpace::start_on_disk(uint64_t blocks, uint64_t available, int size) {
    ASSERT_NO_FATAL_FAILURE(boot_waiting());
    ASSERT_NO_FATAL_FAILURE(
        fail_call(h, "statfs", std::to_string(blocks) + " " + std::to_string(available) + " " + std::to_string(size)));
    start_agent();
}

// 5 per cent of 65536 KB.
TEST_F(FreeSpace, AtTheThresholdIsEnough) {
    ASSERT_NO_FATAL_FAILURE(start_with_available(3276 * 1024));
    EXPECT_TRUE(
        in_order(main_thread_lines(), {"sa_is_can_start_log_service()", "sa_get_data_space_info()",
                                       "data space, total[65536KB], used[62260KB], available[3276KB].",
                                       "start_log_service()", "start_log_service All Log Service Start Success."}));
    EXPECT_EQ(rests(platform_lines(), "Low space").size(), 0u);
    EXPECT_TRUE(desk_wait_path(h, "/data/local/log/kmsg.log"));
}

TEST_F(FreeSpace, OneBlockBelowStartsNoCollectorButTheAgent) {
    ASSERT_NO_FATAL_FAILURE(start_with_available(3272 * 1024));
    EXPECT_TRUE(
        in_order(main_thread_lines(),
                 {"data space, total[65536KB], used[62264KB], available[3272KB].",
                  "Low space, threshold:3276KB, current available space of data is: 3272KB", "sa_handle_init exit"}));
    EXPECT_EQ(count_lines(platform_lines(), "start_log_service()"), 0);
    EXPECT_FALSE(desk_exists(h, "/data/local/log"));
    EXPECT_EQ(threads(desk_agent_pid(h)), 2);
    EXPECT_EQ(ask("AT\r"), kOk);
}

TEST_F(FreeSpace, ThatCameBackIsEnoughForTheNextStart) {
    ASSERT_NO_FATAL_FAILURE(start_with_available(3272 * 1024));
    EXPECT_EQ(command("+DELETE_LOG"), kError);
    ASSERT_TRUE(desk_remove(h, "/data/.fill"));
    EXPECT_EQ(command("+DELETE_LOG"), kOk);
    EXPECT_TRUE(desk_wait_path(h, "/data/local/log/kmsg.log"));
}

TEST_F(FreeSpace, OfTwoGigabytesFivePerCentAreAskedFor) {
    ASSERT_NO_FATAL_FAILURE(start_on_disk(524288, 104856 / 4, 4096));
    EXPECT_EQ(
        count_lines(platform_lines(), "Low space, threshold:104857KB, current available space of data is: 104856KB"),
        1);
    EXPECT_EQ(count_lines(platform_lines(), "data space, total[2097152KB], used[1992296KB], available[104856KB]."), 1);
    ASSERT_NO_FATAL_FAILURE(fail_call(h, "statfs", "2097152 104857 1024"));
    EXPECT_EQ(command("+DELETE_LOG"), kOk);
}

// Of a large disk no more than 256000 KB.
TEST_F(FreeSpace, OfAHundredGigabytesAQuarterOfOneIsAskedFor) {
    ASSERT_NO_FATAL_FAILURE(start_on_disk(26214400, 63999, 4096));
    EXPECT_EQ(
        count_lines(platform_lines(), "Low space, threshold:256000KB, current available space of data is: 255996KB"),
        1);
    ASSERT_NO_FATAL_FAILURE(fail_call(h, "statfs", "26214400 64000 4096"));
    EXPECT_EQ(command("+DELETE_LOG"), kOk);
}

TEST_F(FreeSpace, ThatCannotBeToldStartsNoCollector) {
    ASSERT_NO_FATAL_FAILURE(start_with_available(32 << 20));
    ASSERT_NO_FATAL_FAILURE(fail_call(h, "statfs", EIO));
    EXPECT_EQ(command("+DELETE_LOG"), kError);
    EXPECT_TRUE(in_order(platform_lines(), {"sa_get_data_space_info()", "sys call: statfs() failed! errno = 5",
                                            "data space, total[0KB], used[0KB], available[0KB].",
                                            "sa_log_delete_log sa_is_can_start_log_service error"}));
    EXPECT_EQ(count_lines(reports(), "FUNC-sa_get_data_space_info(), error_code=-1, errno=5"), 1);
    EXPECT_EQ(rests(platform_lines(), "Low space").size(), 0u);
}
