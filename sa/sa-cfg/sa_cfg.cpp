// The configuration record and how a file becomes one.
#include "sa/sa-cfg/sa_cfg.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "pub/cfg/cfg.h"
#include "pub/util/signal_mask.h"
#include "sa/main/codes.h"
#include "sa/main/log.h"

static const char kPath[] = "/system/etc/zr-qel-sa.cfg";
static const int kLineSize = 100;

struct sa_cfg_record sa_cfg_st;  // owner: this room

static void take_setting(const char *key, const char *value) {
    if (strcmp(key, "zr.tty.cmd") == 0) {
        const size_t limit = sizeof(sa_cfg_st.tty_cmd_a) - 1;
        memset(sa_cfg_st.tty_cmd_a, 0, sizeof(sa_cfg_st.tty_cmd_a));
        memcpy(sa_cfg_st.tty_cmd_a, value, strnlen(value, limit));
        sa_log_platform("[cfg]zr.tty.cmd = %s", sa_cfg_st.tty_cmd_a);
    } else if (strcmp(key, "zr.log.size") == 0) {
        sa_cfg_st.log_size_val = static_cast<int32_t>(strtol(value, nullptr, 10));
        sa_log_platform("[cfg]zr.log.size = %ld", static_cast<long>(sa_cfg_st.log_size_val));
    }
}

static void read_settings(FILE *stream_ptr) {
    char line_a[kLineSize];
    int32_t length = 0;
    int32_t is_eof = 0;
    while (is_eof == 0) {
        char *key = nullptr;
        char *value = nullptr;
        if (pub_cfg_get_line(stream_ptr, line_a, kLineSize, &length, &is_eof) != 0 ||
            pub_cfg_get_param_and_value(line_a, &key, &value) != 0 || *key == '\0' || *value == '\0') {
            continue;
        }
        take_setting(key, value);
    }
}

static void parse_sa_cfg(void) {
    sa_log_entry();
    // The stream is the agent's only one. A handler that ended the process while it is open would meet its lock.
    sigset_t mask;
    pub_util_block_signals(&mask);
    FILE *stream_ptr = fopen(kPath, "re");
    if (stream_ptr == nullptr) {
        sa_log_failed_call("fopen", SA_ERR_FAIL);
        sa_log_error(SA_ERR_SYSTEM);
        sa_log_platform("fail to open file: %s", kPath);
    } else {
        read_settings(stream_ptr);
        fclose(stream_ptr);
    }
    pub_util_restore_signals(&mask);
}

int32_t sa_cfg_init(void) {
    sa_log_entry();
    memset(&sa_cfg_st, 0, sizeof(sa_cfg_st));
    parse_sa_cfg();
    return 0;
}
