#pragma once
// The files of the kernel-message collector: where each one's oldest record is, and the boot that its times count from.

#include <string>
#include <vector>

#include "view/line_reader.h"
#include "view/log_set.h"

struct kernel_file {
    std::string path;
    std::vector<byte_range> ranges;  // oldest bytes first
    int64_t header = NO_TIME;        // when the collector began the file, if that line has not been overwritten
    int64_t first = NO_TIME;         // oldest and newest record, in microseconds since the boot; NO_TIME: no record
    int64_t last = NO_TIME;
    int64_t boot = 0;  // when the handset had booted
};

// A record's priority and time, "<6>[   12.345678] text".
struct kernel_stamp {
    int level = 0;
    int64_t us = NO_TIME;  // since the boot
};

// Result: false when the line does not begin with a priority. A record without a time leaves `us` at NO_TIME.
bool kernel_read_stamp(const char *text, size_t len, kernel_stamp *stamp);

// Whether a line is the collector's header, "[2026-01-31 23:59:59]".
bool kernel_read_header(const char *text, size_t len, int64_t *us);

// Reads the files through, oldest first, and places them in time. Files that cannot be read are left out.
// `*is_estimated`: the boot of some file was not recorded by `fetch` and follows from when files were begun and saved.
std::vector<kernel_file> kernel_open(const log_set &set, bool *is_estimated);
