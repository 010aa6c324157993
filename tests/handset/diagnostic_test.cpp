// The lines of the diagnostic file: their form, their file, and that each is written whole.
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <regex>
#include <sstream>
#include <thread>

#include "tests/support/agent.h"

class Diagnostic : public AgentTest {
  protected:
    bool wait_idle() {
        return desk_wait_text(h, kSaLog, "]sa_listener_loop fd[") &&
               desk_wait_text(h, kSaLog, "]sa_handle_read_cmd_loop ptm_fd[");
    }
};

// Without the empty lines: one message of the start ends with a newline of its own.
static std::vector<std::string> split_lines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (!line.empty()) {
            lines.push_back(line);
        }
    }
    return lines;
}

// "[07-14 09:58:07.123]" in front of a function's name and a blank; no other stamp further on.
static bool is_well_formed(const std::string &line) {
    static const std::regex form(
        "\\[(0[1-9]|1[0-2])-(0[1-9]|[12][0-9]|3[01]) ([01][0-9]|2[0-3]):[0-5][0-9]:([0-5][0-9]|60)\\.[0-9]{3}\\]"
        "[a-z_]+ [^\\[]*(\\[(?![01][0-9]-)[^\\[]*)*");
    return std::regex_match(line, form);
}

static std::string stamp_of(time_t when) {
    struct tm utc;
    char text[32];
    gmtime_r(&when, &utc);
    strftime(text, sizeof(text), "[%m-%d %H:%M:%S", &utc);
    return text;
}

// ---- form

TEST_F(Diagnostic, LinesHaveStampFunctionAndMessage) {
    const time_t before = time(nullptr);
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_EQ(ask("AT\r"), kOk);
    ASSERT_TRUE(wait_file_line("sa_handle_read_cmd_loop req[AT\r] ret_val[0]"));
    const time_t after = time(nullptr);
    const std::string text = desk_file_text(h, kSaLog);
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.back(), '\n');
    std::vector<std::string> times;
    for (time_t when = before; when <= after; when++) {
        times.push_back(stamp_of(when));
    }
    for (const std::string &line : split_lines(text)) {
        EXPECT_TRUE(is_well_formed(line)) << line;
        EXPECT_EQ(std::count(times.begin(), times.end(), line.substr(0, times[0].size())), 1) << line;
    }
    EXPECT_NE(text.find("]util_is_sa_running \n"), std::string::npos);  // an entry: the blank, and no message behind it
}

// A line of both logs is the same text behind stamp and tag.
TEST_F(Diagnostic, LineOfBothLogsIsTheSameInBoth) {
    ASSERT_NO_FATAL_FAILURE(boot());
    settle();
    const std::vector<std::string> platform = platform_lines();
    const std::vector<std::string> file = file_lines();
    for (const char *text :
         {"sa_util_get_pids process_name[zr-qel-sa] pids_length[128]", "util_is_sa_running ret_val[0] count[1]",
          "util_is_sa_running is_running[0]", "sa_handle_init m_pts_mapping_name_a[/dev/ttyCMD0]"}) {
        EXPECT_EQ(count_lines(platform, text), 1) << text;
        EXPECT_EQ(count_lines(file, text), 1) << text;
    }
}

TEST_F(Diagnostic, SharedLibraryWritesNoFileLine) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_EQ(ask("AT\r"), kOk);
    ASSERT_TRUE(wait_file_line("sa_handle_read_cmd_loop req[AT\r] ret_val[0]"));
    for (const std::string &line : file_lines()) {
        EXPECT_NE(line.compare(0, 4, "pub_"), 0) << line;
        EXPECT_NE(line.compare(0, 18, "create_pts_mapping"), 0) << line;
    }
    EXPECT_EQ(count_lines(platform_lines("zr-qel-sa"), "pub_pty_open()"), 0);
    EXPECT_EQ(count_lines(platform_lines("zr-qel-pub"), "pub_pty_open()"), 1);
}

// ---- the file

TEST_F(Diagnostic, FileThatIsGoneComesBackWithTheProcessesOwnMode) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_TRUE(wait_idle());
    ASSERT_EQ(desk_owner(h, kSaLog), "0644 2000:1007");
    ASSERT_TRUE(desk_remove(h, kSaLog));
    ASSERT_EQ(ask("AT\r"), kOk);
    ASSERT_TRUE(wait_file_line("sa_handle_read_cmd_loop req[AT\r] ret_val[0]"));
    EXPECT_EQ(desk_owner(h, kSaLog), "0600 0:0");  // init's umask is 077
    EXPECT_EQ(file_lines().front(), "sa_handle_read_cmd_loop read_len[3]");
}

TEST_F(Diagnostic, WithoutItsDirectoryTheLinesGoToThePlatformLogAlone) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_TRUE(wait_idle());
    ASSERT_TRUE(desk_remove(h, "/data/local/log"));
    ASSERT_EQ(ask("AT\r"), kOk);
    ASSERT_NE(desk_wait_log(h, "zr-qel-sa", "sa_handle_read_cmd_loop handle_sa_cmd_req(AT\r) ret_val[0]"), 0u);
    EXPECT_EQ(count_lines(platform_lines(), "sa_handle_read_cmd_loop read_len[3]"), 1);
    EXPECT_FALSE(desk_exists(h, "/data/local/log"));

    ASSERT_TRUE(desk_make_dir(h, "/data/local/log"));
    ASSERT_EQ(ask("at\r"), kOk);
    EXPECT_TRUE(wait_file_line("sa_handle_read_cmd_loop req[at\r] ret_val[0]"));
}

TEST_F(Diagnostic, StaysBesideAMovedLogDirectory) {
    desk_options options;
    options.log_dir = false;
    options.properties = {{"persist.sys.install.zr.log", "/data/logs,I1,0,0,I2,0,0,I3,0,0,I4,0,0,I5,0,0,I6,0,0"}};
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(ask("AT\r"), kOk);
    EXPECT_TRUE(desk_exists(h, "/data/logs"));
    EXPECT_EQ(desk_list(h, "/data/logs"), std::vector<std::string>());
    EXPECT_FALSE(desk_exists(h, "/data/local/log"));
    ASSERT_TRUE(desk_make_dir(h, "/data/local/log"));
    EXPECT_EQ(ask("at\r"), kOk);
    EXPECT_TRUE(wait_file_line("sa_handle_read_cmd_loop req[at\r] ret_val[0]"));
}

// A pipe that nobody reads must not hold the agent up.
TEST_F(Diagnostic, WhateverStandsInItsPlaceDoesNotBlock) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_TRUE(wait_idle());
    ASSERT_EQ(run({"/system/bin/sh", "-c", "rm /data/local/log/sa.log; mkfifo /data/local/log/sa.log"}).status, 0);
    EXPECT_EQ(ask("AT\r"), kOk);
    // A line of the request that has just been answered may make the file anew.
    ASSERT_EQ(run({"/system/bin/sh", "-c", "cd /data/local/log; until rm sa.log; mkdir sa.log; do :; done"}).status, 0);
    EXPECT_EQ(ask("AT\r"), kOk);
}

TEST_F(Diagnostic, FullFileSystemLosesLinesAndNothingElse) {
    desk_options options = quiet_options();
    options.data_size = 4u << 20;
    ASSERT_NO_FATAL_FAILURE(boot(options));
    ASSERT_TRUE(wait_idle());
    ASSERT_TRUE(desk_fill_data(h, 0)) << desk_error();
    const std::string unknown = std::string(150, 'x') + "\r";
    for (int request = 0; request < 30; request++) {  // more than what is left of the file's last page
        ASSERT_EQ(ask(unknown), kError);
    }
    ASSERT_TRUE(desk_remove(h, "/data/.fill"));
    ASSERT_EQ(ask("AT\r"), kOk);
    EXPECT_TRUE(desk_wait_text(h, kSaLog, "sa_handle_read_cmd_loop req[AT\r] ret_val[0]\n"));
}

// ---- whole lines

// Asks the listener for `count` remote shells in a row and waits until all have ended. Returns how many there were.
static int run_remote_shells(desk *h, int count) {
    static const std::string request = "shell:echo here";
    const int listener = desk_open_tty(h, "/dev/ttysa1");
    std::vector<int> terminals;
    char bytes[256] = "";
    for (int i = 0; i < count && listener >= 0; i++) {
        if (write(listener, request.data(), request.size()) != static_cast<ssize_t>(request.size())) {
            break;
        }
        const ssize_t length = read(listener, bytes, sizeof(bytes));
        const int terminal = length > 0 ? desk_open_tty(h, std::string(bytes, static_cast<size_t>(length))) : -1;
        // Its first word also tells that the listener waits for the next request.
        if (terminal < 0 || write(listener, "k", 1) != 1 || read(terminal, bytes, sizeof(bytes)) <= 0) {
            break;
        }
        terminals.push_back(terminal);
    }
    for (const int terminal : terminals) {
        while (read(terminal, bytes, sizeof(bytes)) > 0) {
        }
        close(terminal);
    }
    close(listener);
    return static_cast<int>(terminals.size());
}

TEST_F(Diagnostic, ThreadsAndChildrenNeverTearALine) {
    ASSERT_NO_FATAL_FAILURE(boot());
    static const int kShells = 40;
    int shells = 0;
    std::atomic<bool> is_over(false);
    std::thread remote([&] {
        shells = run_remote_shells(h, kShells);
        is_over = true;
    });
    int requests = 0;
    while ((!is_over || requests < 200) && requests < 5000) {
        requests++;
        if (ask("AT\r") != kOk) {
            ADD_FAILURE() << "request " << requests;
            break;
        }
    }
    remote.join();
    EXPECT_EQ(shells, kShells);
    ASSERT_TRUE(desk_until(
        [&] { return count_lines(file_lines(), "sa_handle_read_cmd_loop req[AT\r] ret_val[0]") == requests; }));
    for (const std::string &line : split_lines(desk_file_text(h, kSaLog))) {
        EXPECT_TRUE(is_well_formed(line)) << line;
    }
    EXPECT_EQ(count_lines(file_lines(), "create_subprocess parent process"), kShells);
    EXPECT_EQ(count_lines(file_lines(), "sa_handle_read_cmd_loop read_len[3]"), requests);
    EXPECT_EQ(count_lines(file_lines(), "handle_sa_cmd_req req[AT\r]"), requests);
}

// Watches the system calls of both threads while requests are served.
TEST_F(Diagnostic, LineIsOneOpenOneWriteOneClose) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_TRUE(wait_idle());
    const size_t before = split_lines(desk_file_text(h, kSaLog)).size();
    const pid_t pid = desk_agent_pid(h);
    desk_program program;
    program.argv = {"/usr/bin/strace",
                    "-f",
                    "-qq",
                    "-y",
                    "-s",
                    "400",
                    "-o",
                    "/data/trace",
                    "-e",
                    "trace=openat,write,writev,pwrite64,close,fsync,lseek,fcntl",
                    "-p",
                    std::to_string(pid)};
    desk_child tracer;
    ASSERT_TRUE(desk_start(h, program, &tracer)) << desk_error();
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task/";
    ASSERT_TRUE(desk_until([&] {
        const std::vector<std::string> names = desk_list(h, tasks);
        return std::all_of(names.begin(), names.end(), [&](const std::string &name) {
            return desk_file_text(h, tasks + name + "/status").find("TracerPid:\t0\n") == std::string::npos;
        });
    }));
    ASSERT_EQ(ask("AT\r"), kOk);
    ASSERT_EQ(ask("SA+KERNEL_LOG?\r"), "\r\nKERNEL_LOG: 0\r\n\r\nOK\r\n");
    ASSERT_TRUE(wait_file_line("sa_handle_read_cmd_loop req[SA+KERNEL_LOG?\r] ret_val[0]"));
    ASSERT_TRUE(desk_kill(h, tracer.pid, SIGTERM));
    ASSERT_NE(desk_wait(h, &tracer, 10000), -1);

    const std::vector<std::string> lines = split_lines(desk_file_text(h, kSaLog));
    size_t next = before;
    std::string calls;  // of the file: o, w and c
    for (const std::string &call : split_lines(desk_file_text(h, "/data/trace"))) {
        if (call.find("/data/local/log/sa.log") == std::string::npos) {
            continue;
        }
        if (call.find("openat(") != std::string::npos) {
            calls += 'o';
            EXPECT_NE(call.find("O_APPEND"), std::string::npos) << call;
        } else if (call.find(" write(") != std::string::npos) {
            calls += 'w';
            ASSERT_LT(next, lines.size());
            const std::string line = lines[next++];
            const std::string stamp = line.substr(0, 20);
            EXPECT_NE(call.find("\"" + stamp), std::string::npos) << call;
            EXPECT_NE(call.find("\\n\", " + std::to_string(line.size() + 1) + ") = " + std::to_string(line.size() + 1)),
                      std::string::npos)
                << call;
        } else {
            calls += call.find(" close(") != std::string::npos ? 'c' : '?';
        }
    }
    EXPECT_EQ(next, lines.size());
    std::string expected;
    for (size_t i = before; i < lines.size(); i++) {
        expected += "owc";
    }
    EXPECT_EQ(calls, expected);
    EXPECT_GE(lines.size() - before, 8u);
}
