// The logcat collectors: one child each for the main, events and radio buffers.
#ifndef SA_SA_HANDLE_LOGCAT_H
#define SA_SA_HANDLE_LOGCAT_H

#include "sa/sa-handle/log_svc.h"

enum { LOGCAT_ARGS = 21, LOGCAT_ARG_SIZE = 40 };

/** An argument vector and the texts that it points to. */
struct logcat_argv {
    char text_a[LOGCAT_ARGS][LOGCAT_ARG_SIZE];  // an argument is cut at 39 characters
    char *vector_a[LOGCAT_ARGS + 1];            // null-terminated
};

/**
 * Builds the argument vector of a record; its type text, not its position, chooses buffer and output file.
 *
 * @param rec_ptr   the record; its texts are copied.
 * @param argv_ptr  receives the vector.
 * @param num_ptr   receives the number of arguments, 0 on failure.
 * @return 0, or -100 for an unknown type.
 */
long make_logcat_svc_argv_ex(const struct log_svc_rec *rec_ptr, struct logcat_argv *argv_ptr, int *num_ptr);

/**
 * Starts the logcat child of a record and stores its process id there. Thread of start_log_service; blocks for 100 ms.
 *
 * @return 0, also when the record switches the collector off; -100 on any failure.
 */
long start_logcat_service_ex(struct log_svc_rec *rec_ptr);

#endif
