// Sentences for a person and the transient progress line. Owns the knowledge whether such a line is on the screen.

#include "message.h"

#include <unistd.h>
#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace {

bool m_is_shown = false;  // a progress line stands on the terminal, without a newline

std::string format_text(const char *format, va_list args) __attribute__((format(printf, 1, 0)));

std::string format_text(const char *format, va_list args) {
    va_list again;
    va_copy(again, args);
    int len = vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (len < 0) {
        return std::string();
    }
    std::string text(static_cast<size_t>(len) + 1, '\0');
    vsnprintf(&text[0], text.size(), format, args);
    text.resize(static_cast<size_t>(len));
    return text;
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

int64_t now_ms() {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}
