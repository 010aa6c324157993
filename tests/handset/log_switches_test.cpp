// +KERNEL_LOG and +DMESG_LOG: the switches, their effects, and the settings file.
#include "tests/support/commands.h"

static const char kSettings[] = "/data/zr-qel-sa.set";
static const char kSnapshots[] = "/data/log/SystemLog";
static const char kKernelLog[] = "/data/local/log/kmsg.log";

// Content of the settings file: kernel, dmesg and packet switch as raw bytes.
static std::string settings(char kernel, char dmesg, char packets) {
    return {kernel, ' ', dmesg, ' ', packets};
}

// What the writing of the settings file says.
static lines setting_steps(bool kernel, bool dmesg, bool packets) {
    const auto word = [](bool is_on) { return std::string(is_on ? "Yes" : "No"); };
    return {"write_setting()", "kernel log: " + word(kernel), "dmesg log: " + word(dmesg),
            "packets capture: " + word(packets)};
}

class LogSwitches : public CommandTest {
  protected:
    // A dmesg that prints the number of its run.
    void boot_with_counting_dmesg();
    // Makes sure that the diagnostic file can take some lines more when /data has no room left.
    void give_the_diagnostic_file_room();
    std::string snapshot(const std::string &generation) {
        return desk_file_text(h, std::string(kSnapshots) + "/dmesg.log" + generation);
    }
};

void LogSwitches::boot_with_counting_dmesg() {
    desk_options options = quiet_options();
    options.files.push_back(script("/system/bin/dmesg", "print x >> /data/runs; print run $(wc -l < /data/runs)\n"));
    options.files.back().text.replace(0, 16, "#!/system/bin/mksh");
    options.prepare = record_shell;
    boot(options);
    shell_lines();  // those of the start-up
}

void LogSwitches::give_the_diagnostic_file_room() {
    const size_t page = 4096;
    const size_t used = desk_file_text(h, kSaLog).size() % page;
    ASSERT_TRUE(desk_append_file(h, kSaLog, "filler" + std::string(page - used, '.') + "\n"));
}

// ---- values ----

TEST_F(LogSwitches, AreOffWhenTheAgentStarts) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(request("+KERNEL_LOG?"), "\r\nKERNEL_LOG: 0\r\n\r\nOK\r\n");
    EXPECT_EQ(steps(),
              (lines{"handle_sa_kernel_log_read()", "send_rsp()", "send ==> \r\nKERNEL_LOG: 0\r\n\r\nOK\r\n"}));
    EXPECT_EQ(request("+DMESG_LOG?"), "\r\nDMESG_LOG: 0\r\n\r\nOK\r\n");
    EXPECT_EQ(steps(), (lines{"handle_sa_dmesg_log_read()", "send_rsp()", "send ==> \r\nDMESG_LOG: 0\r\n\r\nOK\r\n"}));
    EXPECT_FALSE(desk_exists(h, kSettings));
}

// Nothing is ever read back from the settings file.
TEST_F(LogSwitches, AreOffAgainAfterARestart) {
    ASSERT_NO_FATAL_FAILURE(boot_with_counting_dmesg());
    EXPECT_EQ(request("+KERNEL_LOG=1"), kOk);
    EXPECT_EQ(request("+DMESG_LOG=1"), kOk);
    ASSERT_NO_FATAL_FAILURE(restart_agent());
    EXPECT_EQ(desk_file_text(h, kSettings), settings(1, 1, 0));
    EXPECT_EQ(request("+KERNEL_LOG?"), "\r\nKERNEL_LOG: 0\r\n\r\nOK\r\n");
    EXPECT_EQ(request("+DMESG_LOG?"), "\r\nDMESG_LOG: 0\r\n\r\nOK\r\n");
}

TEST_F(LogSwitches, TakeZeroAndOneOnly) {
    ASSERT_NO_FATAL_FAILURE(boot_with_counting_dmesg());
    for (const std::string &name : lines{"kernel", "dmesg"}) {
        const std::string handler = "handle_sa_" + name + "_log_set";
        for (const std::string &value : lines{"2", "-1", "x", "", "10", "99999999999", "-", "\"1\"", "4294967297"}) {
            SCOPED_TRACE(name + "=" + value);
            EXPECT_EQ(request("+" + name + "_LOG=" + value), kError);
            EXPECT_EQ(steps(), joined({{handler + "()", report(handler, -118), "error to sscanf(\"" + value + "\r\")"},
                                       error_steps()}));
            EXPECT_EQ(result(), "ret_val[0]");
        }
    }
    EXPECT_EQ(request("+KERNEL_LOG?"), "\r\nKERNEL_LOG: 0\r\n\r\nOK\r\n");
    EXPECT_EQ(request("+DMESG_LOG?"), "\r\nDMESG_LOG: 0\r\n\r\nOK\r\n");
    EXPECT_FALSE(desk_exists(h, kSettings));
    EXPECT_EQ(shell_lines(), lines());
    EXPECT_EQ(threads(desk_agent_pid(h)), 2);
}

TEST_F(LogSwitches, TakeANumberAsItIsUsuallyWritten) {
    ASSERT_NO_FATAL_FAILURE(boot_with_counting_dmesg());
    for (const std::string &value : lines{"1", "0", "  1", "+0", "01", "000", "1x", "0,5"}) {
        const char digit = value.find('1') != std::string::npos ? '1' : '0';
        EXPECT_EQ(request("+DMESG_LOG=" + value), kOk) << value;
        EXPECT_EQ(request("+DMESG_LOG?"), std::string("\r\nDMESG_LOG: ") + digit + "\r\n\r\nOK\r\n") << value;
    }
}

// ---- the settings file ----

// The packet switch alone does not write the file; its value comes with the next change of another one.
TEST_F(LogSwitches, AreWrittenTogetherAsRawBytes) {
    ASSERT_NO_FATAL_FAILURE(boot_with_counting_dmesg());
    EXPECT_EQ(request("+KERNEL_LOG=1"), kOk);
    EXPECT_EQ(steps(), joined({{"handle_sa_kernel_log_set()"}, setting_steps(true, false, false), ok_steps()}));
    EXPECT_EQ(desk_file_text(h, kSettings), std::string("\x01\x20\x00\x20\x00", 5));
    EXPECT_EQ(desk_owner(h, kSettings), "0600 0:0");
    EXPECT_EQ(request("+DMESG_LOG=1"), kOk);
    EXPECT_EQ(steps(), joined({{"handle_sa_dmesg_log_set()"}, setting_steps(true, true, false), ok_steps()}));
    EXPECT_EQ(desk_file_text(h, kSettings), settings(1, 1, 0));
    EXPECT_EQ(request("+KERNEL_LOG=0"), kOk);
    EXPECT_EQ(steps(), joined({{"handle_sa_kernel_log_set()", "pub_util_kill_thread()"},
                               setting_steps(false, true, false),
                               ok_steps()}));
    EXPECT_EQ(desk_file_text(h, kSettings), settings(0, 1, 0));
    EXPECT_EQ(request("+DMESG_LOG=0"), kOk);
    EXPECT_EQ(steps(), joined({{"handle_sa_dmesg_log_set()"}, setting_steps(false, false, false), ok_steps()}));
    EXPECT_EQ(desk_file_text(h, kSettings), settings(0, 0, 0));

    EXPECT_EQ(request("+DATA_PACKETS_LOG=1"), kOk);
    EXPECT_EQ(desk_file_text(h, kSettings), settings(0, 0, 0));
    EXPECT_EQ(request("+DMESG_LOG=1"), kOk);
    EXPECT_EQ(steps(), joined({{"handle_sa_dmesg_log_set()"}, setting_steps(false, true, true), ok_steps()}));
    EXPECT_EQ(desk_file_text(h, kSettings), settings(0, 1, 1));
    EXPECT_EQ(request("+KERNEL_LOG=1"), kOk);
    EXPECT_EQ(desk_file_text(h, kSettings), settings(1, 1, 1));
    EXPECT_EQ(request("+DMESG_LOG=0"), kOk);
    EXPECT_EQ(desk_file_text(h, kSettings), settings(1, 0, 1));
    EXPECT_EQ(request("+KERNEL_LOG=0"), kOk);
    EXPECT_EQ(desk_file_text(h, kSettings), settings(0, 0, 1));
}

TEST_F(LogSwitches, AreNotWrittenWhenNothingChanges) {
    ASSERT_NO_FATAL_FAILURE(boot_with_counting_dmesg());
    EXPECT_EQ(request("+KERNEL_LOG=0"), kOk);
    EXPECT_EQ(steps(), joined({{"handle_sa_kernel_log_set()"}, ok_steps()}));
    EXPECT_EQ(request("+DMESG_LOG=0"), kOk);
    EXPECT_EQ(steps(), joined({{"handle_sa_dmesg_log_set()"}, ok_steps()}));
    EXPECT_FALSE(desk_exists(h, kSettings));
    EXPECT_EQ(request("+KERNEL_LOG=1"), kOk);
    ASSERT_TRUE(desk_remove(h, kSettings));
    EXPECT_EQ(request("+KERNEL_LOG=1"), kOk);
    EXPECT_EQ(steps(), joined({{"handle_sa_kernel_log_set()"}, ok_steps()}));
    EXPECT_FALSE(desk_exists(h, kSettings));
    EXPECT_EQ(threads(desk_agent_pid(h)), 3) << "nor is a second reader started";
}

TEST_F(LogSwitches, LeaveTheModeOfTheFileToTheMask) {
    desk_options options = quiet_options();
    options.umask = 0;
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(request("+KERNEL_LOG=1"), kOk);
    EXPECT_EQ(desk_owner(h, kSettings), "0666 0:0");
}

TEST_F(LogSwitches, ReplaceALongerFileAndKeepItsOwner) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_TRUE(desk_write_file(h, kSettings, "what an earlier version has left\n", 0644, 1000, 1000));
    EXPECT_EQ(request("+KERNEL_LOG=1"), kOk);
    EXPECT_EQ(desk_file_text(h, kSettings), settings(1, 0, 0));
    EXPECT_EQ(desk_owner(h, kSettings), "0644 1000:1000");
}

TEST_F(LogSwitches, ChangeWhenTheFileCannotBeOpened) {
    ASSERT_NO_FATAL_FAILURE(boot_with_counting_dmesg());
    ASSERT_TRUE(desk_make_dir(h, kSettings));
    EXPECT_EQ(request("+DMESG_LOG=1"), kOk) << "counts as success";
    EXPECT_EQ(steps(), joined({{"handle_sa_dmesg_log_set()", "write_setting()", "sys call: open() failed! errno = 21",
                                report("write_setting", -1)},
                               ok_steps()}));
    EXPECT_EQ(reports().back(), "FUNC-write_setting(), error_code=-1, errno=21");
    EXPECT_EQ(request("+DMESG_LOG?"), "\r\nDMESG_LOG: 1\r\n\r\nOK\r\n");
    EXPECT_EQ(shell_lines(), (lines{"dmesg > /data/log/SystemLog/dmesg.log &"}));
}

// Opening a FIFO that has no reader would block the command thread.
TEST_F(LogSwitches, ChangeWhenTheFileIsAFifoWithoutAReader) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_EQ(desk_shell(h, std::string("busybox mkfifo ") + kSettings).status, 0);
    EXPECT_EQ(request("+KERNEL_LOG=1"), kOk) << "counts as success";
    EXPECT_EQ(steps(), joined({{"handle_sa_kernel_log_set()", "write_setting()", "sys call: open() failed! errno = 6",
                                report("write_setting", -1)},
                               ok_steps()}));
    EXPECT_EQ(request("+KERNEL_LOG?"), "\r\nKERNEL_LOG: 1\r\n\r\nOK\r\n");
    ASSERT_TRUE(desk_remove(h, kSettings));
    EXPECT_EQ(request("+KERNEL_LOG=0"), kOk);
    EXPECT_EQ(desk_file_text(h, kSettings), settings(0, 0, 0));
}

// The answer counts what reached the file. By then the switch has changed and its reader runs.
TEST_F(LogSwitches, ChangeButFailWhenDataIsFull) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_NO_FATAL_FAILURE(give_the_diagnostic_file_room());
    ASSERT_TRUE(desk_fill_data(h, 0));
    EXPECT_EQ(request("+KERNEL_LOG=1"), kError);
    EXPECT_EQ(steps(), joined({{"handle_sa_kernel_log_set()", "write_setting()",
                                "sys call: fscanf() failed! errno = 28", report("write_setting", -100)},
                               error_steps()}));
    EXPECT_EQ(result(), "ret_val[0]");
    EXPECT_EQ(desk_file_text(h, kSettings), "");
    EXPECT_EQ(request("+KERNEL_LOG?"), "\r\nKERNEL_LOG: 1\r\n\r\nOK\r\n");
    EXPECT_EQ(threads(desk_agent_pid(h)), 3);
    EXPECT_EQ(request("+KERNEL_LOG=1"), kOk) << "nothing left to change";
    ASSERT_TRUE(desk_fill_data(h, 1 << 20));
    EXPECT_EQ(request("+KERNEL_LOG=0"), kOk);
    EXPECT_EQ(desk_file_text(h, kSettings), settings(0, 0, 0));
    EXPECT_TRUE(desk_until([&] { return threads(desk_agent_pid(h)) == 2; }));
}

// The one that watches for the packet switch is forked by a child that the agent waits for.
TEST_F(LogSwitches, OfPacketsFailsWhenTheAgentCannotWaitForItsChild) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_NO_FATAL_FAILURE(inject("wait4,waitpid:error=EINTR:when=1"));
    EXPECT_EQ(request("+DATA_PACKETS_LOG=1"), kError);
    ASSERT_NO_FATAL_FAILURE(stop_injecting());
    EXPECT_EQ(steps(), joined({{"handle_sa_packets_log_set()", "packets_capture_process()", "error to call waitpid()"},
                               error_steps()}));
    EXPECT_EQ(result(), "ret_val[0]");
    EXPECT_EQ(request("+DATA_PACKETS_LOG=1"), kOk) << "nothing left to change";
    EXPECT_EQ(steps(), joined({{"handle_sa_packets_log_set()"}, ok_steps()}));
}

// ---- the kernel switch and its reader ----

TEST_F(LogSwitches, OfKernelMessagesStartsAndEndsAReader) {
    ASSERT_NO_FATAL_FAILURE(boot());
    const pid_t agent = desk_agent_pid(h);
    const lines before = descriptors(agent);
    for (int round = 1; round <= 3; round++) {
        SCOPED_TRACE(round);
        const std::string record = "<6>round " + std::to_string(round) + "\n";
        EXPECT_EQ(request("+KERNEL_LOG=1"), kOk);
        ASSERT_TRUE(desk_kmsg_feed(h, record));
        ASSERT_TRUE(desk_wait_text(h, kKernelLog, record));
        EXPECT_EQ(desk_file_text(h, kKernelLog).substr(0, 3), "[20") << "the time stamp";
        EXPECT_EQ(threads(agent), 3);
        EXPECT_EQ(descriptors(agent).size(), before.size() + 2);
        EXPECT_EQ(request("+KERNEL_LOG=0"), kOk);
        EXPECT_TRUE(desk_until([&] { return threads(agent) == 2; }));
        EXPECT_EQ(descriptors(agent), before);
        EXPECT_TRUE(desk_until([&] {
            return rests(AgentTest::platform_lines("zr-qel-pub"), "thread ").size() == static_cast<size_t>(round);
        })) << "each reader logs its end";
    }
    EXPECT_EQ(ask("AT\r"), kOk);
}

// One switched off may have ended long ago, without an output file for instance: nobody else is to be hit.
TEST_F(LogSwitches, OfKernelMessagesEndsNobodyElse) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_TRUE(desk_make_dir(h, std::string(kKernelLog) + "/full"));
    for (int round = 1; round <= 3; round++) {
        EXPECT_EQ(request("+KERNEL_LOG=1"), kOk);
        EXPECT_TRUE(desk_until([&] { return threads(desk_agent_pid(h)) == 2; })) << "it cannot write there";
        EXPECT_EQ(request("+KERNEL_LOG=0"), kOk);
        EXPECT_EQ(steps(), joined({{"handle_sa_kernel_log_set()", "pub_util_kill_thread()"},
                                   setting_steps(false, false, false),
                                   ok_steps()}));
    }
    EXPECT_EQ(ask("AT\r"), kOk);
    EXPECT_EQ(threads(desk_agent_pid(h)), 2);
}

// The switch tells of itself, not of the collector; what it starts is a reader beside the collector's, and off ends the
// newest reader alone.
TEST_F(LogSwitches, OfKernelMessagesStandsBesideTheCollector) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{3, "5,64"}}))));
    ASSERT_TRUE(desk_kmsg_feed(h, "<6>collector\n"));
    ASSERT_TRUE(desk_wait_text(h, kKernelLog, "<6>collector\n"));
    const pid_t agent = desk_agent_pid(h);
    ASSERT_EQ(threads(agent), 3);
    EXPECT_EQ(request("+KERNEL_LOG?"), "\r\nKERNEL_LOG: 0\r\n\r\nOK\r\n");
    EXPECT_EQ(request("+KERNEL_LOG=1"), kOk);
    EXPECT_EQ(threads(agent), 4);
    ASSERT_TRUE(desk_wait_path(h, std::string(kKernelLog) + ".1"));
    EXPECT_NE(desk_file_text(h, std::string(kKernelLog) + ".1").find("<6>collector\n"), std::string::npos);
    EXPECT_EQ(request("+KERNEL_LOG=0"), kOk);
    EXPECT_TRUE(desk_until([&] { return threads(agent) == 3; }));
    ASSERT_TRUE(desk_kmsg_feed(h, "<6>still there\n"));
    EXPECT_TRUE(desk_wait_text(h, std::string(kKernelLog) + ".1", "<6>still there\n")) << "the collector's goes on";
}

// A restart of collection puts its own reader's id where the switch had stored one: that reader is then the newest.
TEST_F(LogSwitches, OfKernelMessagesForgetsItsReaderWhenCollectionRestarts) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{3, "5,64"}}))));
    const pid_t agent = desk_agent_pid(h);
    EXPECT_EQ(request("+KERNEL_LOG=1"), kOk);
    ASSERT_EQ(threads(agent), 4);
    EXPECT_EQ(request("+DELETE_LOG"), kOk);
    EXPECT_TRUE(desk_until([&] { return threads(agent) == 4; })) << "the collector's reader has been replaced";
    EXPECT_EQ(request("+KERNEL_LOG?"), "\r\nKERNEL_LOG: 1\r\n\r\nOK\r\n");
    EXPECT_EQ(request("+KERNEL_LOG=0"), kOk);
    EXPECT_TRUE(desk_until([&] { return threads(agent) == 3; }));
    EXPECT_EQ(request("+KERNEL_LOG=1"), kOk);
    EXPECT_EQ(request("+KERNEL_LOG=0"), kOk);
    EXPECT_TRUE(desk_until([&] { return threads(agent) == 3; })) << "the switch's first reader is out of reach";
    EXPECT_EQ(ask("AT\r"), kOk);
}

// ---- the dmesg switch and its snapshots ----

TEST_F(LogSwitches, OfDmesgTakesASnapshotEachTimeItGoesOn) {
    ASSERT_NO_FATAL_FAILURE(boot_with_counting_dmesg());
    ASSERT_TRUE(desk_make_dir(h, kSnapshots));
    for (int run = 1; run <= 5; run++) {
        EXPECT_EQ(request("+DMESG_LOG=1"), kOk);
        ASSERT_TRUE(desk_until([&] { return snapshot("") == "run " + std::to_string(run) + "\n"; }));
        EXPECT_EQ(request("+DMESG_LOG=1"), kOk) << "the second time changes nothing";
        EXPECT_EQ(request("+DMESG_LOG=0"), kOk);
        EXPECT_EQ(snapshot(""), "run " + std::to_string(run) + "\n") << "off deletes nothing";
    }
    EXPECT_EQ(desk_list(h, kSnapshots), (lines{"dmesg.log", "dmesg.log.1", "dmesg.log.2", "dmesg.log.3"}));
    EXPECT_EQ(snapshot(".1"), "run 4\n");
    EXPECT_EQ(snapshot(".2"), "run 3\n");
    EXPECT_EQ(snapshot(".3"), "run 2\n");
    EXPECT_EQ(shell_lines(), repeated(5, "dmesg > /data/log/SystemLog/dmesg.log &"));
    EXPECT_EQ(desk_owner(h, std::string(kSnapshots) + "/dmesg.log"), "0600 0:0");
}

TEST_F(LogSwitches, OfDmesgShiftsWhatThereIs) {
    ASSERT_NO_FATAL_FAILURE(boot_with_counting_dmesg());
    ASSERT_TRUE(desk_make_dir(h, kSnapshots));
    ASSERT_TRUE(desk_write_file(h, std::string(kSnapshots) + "/dmesg.log.1", "one\n"));
    ASSERT_TRUE(desk_write_file(h, std::string(kSnapshots) + "/dmesg.log.3", "three\n"));
    EXPECT_EQ(request("+DMESG_LOG=1"), kOk);
    ASSERT_TRUE(desk_until([&] { return snapshot("") == "run 1\n"; }));
    EXPECT_EQ(desk_list(h, kSnapshots), (lines{"dmesg.log", "dmesg.log.2"}));
    EXPECT_EQ(snapshot(".2"), "one\n");
}

TEST_F(LogSwitches, OfDmesgDoesNotWaitForIt) {
    desk_options options = quiet_options();
    options.files.push_back(
        script("/system/bin/dmesg", "until [ -e /data/go ]; do sleep 0.02; done\nprint from the program\n"));
    ASSERT_NO_FATAL_FAILURE(boot(options));
    ASSERT_TRUE(desk_make_dir(h, kSnapshots));
    EXPECT_EQ(request("+DMESG_LOG=1"), kOk);
    EXPECT_EQ(snapshot(""), "");
    ASSERT_TRUE(desk_write_file(h, "/data/go", ""));
    EXPECT_TRUE(desk_until([&] { return snapshot("") == "from the program\n"; }));
}

TEST_F(LogSwitches, OfDmesgForgetsASnapshotThatFails) {
    ASSERT_NO_FATAL_FAILURE(boot_with_counting_dmesg());
    EXPECT_EQ(request("+DMESG_LOG=1"), kOk) << "nobody has made the directory";
    EXPECT_EQ(steps(), joined({{"handle_sa_dmesg_log_set()"}, setting_steps(false, true, false), ok_steps()}));
    EXPECT_EQ(shell_lines(), (lines{"dmesg > /data/log/SystemLog/dmesg.log &"}));
    EXPECT_FALSE(desk_exists(h, "/data/log"));
    EXPECT_EQ(request("+DMESG_LOG?"), "\r\nDMESG_LOG: 1\r\n\r\nOK\r\n");
}

// The real program: the same text as when it is called by hand. It reads the machine's messages and takes none away.
TEST_F(LogSwitches, OfDmesgKeepsWhatTheProgramPrints) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_TRUE(desk_make_dir(h, kSnapshots));
    EXPECT_EQ(request("+DMESG_LOG=1"), kOk);
    ASSERT_TRUE(desk_wait_path(h, std::string(kSnapshots) + "/dmesg.log"));
    const desk_result by_hand = run({"/system/bin/dmesg"});
    if (by_hand.status != 0 || by_hand.output.empty()) {
        GTEST_SKIP() << "this machine does not show its kernel messages";
    }
    const std::string first_line = by_hand.output.substr(0, by_hand.output.find('\n') + 1);
    EXPECT_TRUE(desk_until([&] { return snapshot("").substr(0, first_line.size()) == first_line; }));
}
