// The command line of logcat.
#ifndef HANDSET_LOGCAT_OPTIONS_H
#define HANDSET_LOGCAT_OPTIONS_H

#include <stdint.h>

#include <string>
#include <utility>
#include <vector>

struct logcat_options {
    unsigned buffers = 0;     // bit N: buffer N; never 0 after parsing
    std::string file;         // "": standard output
    uint64_t rotate_kib = 0;  // 0: never
    uint64_t older_files = 4;
    bool is_dump = false;  // end after the stored entries
    bool has_microseconds = false;
    bool is_printable = false;
    int other_tags = 0;                             // lowest priority that is printed of a tag not listed below
    std::vector<std::pair<std::string, int>> tags;  // the same of single tags; the last one of a tag counts
};

// Reads the command line. False when it is wrong, with a sentence in `error`, or when it asks for help, with "".
bool logcat_parse(int argc, char **argv, logcat_options *out, std::string *error);
// Whether an entry of this tag and priority is printed.
bool logcat_filter(const logcat_options &options, const std::string &tag, int priority);

extern const char kLogcatHelp[];

#endif
