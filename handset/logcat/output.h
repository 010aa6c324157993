// logcat's output: standard output, or a file that is rotated.
#ifndef HANDSET_LOGCAT_OUTPUT_H
#define HANDSET_LOGCAT_OUTPUT_H

#include <stdint.h>

#include <string>

struct log_output {
    int fd = 1;
    std::string file;         // "": standard output, never rotated
    uint64_t rotate_kib = 0;  // 0: never
    uint64_t older_files = 0;
    uint64_t bytes = 0;  // in the current file
};

// Opens output->file for appending, with mode 0600 when it is created; the size it has counts. False with errno.
bool output_open(log_output *output);
// Writes all of it. False with errno.
bool output_write(log_output *output, const std::string &text);
// Counts the bytes of a printed entry and starts a new file when the current one has reached its size: FILE becomes
// FILE.1, that one FILE.2 and so on up to `older_files`; the oldest one is removed. The numbers have as many digits as the
// largest. False with errno when no new file can be opened.
bool output_count(log_output *output, uint64_t bytes);

#endif
