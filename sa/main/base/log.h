// The agent's log: every step logs to the platform log (tag zr-qel-sa) and to the diagnostic file.
//
// Call sites pass only the message: the function's name comes from the compiler, the module's source label
// (SA_SOURCE) from the build. The macro selects where a line goes:
//
//   sa_log           both: platform "function message", file "[time]function message"
//   sa_log_platform  platform alone, the text as it stands
//   sa_log_file      file alone, under the function's name
//   ..._as           on behalf of a named operation, for its inner steps
//
// All of them keep errno, use neither heap nor stdio, and may be called on any thread, in a signal handler (see
// sa_local_time_hold) and in a child between fork and exec.
#ifndef SA_MAIN_BASE_LOG_H
#define SA_MAIN_BASE_LOG_H

#include <errno.h>

#include "pub/util/error_text.h"

/** The diagnostic file; it does not follow the collectors' directory. */
#define SA_LOG_FILE "/data/local/log/sa.log"

/** Both logs, under the calling function's name. */
#define sa_log(...) sa_log_both_line(__func__, __VA_ARGS__)
/** Both logs, under another name. */
#define sa_log_as(function, ...) sa_log_both_line((function), __VA_ARGS__)
/** Platform log alone. */
#define sa_log_platform(...) sa_log_platform_line(__VA_ARGS__)
/** Diagnostic file alone, under the calling function's name. */
#define sa_log_file(...) sa_log_file_line(__func__, __VA_ARGS__)
/** Diagnostic file alone, under another name. */
#define sa_log_file_as(function, ...) sa_log_file_line((function), __VA_ARGS__)

/** Entry trace, platform alone. */
#define sa_log_entry() sa_log_platform_line("%s()", __func__)

/** Entry trace with a file line whose message is empty. */
#define sa_log_entry_both() (sa_log_platform_line("%s()", __func__), sa_log_file_line(__func__, "%s", ""))

/** The file line of a failed call: its label, a blank and the error. */
#define sa_log_file_errno(label) sa_log_file_errno_as(__func__, label)
/** The same under another name. */
#define sa_log_file_errno_as(function, label) \
    sa_log_file_line((function), "%s errno[%d-%s]", (label), errno, pub_util_error_text(errno))

/** Reports, to the platform log alone, a parameter or a step that the calling function cannot go on with. */
#define sa_log_error(error_code) sa_log_report(SA_SOURCE, __LINE__, __func__, (error_code))
/** The same on behalf of a named operation. */
#define sa_log_error_as(function, error_code) sa_log_report(SA_SOURCE, __LINE__, (function), (error_code))

/** Reports a failed system call: its label and errno, then the report of sa_log_error. */
#define sa_log_failed_call(label, error_code) sa_log_failed_call_as(__func__, label, error_code)
/** The same on behalf of a named operation. */
#define sa_log_failed_call_as(function, label, error_code) \
    (sa_log_platform_line("sys call: %s() failed! errno = %d", (label), errno), sa_log_error_as(function, error_code))

/** Behind the macros. A line is cut at 2047 bytes of message; the file line ends with its newline unless the disk is full. The platform log may cut it earlier. */
void sa_log_both_line(const char *function, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
/** Likewise, for the platform log. */
void sa_log_platform_line(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
/** Likewise, for the diagnostic file. */
void sa_log_file_line(const char *function, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
/** The report line: source label and line, function, code and errno. */
void sa_log_report(const char *source, int line, const char *function, int error_code);

#endif
