// The shared library's trace: the platform log alone, under the tag zr-qel-pub.
// The module's source label (PUB_SOURCE) comes from the build, the function's name from the compiler.
#ifndef PUB_UTIL_PUB_LOG_H
#define PUB_UTIL_PUB_LOG_H

#include <errno.h>

/** One trace line: the calling function's name, a blank and the message. */
#define pub_log(...) pub_log_line(__func__, __VA_ARGS__)

/** One trace line as it stands, without a function's name. */
#define pub_log_plain(...) pub_log_line(nullptr, __VA_ARGS__)

/** The entry trace of the calling function. */
#define pub_log_entry() pub_log_line(nullptr, "%s()", __func__)

/** Reports that the calling function found a parameter or a step it cannot go on with. */
#define pub_log_error(error_code) pub_log_error_as(__func__, error_code)

/** Reports a failed system call: its label and errno, then the report of pub_log_error. */
#define pub_log_failed_call(label, error_code) pub_log_failed_call_as(__func__, label, error_code)

/** The same on behalf of a named operation, for the inner steps of one that goes by a single name in the trace. */
#define pub_log_error_as(function, error_code) pub_log_report(PUB_SOURCE, __LINE__, (function), (error_code))
/** Likewise for pub_log_failed_call. */
#define pub_log_failed_call_as(function, label, error_code) \
    (pub_log_line(nullptr, "sys call: %s() failed! errno = %d", (label), errno), pub_log_error_as(function, error_code))

/**
 * Writes one line to the platform log. Keeps errno, uses neither heap nor locks of its own, and takes no signal while
 * it runs, so that a worker ended by a signal is never ended inside the platform's logger. Any thread.
 *
 * @param function  put in front of the message with a blank; null for none.
 * @param fmt       printf format, a literal at every call site; the text is cut at 2047 bytes.
 */
void pub_log_line(const char *function, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

/** The error-report line; called through the macros above. */
void pub_log_report(const char *source, int line, const char *function, int error_code);

#endif
