// Shell calls with a checked result, and with retries. No state.
#include "sa/sa-handle/command/shell.h"

#include <unistd.h>

#include "sa/main/base/codes.h"
#include "sa/main/base/log.h"
#include "sa/main/base/system.h"
#include "sa/main/base/text.h"

static const int kAttempts = 5;
static const useconds_t kRetryPause = 500000;  // µs

int sa_call_system(const char *log_name, int line, const char *command) {
    const int result = sa_system(command);
    sa_log_platform("PUB_UTIL_CALL_SYSTEM(%d, %s)", result, command);
    if (result != 0) {
        sa_log_report(SA_SOURCE, line, log_name, SA_ERR_SYSTEM);
        sa_log_platform("error(%d) to exec: %s", result, command);
    }
    return result;
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

int sa_start_init_service(const char *name, char *command_ptr, size_t size) {
    sa_format(command_ptr, size, "setprop ctl.start %s", name);
    return sa_system(command_ptr);
}
