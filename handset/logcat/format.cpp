// Formats entries. No state.
#include "handset/logcat/format.h"

#include <stdio.h>
#include <string.h>
#include <time.h>

#include "handset/common/utf8.h"

static const size_t kPrefixSize = 128;  // its NUL included

static void append_byte(unsigned char byte, bool is_character, std::string *out) {
    static const char kPlain[] = "\a\b\v\f\r\\";
    static const char kLetters[] = "abvfr\\";
    const char *found = byte != '\0' ? strchr(kPlain, byte) : nullptr;
    if (found != nullptr) {
        *out += '\\';
        *out += kLetters[found - kPlain];
    } else if (!is_character || (byte < ' ' && byte != '\t')) {
        char code[8];
        snprintf(code, sizeof(code), "\\x%02X", byte);
        *out += code;
    } else {
        *out += static_cast<char>(byte);
    }
}

// \a \b \v \f \r and the backslash become two characters, other control bytes but the tab and what is not UTF-8 \xNN.
static std::string printable(const std::string &text) {
    std::string out;
    for (size_t at = 0; at < text.size();) {
        const size_t length = utf8_length(text, at);
        if (length > 1) {
            out.append(text, at, length);
        } else {
            append_byte(static_cast<unsigned char>(text[at]), length == 1, &out);
        }
        at += length > 1 ? length : 1;
    }
    return out;
}

std::string format_entry(const logcat_options &options, const log_entry &entry) {
    const auto when = static_cast<time_t>(entry.sec);
    struct tm local = {};
    localtime_r(&when, &local);
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%m-%d %H:%M:%S", &local);
    const int digits = options.has_microseconds ? 6 : 3;
    char prefix[kPrefixSize];
    snprintf(prefix, sizeof(prefix), "%s.%0*u %5d %5d %c %-8s: ", stamp, digits,
             entry.nsec / (options.has_microseconds ? 1000 : 1000000), entry.pid, entry.tid, entry.letter,
             entry.tag.c_str());
    std::string out;
    size_t start = 0;
    do {
        const size_t end = entry.text.find('\n', start);
        const std::string line = entry.text.substr(start, end == std::string::npos ? end : end - start);
        out += prefix + (options.is_printable ? printable(line) : line) + "\n";
        start = end == std::string::npos ? entry.text.size() : end + 1;
    } while (start < entry.text.size());
    return out;
}
