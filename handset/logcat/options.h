// What the command line of logcat asks for.
#ifndef HANDSET_LOGCAT_OPTIONS_H
#define HANDSET_LOGCAT_OPTIONS_H

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "handset/logcat/filter.h"
#include "handset/logcat/format.h"

struct logcat_options {
    unsigned buffers = 0;     // bit N: buffer N; never 0 after parsing
    std::string file;         // "": standard output
    uint64_t rotate_kib = 0;  // 0: never
    uint64_t older_files = 4;
    bool is_dump = false;  // end after what is stored
    bool has_tail = false;
    uint64_t tail = 0;
    bool tells_switches = false;  // a separator at every change of buffer, not only at a buffer's first entry
    log_format format;
    log_filter filter;
};

// Reads the command line (and ANDROID_LOG_TAGS when it holds no filter). False when it is wrong: `error` then holds a
// sentence, or is empty when the help was asked for.
bool logcat_parse(int argc, char **argv, logcat_options *out, std::string *error);

// The help text.
extern const char kLogcatHelp[];

#endif
