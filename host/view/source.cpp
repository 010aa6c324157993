// The entries of one source. All state is the caller's.

#include "view/source.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "message.h"
#include "view/program.h"

const char *const SOURCE_NAMES[SOURCE_COUNT] = {"kernel", "main", "events", "radio", "sa", "packets"};

namespace {

constexpr size_t PCAP_HEADER_SIZE = 24;

// ---- Lines. Each function reads the time at the start of a line and sets the rest; false: the line has no time.

// "01-31 23:59:59.123456   100   101 D tag: text"
bool read_logcat_line(source_reader *reader, const char *text, size_t len) {
    line_time time;
    if (!time_read_stamp(text, len, reader->rule, &time)) {
        return false;
    }
    log_entry *entry = &reader->entry;
    entry->us = time.us;
    entry->digits = time.digits;
    size_t at = time.used;
    for (int field = 0; field < 2; ++field) {  // process and thread
        while (at < len && text[at] == ' ') {
            ++at;
        }
        while (at < len && text[at] >= '0' && text[at] <= '9') {
            ++at;
        }
    }
    char letter = at + 2 < len && text[at] == ' ' && text[at + 2] == ' ' ? text[at + 1] : 'D';
    entry->severity = letter == 'E' || letter == 'F' ? SEVERITY_ERROR : SEVERITY_PLAIN;
    entry->severity = letter == 'W' ? SEVERITY_WARNING : entry->severity;
    size_t skipped = std::min(time.used + 1, len);
    entry->text = text + skipped;
    entry->len = len - skipped;
    return true;
}

// "[01-31 23:59:59.123]function text"
bool read_agent_line(source_reader *reader, const char *text, size_t len) {
    line_time time;
    if (len == 0 || text[0] != '[' || !time_read_stamp(text + 1, len - 1, reader->rule, &time) ||
        time.used + 1 >= len || text[time.used + 1] != ']') {
        return false;
    }
    reader->entry.us = time.us;
    reader->entry.digits = time.digits;
    reader->entry.text = text + time.used + 2;
    reader->entry.len = len - time.used - 2;
    return true;
}

// "<6>[   12.345678] text": the whole line is shown, since its own time is what other tools print.
bool read_kernel_line(source_reader *reader, const char *text, size_t len) {
    kernel_stamp stamp;
    bool is_record = kernel_read_stamp(text, len, &stamp);
    if (is_record) {
        reader->entry.severity = stamp.level < 4 ? SEVERITY_ERROR : SEVERITY_PLAIN;
        reader->entry.severity = stamp.level == 4 ? SEVERITY_WARNING : reader->entry.severity;
    }
    if (!is_record || stamp.us == NO_TIME) {
        return false;
    }
    reader->entry.us = reader->kernels[reader->file - 1].boot + stamp.us;
    return true;
}

// "1790000000.123456 text": seconds of UTC
bool read_packet_line(source_reader *reader, const char *text, size_t len) {
    int64_t us = 0;
    size_t at = 0;
    int decimals = -1;
    for (; at < len && decimals < 6 && us < INT64_MAX / 20; ++at) {
        if (text[at] >= '0' && text[at] <= '9') {
            us = us * 10 + (text[at] - '0');
            decimals += decimals >= 0 ? 1 : 0;
        } else if (text[at] == '.' && at > 0 && decimals < 0) {
            decimals = 0;
        } else {
            return false;
        }
    }
    if (decimals != 6) {
        return false;
    }
    size_t skipped = std::min(at + 1, len);
    reader->entry.us = zone_local(reader->set->zone, us);
    reader->entry.text = text + skipped;
    reader->entry.len = len - skipped;
    return true;
}

// Fills the entry from a line. Result: whether the line has a time of its own; if not, the entry has the last one.
bool read_line(source_reader *reader, const char *text, size_t len) {
    reader->entry = log_entry();
    reader->entry.us = reader->last_us;
    reader->entry.digits = reader->last_digits;
    reader->entry.text = text;
    reader->entry.len = len;
    switch (reader->source) {
        case SOURCE_SA: return read_agent_line(reader, text, len);
        case SOURCE_KERNEL: return read_kernel_line(reader, text, len);
        case SOURCE_PACKETS: return read_packet_line(reader, text, len);
        default: return read_logcat_line(reader, text, len);
    }
}

// ---- Files

// Lines before the first one that has a time belong to that time: the rest of a line, or a header.
void find_first_time(source_reader *reader) {
    const char *text = nullptr;
    size_t len = 0;
    reader->last_us = reader->last_us == NO_TIME ? reader->set->saved : reader->last_us;
    while (line_reader_next(&reader->lines, &text, &len)) {
        if (read_line(reader, text, len)) {
            reader->last_us = reader->entry.us;
            reader->last_digits = reader->entry.digits;
            break;
        }
    }
    line_reader_rewind(&reader->lines);
}

bool open_file(source_reader *reader, const std::string &path, std::vector<byte_range> ranges) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st = {};
    if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        say("%s is left out: %s.", path.c_str(), fd < 0 ? strerror(errno) : "it is not a file");
        close(fd);
        return false;
    }
    if (ranges.empty()) {
        ranges.push_back({0, st.st_size});
    }
    line_reader_open(&reader->lines, fd, ranges);
    find_first_time(reader);
    return true;
}

// tcpdump decodes a capture; it must not look up names, which would use the network.
bool open_capture(source_reader *reader, const std::string &path) {
    int in = -1;
    int out = -1;
    if (!program_pipe(&in, &out)) {
        return false;
    }
    reader->program = program_start({"tcpdump", "-n", "-tt", "-r", path}, -1, out, true);
    close(out);
    if (reader->program < 0) {
        say("Packets are left out: tcpdump cannot be run (%s). It is in the package tcpdump.", strerror(errno));
        close(in);
        reader->file = reader->files.size();
        return false;
    }
    line_reader_open(&reader->lines, in, {});
    return true;
}

bool open_next(source_reader *reader) {
    size_t file = reader->file++;
    reader->has_lines = false;
    if (reader->source == SOURCE_KERNEL) {
        const kernel_file &kernel = reader->kernels[file];
        reader->last_us = kernel.last == NO_TIME ? kernel.header : NO_TIME;
        return open_file(reader, kernel.path, kernel.ranges);
    }
    return reader->source == SOURCE_PACKETS ? open_capture(reader, reader->files[file])
                                            : open_file(reader, reader->files[file], {});
}

void close_current(source_reader *reader) {
    line_reader_close(&reader->lines);
    if (reader->program < 0) {
        return;
    }
    // A capture that was copied while it was written ends in the middle of a packet: a failure only when nothing came.
    if (program_wait(reader->program) != 0 && !reader->has_lines) {
        say("%s is left out: tcpdump cannot read it.", reader->files[reader->file - 1].c_str());
    }
    reader->program = -1;
}

uint32_t read_word(const unsigned char *bytes, bool is_big_endian) {
    uint32_t word = 0;
    for (int i = 0; i < 4; ++i) {
        word |= static_cast<uint32_t>(bytes[i]) << (is_big_endian ? 24 - 8 * i : 8 * i);
    }
    return word;
}

// The time of a capture's first packet, in seconds. Result: false when it has none.
bool read_first_packet(const std::string &path, uint32_t *seconds) {
    unsigned char bytes[PCAP_HEADER_SIZE + 4];
    FILE *file = fopen(path.c_str(), "re");
    if (file == nullptr) {
        return false;
    }
    bool is_whole = fread(bytes, 1, sizeof(bytes), file) == sizeof(bytes);
    fclose(file);
    if (is_whole) {
        *seconds = read_word(bytes + PCAP_HEADER_SIZE, bytes[0] == 0xa1);  // the magic number a1b2c3d4
    }
    return is_whole;
}

// tcpdump reuses its files in turn, and starts with the first again when it is restarted: the first packets tell the
// order. A file without a packet is left out.
std::vector<std::string> list_captures(const log_set &set) {
    std::vector<std::pair<uint32_t, std::string>> found;
    for (const std::string &path : log_set_numbered(set, "ipdata.pcap")) {
        uint32_t seconds = 0;
        if (read_first_packet(path, &seconds)) {
            found.emplace_back(seconds, path);
        }
    }
    std::sort(found.begin(), found.end());
    std::vector<std::string> paths;
    for (const auto &row : found) {
        paths.push_back(row.second);
    }
    return paths;
}

bool is_kernel_header(const source_reader &reader, const char *text, size_t len) {
    int64_t us = 0;
    return reader.source == SOURCE_KERNEL && kernel_read_header(text, len, &us);
}

}  // namespace

void source_open(source_reader *reader, log_source source, const log_set &set) {
    static const char *const bases[SOURCE_COUNT] = {"", "logcat.log", "logcat-events.log", "logcat-radio.log", "sa.log",
                                                    ""};
    reader->source = source;
    reader->set = &set;
    reader->rule = time_rule(set.saved);
    if (source == SOURCE_KERNEL) {
        reader->kernels = kernel_open(set, &reader->is_estimated);
        reader->files.resize(reader->kernels.size());
    } else {
        reader->files = source == SOURCE_PACKETS ? list_captures(set) : log_set_generations(set, bases[source]);
    }
    source_next(reader);
}

void source_next(source_reader *reader) {
    const char *text = nullptr;
    size_t len = 0;
    reader->has_entry = false;
    while (!reader->has_entry) {
        if (reader->lines.fd < 0) {
            if (reader->file == reader->files.size()) {
                return;
            }
            open_next(reader);
        } else if (!line_reader_next(&reader->lines, &text, &len)) {
            close_current(reader);
        } else if (!is_kernel_header(*reader, text, len)) {
            read_line(reader, text, len);
            reader->last_us = reader->entry.us;
            reader->last_digits = reader->entry.digits;
            reader->has_lines = true;
            reader->has_entry = true;
        }
    }
}

void source_close(source_reader *reader) {
    reader->has_lines = true;  // what was not read is no failure
    if (reader->program > 0) {
        kill(reader->program, SIGKILL);
    }
    close_current(reader);
}
