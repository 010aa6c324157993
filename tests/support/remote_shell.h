// What tests of the remote shell share: the client's side of the exchange on /dev/ttysa1.
#ifndef TESTS_SUPPORT_REMOTE_SHELL_H
#define TESTS_SUPPORT_REMOTE_SHELL_H

#include <string>
#include <vector>

#include "tests/support/agent.h"

class RemoteShellTest : public AgentTest {
  protected:
    void TearDown() override;

    // Boots, knows the agent's pid and opens the listener. Use ASSERT_NO_FATAL_FAILURE(come_up(...)).
    void come_up(const desk_options &options = quiet_options());
    // Opens the listener as its client; waits until it is there.
    void open_listener();
    // Closes the client's side and waits until the agent has made a fresh listener.
    void leave_listener();
    // The agent's descriptor of the listener, as text.
    std::string listener_fd();

    // Writes a request in one write and returns the device path that the agent announces, or what came in time.
    std::string request(const std::string &bytes, int limit_ms = 30000);
    // Writes an acknowledgement and waits until the agent has read it: a request behind it would be taken for a part of it.
    void acknowledge(const std::string &bytes = "ok");
    // Request, path, slave opened, acknowledged: the descriptor, the test's to close, or -1. The path goes to `name`.
    int connect(const std::string &bytes, std::string *name = nullptr);
    // connect, and then all that comes until the agent closes its side.
    std::string run_remote(const std::string &command);

    // All that comes until the other side is closed, or the time is up.
    static std::string read_to_end(int fd, int limit_ms = 30000);
    // What comes until it ends with `text`, or the time is up.
    static std::string read_until(int fd, const std::string &text, int limit_ms = 30000);
    static void write_all(int fd, const std::string &bytes);

    // Whether the agent has logged (in the file) that this child has ended and been reaped.
    bool wait_reaped(pid_t child, int limit_ms = 30000);
    // The pid of the newest shell child that the agent has started.
    pid_t last_child();
    // Whether the agent holds just the descriptors, threads and children that it did at come_up.
    ::testing::AssertionResult holds_nothing_more(int limit_ms = 30000);

    pid_t agent = -1;
    int listener = -1;

  private:
    std::vector<std::string> kept_descriptors();
    std::vector<pid_t> children();

    std::vector<std::string> descriptors_before;
    int threads_before = 0;
};

#endif
