// A connection has one stream for both outputs of a command. Standard error takes a FIFO on the handset and from there a
// connection of its own, which a process of its own reads until the command and all that it has started have closed it.
// Owns that process for the time of the call.

#include "shell_stderr.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>

#include "message.h"
#include "remote.h"
#include "shell.h"

namespace {

constexpr int FOREVER_S = INT_MAX / 1000;

struct reader {
    int ready_fd;  // gets one byte when the FIFO is there
    bool is_ready;
};

bool take_output(void *context, const char *data, size_t len) {
    reader *state = static_cast<reader *>(context);
    if (!state->is_ready && len > 0) {  // the first byte is the script's own
        state->is_ready = write(state->ready_fd, data, 1) == 1;
        close(state->ready_fd);
        ++data;
        --len;
    }
    while (len > 0) {
        ssize_t put = write(STDERR_FILENO, data, len);
        if (put < 0 && errno != EINTR) {
            return false;
        }
        data += put > 0 ? put : 0;
        len -= put > 0 ? static_cast<size_t>(put) : 0;
    }
    return true;
}

// Ends when the FIFO's writers have closed it, or when this side hangs up.
std::string reader_script(const std::string &fifo) {
    return "mkfifo -m 600 " + fifo + "&&echo&&{ cat " + fifo +
           "& p=$!;(while read x<&2;do :;done;kill $p)2>&1& w=$!;wait $p;kill $w;} 2>&1;rm -f " + fifo;
}

pid_t start_reader(const host_options &options, const std::string &fifo, int ready_fd) {
    pid_t pid = fork();
    if (pid != 0) {
        return pid;
    }
    reader state = {ready_fd, false};
    remote_run(options, reader_script(fifo), FOREVER_S, nullptr, take_output, &state);
    _exit(0);
}

}  // namespace

int shell_run_stderr_apart(const host_options &options, const std::string &command) {
    const std::string tag = mark_new().tag;
    const std::string fifo = "/data/local/tmp/.sa-host-" + tag.substr(1, tag.size() - 2);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        say("No pipe can be made: %s.", strerror(errno));
        return HOST_SHELL;
    }
    pid_t pid = start_reader(options, fifo, ends[1]);
    close(ends[1]);
    char byte = 0;
    bool is_ready = pid > 0 && read(ends[0], &byte, 1) == 1;
    close(ends[0]);
    int status = is_ready ? shell_run(options, "exec 2>" + fifo + ";" + command) : HOST_SHELL;
    if (!is_ready) {
        say("The command's standard error cannot be kept apart: there is no FIFO %s on the handset.", fifo.c_str());
    }
    if (pid > 0 && status == HOST_SHELL) {
        kill(pid, SIGTERM);  // nothing may have opened the FIFO: it would wait for ever
    }
    while (pid > 0 && waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    return status;
}
