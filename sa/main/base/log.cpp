// Diagnostic lines. No state between calls: the file is opened and closed for every line, so that a rotation, a deleted
// directory or a crash leaves nothing buffered behind.
//
// Why a line is safe wherever it is written: all signals are blocked while it is made, so no handler interrupts it and
// no thread is ended in the middle of it; the text is formatted on the stack by vsnprintf, which with our formats (no
// floating point, no positions, no wide characters) uses neither locks nor the heap; the file sees one open, one
// appending write of the whole line and one close, so lines of several threads and processes never mix.
#include "sa/main/base/log.h"

#include <android/log.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "pub/util/signal_mask.h"
#include "sa/main/base/codes.h"
#include "sa/main/base/local_time.h"

enum sinks { TO_PLATFORM = 1, TO_FILE = 2 };

static const int kPrefixSize = 128;
static const int kMessageSize = 2048;

// By hand: the formatted time was the costliest part of a line.
static char *put_digits(char *to_ptr, long value, int width) {
    for (int at = width - 1; at >= 0; at--) {
        to_ptr[at] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
    return to_ptr + width;
}

// Puts a number behind a sign.
static char *put_part(char *to_ptr, char sign, long value, int width) {
    *to_ptr = sign;
    return put_digits(to_ptr + 1, value, width);
}

// Builds "[MM-DD hh:mm:ss.mmm]function " and returns its length, less than `size`; a long name is cut, its blank
// with it. The seconds and the milliseconds are two readings of the clock on purpose; at a second's boundary they may disagree.
static size_t make_prefix(const char *function, char *prefix_ptr, size_t size) {
    struct sa_local_time_st local;
    struct timespec now;
    sa_local_time(time(nullptr), &local);
    clock_gettime(CLOCK_REALTIME, &now);
    char *at_ptr = put_part(prefix_ptr, '[', local.month, 2);
    at_ptr = put_part(at_ptr, '-', local.day, 2);
    at_ptr = put_part(at_ptr, ' ', local.hour, 2);
    at_ptr = put_part(at_ptr, ':', local.minute, 2);
    at_ptr = put_part(at_ptr, ':', local.second, 2);
    at_ptr = put_part(at_ptr, '.', now.tv_nsec / 1000000, 3);
    *at_ptr++ = ']';
    const size_t space = size - static_cast<size_t>(at_ptr - prefix_ptr) - 1;
    size_t length = strnlen(function, space);
    memcpy(at_ptr, function, length);
    if (length < space) {
        at_ptr[length++] = ' ';
    }
    return static_cast<size_t>(at_ptr - prefix_ptr) + length;
}

// Appends one line. The message stands at `message_ptr` with kPrefixSize free bytes in front and one behind it, so that
// prefix, message and newline leave as one write. Without the file the line is dropped; non-blocking, so that whatever
// stands in its place (a pipe without a reader) cannot block the agent.
static void append_to_file(const char *function, char *message_ptr) {
    const int fd = open(SA_LOG_FILE, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666);
    if (fd < 0) {
        return;
    }
    char prefix_a[kPrefixSize];
    const size_t prefix_length = make_prefix(function, prefix_a, sizeof(prefix_a));
    const size_t message_length = strlen(message_ptr);
    memcpy(message_ptr - prefix_length, prefix_a, prefix_length);
    message_ptr[message_length] = '\n';
    (void)!write(fd, message_ptr - prefix_length, prefix_length + message_length + 1);
    close(fd);
}

static void send_to_platform(const char *function, const char *message_ptr) {
    if (function != nullptr) {
        __android_log_print(ANDROID_LOG_DEBUG, SA_NAME, "%s %s", function, message_ptr);
    } else {
        __android_log_print(ANDROID_LOG_DEBUG, SA_NAME, "%s", message_ptr);
    }
}

__attribute__((format(printf, 3, 0))) static void write_line(int sinks, const char *function, const char *fmt,
                                                             va_list args) {
    const int saved_errno = errno;
    char line_a[kPrefixSize + kMessageSize + 1];
    char *message_ptr = line_a + kPrefixSize;
    sigset_t mask;
    pub_util_block_signals(&mask);
    vsnprintf(message_ptr, kMessageSize, fmt, args);
    if ((sinks & TO_PLATFORM) != 0) {
        send_to_platform(function, message_ptr);
    }
    if ((sinks & TO_FILE) != 0) {
        append_to_file(function, message_ptr);
    }
    pub_util_restore_signals(&mask);
    errno = saved_errno;
}

void sa_log_both_line(const char *function, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    write_line(TO_PLATFORM | TO_FILE, function, fmt, args);
    va_end(args);
}

void sa_log_platform_line(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    write_line(TO_PLATFORM, nullptr, fmt, args);
    va_end(args);
}

void sa_log_file_line(const char *function, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    write_line(TO_FILE, function, fmt, args);
    va_end(args);
}

void sa_log_report(const char *source, int line, const char *function, int error_code) {
    sa_log_platform_line("FILE-%s, LINE-%d, FUNC-%s(), error_code=%d, errno=%d", source, line, function, error_code,
                         errno);
}
