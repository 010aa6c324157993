// Shared by tests of the whole agent: a booted handset, the dialogue on the command channel, the agent's log lines.
#ifndef TESTS_SUPPORT_AGENT_H
#define TESTS_SUPPORT_AGENT_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "handset/desk/desk.h"

extern const char kOk[];     // the whole answer
extern const char kError[];  // ERROR -1, the whole answer
extern const char kSaLog[];  // the diagnostic file

// Options of a handset whose agent starts no collector: boots and ends quickly. For tests that are about something else.
desk_options quiet_options();

// A private handset with its agent and the open command channel. A test calls boot() and then talks.
class AgentTest : public ::testing::Test {
  protected:
    void TearDown() override;

    // Boots and waits until the listener, the last thing that comes up, is there; then opens the command channel.
    // Use ASSERT_NO_FATAL_FAILURE(boot(...)).
    void boot(const desk_options &options = quiet_options());
    // Boots without waiting for anything of the agent.
    void boot_only(const desk_options &options);
    // Starts the agent as an ordinary child of init, for a handset booted with `agent` false: init neither starts it
    // again nor clears away what it leaves behind. To be followed by desk_wait.
    desk_child launch(const std::vector<std::string> &arguments = {});
    // Runs a program of the handset to its end.
    desk_result run(const std::vector<std::string> &argv, const std::string &input = "");
    // Waits until the agent with this pid listens; its command channel is open by then, too, if it can be.
    bool wait_listening(pid_t pid, int limit_ms = 30000);
    // Waits until every child that the agent has started has become its program, or has failed to.
    bool wait_programs(int limit_ms = 30000);
    // Takes the handset down and ends the test's use of it. Fails when the agent has crashed, unless `sends_crashes`.
    void end();

    // Opens the command channel anew (after hang_up, or when the agent has been restarted).
    void open_channel();
    void hang_up();

    // Sends exactly these bytes in one write and returns the answer: all up to and including the line end behind OK or
    // ERROR, or what had come when the time was up.
    std::string ask(const std::string &bytes, int limit_ms = 30000);
    // ask("AT SA" + command + "\r").
    std::string command(const std::string &command, int limit_ms = 30000);
    void send(const std::string &bytes);
    std::string receive(int limit_ms = 30000);

    // Lines of the diagnostic file without their time stamps: "main pid[5]".
    std::vector<std::string> file_lines();
    // Texts of the platform log under a tag.
    std::vector<std::string> platform_lines(const std::string &tag = "zr-qel-sa");
    // Waits until the journal holds all that had been logged before this call (it adds an entry with the tag "settle").
    void settle();
    // Texts of the platform log that one process wrote, under both of the agent's tags.
    std::vector<std::string> process_lines(pid_t pid);
    // Waits until the diagnostic file has a line with exactly this text behind the time stamp.
    bool wait_file_line(const std::string &line, int limit_ms = 30000);
    // Open descriptors of a process: number and target, sorted by number, as in "3 -> /dev/null".
    std::vector<std::string> descriptors(pid_t pid);
    // Number of threads of a process.
    int threads(pid_t pid);

    desk *h = nullptr;
    int channel = -1;
    bool sends_crashes = false;  // SIGSEGV and SIGBUS come from the test itself

  private:
    int settled = 0;  // number of the last entry that settle has written
};

// How often `text` is among the lines.
int count_lines(const std::vector<std::string> &lines, const std::string &text);
// Whether `wanted` stand among `lines` in this order, other lines in between allowed; the first one missing is named.
::testing::AssertionResult in_order(const std::vector<std::string> &lines, const std::vector<std::string> &wanted);

// The lines with N for the reader thread's id, which the C library chooses.
std::vector<std::string> without_thread_ids(std::vector<std::string> lines);

#endif
