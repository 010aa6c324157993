// Reads logcat's command line. No state but getopt's own.
#include "handset/logcat/options.h"

#include <ctype.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "handset/common/journal.h"
#include "handset/logd/wire.h"

const char kLogcatHelp[] =
    "Usage: logcat [OPTION]... [TAG[:PRIORITY]]...\n"
    "  -b NAMES   buffers to read, as in main,system,crash (the default), radio, events, all\n"
    "  -d         print the stored entries and end\n"
    "  -f FILE    append to FILE the entries after the newest one in it\n"
    "  -n N       keep N older files (4)\n"
    "  -r N       start a new FILE when it has N KiB\n"
    "  -s         print only the tags that are named\n"
    "  -v FORMAT  threadtime (the only layout), usec, printable\n"
    "Priorities: V D I W E F S (none). *:PRIORITY is for all tags that are not named.\n";

// A decimal number of at least 1 and nothing behind it.
static bool count_option(char letter, const char *text, uint64_t *out, std::string *error) {
    char *end;
    errno = 0;
    *out = strtoull(text, &end, 10);
    if (isdigit(static_cast<unsigned char>(text[0])) != 0 && errno == 0 && *end == '\0' && *out >= 1) {
        return true;
    }
    *error = std::string("Invalid parameter '") + text + "' to -" + letter + ".";
    return false;
}

// The bits of a buffer's name, 0 for an unknown one.
static unsigned bits_of(const std::string &name) {
    if (name == "default") {
        return bits_of("main") | bits_of("system") | bits_of("crash");
    }
    if (name == "all") {
        return (1u << kLogBufferCount) - 1;
    }
    const int number = log_buffer_number(name.c_str());
    return number >= 0 ? 1u << number : 0;
}

static bool buffer_option(const char *list, logcat_options *out, std::string *error) {
    for (const std::string &name : text_split(list, ',')) {
        const unsigned bits = bits_of(name);
        if (bits == 0) {
            *error = "Unknown buffer '" + name + "' listed for -b.";
            return false;
        }
        out->buffers |= bits;
    }
    return true;
}

static bool format_option(const char *list, logcat_options *out, std::string *error) {
    for (const std::string &name : text_split(list, ',')) {
        out->has_microseconds = out->has_microseconds || name == "usec";
        out->is_printable = out->is_printable || name == "printable";
        if (name != "threadtime" && name != "usec" && name != "printable") {
            *error = "Invalid parameter '" + name + "' to -v.";
            return false;
        }
    }
    return true;
}

// TAG[:PRIORITY]: without a priority a tag is printed from V on, and "*" from D on.
static bool add_filter(const std::string &text, logcat_options *out) {
    const size_t colon = text.find(':');
    const std::string tag = text.substr(0, colon);
    const char letter = colon != std::string::npos ? text[colon + 1] : tag == "*" ? 'D' : 'V';
    const int priority = log_priority_number(letter);
    if (tag.empty() || priority == 0) {
        return false;
    }
    if (tag == "*") {
        out->other_tags = priority;
    } else {
        out->tags.emplace_back(tag, priority);
    }
    return true;
}

static bool take_option(int letter, char **argv, logcat_options *out, std::string *error) {
    switch (letter) {
        case 'b': return buffer_option(optarg, out, error);
        case 'd': out->is_dump = true; return true;
        case 'f': out->file = optarg; return true;
        case 'h': return false;
        case 'n': return count_option('n', optarg, &out->older_files, error);
        case 'r': return count_option('r', optarg, &out->rotate_kib, error);
        case 's': return add_filter("*:S", out);
        case 'v': return format_option(optarg, out, error);
        case ':': *error = std::string("Option '") + argv[optind - 1] + "' needs an argument."; return false;
        default: *error = std::string("Unknown option '") + argv[optind - 1] + "'."; return false;
    }
}

bool logcat_parse(int argc, char **argv, logcat_options *out, std::string *error) {
    int letter;
    while ((letter = getopt(argc, argv, ":b:df:hn:r:sv:")) != -1) {
        if (!take_option(letter, argv, out, error)) {
            return false;
        }
    }
    if (out->rotate_kib != 0 && out->file.empty()) {
        *error = "-r requires -f as well.";
        return false;
    }
    for (; optind < argc; optind++) {
        if (!add_filter(argv[optind], out)) {
            *error = "Invalid filter expression in logcat args.";
            return false;
        }
    }
    if (out->buffers == 0) {
        out->buffers = bits_of("default");
    }
    return true;
}

bool logcat_filter(const logcat_options &options, const std::string &tag, int priority) {
    for (auto at = options.tags.rbegin(); at != options.tags.rend(); ++at) {
        if (at->first == tag) {
            return priority >= at->second;
        }
    }
    return priority >= options.other_tags;
}
