// Layouts of entries. No state.
#include "handset/logcat/format.h"

#include <stdio.h>
#include <string.h>
#include <time.h>

#include "handset/logd/wire.h"

static const struct {
    const char *name;
    log_layout layout;
} kLayouts[] = {
    {"brief", LOG_LAYOUT_BRIEF},           {"process", LOG_LAYOUT_PROCESS}, {"tag", LOG_LAYOUT_TAG},
    {"thread", LOG_LAYOUT_THREAD},         {"raw", LOG_LAYOUT_RAW},         {"time", LOG_LAYOUT_TIME},
    {"threadtime", LOG_LAYOUT_THREADTIME},
};

static constexpr size_t kPrefixSize = 128;  // its NUL included

bool log_format_add(const std::string &name, log_format *format) {
    if (name == "printable") {
        format->is_printable = true;
        return true;
    }
    if (name == "usec" || name == "nsec") {
        format->fraction_digits = name == "usec" ? 6 : 9;
        return true;
    }
    for (const auto &each : kLayouts) {
        if (name == each.name) {
            format->layout = each.layout;
            return true;
        }
    }
    return false;
}

static unsigned char byte_at(const std::string &text, size_t at) {
    return static_cast<unsigned char>(text[at]);
}

// Bytes of the UTF-8 character that starts at `at`, 0 when none does.
static size_t character_length(const std::string &text, size_t at) {
    const unsigned char lead = byte_at(text, at);
    if (lead < 0x80) {
        return 1;
    }
    const size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || text.size() - at < length) {
        return 0;
    }
    uint32_t value = lead & (0xffu >> (length + 1));
    for (size_t i = 1; i < length; i++) {
        if ((byte_at(text, at + i) & 0xc0) != 0x80) {
            return 0;
        }
        value = value << 6 | (byte_at(text, at + i) & 0x3fu);
    }
    const bool is_overlong = (length == 3 && value < 0x800) || (length == 4 && value < 0x10000);
    const bool is_surrogate = value >= 0xd800 && value <= 0xdfff;
    return is_overlong || is_surrogate || value > 0x10ffff ? 0 : length;
}

static void append_code(unsigned char byte, std::string *out) {
    char code[8];
    snprintf(code, sizeof code, "\\x%02X", byte);
    *out += code;
}

static void append_byte(char c, std::string *out) {
    static const char plain[] = "\a\b\v\f\r\\";
    static const char letters[] = "abvfr\\";
    const char *found = c != '\0' ? strchr(plain, c) : nullptr;
    if (found != nullptr) {
        *out += '\\';
        *out += letters[found - plain];
    } else if (c != '\t' && c >= 0 && c < ' ') {
        append_code(static_cast<unsigned char>(c), out);
    } else {
        *out += c;
    }
}

std::string log_printable(const std::string &text) {
    std::string out;
    for (size_t at = 0; at < text.size();) {
        const size_t length = character_length(text, at);
        if (length == 0) {
            append_code(byte_at(text, at), &out);
        } else if (length == 1) {
            append_byte(text[at], &out);
        } else {
            out.append(text, at, length);
        }
        at += length == 0 ? 1 : length;
    }
    return out;
}

static void stamp_of(const log_format &format, const log_print &entry, char (&stamp)[48]) {
    const auto when = static_cast<time_t>(entry.sec);
    struct tm local = {};
    localtime_r(&when, &local);
    uint32_t fraction = entry.nsec;
    for (int digits = 9; digits > format.fraction_digits; digits--) {
        fraction /= 10;
    }
    snprintf(stamp, sizeof stamp, "%02d-%02d %02d:%02d:%02d.%0*u", local.tm_mon + 1, local.tm_mday, local.tm_hour,
             local.tm_min, local.tm_sec, format.fraction_digits, fraction);
}

static void prefix_of(const log_format &format, const log_print &entry, char (&prefix)[kPrefixSize]) {
    char stamp[48];
    stamp_of(format, entry, stamp);
    const char letter = log_priority_letter(entry.priority);
    const char *tag = entry.tag.c_str();
    switch (format.layout) {
        case LOG_LAYOUT_BRIEF: snprintf(prefix, kPrefixSize, "%c/%-8s(%5d): ", letter, tag, entry.pid); break;
        case LOG_LAYOUT_PROCESS: snprintf(prefix, kPrefixSize, "%c(%5d) ", letter, entry.pid); break;
        case LOG_LAYOUT_TAG: snprintf(prefix, kPrefixSize, "%c/%-8s: ", letter, tag); break;
        case LOG_LAYOUT_THREAD: snprintf(prefix, kPrefixSize, "%c(%5d:%5d) ", letter, entry.pid, entry.tid); break;
        case LOG_LAYOUT_RAW: prefix[0] = '\0'; break;
        case LOG_LAYOUT_TIME: snprintf(prefix, kPrefixSize, "%s %c/%-8s(%5d): ", stamp, letter, tag, entry.pid); break;
        case LOG_LAYOUT_THREADTIME:
            snprintf(prefix, kPrefixSize, "%s %5d %5d %c %-8s: ", stamp, entry.pid, entry.tid, letter, tag);
            break;
    }
}

std::string log_format_entry(const log_format &format, const log_print &entry) {
    char prefix[kPrefixSize];
    prefix_of(format, entry, prefix);
    const std::string suffix = format.layout == LOG_LAYOUT_PROCESS ? "  (" + entry.tag + ")\n" : "\n";
    std::string out;
    size_t start = 0;
    do {
        const size_t newline = entry.text.find('\n', start);
        const size_t end = newline == std::string::npos ? entry.text.size() : newline;
        const std::string line = entry.text.substr(start, end - start);
        out += prefix + (format.is_printable ? log_printable(line) : line) + suffix;
        start = newline == std::string::npos ? end : newline + 1;
    } while (start < entry.text.size());
    return out;
}
