// What tests of the log collectors share: the log property, the collectors' processes, stand-ins for their programs.
#ifndef TESTS_SUPPORT_COLLECTORS_H
#define TESTS_SUPPORT_COLLECTORS_H

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/agent.h"

extern const char kLogProperty[];  // the property's name
extern const char kLogDefault[];   // its value when it is unset

// A value of the log property: collectors by position with "count,size", those that are not named are off ("0,0").
std::string log_property(const std::map<int, std::string> &on, const std::string &directory = "/data/local/log");
// Options of a handset with this value of the log property.
desk_options with_log_property(const std::string &value);

// A program that only waits takes the place of the one at `path`, so that the process is exactly what its starter made
// of it. For `prepare` of the options.
bool put_waiting_program(desk *h, const std::string &path);
// A shell script takes the place of the program at `path`.
desk_file script(const std::string &path, const std::string &text);

// A library of tests/support/stand_ins, to be put at `path` of a handset.
desk_file stand_in(const std::string &name, const std::string &path);
// Loads this library of tests/support/stand_ins into all services of a handset, before any other library. Several calls
// add up.
void preload(desk_options *options, const std::string &name);
// A pipe takes the place of the file at `path`, opened by the agent and read by whoever opens it for reading.
bool put_pipe(desk *h, const std::string &path);
// Lets calls of the C library fail in all services of a handset, once fail_call asks for it.
void add_failing_calls(desk_options *options);
// From now on this call fails with this error number: "1", or for one path alone, "1 /path"; statfs may also tell of a
// file system, "blocks bavail bsize".
void fail_call(desk *h, const std::string &call, const std::string &how);
void fail_call(desk *h, const std::string &call, int error);
void heal_call(desk *h, const std::string &call);

class CollectorTest : public AgentTest {
  protected:
    // Pid of the process that has exactly this among its arguments, waited for; -1 when there is none in time.
    pid_t process_with(const std::string &argument, int limit_ms = 30000);
    // The processes whose parent this is, zombies included.
    std::vector<pid_t> children_of(pid_t pid);
    // All arguments of a process, each in angle brackets: "<tcpdump><-p>".
    std::string vector_of(pid_t pid);
    // The rest of a line of /proc/PID/status, its blanks as they are: status(pid, "Umask") is "0077".
    std::string status(pid_t pid, const std::string &name);
    // Field of /proc/PID/stat as proc(5) numbers them, from 4 on: 5 is the process group, 6 the session.
    long stat(pid_t pid, int field);

    // Texts of the platform log under a tag, all up to now: the log is settled first.
    std::vector<std::string> platform_lines(const std::string &tag = "zr-qel-sa");
    // The same of the agent alone, and of its main thread.
    std::vector<std::string> main_thread_lines();
    // The lines that begin with `prefix`, without it.
    static std::vector<std::string> rests(const std::vector<std::string> &lines, const std::string &prefix);
    // Lines of the diagnostic file from the `from`th on.
    std::vector<std::string> file_lines_from(size_t from);

    // The report line without its source line, which may change: "FUNC-x(), error_code=-118, errno=2".
    std::vector<std::string> reports();
    // Pid and raw wait status of each end of the agent.
    std::vector<std::pair<pid_t, int>> agent_ends();
    // Asks init to start the agent of a handset booted without it, waits until it listens, opens the channel.
    void start_agent();
    // Asks init to restart the agent and waits until the new one listens.
    void restart_agent();

  private:
    // Opens the command channel of the agent that has logged since the entry `from`, once it has published it.
    void open_new_channel(uint64_t from);
};

#endif
