// The configuration record and how a file becomes one.
#include "sa/sa-cfg/sa_cfg.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "pub/cfg/cfg.h"
#include "sa/main/base/codes.h"
#include "sa/main/base/log.h"

static const char kPath[] = "/system/etc/zr-qel-sa.cfg";
static const int kLineSize = 100;

struct sa_cfg_st g_sa_cfg;

static void take_setting(const char *key, const char *value) {
    if (strcmp(key, "zr.tty.cmd") == 0) {
        const size_t limit = sizeof(g_sa_cfg.tty_cmd_a) - 1;
        memset(g_sa_cfg.tty_cmd_a, 0, sizeof(g_sa_cfg.tty_cmd_a));
        memcpy(g_sa_cfg.tty_cmd_a, value, strnlen(value, limit));
        sa_log_platform("[cfg]zr.tty.cmd = %s", g_sa_cfg.tty_cmd_a);
    } else if (strcmp(key, "zr.log.size") == 0) {
        g_sa_cfg.log_size_val = static_cast<int32_t>(strtol(value, nullptr, 10));
        sa_log_platform("[cfg]zr.log.size = %ld", static_cast<long>(g_sa_cfg.log_size_val));
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
    FILE *stream_ptr = fopen(kPath, "re");
    if (stream_ptr == nullptr) {
        sa_log_failed_call("fopen", SA_ERR_FAIL);
        sa_log_error(SA_ERR_SYSTEM);
        sa_log_platform("fail to open file: %s", kPath);
        return;
    }
    read_settings(stream_ptr);
    fclose(stream_ptr);
}

int32_t sa_cfg_init(void) {
    sa_log_entry();
    memset(&g_sa_cfg, 0, sizeof(g_sa_cfg));
    parse_sa_cfg();
    return 0;
}
