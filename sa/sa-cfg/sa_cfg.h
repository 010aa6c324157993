// The agent's configuration, read once at start-up from /system/etc/zr-qel-sa.cfg.
#ifndef SA_SA_CFG_SA_CFG_H
#define SA_SA_CFG_SA_CFG_H

#include <stdint.h>

/** Settings; zero where the file or the key is missing. Written by sa_cfg_init on the main thread, constant afterwards. */
struct sa_cfg_st {
    char tty_cmd_a[28];    // zr.tty.cmd: where the command channel is published; always NUL-terminated
    int32_t log_size_val;  // zr.log.size: stored and logged; nothing reads it
};

/** The one record; its owner is sa_cfg.cpp. */
extern struct sa_cfg_st g_sa_cfg;

/** Reads the file. Failures are logged, and the agent runs with the settings that could be read. Always returns 0. */
int32_t sa_cfg_init(void);

#endif
