// +DELETE_LOG: stops the collectors, deletes their files in the fixed directory, and restarts them.
#include "tests/support/commands.h"

static const char kHandler[] = "handle_sa_delete_log_set";
static const char kLogs[] = "/data/local/log";

// What is deleted, in order, as the shell gets it behind "busybox rm -r " and as the logs show it.
static const lines kPatterns = {"/data/local/log/kmsg.log*",          "/data/local/log/ipdata.pcap*",
                                "/data/local/log/logcat.log*",        "/data/local/log/logcat-events.log*",
                                "/data/local/log/logcat-radio.log*",  "/data/local/log-modem*.tgz",
                                "/data/local/log/zr-poweron-log.log*"};

class DeleteLog : public CommandTest {
  protected:
    void boot_recording(desk_options options = quiet_options());
    // Texts of files below a directory, made with their directories.
    void put(const lines &paths);
    int set_log_property(const std::string &value) {
        return desk_set_property(h, kLogProperty, value);
    }
};

void DeleteLog::boot_recording(desk_options options) {
    options.files.push_back(recording_busybox());
    options.prepare = record_shell;
    boot(options);
    shell_lines();  // those of the start-up
    busybox_lines();
}

void DeleteLog::put(const lines &paths) {
    for (const std::string &path : paths) {
        ASSERT_TRUE(desk_make_dir(h, path.substr(0, path.rfind('/'))));
        ASSERT_TRUE(desk_write_file(h, path, "kept or not\n"));
    }
}

// The deletions as both logs show them, with these raw statuses.
static lines deletions(const std::vector<int> &statuses) {
    lines all;
    for (size_t i = 0; i < kPatterns.size(); i++) {
        all.push_back("util_delete_ex delete file[" + kPatterns[i] + "] ret[" + std::to_string(statuses[i]) + "]");
    }
    return all;
}

// All that the shell gets when no collector is to be started afterwards.
static lines delete_lines() {
    lines all;
    for (const std::string &pattern : kPatterns) {
        all.push_back("busybox rm -r " + pattern);
    }
    all.push_back("echo 3 3 1 3 > /proc/sys/kernel/printk");  // the kernel's console is quiet without a reader
    return all;
}

// ---- what goes and what stays ----

TEST_F(DeleteLog, RemovesTheCollectorsFilesAndNothingElse) {
    ASSERT_NO_FATAL_FAILURE(boot_recording());
    const std::string logs = std::string(kLogs) + "/";
    ASSERT_NO_FATAL_FAILURE(
        put({logs + "kmsg.log", logs + "kmsg.log.4", logs + "kmsg.logs/inside", logs + "ipdata.pcap0",
             logs + "ipdata.pcap11", logs + "logcat.log", logs + "logcat.log.05", logs + "logcat-events.log",
             logs + "logcat-radio.log.1", logs + "zr-poweron-log.log", logs + "zr-poweron-log.log.2",
             "/data/local/log-modem.tgz", "/data/local/log-modem-2 b.tgz"}));
    const lines stay = {logs + "sa.log.1",
                        logs + "sa.log.5",
                        logs + "emsd.log",
                        logs + "kmsg.lo",
                        logs + "my-kmsg.log",
                        logs + ".kmsg.log",
                        logs + "logcat-main.log",
                        logs + "logcat-events.txt",
                        logs + "old/kmsg.log",
                        "/data/local/log-modem/a.qmdl",
                        "/data/local/log-modem.tgz.part",
                        "/data/local/log-mode.tgz",
                        "/data/local/kmsg.log",
                        "/data/log/SystemLog/dmesg.log",
                        "/data/log/SystemLog/kmsg.log"};
    ASSERT_NO_FATAL_FAILURE(put(stay));
    EXPECT_EQ(request("+DELETE_LOG"), kOk);
    EXPECT_EQ(shell_lines(), delete_lines());
    EXPECT_EQ(busybox_lines(),
              (lines{"<rm><-r><" + logs + "kmsg.log><" + logs + "kmsg.log.4><" + logs + "kmsg.logs>",
                     "<rm><-r><" + logs + "ipdata.pcap0><" + logs + "ipdata.pcap11>",
                     "<rm><-r><" + logs + "logcat.log><" + logs + "logcat.log.05>",
                     "<rm><-r><" + logs + "logcat-events.log>", "<rm><-r><" + logs + "logcat-radio.log.1>",
                     "<rm><-r></data/local/log-modem-2 b.tgz></data/local/log-modem.tgz>",
                     "<rm><-r><" + logs + "zr-poweron-log.log><" + logs + "zr-poweron-log.log.2>"}));
    EXPECT_EQ(desk_list(h, kLogs), (lines{".kmsg.log", "emsd.log", "kmsg.lo", "logcat-events.txt", "logcat-main.log",
                                          "my-kmsg.log", "old", "sa.log", "sa.log.1", "sa.log.5"}));
    EXPECT_EQ(desk_list(h, "/data/local"),
              (lines{"kmsg.log", "log", "log-mode.tgz", "log-modem", "log-modem.tgz.part", "tmp"}));
    for (const std::string &path : stay) {
        EXPECT_EQ(desk_file_text(h, path), "kept or not\n") << path;
    }
    EXPECT_NE(desk_file_text(h, kSaLog).find("main pid["), std::string::npos) << "the log continues";
    EXPECT_TRUE(in_order(steps(), deletions({0, 0, 0, 0, 0, 0, 0})));
}

TEST_F(DeleteLog, WithNothingToRemoveIsNoError) {
    ASSERT_NO_FATAL_FAILURE(boot_recording());
    EXPECT_EQ(request("+DELETE_LOG"), kOk);
    EXPECT_EQ(shell_lines(), delete_lines());
    EXPECT_EQ(busybox_lines()[0], "<rm><-r></data/local/log/kmsg.log*>");
    lines stopped;
    for (int type = 1; type <= 6; type++) {
        stopped.push_back("sa_kill_all_child_service_ex log_type[I" + std::to_string(type) +
                          "], svc_pid[0], mthread_id[0]");
    }
    const lines deleted = deletions({256, 256, 256, 256, 256, 256, 256});

    const lines begin =
        joined({{"handle_sa_delete_log_set()", "sa_log_delete_log()", "sa_kill_all_child_service_ex()"},
                stopped,
                {"util_delete_ex()", "util_delete_ex src_dir[/data/local/log]"},
                deleted,
                {"sa_log_delete_log util_delete_ex[/data/local/log] ret_val[0]", "sa_is_can_start_log_service()"}});
    const lines end = joined(
        {{"start_log_service All Log Service Start Success.", "handle_sa_delete_log_set sa_log_delete_log ret_val[0]"},
         ok_steps()});
    const lines all = steps();
    ASSERT_GT(all.size(), begin.size() + end.size());
    EXPECT_EQ(lines(all.begin(), all.begin() + static_cast<ptrdiff_t>(begin.size())), begin);
    EXPECT_EQ(lines(all.end() - static_cast<ptrdiff_t>(end.size()), all.end()), end);
    EXPECT_EQ(count_lines(all, "start_log_service()"), 1);

    const lines file_begin =
        joined({{"handle_sa_delete_log_set req[\r]"},
                stopped,
                {"util_delete_ex log_path[/data/local/log]", "util_delete_ex src_dir[/data/local/log]"},
                deleted,
                {"sa_log_delete_log util_delete_ex ret_val[0]"}});
    const lines file_end = {"start_log_service All Log Service Start Success.",
                            "sa_log_delete_log start_log_service ret_val[0]", "handle_sa_delete_log_set ret_val[0]"};
    const lines file = file_steps();
    ASSERT_GT(file.size(), file_begin.size() + file_end.size());
    EXPECT_EQ(lines(file.begin(), file.begin() + static_cast<ptrdiff_t>(file_begin.size())), file_begin);
    EXPECT_EQ(lines(file.end() - static_cast<ptrdiff_t>(file_end.size()), file.end()), file_end);
    EXPECT_EQ(result(), "ret_val[0]");
}

TEST_F(DeleteLog, OnlyLogsItsArgument) {
    ASSERT_NO_FATAL_FAILURE(boot_recording());
    for (const std::string &argument : lines{"\"x\"", "/data/elsewhere", "%s%n"}) {
        EXPECT_EQ(request("+DELETE_LOG=" + argument), kOk) << argument;
        EXPECT_EQ(file_steps().front(), "handle_sa_delete_log_set req[" + argument + "\r]");
        EXPECT_EQ(shell_lines(), delete_lines()) << argument;
    }
}

// ---- the restart ----

TEST_F(DeleteLog, ReplacesAllCollectorsAndTheirFiles) {
    ASSERT_NO_FATAL_FAILURE(boot(desk_options()));
    ASSERT_TRUE(desk_kmsg_feed(h, "<6>before\n"));
    ASSERT_TRUE(desk_wait_text(h, "/data/local/log/kmsg.log", "<6>before\n"));
    const lines outputs = {"/data/local/log/ipdata.pcap", "/data/local/log/logcat.log",
                           "/data/local/log/logcat-events.log", "/data/local/log/logcat-radio.log"};
    std::vector<pid_t> before;
    for (const std::string &output : outputs) {
        before.push_back(process_with(output));
        ASSERT_GT(before.back(), 0) << output;
    }
    EXPECT_EQ(request("+DELETE_LOG"), kOk);
    for (size_t i = 0; i < outputs.size(); i++) {
        EXPECT_TRUE(desk_wait_gone(h, before[i])) << outputs[i];
        EXPECT_GT(process_with(outputs[i]), before[i]) << outputs[i];
    }
    ASSERT_TRUE(desk_kmsg_feed(h, "<6>after\n"));
    EXPECT_TRUE(desk_wait_text(h, "/data/local/log/kmsg.log", "<6>after\n"));
    EXPECT_EQ(desk_file_text(h, "/data/local/log/kmsg.log").find("<6>before\n"), std::string::npos);
    EXPECT_FALSE(desk_exists(h, "/data/local/log/kmsg.log.1"));
    EXPECT_TRUE(desk_wait_text(h, "/data/local/log/logcat.log", "main pid[")) << "the ring is written again";
    EXPECT_TRUE(in_order(steps(), {"sa_kill_all_child_service_ex()", "util_delete_ex()",
                                   "sa_is_can_start_log_service()", "start_log_service()"}));
}

TEST_F(DeleteLog, StartsWithThePropertyAsItStandsNow) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_EQ(set_log_property(log_property({{4, "2,7"}, {3, "3,64"}})), 0);
    EXPECT_EQ(request("+DELETE_LOG"), kOk);
    const pid_t first = process_with("/data/local/log/logcat.log");
    EXPECT_EQ(vector_of(first),
              "</system/bin/logcat><-r><7><-v><threadtime><-v><usec><-v><printable><-n><2><-f></data/local/log/"
              "logcat.log>");
    EXPECT_TRUE(desk_wait_path(h, "/data/local/log/kmsg.log"));
    EXPECT_EQ(threads(desk_agent_pid(h)), 2 + 2);

    ASSERT_EQ(set_log_property(log_property({{5, "4,9"}})), 0);
    EXPECT_EQ(request("+DELETE_LOG"), kOk);
    EXPECT_EQ(vector_of(process_with("/data/local/log/logcat-events.log")),
              "</system/bin/logcat><-r><9><-v><threadtime><-v><usec><-v><printable><-n><4><-b><events><-f>"
              "</data/local/log/logcat-events.log>");
    EXPECT_TRUE(desk_wait_gone(h, first));
    EXPECT_TRUE(desk_until([&] { return threads(desk_agent_pid(h)) == 2 + 1; }));
    EXPECT_FALSE(desk_exists(h, "/data/local/log/kmsg.log"));
}

// The directory of the files is fixed, whatever the property names for the collectors.
TEST_F(DeleteLog, LeavesADirectoryElsewhereAlone) {
    desk_options options = with_log_property(log_property({{3, "5,64"}, {6, "5,5120"}}, "/data/elsewhere"));
    ASSERT_NO_FATAL_FAILURE(boot(options));
    ASSERT_TRUE(desk_wait_path(h, "/data/elsewhere/kmsg.log"));
    ASSERT_NO_FATAL_FAILURE(
        put({"/data/local/log/kmsg.log", "/data/elsewhere/kmsg.log.4", "/data/elsewhere/logcat.log"}));
    const pid_t radio = process_with("/data/elsewhere/logcat-radio.log");
    EXPECT_EQ(request("+DELETE_LOG"), kOk);
    EXPECT_FALSE(desk_exists(h, "/data/local/log/kmsg.log"));
    EXPECT_EQ(desk_file_text(h, "/data/elsewhere/logcat.log"), "kept or not\n");
    EXPECT_TRUE(desk_wait_path(h, "/data/elsewhere/kmsg.log.1")) << "the reader shifts its generations once more";
    EXPECT_FALSE(desk_exists(h, "/data/elsewhere/kmsg.log.4")) << "which takes the oldest";
    EXPECT_TRUE(desk_wait_gone(h, radio));
    EXPECT_GT(process_with("/data/elsewhere/logcat-radio.log"), 0);
}

// ---- no restart ----

TEST_F(DeleteLog, WithoutRoomDeletesAndStartsNothing) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{4, "5,5120"}, {3, "5,64"}}))));
    const pid_t logcat = process_with("/data/local/log/logcat.log");
    ASSERT_TRUE(desk_wait_path(h, "/data/local/log/kmsg.log"));
    ASSERT_NO_FATAL_FAILURE(put({"/data/local/log/logcat-events.log.1"}));
    ASSERT_TRUE(desk_fill_data(h, 1 << 20));  // the limit is the twentieth part of 64 MiB
    EXPECT_EQ(request("+DELETE_LOG"), kError);
    EXPECT_TRUE(desk_wait_gone(h, logcat));
    EXPECT_TRUE(desk_until([&] { return threads(desk_agent_pid(h)) == 2; }));
    EXPECT_FALSE(desk_exists(h, "/data/local/log/logcat-events.log.1"));
    EXPECT_FALSE(desk_exists(h, "/data/local/log/kmsg.log"));
    const lines all = steps();
    const lines end = joined({{"sa_log_delete_log sa_is_can_start_log_service error",
                               "handle_sa_delete_log_set sa_log_delete_log ret_val[-117]"},
                              error_steps()});
    ASSERT_GT(all.size(), end.size());
    EXPECT_EQ(lines(all.end() - static_cast<ptrdiff_t>(end.size()), all.end()), end);
    EXPECT_EQ(rests(all, "Low space, threshold:").size(), 1u);
    EXPECT_EQ(count_lines(all, "start_log_service()"), 0);
    EXPECT_EQ(file_steps_of("sa_log_delete_log"),
              (lines{"util_delete_ex ret_val[0]", "sa_is_can_start_log_service error"}));
    EXPECT_EQ(file_steps().back(), "handle_sa_delete_log_set ret_val[-117]");
    EXPECT_EQ(result(), "ret_val[0]");

    ASSERT_TRUE(desk_fill_data(h, 32 << 20));
    EXPECT_EQ(request("+DELETE_LOG"), kOk) << "another one finds room";
    EXPECT_GT(process_with("/data/local/log/logcat.log"), 0);
    EXPECT_TRUE(desk_wait_path(h, "/data/local/log/kmsg.log"));
}

TEST_F(DeleteLog, FailsWhenOneCollectorDoesAndStartsTheOthers) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{3, "5,64"}, {5, "5,5120"}, {6, "5,5120"}}))));
    // The fourth triple's token names no logcat: that one start fails.
    ASSERT_EQ(set_log_property("/data/local/log,I1,0,0,I2,0,0,I3,5,64,I7,5,5120,I5,5,5120,I6,0,0"), 0);
    const pid_t events = process_with("/data/local/log/logcat-events.log");
    EXPECT_EQ(request("+DELETE_LOG"), kError);
    EXPECT_EQ(file_steps_of("start_log_service"), (lines{"Not All Log Service Start Success."}));
    EXPECT_EQ(file_steps_of("sa_log_delete_log"),
              (lines{"util_delete_ex ret_val[0]", "start_log_service ret_val[-100]"}));
    EXPECT_EQ(file_steps_of(kHandler), (lines{"req[\r]", "ret_val[-100]"}));
    EXPECT_EQ(count_lines(steps(), "handle_sa_delete_log_set sa_log_delete_log ret_val[-100]"), 1);
    EXPECT_EQ(result(), "ret_val[0]");
    EXPECT_TRUE(desk_wait_gone(h, events));
    EXPECT_GT(process_with("/data/local/log/logcat-events.log"), events);
    EXPECT_TRUE(desk_wait_path(h, "/data/local/log/kmsg.log"));
}

// Results are put together bit by bit: no program for packets (-118) and none for logcat (-100) make -98.
TEST_F(DeleteLog, AnswersMinusOneWhateverTheCode) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_TRUE(desk_remove(h, "/system/xbin/tcpdump"));
    ASSERT_TRUE(desk_remove(h, "/system/bin/logcat"));
    ASSERT_EQ(set_log_property(log_property({{2, "5,8192"}, {4, "5,5120"}})), 0);
    EXPECT_EQ(request("+DELETE_LOG"), kError);
    EXPECT_EQ(file_steps_of(kHandler), (lines{"req[\r]", "ret_val[-98]"}));
    ASSERT_EQ(set_log_property("/data/local/log,I1"), 0);
    EXPECT_EQ(request("+DELETE_LOG"), kError) << "a property that cannot be read";
    EXPECT_EQ(file_steps_of(kHandler), (lines{"req[\r]", "ret_val[-100]"}));
    ASSERT_TRUE(put_waiting_program(h, "/system/bin/logcat"));
    ASSERT_EQ(set_log_property(log_property({{4, "5,5120"}})), 0);
    EXPECT_EQ(request("+DELETE_LOG"), kOk);
}
