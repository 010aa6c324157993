// How the agent starts: a second instance, options, banner, pid file, the order of the steps, and a start that fails.
#include <sys/wait.h>

#include <algorithm>
#include <regex>

#include "tests/support/agent.h"
#include "tests/support/sanitized.h"
#include "tests/support/skip.h"

static const char kAgent[] = "/system/bin/zr-qel-sa";
static const char kPidFile[] = "/tmp/zr-qel-sa.pid";

class Start : public AgentTest {
  protected:
    void boot_without_agent(desk_options options = quiet_options()) {
        options.agent = false;
        boot_only(options);
    }

    // Waits until both threads have written the lines of their start and wait for their clients.
    bool wait_idle() {
        return desk_wait_text(h, kSaLog, "]sa_listener_loop fd[") &&
               desk_wait_text(h, kSaLog, "]sa_handle_read_cmd_loop ptm_fd[");
    }

    // Starts a stand-in for another program under a path of its own and waits until /proc shows its first argument.
    void start_sleeper(const std::string &first_argument) {
        desk_program program;
        program.argv = {"/usr/bin/bash", "-c", "exec -a '" + first_argument + "' /usr/bin/sleep 600"};
        ASSERT_TRUE(desk_start(h, program, &sleeper)) << desk_error();
        ASSERT_TRUE(desk_until([&] {
            const std::vector<std::string> arguments = desk_arguments(h, sleeper.pid);
            return !arguments.empty() && arguments[0] == first_argument;
        }));
    }

    desk_child sleeper;
};

static std::string usage_of(const std::string &program) {
    return "\nUsage: " + program +
           " [OPTION]\n"
           "  -d <device name>       Set the device that communicate with modem.\n"
           "  -p <log path>          Special the path that save the ATA log files.\n"
           "  -c <count>             Special the count that backup the ATA log files.\n"
           "  -h                     Display this help and exit.\n\n";
}

static std::string number(const char *before, pid_t pid, const char *behind) {
    return before + std::to_string(pid) + behind;
}

// ---- a second instance

TEST_F(Start, SecondInstanceSaysSoAndTouchesNothing) {
    ASSERT_NO_FATAL_FAILURE(boot());
    const pid_t first = desk_agent_pid(h);
    const std::string link = desk_link_target(h, "/dev/ttyCMD0");
    const std::string pid_file = desk_file_text(h, kPidFile);

    const desk_result second = run({kAgent});
    EXPECT_EQ(second.status, 0);
    EXPECT_EQ(second.output, "zr-qel-sa already run.\n");
    EXPECT_EQ(second.errors, "");
    EXPECT_EQ(desk_agent_pid(h), first);
    EXPECT_EQ(desk_link_target(h, "/dev/ttyCMD0"), link);
    EXPECT_EQ(desk_file_text(h, kPidFile), pid_file);
    EXPECT_EQ(ask("AT\r"), kOk);
}

TEST_F(Start, SecondInstanceLeavesTheseLines) {
    ASSERT_NO_FATAL_FAILURE(boot());
    const pid_t first = desk_agent_pid(h);
    ASSERT_TRUE(wait_idle());
    ASSERT_EQ(run({kAgent}).status, 0);
    settle();
    const std::vector<std::string> lines = file_lines();
    ASSERT_FALSE(lines.empty());
    const pid_t second = atoi(lines[0].c_str() + sizeof("main pid[") - 1);
    EXPECT_EQ(lines,
              (std::vector<std::string>{number("main pid[", second, "]"), "util_is_sa_running ", "sa_util_get_pids ",
                                        "sa_util_get_pids process_name[zr-qel-sa] pids_length[128]",
                                        number("sa_util_get_pids find pid[", first, "] count[1]"),
                                        number("sa_util_get_pids find pid[", second, "] count[2]"),
                                        "sa_util_get_pids found_count[2]", "util_is_sa_running ret_val[0] count[2]",
                                        "util_is_sa_running is_running[1]", "main already running exit"}));
    std::vector<std::string> platform = process_lines(second);
    platform.erase(std::remove_if(platform.begin(), platform.end(),
                                  [](const std::string &text) { return text.find("update_sa_logs") == 0; }),
                   platform.end());
    EXPECT_EQ(platform,
              (std::vector<std::string>{
                  "main()", number("main pid[", second, "]"), "util_is_sa_running()", "sa_util_get_pids()",
                  "sa_util_get_pids process_name[zr-qel-sa] pids_length[128]",
                  number("sa_util_get_pids find pid[", first, "] count[1]"),
                  number("sa_util_get_pids find pid[", second, "] count[2]"), "sa_util_get_pids found_count[2]",
                  "util_is_sa_running ret_val[0] count[2]", "util_is_sa_running is_running[1]"}));
}

TEST_F(Start, SecondInstanceDoesNotLookAtItsOptions) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(run({kAgent, "-h"}).output, "zr-qel-sa already run.\n");
}

TEST_F(Start, OneOtherProcessOfTheNameAloneIsNoOtherInstance) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_TRUE(wait_idle());
    ASSERT_EQ(run({"/system/bin/cp", kAgent, "/data/other"}).status, 0);
    EXPECT_EQ(run({"/data/other", "-h"}).output, usage_of("/data/other"));
    ASSERT_TRUE(wait_file_line("util_is_sa_running ret_val[0] count[1]"));
    EXPECT_TRUE(wait_file_line("util_is_sa_running is_running[0]"));
}

TEST_F(Start, NameInsideAnotherOneCounts) {
    ASSERT_NO_FATAL_FAILURE(boot_without_agent());
    ASSERT_NO_FATAL_FAILURE(start_sleeper("/vendor/xzr-qel-sa-test"));
    EXPECT_EQ(run({kAgent, "-h"}).output, "zr-qel-sa already run.\n");
}

TEST_F(Start, NameBeforeABlankCounts) {
    ASSERT_NO_FATAL_FAILURE(boot_without_agent());
    ASSERT_NO_FATAL_FAILURE(start_sleeper("zr-qel-sa idle worker"));
    EXPECT_EQ(run({kAgent, "-h"}).output, "zr-qel-sa already run.\n");
}

TEST_F(Start, NameBehindABlankOrInAnArgumentDoesNotCount) {
    ASSERT_NO_FATAL_FAILURE(boot_without_agent());
    ASSERT_NO_FATAL_FAILURE(start_sleeper("helper zr-qel-sa"));  // an argument of the shell before it became this
    EXPECT_EQ(run({kAgent, "-h"}).output, usage_of(kAgent));
    EXPECT_TRUE(wait_file_line("sa_util_get_pids found_count[1]"));
}

// ---- options

TEST_F(Start, OptionsThatPrintTheUsage) {
    ASSERT_NO_FATAL_FAILURE(boot_without_agent());
    const std::vector<std::vector<std::string>> options = {
        {"-h"}, {"-d", "/dev/ttyX"}, {"-d"}, {"-p"}, {"-c"}, {"-x"}, {"--help"}, {"-p", "/sdcard", "-c", "3", "-h"},
    };
    for (const std::vector<std::string> &words : options) {
        SCOPED_TRACE(::testing::PrintToString(words));
        std::vector<std::string> argv = {kAgent};
        argv.insert(argv.end(), words.begin(), words.end());
        const desk_result result = run(argv);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.output, usage_of(kAgent));
        EXPECT_FALSE(desk_exists(h, kPidFile));
        ASSERT_FALSE(file_lines().empty());
        EXPECT_EQ(file_lines().back(), "prompt_usage exit");
    }
    settle();
    const std::vector<std::string> platform = platform_lines();
    EXPECT_EQ(count_lines(platform, "prompt_usage()"), static_cast<int>(options.size()));
    EXPECT_EQ(count_lines(platform, "    zr-qel-sa, version 001.001\n"), 0);
    EXPECT_EQ(count_lines(platform, "sa_deinit_resource()"), 0);
}

TEST_F(Start, OptionsForPathAndCountChangeNothing) {
    ASSERT_NO_FATAL_FAILURE(boot_without_agent());
    const desk_child agent = launch({"-p", "/data/elsewhere", "-c", "3", "operand"});
    ASSERT_TRUE(wait_listening(agent.pid));
    open_channel();
    EXPECT_EQ(ask("AT\r"), kOk);
    EXPECT_TRUE(wait_file_line("sa_handle_read_cmd_loop req[AT\r] ret_val[0]"));
    EXPECT_FALSE(desk_exists(h, "/data/elsewhere"));
    EXPECT_EQ(desk_list(h, "/data/local/log"), std::vector<std::string>{"sa.log"});
}

// The first word that is no option ends them.
TEST_F(Start, OptionsBehindAnOperandAreNotRead) {
    ASSERT_NO_FATAL_FAILURE(boot_without_agent());
    const desk_child agent = launch({"-c", "3", "operand", "-h"});
    ASSERT_TRUE(wait_listening(agent.pid));
    open_channel();
    EXPECT_EQ(ask("AT\r"), kOk);
}

// ---- banner, pid file, order

TEST_F(Start, BannerGoesToThePlatformLogAlone) {
    ASSERT_NO_FATAL_FAILURE(boot());
    settle();
    const std::vector<std::string> lines = platform_lines();
    const auto blank = std::find(lines.begin(), lines.end(), "\n");
    ASSERT_GE(lines.end() - blank, 3);
    EXPECT_EQ(blank[1], "    zr-qel-sa, version 001.001\n");
    const std::regex built("    Build time: [A-Z][a-z]{2} [ 123][0-9] 20[0-9]{2} [0-2][0-9]:[0-5][0-9]:[0-5][0-9]\n");
    EXPECT_TRUE(std::regex_match(blank[2], built)) << blank[2];
    EXPECT_EQ(desk_file_text(h, kSaLog).find("ersion"), std::string::npos);
    EXPECT_EQ(desk_file_text(h, kSaLog).find("Build"), std::string::npos);
}

TEST_F(Start, PidFileHoldsThePid) {
    ASSERT_NO_FATAL_FAILURE(boot());
    const pid_t pid = desk_agent_pid(h);
    EXPECT_EQ(desk_file_text(h, kPidFile), std::to_string(pid) + "\n");
    settle();
    EXPECT_TRUE(
        in_order(platform_lines("zr-qel-pub"), {"pub_util_create_pid_file()", number("PID of zr-qel-sa: ", pid, "")}));
}

// Opening a FIFO that has no reader would block the start.
TEST_F(Start, FifoInThePidFilesPlaceIsLeftAlone) {
    skip_in_place("/tmp of its own");
    desk_options options = quiet_options();
    options.prepare = [](desk *handset) {
        return desk_shell(handset, std::string("busybox mkfifo ") + kPidFile).status == 0;
    };
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(ask("AT\r"), kOk);
    settle();
    EXPECT_EQ(count_lines(platform_lines("zr-qel-pub"), number("PID of zr-qel-sa: ", desk_agent_pid(h), "")), 1);
    EXPECT_EQ(desk_owner(h, kPidFile).substr(5), "0:0");
}

TEST_F(Start, WithoutATemporaryDirectoryThereIsNoPidFile) {
    desk_options options = quiet_options();
    options.tmp = false;
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_FALSE(desk_exists(h, kPidFile));
    EXPECT_EQ(ask("AT\r"), kOk);
}

TEST_F(Start, TakesItsStepsInOrder) {
    ASSERT_NO_FATAL_FAILURE(boot());
    const pid_t pid = desk_agent_pid(h);
    settle();
    EXPECT_TRUE(
        in_order(process_lines(pid),
                 {"main()", "update_sa_logs()", number("main pid[", pid, "]"), "util_is_sa_running()",
                  "util_is_sa_running ret_val[0] count[1]", "util_is_sa_running is_running[0]", "\n",
                  "    zr-qel-sa, version 001.001\n", "pub_util_create_pid_file()", "protect_data()", "sa_cfg_init()",
                  "parse_sa_cfg()", "[cfg]zr.tty.cmd = /dev/ttyCMD0", "[cfg]zr.log.size = 1024", "sa_handle_init()",
                  "sa_handle_init m_pts_mapping_name_a[/dev/ttyCMD0]", "start_log_service()", "sa_handle_init exit",
                  "sa_listener_loop()"}));
    EXPECT_TRUE(in_order(file_lines(),
                         {number("main pid[", pid, "]"), "util_is_sa_running ", "util_is_sa_running is_running[0]",
                          "main sa_cfg_init ret_val[0]", "sa_handle_init m_pts_mapping_name_a[/dev/ttyCMD0]",
                          "sa_handle_init exit ret_val[0]", "main sa_handle_init ret_val[0]", "sa_listener_loop "}));
}

TEST_F(Start, LogsAtDebugPriorityInTheMainBuffer) {
    ASSERT_NO_FATAL_FAILURE(boot());
    const pid_t pid = desk_agent_pid(h);
    settle();
    int lines = 0;
    for (const desk_log_entry &entry : desk_log(h)) {
        if (entry.pid == pid) {
            lines++;
            EXPECT_EQ(entry.priority, 'D') << entry.text;
            EXPECT_EQ(entry.buffer, "main") << entry.text;
            EXPECT_TRUE(entry.tag == "zr-qel-sa" || entry.tag == "zr-qel-pub") << entry.tag;
        }
    }
    EXPECT_GT(lines, 50);
}

// Handled signals and no others: those that end or reset it, the one that stops threads, two that fail a write.
TEST_F(Start, HandlesTheseSignalsOnly) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_EQ(ask("AT\r"), kOk);
    const std::string status = desk_file_text(h, number("/proc/", desk_agent_pid(h), "/status"));
    const auto mask = [&](const std::string &name) {
        return std::stoull(status.substr(status.find(name) + name.size()), nullptr, 16) & 0x7fffffffu;
    };
    const auto bit = [](int signo) { return 1ull << (signo - 1); };
    EXPECT_EQ(mask("SigCgt:\t"), bit(2) | bit(7) | bit(10) | bit(11) | bit(12) | bit(13) | bit(15) | bit(25));
    EXPECT_EQ(mask("SigIgn:\t"), 0u);
}

TEST_F(Start, StacksOfOneMebibyteAreEnough) {
    ASSERT_NO_FATAL_FAILURE(boot_without_agent());
    desk_program program;
    program.argv = {"/usr/bin/bash", "-c", "ulimit -s 1024; exec /system/bin/zr-qel-sa"};
    desk_child agent;
    ASSERT_TRUE(desk_start(h, program, &agent)) << desk_error();
    ASSERT_TRUE(wait_listening(agent.pid));
    open_channel();
    EXPECT_EQ(ask("AT\r"), kOk);
    EXPECT_EQ(ask("SA+QUERY_SERVICE=\"" + std::string(170, 'n') + "\"\r"), "\r\nQUERY_SERVICE: 0\r\n\r\nOK\r\n");
    EXPECT_EQ(ask("SA+SYSTEM=\"true\"\r"), kOk);
}

// ---- a start that fails

TEST_F(Start, WithoutACommandThreadEndsInOrder) {
    if (is_sanitized()) {
        GTEST_SKIP() << "a sanitizer needs the address space";
    }
    ASSERT_NO_FATAL_FAILURE(boot_without_agent());
    // A thread's stack is as large as the main thread may become: too large for the address space that is left.
    const desk_result result =
        run({"/usr/bin/bash", "-c", "ulimit -s 1000000; ulimit -v 500000; exec /system/bin/zr-qel-sa"});
    ASSERT_TRUE(WIFEXITED(result.status));
    EXPECT_EQ(WEXITSTATUS(result.status), 256 - 118);
    const std::vector<std::string> lines = file_lines();
    ASSERT_GE(lines.size(), 6u);
    EXPECT_EQ(std::vector<std::string>(lines.end() - 6, lines.end()),
              (std::vector<std::string>{"sa_handle_init exit ret_val[-118]", "main sa_handle_init ret_val[-118]",
                                        lines[lines.size() - 4], "main exit", "sa_handle_deinit exit ret_val[-1]",
                                        "sa_deinit_resource exit ret_val[-1]"}));
    EXPECT_TRUE(std::regex_match(lines[lines.size() - 4], std::regex("main no loop errno\\[[0-9]+-.+\\]")));
    settle();
    EXPECT_TRUE(in_order(
        platform_lines(),
        {"sa_handle_init m_read_cmd_thread_id[0] ret_val[11]", "pthread_create() fail: 11", "sa_handle_init exit",
         "main sa_deinit_resource", "sa_deinit_resource()", "sa_handle_deinit()", "sa_deinit_resource exit"}));
    EXPECT_EQ(count_lines(platform_lines(), "sa_listener_loop()"), 0);
}
