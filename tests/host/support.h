// What tests of sa-host share: runs of the program with pipes or on a terminal, and a false agent for its misbehaviour.
#ifndef TESTS_HOST_SUPPORT_H
#define TESTS_HOST_SUPPORT_H

#include <sys/types.h>
#include <termios.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/support/agent.h"

typedef std::vector<std::string> words;

// One run of sa-host with pipes for its three streams.
struct host_job {
    pid_t pid = -1;
    int in = -1;  // write end of its standard input, -1: it reads /dev/null
    int out = -1;
    int err = -1;
    std::string out_text;  // what has come so far
    std::string err_text;
};

struct host_result {
    int status = -1;  // exit status, 128 + signal, or -1 when it had to be killed after the limit
    std::string out;
    std::string err;
};

// Starts a program. Relative names are looked up in PATH.
void program_start(const words &argv, bool has_input, host_job *job);
// Starts sa-host. `has_input`: job->in is its standard input, else it reads /dev/null.
void host_start(const words &arguments, bool has_input, host_job *job);
// Feeds `input` and end of file, collects the output and waits for the end.
host_result host_finish(host_job *job, const std::string &input = "", int limit_ms = 60000);
host_result host_run(const words &arguments, int limit_ms = 60000);
host_result host_run_with(const words &arguments, const std::string &input, int limit_ms = 60000);
// Waits for the end alone; the status as above.
int host_wait(pid_t pid, int limit_ms = 60000);

// A program on a terminal of its own, as a person sees it. `screen` collects everything it shows.
struct host_terminal {
    int fd = -1;  // master
    pid_t pid = -1;
    std::string screen;
    size_t seen = 0;  // where expect looks on
};

void terminal_start(const words &argv, host_terminal *terminal, int rows = 24, int columns = 80);
void terminal_type(host_terminal *terminal, const std::string &bytes);
void terminal_resize(host_terminal *terminal, int rows, int columns);
// Waits until `text` appears behind what earlier calls have found.
bool terminal_expect(host_terminal *terminal, const std::string &text, int limit_ms = 30000);
// Whether the terminal is as a shell leaves it to programs: lines, echo and signal keys.
bool terminal_is_cooked(const host_terminal *terminal);
bool terminal_wait_cooked(const host_terminal *terminal, int limit_ms = 30000);
// Reads until the program has ended and returns its status as host_result does; kills it at the limit.
int terminal_finish(host_terminal *terminal, int limit_ms = 30000);
// Kills what still runs and closes.
void terminal_end(host_terminal *terminal);

// A handset with its agent, and sa-host reaching into it from outside.
class HostTest : public AgentTest {
  protected:
    // Boots; the agent's endpoints belong to sa-host alone.
    void boot_host(const desk_options &options = quiet_options());
    // The arguments with the way to the handset in front.
    virtual words inside(const words &arguments) const;
    host_result host(const words &arguments) const;
    host_result host_with(const words &arguments, const std::string &input) const;
    // A session of the remote shell on a screen of tmux: prompt, window size, lines for a program, an editor, the end.
    void try_shell_in_tmux();
    // The requests that the agent has read from its command channel, in order.
    words received();
    // Whether a process with exactly these arguments runs on the handset.
    bool runs(const words &argv);
    bool wait_gone(const words &argv, int limit_ms = 30000);
    bool wait_runs(const words &argv, int limit_ms = 30000);
};

// A directory that goes with the test.
struct temporary_dir {
    temporary_dir();
    ~temporary_dir();
    std::string path;
};

// Gives this process and the programs that it starts pseudo-terminals of their own: the number behind a link that a test
// leaves over then cannot become that of another test's terminal. Changes nothing where namespaces are refused, since tests
// run one at a time there.
void private_terminals();

// One end of a pseudo-terminal pair published as the agent publishes its own: a link, owner 1000:1001, raw.
struct false_endpoint {
    std::string link;
    int master = -1;
};

void endpoint_publish(const std::string &link, false_endpoint *endpoint);
// Reads one request, from whichever client comes; "" when nothing came.
std::string endpoint_read(false_endpoint *endpoint, int limit_ms = 30000);
void endpoint_write(false_endpoint *endpoint, const std::string &bytes);
// Waits until the client has closed.
bool endpoint_wait_hangup(false_endpoint *endpoint, int limit_ms = 30000);
// Closes the master: the client is hung up. `keep_link`: as an agent that was killed.
void endpoint_close(false_endpoint *endpoint, bool keep_link = false);

#endif
