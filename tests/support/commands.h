// What tests of the host's commands share: what a request left in the logs, what the agent gave to the shell, services.
#ifndef TESTS_SUPPORT_COMMANDS_H
#define TESTS_SUPPORT_COMMANDS_H

#include <map>
#include <string>
#include <vector>

#include "tests/support/collectors.h"

using lines = std::vector<std::string>;

// All parts in one list.
lines joined(const std::vector<lines> &parts);
// The same line several times.
lines repeated(int count, const std::string &line);

// A report of the agent as CommandTest::steps shows it: without the source line and errno.
std::string report(const std::string &function, int code);
// The platform's lines of the two plain answers.
lines ok_steps();
lines error_steps();
// The lines of one look for a process in either log: pid 0 and no program when there is none.
lines lookup_steps(const std::string &name, pid_t pid = 0, const std::string &program = "");
lines lookup_file_lines(const std::string &name, pid_t pid = 0, const std::string &program = "");

// For `prepare` of the options: the shell that `system` runs keeps a record of its command lines.
bool record_shell(desk *h);
// A busybox that keeps a record of its arguments in front of the real one. For `files` of the options.
desk_file recording_busybox();
// A service of init that does nothing but exist under its name. For `files`, and for `prepare` (its program).
desk_file service_file(const std::string &name);
bool put_service_program(desk *h, const std::string &name);

// Puts quick programs with a fixed output in the place of those that a save calls and that take their time, or whose
// success depends on the machine: bugreport and lsmod.
void add_quick_programs(desk_options *options);
// The command lines of a save, in order, with these sources present ("/data/anr"), as the shell gets them.
lines save_lines(const std::string &destination, const lines &present = {});

class CommandTest : public CollectorTest {
  protected:
    void TearDown() override;

    // Sends these bytes, returns the answer, and keeps what the request left in the logs until its very last line.
    std::string say(const std::string &bytes, int limit_ms = 30000);
    // say("AT SA" + text + "\r").
    std::string request(const std::string &text, int limit_ms = 30000);
    // The two halves of say, for what happens in between.
    void begin(const std::string &bytes);
    std::string finish(int limit_ms = 30000);

    // Platform lines of the handler that served the last request; reports as report() gives them.
    lines steps();
    // The result that the reader loop saw.
    std::string result();
    // Lines of the diagnostic file from the dispatcher's first to its last for the last request, both left out.
    lines file_steps();
    // Those of one function, without its name.
    lines file_steps_of(const std::string &function);
    // When the last request wrote its platform lines that begin with `prefix`, in seconds.
    std::vector<double> moments(const std::string &prefix);
    // Whether each of the moments is at least this much after the one before.
    static ::testing::AssertionResult apart(const std::vector<double> &moments, double seconds);

    // Command lines that the agent itself gave to the shell since the last call (record_shell).
    lines shell_lines();
    // Arguments of each busybox since the last call, each in angle brackets (recording_busybox).
    lines busybox_lines();
    // Values of one property that init was asked to set since the last call, control requests included.
    lines property_requests(const std::string &name);

    // Directory of the last save, from its log line; "" without one.
    std::string destination();
    // Descriptor of the channel's master in the agent, as its log lines show it.
    std::string channel_number();
    // All that is below a directory: path in it, and the content of a file, "directory", or "link to TARGET".
    std::map<std::string, std::string> tree(const std::string &directory);

    // Starts the program of a service as init would, without init knowing; waits until it goes by its name.
    pid_t start_program(const std::string &name);
    // Puts strace with this injection between the agent and the kernel and waits until it is in place. With a path: for
    // calls on that file alone.
    void inject(const std::string &injection, const std::string &path = "");
    void stop_injecting();

  private:
    struct written {
        double time;
        std::string text;
    };
    void collect_platform(uint64_t end);
    lines taken_lines(const std::string &path, size_t *offset_ptr);

    uint64_t from_sequence = 0;
    size_t from_line = 0;
    std::vector<written> served_platform;  // of the last request
    lines served_file;
    size_t shell_offset = 0;
    size_t busybox_offset = 0;
    size_t events_seen = 0;
    desk_child tracer;
    std::vector<desk_child> programs;
};

#endif
