// The files of the kernel-message collector. A file is overwritten from its beginning when it is full, so behind the
// newest record may stand the oldest ones. Owns no state.

#include "view/kernel_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>

namespace {

constexpr int64_t EARLIEST_CLOCK_US = 946684800 * SECOND_US;  // the year 2000: an earlier clock has not been set yet
constexpr int64_t BOOT_SLACK_US = 2 * SECOND_US;              // the header has whole seconds
constexpr size_t MOST_RANGES = 64;

struct range_scan {
    kernel_file *file;
    off_t range_start = 0;
    int64_t range_first = NO_TIME;  // first record of the range
};

// A record older than all before it in its range begins what an earlier round has left.
void scan_line(range_scan *scan, off_t at, const char *text, size_t len) {
    kernel_file *file = scan->file;
    kernel_stamp stamp;
    if (at == 0 && kernel_read_header(text, len, &file->header)) {
        return;
    }
    if (!kernel_read_stamp(text, len, &stamp) || stamp.us == NO_TIME) {
        return;
    }
    if (scan->range_first != NO_TIME && stamp.us < scan->range_first && file->ranges.size() + 1 < MOST_RANGES) {
        file->ranges.push_back({scan->range_start, at});
        scan->range_start = at;
        scan->range_first = stamp.us;
    }
    scan->range_first = scan->range_first == NO_TIME ? stamp.us : scan->range_first;
    file->first = file->first == NO_TIME ? stamp.us : std::min(file->first, stamp.us);
    file->last = std::max(file->last, stamp.us);
}

bool scan_file(kernel_file *file) {
    int fd = open(file->path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st = {};
    if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        return false;
    }
    line_reader reader;
    line_reader_open(&reader, fd, {{0, st.st_size}});
    range_scan scan = {file};
    const char *text = nullptr;
    size_t len = 0;
    off_t at = 0;
    while (line_reader_next(&reader, &text, &len)) {
        scan_line(&scan, at, text, len);
        at = reader.position - static_cast<off_t>(reader.end - reader.begin);
    }
    file->ranges.push_back({scan.range_start, st.st_size});
    std::reverse(file->ranges.begin(), file->ranges.end());
    line_reader_close(&reader);
    return true;
}

bool has_clock(const kernel_file &file) {
    return file.header >= EARLIEST_CLOCK_US;
}

// Whether `older` was written in the boot that the file after it begins with. The kernel hands out a record once, so
// within a boot the newer file goes on where the older one ends.
bool is_same_boot(const kernel_file &older, const kernel_file &newer, bool is_recorded) {
    if (older.last > newer.first + BOOT_SLACK_US) {
        return false;
    }
    return !is_recorded || !has_clock(older) || older.header >= newer.boot - BOOT_SLACK_US;
}

// Places the files [from, to), which belong to one boot. Nothing of it was written after `end`.
void place_estimated(const std::vector<kernel_file *> &files, size_t from, size_t to, int64_t end) {
    int64_t boot = end - files[to - 1]->last;
    for (size_t i = from; i < to; ++i) {
        boot = has_clock(*files[i]) ? std::min(boot, files[i]->header) : boot;
    }
    for (size_t i = from; i < to; ++i) {
        files[i]->boot = boot;
    }
}

bool is_recorded_boot(const kernel_file &newest, const log_set &set) {
    return set.has_boot && (!has_clock(newest) || newest.header >= set.boot - BOOT_SLACK_US);
}

// Files whose records have times, oldest first.
void place_files(const std::vector<kernel_file *> &files, const log_set &set, bool *is_estimated) {
    int64_t end = set.saved;
    bool is_recorded = !files.empty() && is_recorded_boot(*files.back(), set);
    for (size_t to = files.size(); to > 0;) {
        size_t from = to - 1;
        files[from]->boot = set.boot;
        while (from > 0 && is_same_boot(*files[from - 1], *files[from], is_recorded)) {
            files[--from]->boot = set.boot;
        }
        if (!is_recorded) {
            place_estimated(files, from, to, end);
            *is_estimated = true;
        }
        end = has_clock(*files[from]) ? files[from]->header : files[from]->boot + files[from]->first;
        is_recorded = false;  // only the last boot is recorded
        to = from;
    }
}

}  // namespace

bool kernel_read_stamp(const char *text, size_t len, kernel_stamp *stamp) {
    size_t at = 1;
    int priority = 0;
    while (at < len && at < 5 && text[at] >= '0' && text[at] <= '9') {
        priority = priority * 10 + (text[at++] - '0');
    }
    if (len < 3 || text[0] != '<' || at == 1 || at >= len || text[at] != '>') {
        return false;
    }
    stamp->level = priority & 7;  // the rest is the facility
    stamp->us = NO_TIME;
    if (++at >= len || text[at++] != '[') {
        return true;
    }
    while (at < len && text[at] == ' ') {
        ++at;
    }
    int64_t us = 0;
    int decimals = -1;
    for (; at < len && decimals < 6 && ((text[at] >= '0' && text[at] <= '9') || (text[at] == '.' && decimals < 0));
         ++at) {
        us = text[at] == '.' ? us : us * 10 + (text[at] - '0');
        decimals += decimals >= 0 || text[at] == '.' ? 1 : 0;
        if (us > INT64_MAX / 20) {
            return true;
        }
    }
    // Some kernels put the processor's number behind a comma.
    if (decimals == 6 && at < len && (text[at] == ']' || text[at] == ',')) {
        stamp->us = us;
    }
    return true;
}

bool kernel_read_header(const char *text, size_t len, int64_t *us) {
    line_time time;
    if (len != sizeof("[YYYY-MM-DD hh:mm:ss]") - 1 || text[0] != '[' || text[len - 1] != ']' ||
        !time_read_date(text + 1, len - 2, &time)) {
        return false;
    }
    *us = time.us;
    return true;
}

std::vector<kernel_file> kernel_open(const log_set &set, bool *is_estimated) {
    std::vector<kernel_file> files;
    std::vector<kernel_file *> timed;
    *is_estimated = false;
    for (const std::string &path : log_set_generations(set, "kmsg.log")) {
        kernel_file file;
        file.path = path;
        if (scan_file(&file)) {
            files.push_back(file);
        }
    }
    for (kernel_file &file : files) {
        if (file.last != NO_TIME) {
            timed.push_back(&file);
        }
    }
    place_files(timed, set, is_estimated);
    return files;
}
