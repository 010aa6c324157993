// How entries look in print.
#ifndef HANDSET_LOGCAT_FORMAT_H
#define HANDSET_LOGCAT_FORMAT_H

#include <stdint.h>
#include <sys/types.h>

#include <string>

enum log_layout {
    LOG_LAYOUT_BRIEF,
    LOG_LAYOUT_PROCESS,
    LOG_LAYOUT_TAG,
    LOG_LAYOUT_THREAD,
    LOG_LAYOUT_RAW,
    LOG_LAYOUT_TIME,
    LOG_LAYOUT_THREADTIME,
};

struct log_format {
    log_layout layout = LOG_LAYOUT_THREADTIME;
    int fraction_digits = 3;  // of a second
    bool is_printable = false;
};

// An entry ready to be printed.
struct log_print {
    uint32_t sec = 0;
    uint32_t nsec = 0;
    int pid = 0;
    int tid = 0;
    int priority = 0;
    std::string tag;
    std::string text;
};

// Takes one value of -v: a layout (the last one counts) or an addition (all of them count). False for an unknown one.
bool log_format_add(const std::string &name, log_format *format);
// The lines of an entry, each with the entry's prefix (cut at 127 bytes) and a newline: one for each line of its text.
// A newline at the very end of the text starts no further line.
std::string log_format_entry(const log_format &format, const log_print &entry);
// Text made safe for a terminal: \a \b \v \f \r and the backslash as two characters, other control bytes (not the tab)
// and what is not UTF-8 as \xNN.
std::string log_printable(const std::string &text);

#endif
