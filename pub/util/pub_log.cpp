// Lines of the shared library in the platform log. No state.
#include "pub/util/pub_log.h"

#include <android/log.h>
#include <stdarg.h>
#include <stdio.h>

#include "pub/util/signal_mask.h"

static const char kTag[] = "zr-qel-pub";
static const int kTextSize = 2048;

void pub_log_line(const char *function, const char *fmt, ...) {
    const int saved_errno = errno;
    char text_a[kTextSize];
    sigset_t mask;
    va_list args;

    pub_util_block_signals(&mask);
    va_start(args, fmt);
    vsnprintf(text_a, sizeof(text_a), fmt, args);
    va_end(args);
    if (function != nullptr) {
        __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s %s", function, text_a);
    } else {
        __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s", text_a);
    }
    pub_util_restore_signals(&mask);
    errno = saved_errno;
}

void pub_log_report(const char *source, int line, const char *function, int error_code) {
    pub_log_line(nullptr, "FILE-%s, LINE-%d, FUNC-%s(), error_code=%d, errno=%d", source, line, function, error_code,
                 errno);
}
