#pragma once
// The entries of one source, in the order of its files: oldest generation first, one open at a time.

#include <sys/types.h>
#include <string>
#include <vector>

#include "view/kernel_log.h"
#include "view/line_reader.h"
#include "view/log_set.h"

enum log_source {
    SOURCE_KERNEL,
    SOURCE_MAIN,
    SOURCE_EVENTS,
    SOURCE_RADIO,
    SOURCE_SA,
    SOURCE_PACKETS,
    SOURCE_COUNT,
};

extern const char *const SOURCE_NAMES[SOURCE_COUNT];

enum log_severity { SEVERITY_PLAIN, SEVERITY_WARNING, SEVERITY_ERROR };

struct log_entry {
    int64_t us = NO_TIME;
    int digits = 6;  // of the time's fraction, as the line has it
    log_severity severity = SEVERITY_PLAIN;
    const char *text = nullptr;  // the line behind its time, not terminated; valid until the source's next entry
    size_t len = 0;
};

struct source_reader {
    log_source source = SOURCE_MAIN;
    const log_set *set = nullptr;
    year_rule rule;
    std::vector<std::string> files;    // oldest first
    std::vector<kernel_file> kernels;  // the same for the kernel's messages
    size_t file = 0;                   // the next one to open
    line_reader lines;
    pid_t program = -1;         // the tcpdump that writes what is read
    bool has_lines = false;     // of the open file
    int64_t last_us = NO_TIME;  // time of the last line that has one, and its digits
    int last_digits = 6;
    bool is_estimated = false;  // the times of kernel messages
    log_entry entry;            // the next one to be delivered
    bool has_entry = false;
};

// Prepares the source and reads its first entry. `set` must outlive the reader.
void source_open(source_reader *reader, log_source source, const log_set &set);

// Reads the next entry into `reader->entry` and sets `has_entry`.
void source_next(source_reader *reader);

// Closes what is open; needed when not all entries have been read.
void source_close(source_reader *reader);
