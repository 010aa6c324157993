// The shell call, plain, checked and repeated. No state.
#include "sa/sa-handle/shell.h"

#include <stdlib.h>
#include <unistd.h>

#include "sa/main/codes.h"
#include "sa/main/log.h"
#include "sa/main/text.h"

static const int kAttempts = 5;
static const useconds_t kRetryPause = 500000;  // µs

int sa_call_system(const char *function, int line, const char *command) {
    const int result = system(command);
    sa_log_platform("PUB_UTIL_CALL_SYSTEM(%d, %s)", result, command);
    if (result != 0) {
        sa_log_report(SA_SOURCE, line, function, SA_ERR_SYSTEM);
        sa_log_platform("error(%d) to exec: %s", result, command);
    }
    return result;
}

void sa_run_unchecked(const char *command) {
    (void)!system(command);
}

long do_sys_command(const char *command) {
    sa_log_entry();
    sa_log_file("cmd[%s]", command);
    for (int attempt = 0; attempt < kAttempts; attempt++) {
        if (PUB_UTIL_CALL_SYSTEM(command) == 0) {
            return 0;
        }
        usleep(kRetryPause);
    }
    return SA_ERR_SYSTEM;
}

int sa_start_init_service(const char *name, char *command_ptr, int size) {
    sa_format(command_ptr, static_cast<size_t>(size), "setprop ctl.start %s", name);
    return system(command_ptr);
}
