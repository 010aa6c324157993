// Writes that raise SIGPIPE or SIGXFSZ: the write fails and the agent goes on. Its children have the default actions.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include "tests/support/commands.h"

static const char kKernelFile[] = "/data/local/log/kmsg.log";
static const size_t kStamp = sizeof("[2026-01-01 00:00:00]\n") - 1;
static const char kServed[] = "sa_handle_read_cmd_loop handle_sa_cmd_req(AT\r) ret_val[0]";

class FailedWrites : public CommandTest {
  protected:
    void limit_files(rlim_t size) {
        const struct rlimit limit = {size, RLIM_INFINITY};
        ASSERT_EQ(prlimit(desk_host_pid(h, desk_agent_pid(h)), RLIMIT_FSIZE, &limit, nullptr), 0);
    }
    void feed(const std::string &record) {
        ASSERT_TRUE(desk_kmsg_feed(h, record)) << desk_error();
    }
    bool wait_copying() {
        return desk_wait_log_part(h, "zr-qel-sa", "read_kernel_log_loop buf_a[") != 0;
    }
};

static std::string record_of(char fill) {
    return std::string(89, fill) + "\n";
}

// Whether a text of /proc/PID/status shows the default actions for both signals.
static ::testing::AssertionResult has_default_actions(const std::string &status_text) {
    const unsigned long long both = 1ull << (SIGPIPE - 1) | 1ull << (SIGXFSZ - 1);
    for (const std::string name : {"SigIgn:\t", "SigCgt:\t"}) {
        const size_t at = status_text.find(name);
        if (at == std::string::npos || (std::stoull(status_text.substr(at + name.size()), nullptr, 16) & both) != 0) {
            return ::testing::AssertionFailure() << status_text;
        }
    }
    return ::testing::AssertionSuccess();
}

// ---- the diagnostic log ----

// The reader of a pipe leaves between the opening and the writing of a line. No test can time that, so the kernel's answer
// is injected.
TEST_F(FailedWrites, OfTheDiagnosticLogIntoAPipeLoseLinesAndNothingElse) {
    ASSERT_NO_FATAL_FAILURE(boot());
    const pid_t pid = desk_agent_pid(h);
    ASSERT_NO_FATAL_FAILURE(inject("write:error=EPIPE:signal=SIGPIPE", kSaLog));
    EXPECT_EQ(ask("AT\r"), kOk);
    ASSERT_NE(desk_wait_log(h, "zr-qel-sa", kServed), 0u);
    ASSERT_NO_FATAL_FAILURE(stop_injecting());
    EXPECT_EQ(ask("at\r"), kOk);
    EXPECT_TRUE(wait_file_line("sa_handle_read_cmd_loop req[at\r] ret_val[0]"));
    EXPECT_EQ(count_lines(file_lines(), "sa_handle_read_cmd_loop read_len[3]"), 1);
    EXPECT_EQ(desk_agent_pid(h), pid);
}

TEST_F(FailedWrites, OfTheDiagnosticLogBeyondTheFileLimitLoseLinesAndNothingElse) {
    ASSERT_NO_FATAL_FAILURE(boot());
    const pid_t pid = desk_agent_pid(h);
    ASSERT_TRUE(desk_wait_text(h, kSaLog, "]sa_handle_read_cmd_loop ptm_fd["));
    ASSERT_NO_FATAL_FAILURE(limit_files(1));
    EXPECT_EQ(ask("AT\r"), kOk);
    ASSERT_NE(desk_wait_log(h, "zr-qel-sa", kServed), 0u);
    ASSERT_EQ(desk_agent_pid(h), pid);
    ASSERT_NO_FATAL_FAILURE(limit_files(RLIM_INFINITY));
    EXPECT_EQ(ask("at\r"), kOk);
    EXPECT_TRUE(wait_file_line("sa_handle_read_cmd_loop req[at\r] ret_val[0]"));
    EXPECT_EQ(count_lines(file_lines(), "handle_sa_cmd_req req[AT\r]"), 0);
}

// ---- kernel messages ----

TEST_F(FailedWrites, OfKernelMessagesIntoAPipeWithoutAReaderAreLogged) {
    desk_options options = with_log_property(log_property({{3, "3,5"}}));
    options.agent = false;
    // Generations that cannot be replaced keep the pipe where it is.
    options.files.push_back({std::string(kKernelFile) + ".1/held", "", "", 0600, 0, 0});
    options.files.push_back({std::string(kKernelFile) + ".2/held", "", "", 0600, 0, 0});
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    ASSERT_TRUE(put_pipe(h, kKernelFile));
    const int reader = desk_open(h, kKernelFile, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    ASSERT_NO_FATAL_FAILURE(start_agent());
    const pid_t pid = desk_agent_pid(h);
    ASSERT_TRUE(wait_copying());
    close(reader);
    ASSERT_NO_FATAL_FAILURE(feed(record_of('n')));
    EXPECT_NE(desk_wait_log(h, "zr-qel-sa", "read_kernel_log_loop write errno[32-Broken pipe]"), 0u);
    EXPECT_EQ(desk_agent_pid(h), pid);
    EXPECT_EQ(ask("AT\r"), kOk);
}

TEST_F(FailedWrites, OfKernelMessagesBeyondTheFileLimitAreLogged) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{3, "5,5"}}))));
    const pid_t pid = desk_agent_pid(h);
    ASSERT_TRUE(wait_copying());
    ASSERT_NO_FATAL_FAILURE(limit_files(kStamp + 8));
    ASSERT_NO_FATAL_FAILURE(feed(record_of('p')));
    ASSERT_NO_FATAL_FAILURE(feed(record_of('l')));
    EXPECT_NE(desk_wait_log(h, "zr-qel-sa", "read_kernel_log_loop write errno[27-File too large]"), 0u);
    ASSERT_EQ(desk_agent_pid(h), pid);
    ASSERT_NO_FATAL_FAILURE(limit_files(RLIM_INFINITY));
    ASSERT_NO_FATAL_FAILURE(feed(record_of('n')));
    EXPECT_TRUE(desk_wait_text(h, kKernelFile, "]\n" + std::string(8, 'p') + record_of('n')));
}

// ---- what the agent starts ----

TEST_F(FailedWrites, HaveTheirDefaultActionInAllThatTheAgentStarts) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{4, "2,100"}}))));
    ASSERT_EQ(command("+SYSTEM=\"cat /proc/self/status > /data/shell\""), kOk);
    EXPECT_TRUE(has_default_actions(desk_file_text(h, "/data/shell")));
    const pid_t logcat = process_with("/data/local/log/logcat.log");
    EXPECT_TRUE(has_default_actions(desk_file_text(h, "/proc/" + std::to_string(logcat) + "/status")));
    const int listener = desk_open_tty(h, "/dev/ttysa1");
    ASSERT_GE(listener, 0) << desk_error();
    const std::string request = "shell:cat /proc/self/status > /data/remote";
    char path[64];
    ASSERT_EQ(write(listener, request.data(), request.size()), static_cast<ssize_t>(request.size()));
    ASSERT_GT(read(listener, path, sizeof(path)), 0);
    ASSERT_EQ(write(listener, "ok", 2), 2);
    ASSERT_TRUE(desk_wait_text(h, "/data/remote", "SigCgt:"));
    EXPECT_TRUE(has_default_actions(desk_file_text(h, "/data/remote")));
    close(listener);
}
