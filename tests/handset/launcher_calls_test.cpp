// The system calls of children between fork and exec, and launches with standard input closed.
#include <regex>

#include "tests/support/collectors.h"

static const char kTrace[] = "/dev/.desk/trace";

class LauncherCalls : public CollectorTest {
  protected:
    // Boots with the agent under a tracer that follows its children, these collectors on.
    void boot_traced(const std::map<int, std::string> &on);
    // The calls of a child from its first to its exec, what it does for the log left out. The descriptor that it got for
    // its streams is shown as FD, its pid as PID.
    std::vector<std::string> calls_of(pid_t pid);
};

void LauncherCalls::boot_traced(const std::map<int, std::string> &on) {
    desk_options options = with_log_property(log_property(on));
    desk_file rc;
    rc.path = "/system/etc/init/zr-qel-sa.rc";
    rc.text = std::string("service zr-qel-sa /usr/bin/strace -ff -qq -o ") + kTrace +
              " -e trace=/^(set[gu]id(32)?|setpgid|setsid|umask|chdir|dup2|close|execve|openat|write)$ "
              "/system/bin/zr-qel-sa\n"
              "    class late_start\n"
              "    user root\n";
    options.files.push_back(rc);
    boot(options);
}

static std::string replaced(const std::string &text, const std::string &pattern, const std::string &with) {
    return std::regex_replace(text, std::regex(pattern), with);
}

// A call as these tests write it down: without what 32-bit code adds to names and flags, and the spaces before the result.
static std::string plain_call(const std::string &line) {
    const std::string plain = replaced(replaced(line, "^(set[gu]id)32\\(", "$1("), "\\|O_LARGEFILE\\b", "");
    return replaced(plain, "\\) +=", ") =");
}

// Opening, writing and closing the diagnostic file, and closing what else was open for a moment.
static bool is_log_work(const std::string &call) {
    return std::regex_search(call, std::regex("^openat\\(.*/sa.log\"|^write\\([0-9]+, \"\\[|^close\\([0-9]"));
}

std::vector<std::string> LauncherCalls::calls_of(pid_t pid) {
    const std::regex ends_line("([^\n]*)\n");
    const std::string number = std::to_string(pid);
    const std::string all = desk_file_text(h, kTrace + ("." + number));
    std::vector<std::string> calls;
    std::string streams = "none";  // the descriptor, until it is closed
    for (std::sregex_iterator at(all.begin(), all.end(), ends_line), end; at != end; ++at) {
        std::string call = plain_call((*at)[1]);
        if (call.compare(0, 7, "execve(") == 0) {
            calls.push_back("execve");
            break;
        }
        std::smatch duplicate;
        if (std::regex_search(call, duplicate, std::regex("^dup2\\(([0-9]+), 0\\)"))) {
            streams = duplicate[1];
        }
        call = replaced(call, "^(dup2|close)\\(" + streams + "\\b", "$1(FD");
        if (call == "close(FD) = 0") {
            streams = "none";
        }
        if (!is_log_work(call)) {
            calls.push_back(replaced(replaced(call, "\\b" + number + "\\b", "PID"), "^write\\([0-9]+", "write(N"));
        }
    }
    return calls;
}

TEST_F(LauncherCalls, OfLogcat) {
    ASSERT_NO_FATAL_FAILURE(boot_traced({{6, "5,5"}}));
    EXPECT_EQ(calls_of(process_with("/data/local/log/logcat-radio.log")),
              (std::vector<std::string>{"setpgid(0, PID) = 0", "setsid() = -1 EPERM (Operation not permitted)",
                                        "dup2(FD, 0) = 0", "dup2(FD, 1) = 1", "dup2(FD, 2) = 2", "close(FD) = 0",
                                        "openat(AT_FDCWD, \"/proc/PID/oom_adj\", O_WRONLY|O_CLOEXEC) = 4",
                                        "write(N, \"0\", 1) = 1", "setgid(1007) = 0", "setuid(2000) = 0", "execve"}));
}

TEST_F(LauncherCalls, OfTcpdump) {
    ASSERT_NO_FATAL_FAILURE(boot_traced({{2, "5,5"}}));
    EXPECT_EQ(
        calls_of(process_with("/data/local/log/ipdata.pcap")),
        (std::vector<std::string>{"setsid() = PID", "umask(077) = 077", "chdir(\"/\") = 0", "setuid(0) = 0",
                                  "setgid(0) = 0", "dup2(FD, 0) = 0", "dup2(FD, 1) = 1", "dup2(FD, 2) = 2",
                                  "close(FD) = 0", "openat(AT_FDCWD, \"/proc/PID/oom_adj\", O_WRONLY|O_CLOEXEC) = 4",
                                  "write(N, \"0\", 1) = 1", "execve"}));
}

// ---- standard input closed, and nothing else of the agent has taken its number ----

class LauncherWithoutInput : public CollectorTest {};

// A launch that gets descriptor 0 is refused and leaves it open; for those that follow it is taken.
TEST_F(LauncherWithoutInput, FirstLaunchFailsAndTheOthersDoNot) {
    desk_options options = with_log_property(log_property({{2, "5,5"}, {6, "5,5"}}));
    options.agent = false;
    options.closed_stdin = true;
    options.prepare = [](desk *handset) { return put_waiting_program(handset, "/system/bin/logcat"); };
    add_failing_calls(&options);
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    ASSERT_NO_FATAL_FAILURE(fail_call(h, "socket", EMFILE));  // the log's own socket would come first
    ASSERT_EQ(desk_service_start(h, "zr-qel-sa"), 0);
    ASSERT_TRUE(wait_file_line("sa_handle_init exit ret_val[0]"));
    EXPECT_EQ(rests(file_lines(), "sa_create_subproc_thread open errno[").size(), 1u);
    EXPECT_TRUE(
        in_order(file_lines(),
                 {"start_zr_log_service IPDATA open(/data/local/log/ipdata.pcap0) fd[0]",
                  "sa_create_subproc_thread cmd[/system/xbin/tcpdump] param_size[14]", "sa_create_subproc_thread fd[0]",
                  "start_zr_log_service svc_pid[-1]", "start_zr_log_service create IPDATA subprocess failed",
                  "sa_create_subproc_thread cmd[/system/bin/logcat] param_size[15]", "sa_create_subproc_thread fd[3]",
                  "start_log_service Not All Log Service Start Success."}));
    const pid_t agent = desk_agent_pid(h);
    EXPECT_EQ(desk_link_target(h, "/proc/" + std::to_string(agent) + "/fd/0"), "/dev/null");
    EXPECT_EQ(children_of(agent), std::vector<pid_t>{process_with("/data/local/log/logcat-radio.log")});
    EXPECT_EQ(desk_owner(h, "/data/local/log/ipdata.pcap0"), "0644 2000:1007");
}
