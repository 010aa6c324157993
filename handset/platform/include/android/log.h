// The platform log, as the platform's own header declares it to programs: the part that the agent and its desk handset use.
#ifndef ANDROID_LOG_H
#define ANDROID_LOG_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Priorities of a log entry, lowest first.
typedef enum android_LogPriority {
    ANDROID_LOG_UNKNOWN = 0,
    ANDROID_LOG_DEFAULT,
    ANDROID_LOG_VERBOSE,
    ANDROID_LOG_DEBUG,
    ANDROID_LOG_INFO,
    ANDROID_LOG_WARN,
    ANDROID_LOG_ERROR,
    ANDROID_LOG_FATAL,
    ANDROID_LOG_SILENT,
} android_LogPriority;

// The buffers of the log daemon, by their number in a record.
typedef enum log_id {
    LOG_ID_MAIN = 0,
    LOG_ID_RADIO = 1,
    LOG_ID_EVENTS = 2,
    LOG_ID_SYSTEM = 3,
    LOG_ID_CRASH = 4,
    LOG_ID_STATS = 5,
    LOG_ID_SECURITY = 6,
    LOG_ID_KERNEL = 7,
} log_id_t;

// Writes one entry to the main buffer: `fmt` and its arguments formatted into at most 1023 bytes, under `tag`.
// Never blocks; an entry that cannot be delivered is dropped. Returns 1 when handed to the logger. Keeps errno.
int __android_log_print(int prio, const char *tag, const char *fmt, ...) __attribute__((__format__(printf, 3, 4)));

// Writes `text` as it stands to the main buffer; what passes 4068 bytes (priority, tag and both NULs counted) is cut.
// Otherwise as __android_log_print.
int __android_log_write(int prio, const char *tag, const char *text);

// The same for any buffer of text, `buffer` being a log_id_t.
int __android_log_buf_write(int buffer, int prio, const char *tag, const char *text);

// Writes a binary record to the events buffer: the number `tag`, then `length` bytes of typed values from `payload`.
int __android_log_bwrite(int32_t tag, const void *payload, size_t length);

#ifdef __cplusplus
}
#endif

#endif
