#pragma once
// All sources of a set as one stream in the order of time, filtered, as lines that are safe to show.

#include <regex.h>
#include <string>

#include "view/source.h"

// What is chosen of a set.
struct log_choice {
    bool is_left_out[SOURCE_COUNT] = {};
    int64_t since = NO_TIME;
    int64_t until = INT64_MAX;
    const regex_t *pattern = nullptr;  // null: every line
};

// One line to show. Valid during the call that receives it.
struct shown_line {
    log_source source;
    log_severity severity;
    int64_t us;
    int digits;
    const std::string
        *line;         // time, source and text, without a newline; valid UTF-8 without control characters but tabs
    size_t source_at;  // where the source's name and the text begin in it
    size_t text_at;
};

// Receives a line. Result: false ends the stream.
typedef bool (*line_taker)(void *context, const shown_line &shown);

struct merge_result {
    uint64_t entries = 0;              // delivered
    bool is_kernel_estimated = false;  // kernel messages were delivered with estimated times
    bool has_packets = false;          // packets were delivered
};

// Delivers the chosen lines. Entries of the same source keep their order, whatever their times.
merge_result merge_run(const log_set &set, const log_choice &choice, line_taker take, void *context);
