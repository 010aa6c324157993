// Thread creation with a C library whose pthread_create and pthread_kill share a lock: a signal handler that calls
// pthread_kill must not run inside pthread_create.
#include <signal.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/commands.h"

static const char kCreations[] = "/dev/.desk/creations";

class ThreadCreation : public CommandTest {
  protected:
    void boot_with_list(const std::string &property) {
        desk_options options = with_log_property(property);
        preload(&options, "listed_threads");
        ASSERT_NO_FATAL_FAILURE(boot(options));
    }
    // Asks for a remote shell, whose child gets a waiter.
    void ask_for_shell() {
        const std::string request = "shell:exit";
        char path[64];
        const int listener = desk_open_tty(h, "/dev/ttysa1");
        ASSERT_GE(listener, 0) << desk_error();
        ASSERT_EQ(write(listener, request.data(), request.size()), static_cast<ssize_t>(request.size()));
        ASSERT_GT(read(listener, path, sizeof(path)), 0);
        ASSERT_EQ(write(listener, "ok", 2), 2);
        close(listener);
    }
};

// Main thread and command thread create all three kinds of threads.
TEST_F(ThreadCreation, HappensWithSignalsBlocked) {
    ASSERT_NO_FATAL_FAILURE(boot_with_list(log_property({{3, "5,5"}, {4, "5,5"}})));
    ASSERT_EQ(command("+DELETE_LOG"), kOk);
    const std::string all = desk_file_text(h, kCreations);
    EXPECT_EQ(all.find("open"), std::string::npos) << all;
    EXPECT_GE(std::count(all.begin(), all.end(), '\n'), 5) << all;
}

TEST_F(ThreadCreation, GivesEachThreadTheMaskOfItsCreator) {
    ASSERT_NO_FATAL_FAILURE(boot_with_list(log_property({{3, "5,5"}, {4, "5,5"}, {5, "5,5"}})));
    ASSERT_NE(desk_wait_log_part(h, "zr-qel-sa", "read_kernel_log_loop buf_a["), 0u);
    const std::string tasks = "/proc/" + std::to_string(desk_agent_pid(h)) + "/task";
    const std::vector<std::string> names = desk_list(h, tasks);
    EXPECT_EQ(threads(desk_agent_pid(h)), 5) << "main, command reader, kernel reader, two waiters";
    for (const std::string &name : names) {
        // A thread that writes a log line at the moment has its signals blocked.
        EXPECT_TRUE(desk_wait_text(h, tasks + "/" + name + "/status", "\nSigBlk:\t0000000000000000\n")) << name;
    }
}

TEST_F(ThreadCreation, OfAWaiterSurvivesAReset) {
    ASSERT_NO_FATAL_FAILURE(boot_with_list(log_property({{3, "5,5"}})));
    ASSERT_NE(desk_wait_log_part(h, "zr-qel-sa", "read_kernel_log_loop buf_a["), 0u);
    const pid_t pid = desk_agent_pid(h);
    ASSERT_TRUE(desk_write_file(h, "/dev/.desk/reset", ""));
    ASSERT_NO_FATAL_FAILURE(ask_for_shell());
    EXPECT_TRUE(desk_wait_service(h, "zr-qel-sa", "stopped"));
    EXPECT_TRUE(desk_wait_gone(h, pid));
    EXPECT_FALSE(desk_exists(h, "/dev/.desk/reset"));
}
