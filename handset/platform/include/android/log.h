// The platform log, as the platform's own header declares it to programs: the part that the agent and its desk handset use.
#ifndef ANDROID_LOG_H
#define ANDROID_LOG_H

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

// Writes one entry to the main buffer: `fmt` and its arguments formatted into at most 1023 bytes, under `tag`.
// Never blocks; an entry that cannot be delivered is dropped. Returns 1. Keeps errno.
int __android_log_print(int prio, const char *tag, const char *fmt, ...) __attribute__((__format__(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif
