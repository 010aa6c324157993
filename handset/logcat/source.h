// Reads the log journal, and waits for new entries.
#ifndef HANDSET_LOGCAT_SOURCE_H
#define HANDSET_LOGCAT_SOURCE_H

#include <sys/types.h>

#include <string>

#include "handset/logcat/format.h"

struct log_source {
    int journal = -1;
    int socket = -1;
    bool is_dump = false;
    unsigned buffers = 0;
    uint64_t after_ns = 0;  // a stored entry is returned only when it is later
    off_t stored = 0;       // size of the journal at the opening
    off_t offset = 0;       // of the next line
    std::string rest;       // what has been read of the journal and is not used up
    size_t used = 0;        // bytes of `rest` whose lines have been returned
};

// Opens journal and socket. The options tell which buffers are read. `after_ns`: nanoseconds since 1970. False with errno.
bool source_open(const logcat_options &options, uint64_t after_ns, log_source *out);

enum source_result { SOURCE_ENTRY, SOURCE_END, SOURCE_ERROR };
// The next entry. Waits for it, or returns SOURCE_END after the stored ones of a dump. SOURCE_END is also returned when the
// daemon has ended. SOURCE_ERROR leaves errno.
source_result source_next(log_source *from, log_entry *out);

#endif
