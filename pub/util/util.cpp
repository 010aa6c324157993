// Small helpers around descriptors and the process itself. No state.
#include "pub/util/util.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "pub/pub_codes.h"
#include "pub/util/pub_log.h"

int32_t pub_util_set_fd_mode(int32_t fd, int32_t is_nonblock_mode) {
    pub_log_entry();
    if (fd < 0) {
        pub_log_error(PUB_ERR_PARAM);
        return PUB_ERR_PARAM;
    }
    pub_log("fd[%d] is_nonblock_mode[%d]", fd, is_nonblock_mode);

    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) {
        pub_log_failed_call("fcntl", -1);
        return PUB_ERR_SYSTEM;
    }
    flags = is_nonblock_mode != 0 ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
    if (fcntl(fd, F_SETFL, flags) < 0) {
        pub_log_failed_call("fcntl", -1);
        return PUB_ERR_SYSTEM;
    }
    pub_log("return ERR_NONE");
    return 0;
}

void pub_util_create_pid_file(const char *process_name) {
    pub_log_entry();
    if (process_name == nullptr) {
        pub_log_error(PUB_ERR_PARAM);
        pub_log_plain("%d", 1);
        return;
    }
    // The path is cut where the platform's shell command for this file is cut. Without waiting, so that a pipe without a reader cannot block.
    char command_a[59];
    snprintf(command_a, sizeof(command_a), "echo %d > /tmp/%s.pid", getpid(), process_name);
    const int fd = open(strchr(command_a, '/'), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0666);
    if (fd >= 0) {  // without a writable /tmp the file is silently missing: nothing depends on it
        dprintf(fd, "%d\n", getpid());
        close(fd);
    }
    pub_log_plain("PID of %s: %d", process_name, getpid());
}
