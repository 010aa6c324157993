// How logcat prints entries.
#ifndef HANDSET_LOGCAT_FORMAT_H
#define HANDSET_LOGCAT_FORMAT_H

#include <stdint.h>

#include <string>

#include "handset/logcat/options.h"

struct log_entry {
    uint32_t sec = 0;
    uint32_t nsec = 0;
    unsigned buffer = 0;
    int pid = 0;
    int tid = 0;
    char letter = '?';  // of its priority
    std::string tag;
    std::string text;
};

// The lines of an entry: one for each line of its text, each with the prefix (cut at 127 bytes) and a newline. A newline
// at the end of the text starts no further line.
std::string format_entry(const logcat_options &options, const log_entry &entry);

#endif
