// The logcat collectors: one child each for the main, events and radio buffers.
#ifndef SA_SA_HANDLE_COLLECT_LOGCAT_H
#define SA_SA_HANDLE_COLLECT_LOGCAT_H

#include "sa/sa-handle/collect/argv.h"
#include "sa/sa-handle/collect/log_svc.h"

/**
 * Builds the argument vector of a record; its type text, not its position, chooses buffer and output file.
 *
 * @param rec_ptr   the record; its texts are copied.
 * @param argv_ptr  receives the vector; empty on failure.
 * @return 0, or -100 for an unknown type.
 */
long make_logcat_svc_argv_ex(const struct log_svc_rec *rec_ptr, struct sa_argv *argv_ptr);

/**
 * Starts the logcat child of a record and stores its process id there. Thread of start_log_service; blocks for 100 ms.
 *
 * @return 0, also when the record switches the collector off; -100 on any failure.
 */
long start_logcat_service_ex(struct log_svc_rec *rec_ptr);

#endif
