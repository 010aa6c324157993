// The collectors' table and the property that fills it.
#ifndef SA_SA_HANDLE_COLLECT_LOG_SVC_H
#define SA_SA_HANDLE_COLLECT_LOG_SVC_H

#include <stdint.h>
#include <sys/types.h>

#include "pub/util/worker.h"

/**
 * Positions in the property, and so type_id of the records. Properties are stored on handsets and have at least the first
 * LOG_SVC_REQUIRED triples; a position behind those is optional, and switched off where its triple is missing.
 */
enum log_svc_position {
    LOG_SVC_EMSD = 1,  // never started
    LOG_SVC_IPDATA,
    LOG_SVC_KMSG,
    LOG_SVC_MAIN,
    LOG_SVC_EVENTS,
    LOG_SVC_RADIO,
    LOG_SVC_REQUIRED = LOG_SVC_RADIO,
    LOG_SVC_COUNT = LOG_SVC_RADIO,
};

/** One collector: its settings and what runs for it. Texts are as written in the property. */
struct log_svc_rec {
    int32_t svc_pid;                  // its child, 0 for none; stale once the child has ended
    struct pub_thread_id mthread_id;  // its thread, likewise
    char type[4];                     // type token; chooses among the logcat collectors
    int32_t type_id;                  // position; chooses between packet capture and kernel messages
    char file_num[40];                // number of files, as passed to logcat
    int32_t file_num_val;             // the same as a number, 0 when it is none
    char file_size[40];               // size of a file in the collector's own unit, as passed to logcat
    int32_t file_size_val;            // likewise
};

/**
 * The collectors, by position - 1. Filled by start_log_service: on the main thread at start-up, on the command
 * reader thread afterwards. The kernel-message thread reads its own record; a stop reads pids and thread ids.
 */
extern struct log_svc_rec g_zr_log_svc[LOG_SVC_COUNT];

/** Size of a path in the log directory, NUL included. */
enum { LOG_PATH_SIZE = 100 };

/** Directory of the collectors' files. The diagnostic log does not follow it. Written like the table. */
extern char g_log_path_a[LOG_PATH_SIZE];

/**
 * Reads the property persist.sys.install.zr.log into the directory and the table.
 *
 * @return 0, or -100; records filled before a failure keep their new values.
 */
long get_zr_log_config(void);

/** The parsing step of get_zr_log_config, with the same results; aborts the agent on a path or a type token too long for its field. */
long parse_zr_log_config(const char *value);

#endif
