// Counts the system calls of an idle agent, without requests and with all collectors running and idle. No state.
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "bench/benches.h"
#include "bench/handsets.h"

static std::string scratch_file() {
    char name[] = "/tmp/sa-bench-XXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0) {
        give_up("no scratch file");
    }
    close(fd);
    return name;
}

// Traces the process for some time. A call that waits from before the beginning until after the end does not count.
static int calls_within(pid_t host_pid, unsigned seconds) {
    const std::string trace = scratch_file();
    const std::string target = std::to_string(host_pid);
    const pid_t tracer = fork();
    if (tracer == 0) {
        execlp("strace", "strace", "-qq", "-f", "-o", trace.c_str(), "-p", target.c_str(),
               static_cast<char *>(nullptr));
        _exit(127);
    }
    sleep(seconds);
    kill(tracer, SIGTERM);
    int status = 0;
    waitpid(tracer, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 127) {
        give_up("strace is missing");
    }
    std::ifstream file(trace);
    std::string line;
    int calls = 0;
    int waiting = 0;
    while (std::getline(file, line)) {
        const bool waits =
            line.find("<unfinished ...>") != std::string::npos || line.find("<detached ...>") != std::string::npos;
        waiting += waits ? 1 : 0;
        calls += waits ? 0 : 1;
    }
    unlink(trace.c_str());
    if (waiting == 0) {
        give_up("strace saw no thread of the agent");
    }
    return calls;
}

void bench_idle(const effort &how, report *lines) {
    const unsigned seconds = how.quick ? 5 : 60;
    desk *h = boot_handset(desk_options());
    sleep(2);  // the last log lines of the boot
    figure line;
    line.what = text_of("idle for %u s, system calls", seconds);
    line.ours = "strace";
    const double calls = calls_within(agent_of(h), seconds);
    line.beside = "–";
    line.value = {calls, calls, calls};
    line.unit = "calls";
    line.kind = AT_MOST;
    line.goal = 0;
    lines->push_back(line);
    desk_end(h);
}
