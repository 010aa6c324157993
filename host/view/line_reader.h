#pragma once
// Lines of a file or of a program's output, in constant memory.

#include <sys/types.h>
#include <cstddef>
#include <vector>

// A longer line is delivered in pieces of this size.
constexpr size_t LINE_SIZE = 65536;

// A part of a file.
struct byte_range {
    off_t from;
    off_t to;
};

struct line_reader {
    int fd = -1;                     // owned from line_reader_open to line_reader_close
    std::vector<byte_range> ranges;  // what is read, in this order, as one stream; empty: everything, in sequence
    size_t range = 0;
    off_t position = 0;
    std::vector<char> buf;
    size_t begin = 0;  // unread bytes in buf
    size_t end = 0;
    bool is_at_end = false;
};

// Takes the descriptor. `ranges`: as above.
void line_reader_open(line_reader *reader, int fd, const std::vector<byte_range> &ranges);

// The next line without its newline; `*text` is valid until the next call. Result: false at the end.
bool line_reader_next(line_reader *reader, const char **text, size_t *len);

// Goes back to the first line. Only for files.
void line_reader_rewind(line_reader *reader);

void line_reader_close(line_reader *reader);
