// Lines of a file or of a program's output. All state is the caller's.

#include "view/line_reader.h"

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// Reads up to `size` bytes of the stream. Result: the number, 0 at the end. A read error ends the stream, too.
size_t read_some(line_reader *reader, char *into, size_t size) {
    while (true) {
        ssize_t got = -1;
        if (reader->ranges.empty()) {
            got = read(reader->fd, into, size);
        } else {
            off_t left = reader->ranges[reader->range].to - reader->position;
            size_t most = static_cast<size_t>(std::min<off_t>(left, static_cast<off_t>(size)));
            got = pread(reader->fd, into, most, reader->position);
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        reader->position += std::max<ssize_t>(got, 0);
        if (got <= 0 && !reader->ranges.empty() && reader->range + 1 < reader->ranges.size()) {
            reader->position = reader->ranges[++reader->range].from;
            continue;
        }
        return static_cast<size_t>(std::max<ssize_t>(got, 0));
    }
}

// Reads more behind what is unread, which is moved to the front of the buffer.
void fill(line_reader *reader) {
    char *start = reader->buf.data();
    memmove(start, start + reader->begin, reader->end - reader->begin);
    reader->end -= reader->begin;
    reader->begin = 0;
    size_t got = read_some(reader, start + reader->end, reader->buf.size() - reader->end);
    reader->end += got;
    reader->is_at_end = got == 0;
}

}  // namespace

void line_reader_open(line_reader *reader, int fd, const std::vector<byte_range> &ranges) {
    reader->fd = fd;
    reader->ranges = ranges;
    reader->buf.resize(LINE_SIZE);
    line_reader_rewind(reader);
}

void line_reader_rewind(line_reader *reader) {
    reader->range = 0;
    reader->position = reader->ranges.empty() ? 0 : reader->ranges[0].from;
    reader->begin = 0;
    reader->end = 0;
    reader->is_at_end = false;
}

bool line_reader_next(line_reader *reader, const char **text, size_t *len) {
    size_t searched = 0;
    while (true) {
        char *start = reader->buf.data() + reader->begin;
        size_t have = reader->end - reader->begin;
        char *newline = static_cast<char *>(memchr(start + searched, '\n', have - searched));
        bool is_cut = newline == nullptr && (have == reader->buf.size() || (reader->is_at_end && have > 0));
        if (newline != nullptr || is_cut) {
            *text = start;
            *len = newline != nullptr ? static_cast<size_t>(newline - start) : have;
            reader->begin += *len + (newline != nullptr ? 1 : 0);
            return true;
        }
        if (reader->is_at_end) {
            return false;
        }
        searched = have;
        fill(reader);
    }
}

void line_reader_close(line_reader *reader) {
    if (reader->fd >= 0) {
        close(reader->fd);
    }
    reader->fd = -1;
}
