// The agent's life on the main thread: the order of its start, the listener, the end.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "pub/util/util.h"
#include "sa/main/base/codes.h"
#include "sa/main/base/log.h"
#include "sa/main/base/process.h"
#include "sa/main/listener.h"
#include "sa/main/log_rotate.h"
#include "sa/main/protect.h"
#include "sa/main/signals.h"
#include "sa/sa-cfg/sa_cfg.h"
#include "sa/sa-handle/handle.h"

static const char kVersion[] = "001.001";
static const int kPidsLength = 128;

static bool is_other(const int32_t *pids_ptr, int32_t count, int32_t own_pid) {
    for (int32_t index = 0; index < count; index++) {
        if (pids_ptr[index] != own_pid) {
            return true;
        }
    }
    return false;
}

// A single process of the name counts as this one, even when it is another: intended.
static bool util_is_sa_running(int32_t own_pid) {
    int32_t pids_a[kPidsLength];
    int32_t count = 0;
    sa_log_entry_both();
    if (own_pid < 1) {
        sa_log_platform("%s invalid parameter", __func__);
        return false;
    }
    memset(pids_a, 0, sizeof(pids_a));
    const long ret_val = sa_util_get_pids(SA_NAME, pids_a, kPidsLength, &count);
    sa_log("ret_val[%ld] count[%d]", ret_val, count);
    const bool is_running = ret_val == 0 && count > 1 && is_other(pids_a, count, own_pid);
    sa_log("is_running[%d]", is_running ? 1 : 0);
    return is_running;
}

// The text promises more than the agent does: no option changes anything.
__attribute__((noreturn)) static void prompt_usage(const char *program) {
    sa_log_entry();
    printf(
        "\nUsage: %s [OPTION]\n"
        "  -d <device name>       Set the device that communicate with modem.\n"
        "  -p <log path>          Special the path that save the ATA log files.\n"
        "  -c <count>             Special the count that backup the ATA log files.\n"
        "  -h                     Display this help and exit.\n\n",
        program);
    sa_log_file("exit");
    exit(0);
}

static void parse_options(int argc, char *argv[]) {
    int option;
    // "+": the options end at the first word that is none, on every C library.
    while ((option = getopt(argc, argv, "+d:p:c:h")) != -1) {
        if (option != 'c' && option != 'p') {
            prompt_usage(argv[0]);
        }
    }
}

static void show_banner(void) {
    sa_log_platform("\n");
    sa_log_platform("    %s, version %s\n", SA_NAME, kVersion);
    sa_log_platform("    Build time: %s %s\n", __DATE__, __TIME__);
}

int main(int argc, char *argv[]) {
    sa_survive_failed_writes();
    sa_log_entry();
    update_sa_logs();
    const int32_t own_pid = getpid();
    sa_log("pid[%d]", own_pid);
    if (util_is_sa_running(own_pid)) {
        printf("%s already run.\n", SA_NAME);
        sa_log_file("already running exit");
        return 0;
    }
    if (argc > 1) {
        parse_options(argc, argv);
    }
    show_banner();
    pub_util_create_pid_file(SA_NAME);
    sa_install_signals();
    protect_data();
    long ret_val = sa_cfg_init();
    sa_log_file("sa_cfg_init ret_val[%ld]", ret_val);
    if (ret_val == 0) {
        ret_val = sa_handle_init();
        sa_log_file("sa_handle_init ret_val[%ld]", ret_val);
    }
    if (ret_val == 0) {
        sa_listener_loop();
        sa_log_file("sa_listener_loop exit");
    } else {
        sa_log_platform("%s no loop error[%d-%s]", __func__, errno, pub_util_error_text(errno));
        sa_log_file_errno("no loop");
    }
    sa_log_platform("%s sa_deinit_resource", __func__);
    sa_log_file("exit");
    sa_deinit_resource();
    _exit(static_cast<int>(ret_val));  // as in the signal handler: without exit handlers and destructors
}
