// The agent's end: only the teardown runs, no exit handler and no destructor of any library.
#include <errno.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/collectors.h"

static const char kEnded[] = "/dev/.desk/ended";

class End : public CollectorTest {
  protected:
    void start() {
        desk_options options = quiet_options();
        options.agent = false;
        add_failing_calls(&options);
        preload(&options, "end_notes");
        ASSERT_NO_FATAL_FAILURE(boot_only(options));
    }
    void start_listening() {
        ASSERT_NO_FATAL_FAILURE(start());
        agent = launch();
        ASSERT_TRUE(wait_listening(agent.pid));
    }

    desk_child agent;
};

TEST_F(End, BySignalRunsNothingOfTheLibraries) {
    ASSERT_NO_FATAL_FAILURE(start_listening());
    ASSERT_TRUE(desk_kill(h, agent.pid, SIGTERM));
    EXPECT_EQ(desk_wait(h, &agent, 10000), 0);
    EXPECT_EQ(desk_file_text(h, kEnded), "");
}

TEST_F(End, ByHostKillRunsNothingOfTheLibraries) {
    ASSERT_NO_FATAL_FAILURE(start_listening());
    const int listener = desk_open_tty(h, "/dev/ttysa1");
    ASSERT_GE(listener, 0) << desk_error();
    ASSERT_EQ(write(listener, "host:kill", 9), 9);
    EXPECT_EQ(desk_wait(h, &agent, 10000), 0);
    close(listener);
    EXPECT_EQ(desk_file_text(h, kEnded), "");
}

TEST_F(End, OfAFailedStartRunsNothingOfTheLibrariesAndKeepsItsStatus) {
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_NO_FATAL_FAILURE(fail_call(h, "pthread_create", EAGAIN));
    agent = launch();
    const int status = desk_wait(h, &agent, 10000);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 256 - 118);
    EXPECT_EQ(desk_file_text(h, kEnded), "");
}
