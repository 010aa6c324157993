// +SYSTEM: the shell runs the host's command line with the agent's rights, at most five times, until it succeeds.
#include "tests/support/commands.h"

class SystemCommand : public CommandTest {
  protected:
    void boot_recording() {
        desk_options options = quiet_options();
        options.prepare = record_shell;
        boot(options);
        shell_lines();  // those of the start-up
    }
};

// One failed run of a command line.
static lines failed_run(int status, const std::string &command) {
    const std::string number = std::to_string(status);
    return {"PUB_UTIL_CALL_SYSTEM(" + number + ", " + command + ")", report("do_sys_command", -118),
            "error(" + number + ") to exec: " + command};
}

TEST_F(SystemCommand, RunsOnceAndTellsOfSuccess) {
    ASSERT_NO_FATAL_FAILURE(boot_recording());
    EXPECT_EQ(request("+SYSTEM=\"print -r kettle > /data/out\""), kOk);
    EXPECT_EQ(desk_file_text(h, "/data/out"), "kettle\n");
    EXPECT_EQ(shell_lines(), (lines{"print -r kettle > /data/out"}));
    EXPECT_EQ(steps(), joined({{"handle_sa_system_set()", "do_sys_command()",
                                "PUB_UTIL_CALL_SYSTEM(0, print -r kettle > /data/out)",
                                "command \"print -r kettle > /data/out\": 0"},
                               ok_steps()}));
    EXPECT_EQ(file_steps(), (lines{"handle_sa_system_set req[\"print -r kettle > /data/out\"\r]",
                                   "do_sys_command cmd[print -r kettle > /data/out]",
                                   "handle_sa_system_set cmd[print -r kettle > /data/out] ret_val[0]"}));
    EXPECT_EQ(result(), "ret_val[0]");
}

TEST_F(SystemCommand, RunsFiveTimesWhenItAlwaysFails) {
    ASSERT_NO_FATAL_FAILURE(boot_recording());
    const std::string command = "print x >> /data/runs; exit 1";
    EXPECT_EQ(request("+SYSTEM=\"" + command + "\""), kError);
    EXPECT_EQ(desk_file_text(h, "/data/runs"), "x\nx\nx\nx\nx\n");
    EXPECT_EQ(shell_lines(), repeated(5, command));
    const lines once = failed_run(256, command);
    EXPECT_EQ(steps(), joined({{"handle_sa_system_set()", "do_sys_command()"},
                               once,
                               once,
                               once,
                               once,
                               once,
                               {"command \"" + command + "\": -118"},
                               error_steps()}));
    EXPECT_EQ(file_steps(),
              (lines{"handle_sa_system_set req[\"" + command + "\"\r]", "do_sys_command cmd[" + command + "]",
                     "handle_sa_system_set cmd[" + command + "] ret_val[-100]"}));
    std::vector<double> runs = moments("PUB_UTIL_CALL_SYSTEM(");
    runs.push_back(moments("command \"").front());
    EXPECT_EQ(runs.size(), 6u);
    EXPECT_TRUE(apart(runs, 0.499)) << "half a second after each failure, the fifth included";
    EXPECT_EQ(result(), "ret_val[0]");
}

TEST_F(SystemCommand, RunsUntilItSucceeds) {
    ASSERT_NO_FATAL_FAILURE(boot_recording());
    const std::string command = "print x >> /data/runs; [ $(wc -l < /data/runs) -ge 3 ]";
    EXPECT_EQ(request("+SYSTEM=\"" + command + "\""), kOk);
    EXPECT_EQ(desk_file_text(h, "/data/runs"), "x\nx\nx\n");
    EXPECT_EQ(steps(), joined({{"handle_sa_system_set()", "do_sys_command()"},
                               failed_run(256, command),
                               failed_run(256, command),
                               {"PUB_UTIL_CALL_SYSTEM(0, " + command + ")", "command \"" + command + "\": 0"},
                               ok_steps()}));
}

// What `system` returns is shown and judged as it is: no exit code is taken out of it.
TEST_F(SystemCommand, ShowsTheRawStatusOfEveryFailure) {
    ASSERT_NO_FATAL_FAILURE(boot_recording());
    const std::vector<std::pair<std::string, int>> ways = {{"exit 7", 7 << 8},
                                                           {"exit 255", 255 << 8},
                                                           {"kill -9 $$", 9},
                                                           {"kill -10 $$", 10},
                                                           {"nosuchprogram", 127 << 8}};
    for (const auto &way : ways) {
        const std::string command = "rm /data/second && exit 0; print x > /data/second; " + way.first;
        SCOPED_TRACE(command);
        EXPECT_EQ(request("+SYSTEM=\"" + command + "\""), kOk);
        EXPECT_EQ(steps(), joined({{"handle_sa_system_set()", "do_sys_command()"},
                                   failed_run(way.second, command),
                                   {"PUB_UTIL_CALL_SYSTEM(0, " + command + ")", "command \"" + command + "\": 0"},
                                   ok_steps()}));
    }
}

TEST_F(SystemCommand, InTheBackgroundIsDoneAtOnce) {
    ASSERT_NO_FATAL_FAILURE(boot_recording());
    EXPECT_EQ(request("+SYSTEM=\"{ until [ -e /data/go ]; do sleep 0.02; done; print x > /data/done; } &\""), kOk);
    EXPECT_FALSE(desk_exists(h, "/data/done"));
    ASSERT_TRUE(desk_write_file(h, "/data/go", ""));
    EXPECT_TRUE(desk_wait_path(h, "/data/done"));
}

TEST_F(SystemCommand, KeepsTheChannelUntilItIsDone) {
    ASSERT_NO_FATAL_FAILURE(boot_recording());
    begin("AT SA+SYSTEM=\"until [ -e /data/go ]; do sleep 0.02; done\"\r");
    ASSERT_TRUE(wait_file_line("do_sys_command cmd[until [ -e /data/go ]; do sleep 0.02; done]"));
    send("AT\r");
    EXPECT_EQ(receive(300), "");
    ASSERT_TRUE(desk_write_file(h, "/data/go", ""));
    std::string answers = receive();
    if (answers == kOk) {  // else both have come at once
        answers += receive();
    }
    EXPECT_EQ(answers, std::string(kOk) + kOk);
    EXPECT_TRUE(wait_file_line("sa_handle_read_cmd_loop req[AT\r] ret_val[0]"));
}

TEST_F(SystemCommand, RunsAsRootInTheRootDirectoryWithoutInputAndOutput) {
    ASSERT_NO_FATAL_FAILURE(boot_recording());
    EXPECT_EQ(request("+SYSTEM=\"print -r $(id -u) $(pwd) $(umask) > /data/who; cat > /data/input\""), kOk);
    EXPECT_EQ(desk_file_text(h, "/data/who"), "0 / 077\n");
    EXPECT_EQ(desk_file_text(h, "/data/input"), "");
    EXPECT_EQ(request("+SYSTEM=\"print to the host; print -u2 and there\""), kOk) << "nothing of it reaches the host";
    EXPECT_EQ(ask("AT\r"), kOk);
}

// ---- what reaches the shell ----

TEST_F(SystemCommand, ReachesTheShellByteByByte) {
    ASSERT_NO_FATAL_FAILURE(boot_recording());
    const std::string text = "a  b\t%s%n%99999d \\n\\\\ ;&|<>(){}[]*?~#!'$(x) `y` \xc3\xa9 \xff\x01\x7f";
    std::string quoted = text;
    quoted.replace(quoted.find('\''), 1, "'\\''");
    const std::string command = "print -rn -- '" + quoted + "' > /data/out";
    EXPECT_EQ(request("+SYSTEM=\"" + command + "\""), kOk);
    EXPECT_EQ(desk_file_text(h, "/data/out"), text);
    EXPECT_EQ(shell_lines(), (lines{command}));
    EXPECT_EQ(file_steps_of("do_sys_command"), (lines{"cmd[" + command + "]"}));
    EXPECT_EQ(steps()[2], "PUB_UTIL_CALL_SYSTEM(0, " + command + ")");
    EXPECT_EQ(request("+SYSTEM=\"print -rn -- 'one\rtwo\nthree' > /data/out\""), kOk) << "line ends, too";
    EXPECT_EQ(desk_file_text(h, "/data/out"), "one\rtwo\nthree");
}

TEST_F(SystemCommand, FillsARequestOf199Bytes) {
    ASSERT_NO_FATAL_FAILURE(boot_recording());
    const std::string before = "AT SA+SYSTEM=\"";
    std::string command = "print -rn ";
    const std::string tail = " > /data/out";
    const std::string word(199 - before.size() - command.size() - tail.size() - 2, 'w');
    command += word + tail;
    EXPECT_EQ(say(before + command + "\"\r"), kOk);
    EXPECT_EQ(shell_lines(), (lines{command}));
    EXPECT_EQ(desk_file_text(h, "/data/out"), word);
    EXPECT_EQ(count_lines(file_lines(), "sa_handle_read_cmd_loop read_len[199]"), 1);
}

TEST_F(SystemCommand, EndsAtTheNextDoubleQuote) {
    ASSERT_NO_FATAL_FAILURE(boot_recording());
    EXPECT_EQ(request("+SYSTEM=\"print a > /data/out\" ; exit 1; \"rest\""), kOk);
    EXPECT_EQ(shell_lines(), (lines{"print a > /data/out"}));
    EXPECT_EQ(request("+SYSTEM=\"print b > /data/out\"; print \""), kError) << "one that stays open ends no request";
    EXPECT_EQ(desk_file_text(h, "/data/out"), "a\n");
    EXPECT_EQ(shell_lines(), lines());
}

TEST_F(SystemCommand, RefusesWhatIsNoQuotedCommand) {
    ASSERT_NO_FATAL_FAILURE(boot_recording());
    for (const std::string &argument : lines{"", "true", "\"\"", "'true'", "true \"true\""}) {
        SCOPED_TRACE(argument);
        EXPECT_EQ(request("+SYSTEM=" + argument), kError);
        EXPECT_EQ(steps(), joined({{"handle_sa_system_set()"}, error_steps()}));
        EXPECT_EQ(file_steps(),
                  (lines{"handle_sa_system_set req[" + argument + "\r]", "handle_sa_system_set cmd[] ret_val[-100]"}));
        EXPECT_EQ(result(), "ret_val[0]");
    }
    EXPECT_EQ(request("+SYSTEMX=\"true\""), kError) << "the letters behind the name belong to the argument";
    EXPECT_EQ(shell_lines(), lines());
    EXPECT_EQ(request("+system \"true\""), kOk) << "the equals sign is not needed";
    EXPECT_EQ(shell_lines(), (lines{"true"}));
}
