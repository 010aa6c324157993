#pragma once
// Commands on the handset through the remote-shell listener: the exchange that starts one, and the mark that tells its
// process and its exit status, for which the exchange itself has no place.

#include <sys/types.h>
#include <cstdint>
#include <string>

#include "link.h"
#include "options.h"

constexpr size_t REMOTE_REQUEST_MAX = 1023;  // the listener takes one read of at most this many bytes as a request
constexpr int REMOTE_TIMEOUT_S = 30;  // for the listener to announce a connection, unless --timeout says otherwise

// Called with the opened terminal just before the acknowledgement that makes the agent start the child.
typedef void (*remote_on_start)(const host_options &options, const link_terminal &terminal);

// Asks the listener for a connection and starts `request` ("shell:...") on it. The connection is opened, made raw and
// given the size of `size_fd`'s terminal (-1: none) before the acknowledgement, hence before the child runs; just
// before that `on_start`, unless null, is called. Result: 0, and link_close_terminal is due; or -1 with the sentence said.
int remote_start(const host_options &options, const std::string &request, int size_fd, remote_on_start on_start,
                 link_terminal *out);

// How a wrapped command gets its input.
enum remote_input {
    INPUT_NONE,    // /dev/null
    INPUT_PLAIN,   // the connection itself: bytes pass as they are, an end of file cannot be told
    INPUT_FRAMED,  // base64 lines ended by FRAME_END, decoded on the handset, so that the command sees the end of file
};

// Ends framed input. Twice, because a stream editor reads a line ahead to know the last one.
constexpr char FRAME_END[] = "=\n=\n";

// The mark as it is found in the child's output: `tag`, decimal digits, newline. The first one of a run carries the
// process id of the command's shell, which leads its session and group; the second one the command's exit status.
struct remote_mark {
    std::string tag;
    std::string held;  // bytes that may be the beginning of a mark
    long pid = 0;      // 0 until the first mark
    bool is_over = false;
    int status = 0;  // valid once is_over
};

// A mark with a tag of its own, which no output contains by chance.
remote_mark mark_new();

// The request that runs `command` between two marks. It then waits until the client closes, so that no output is lost
// however slowly it is read. May be longer than REMOTE_REQUEST_MAX: the caller decides what that means.
std::string mark_wrap(const remote_mark &mark, const std::string &command, remote_input input);

// Passes output through the mark: appends to `out` what belongs to the command, keeps what may be part of a mark.
void mark_feed(remote_mark *mark, const char *data, size_t len, std::string *out);

// The output has ended: what is still held was no mark.
void mark_end(remote_mark *mark, std::string *out);

// Takes the output of remote_run; false stops the run.
typedef bool (*remote_sink)(void *context, const char *data, size_t len);

// Runs a command without input and gives its output to `sink`. `quiet_s` bounds the time without a byte of output;
// `what`, unless null, is shown with the elapsed time meanwhile. Result: the command's exit status, or -1 with the
// sentence said (or the sink's own).
int remote_run(const host_options &options, const std::string &command, int quiet_s, const char *what, remote_sink sink,
               void *context);

// Same, collecting the output into a string of at most 1 MiB.
int remote_output(const host_options &options, const std::string &command, int quiet_s, const char *what,
                  std::string *out);

// Which processes of a session a signal is for.
enum remote_target { TARGET_FOREGROUND, TARGET_ALL };

// Sends a signal ("INT") to the processes that have a connection's terminal, as the kernel would for a terminal that
// controls a session: this one controls none. Runs through a connection of its own, in a silent process of its own that
// ends within seconds. Result: that process, to be waited for by the caller, or -1.
pid_t remote_signal_terminal(const host_options &options, const std::string &path, const char *signal_name,
                             remote_target target);

// Tells the foreground program of a terminal that its input has ended. The child's side is a master, which has no end of
// file, but a read of it fails with EIO while nobody has the slave open. So this closes the terminal and opens it again;
// the shells above that program, which would read next, are stopped meanwhile. With `is_prompting` the child is a shell
// that prompts: when it reads by itself (its own `read`), nothing is done, since its next prompt would end it.
// Blocks for about 0.2 s, and for some seconds if the handset does not answer.
// Result: whether the terminal is open; false when it has gone meanwhile.
bool remote_end_input(const host_options &options, bool is_prompting, link_terminal *terminal);

// Sends a signal to the process group of a wrapped command. Result as above.
pid_t remote_signal_group(const host_options &options, long pid, const char *signal_name);

// `text` as one word of a shell command line.
std::string shell_quoted(const std::string &text);
