// Reader of logcat's command line. No state but getopt's own.
#include "handset/logcat/options.h"

#include <ctype.h>
#include <errno.h>
#include <getopt.h>
#include <stdlib.h>
#include <string.h>

#include "handset/logd/wire.h"

const char kLogcatHelp[] =
    "Usage: logcat [OPTION]... [TAG[:PRIORITY]]...\n"
    "  -b, --buffer=NAMES         buffers to read, as in main,system,crash (the default), radio, events, all\n"
    "  -d                         print what is stored and end\n"
    "  -t COUNT                   the same, only the newest COUNT entries\n"
    "  -D, --dividers             tell every change of buffer\n"
    "  -f, --file=FILE            append to FILE, after the newest entry that is in it\n"
    "  -r, --rotate-kbytes=N      start a new FILE when it has N KiB\n"
    "  -n, --rotate-count=N       keep N older files (4)\n"
    "  -s                         print nothing but what filters name\n"
    "  -v, --format=FORMAT        brief, process, tag, thread, raw, time, threadtime (the default),\n"
    "                             and as additions: usec, nsec, printable\n"
    "Priorities: V D I W E F S (nothing). A filter *:PRIORITY is for all other tags.\n";

static const struct option kLongOptions[] = {
    {"buffer", required_argument, nullptr, 'b'},
    {"dividers", no_argument, nullptr, 'D'},
    {"file", required_argument, nullptr, 'f'},
    {"format", required_argument, nullptr, 'v'},
    {"help", no_argument, nullptr, 'h'},
    {"rotate-count", required_argument, nullptr, 'n'},
    {"rotate-kbytes", required_argument, nullptr, 'r'},
    {nullptr, 0, nullptr, 0},
};

static constexpr char kDelimiters[] = ",:; \t\n\r\f";

// A whole number of at least 1, decimal or 0x hexadecimal, and nothing behind it.
static bool parse_count(const char *text, uint64_t *out) {
    const char *digits = text;
    while (isspace(static_cast<unsigned char>(*digits)) != 0) {
        digits++;
    }
    if (*digits == '-') {
        return false;
    }
    const int base = digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X') ? 16 : 10;
    char *end;
    errno = 0;
    *out = strtoull(digits, &end, base);
    return errno == 0 && end != digits && *end == '\0' && *out >= 1;
}

static bool count_option(char letter, const char *text, uint64_t *out, std::string *error) {
    if (parse_count(text, out)) {
        return true;
    }
    *error = std::string("Invalid parameter '") + text + "' to -" + letter + ".";
    return false;
}

static unsigned bits_of(const char *name) {
    if (strcmp(name, "default") == 0) {
        return 1u << log_buffer_number("main") | 1u << log_buffer_number("system") | 1u << log_buffer_number("crash");
    }
    if (strcmp(name, "all") == 0) {
        return (1u << kLogBufferCount) - 1;
    }
    const int number = log_buffer_number(name);
    return number >= 0 ? 1u << number : 0;
}

static bool buffer_option(const char *list, unsigned *buffers, std::string *error) {
    std::string copy = list;
    char *rest = nullptr;
    for (char *name = strtok_r(copy.data(), kDelimiters, &rest); name != nullptr;
         name = strtok_r(nullptr, kDelimiters, &rest)) {
        const unsigned bits = bits_of(name);
        if (bits == 0) {
            *error = std::string("Unknown buffer '") + name + "' listed for -b.";
            return false;
        }
        *buffers |= bits;
    }
    return true;
}

static bool format_option(const char *list, log_format *format, std::string *error) {
    std::string copy = list;
    char *rest = nullptr;
    for (char *name = strtok_r(copy.data(), kDelimiters, &rest); name != nullptr;
         name = strtok_r(nullptr, kDelimiters, &rest)) {
        if (!log_format_add(name, format)) {
            *error = std::string("Invalid parameter '") + name + "' to -v.";
            return false;
        }
    }
    return true;
}

static bool tail_option(const char *text, logcat_options *out, std::string *error) {
    out->is_dump = true;
    out->has_tail = true;
    return count_option('t', text, &out->tail, error);
}

static bool take_option(int letter, char **argv, logcat_options *out, std::string *error) {
    switch (letter) {
        case 'b': return buffer_option(optarg, &out->buffers, error);
        case 'd': out->is_dump = true; return true;
        case 'D': out->tells_switches = true; return true;
        case 'f': out->file = optarg; return true;
        case 'h': return false;
        case 'n': return count_option('n', optarg, &out->older_files, error);
        case 'r': return count_option('r', optarg, &out->rotate_kib, error);
        case 's': return log_filter_add("*:S", &out->filter);
        case 't': return tail_option(optarg, out, error);
        case 'v': return format_option(optarg, &out->format, error);
        case ':': *error = std::string("Option '") + argv[optind - 1] + "' needs an argument."; return false;
        default: *error = std::string("Unknown option '") + argv[optind - 1] + "'."; return false;
    }
}

static bool filter_operands(int argc, char **argv, log_filter *filter) {
    const char *standing = getenv("ANDROID_LOG_TAGS");
    if (optind == argc && standing != nullptr) {
        return log_filter_add(standing, filter);
    }
    for (int i = optind; i < argc; i++) {
        if (!log_filter_add(argv[i], filter)) {
            return false;
        }
    }
    return true;
}

bool logcat_parse(int argc, char **argv, logcat_options *out, std::string *error) {
    error->clear();
    optind = 0;  // start anew, in the library's own sense of it
    int letter;
    while ((letter = getopt_long(argc, argv, ":b:dDf:hn:r:st:v:", kLongOptions, nullptr)) != -1) {
        if (!take_option(letter, argv, out, error)) {
            return false;
        }
    }
    if (out->rotate_kib != 0 && out->file.empty()) {
        *error = "-r requires -f as well.";
        return false;
    }
    if (!filter_operands(argc, argv, &out->filter)) {
        *error = "Invalid filter expression in logcat args.";
        return false;
    }
    if (out->buffers == 0) {
        out->buffers = bits_of("default");
    }
    return true;
}
