// Sentences for a person, the transient progress line and standard output. Owns whether such a line is on the screen and
// the first failure of standard output.

#include "message.h"

#include <poll.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

bool m_is_shown = false;  // a progress line stands on the terminal, without a newline
int m_output_error = 0;   // errno of the first write that failed

std::string format_text(const char *format, va_list args) __attribute__((format(printf, 1, 0)));

std::string format_text(const char *format, va_list args) {
    char *text = nullptr;
    int len = vasprintf(&text, format, args);
    if (len < 0) {
        return std::string();
    }
    std::string result(text, static_cast<size_t>(len));
    free(text);
    return result;
}

// Length of the UTF-8 character at `at`, 0 when there is none. Does not look for overlong forms and surrogates.
size_t utf8_length(const std::string &text, size_t at) {
    unsigned char c = static_cast<unsigned char>(text[at]);
    size_t len = c < 0x80 ? 1 : c < 0xc2 ? 0 : c < 0xe0 ? 2 : c < 0xf0 ? 3 : c < 0xf5 ? 4 : 0;
    for (size_t i = 1; i < len; ++i) {
        if (at + i >= text.size() || (static_cast<unsigned char>(text[at + i]) & 0xc0) != 0x80) {
            return 0;
        }
    }
    return len;
}

// Ends the process as a program that does not look at SIGPIPE: its reader has what it wanted.
void end_without_reader() {
    signal(SIGPIPE, SIG_DFL);
    sigset_t pipe_signal;
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    sigprocmask(SIG_UNBLOCK, &pipe_signal, nullptr);
    raise(SIGPIPE);
}

}  // namespace

void say(const char *format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = format_text(format, args);
    va_end(args);
    progress_clear();
    fprintf(stderr, "sa-host: %s\n", text.c_str());
}

void print(const char *format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = format_text(format, args);
    va_end(args);
    print_text(text);
}

void print_text(const std::string &text) {
    size_t done = 0;
    while (m_output_error == 0 && done < text.size()) {
        ssize_t put = write(STDOUT_FILENO, text.data() + done, text.size() - done);
        if (put >= 0) {
            done += static_cast<size_t>(put);
        } else if (errno == EAGAIN) {
            struct pollfd output = {STDOUT_FILENO, POLLOUT, 0};
            poll(&output, 1, -1);
        } else if (errno == EPIPE) {
            end_without_reader();
        } else if (errno != EINTR) {
            m_output_error = errno;
        }
    }
}

bool print_is_good() {
    return m_output_error == 0;
}

int print_finish(int status) {
    if (m_output_error == 0) {
        return status;
    }
    say("Writing the output failed: %s.", strerror(m_output_error));
    return status == HOST_OK ? HOST_ERROR : status;
}

void progress_show(const std::string &text) {
    if (isatty(STDERR_FILENO) == 0) {
        return;
    }
    fprintf(stderr, "\r%s\033[K", text.c_str());
    m_is_shown = true;
}

void progress_clear() {
    if (m_is_shown) {
        fprintf(stderr, "\r\033[K");
        m_is_shown = false;
    }
}

std::string in_bytes(uint64_t count) {
    static const char *const units[] = {"kB", "MB", "GB", "TB"};
    if (count < 1000) {
        return text_of("%u B", static_cast<unsigned>(count));
    }
    double value = static_cast<double>(count) / 1000;
    size_t unit = 0;
    while (value >= 999.95 && unit + 1 < sizeof(units) / sizeof(units[0])) {
        value /= 1000;
        ++unit;
    }
    return text_of("%.1f %s", value, units[unit]);
}

std::string in_time(uint64_t seconds) {
    unsigned long long hours = seconds / 3600;
    unsigned minutes = static_cast<unsigned>(seconds / 60 % 60);
    unsigned rest = static_cast<unsigned>(seconds % 60);
    return hours > 0 ? text_of("%llu:%02u:%02u", hours, minutes, rest) : text_of("%u:%02u", minutes, rest);
}

std::string text_of(const char *format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = format_text(format, args);
    va_end(args);
    return text;
}

std::string json_quoted(const std::string &text) {
    std::string quoted = "\"";
    for (size_t i = 0; i < text.size();) {
        size_t len = utf8_length(text, i);
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (len == 0) {
            quoted += "\\ufffd";
        } else if (c < 0x20 || c == 0x7f) {
            quoted += text_of("\\u%04x", c);
        } else {
            quoted += c == '"' || c == '\\' ? "\\" : "";
            quoted += text.substr(i, len);
        }
        i += std::max<size_t>(len, 1);
    }
    return quoted + "\"";
}

int64_t now_ms() {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}
