// The journals of a handset's init and log daemon. State: in the handle, how much of the log journal has been read, so
// that waiting reads only new lines.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>

#include "handset/common/journal.h"
#include "handset/common/paths.h"
#include "handset/desk/handle.h"

std::vector<desk_event> desk_events(desk *h, const std::string &kind) {
    std::vector<desk_event> events;
    std::vector<std::string> lines = text_split(desk_file_text(h, INIT_JOURNAL), '\n');
    lines.pop_back();
    for (const std::string &line : lines) {
        const std::vector<std::string> fields = journal_fields(line);
        if (fields.size() >= 2 && (kind.empty() || fields[1] == kind)) {
            events.push_back({atof(fields[0].c_str()), fields[1], {fields.begin() + 2, fields.end()}});
        }
    }
    return events;
}

// The fields: number, sec.nsec, buffer, pid, tid, uid, priority, tag, text.
static bool parse_log(const std::string &line, desk_log_entry *entry) {
    const std::vector<std::string> fields = journal_fields(line);
    if (fields.size() != 9) {
        return false;
    }
    entry->sequence = strtoull(fields[0].c_str(), nullptr, 10);
    entry->time = atof(fields[1].c_str());
    entry->buffer = fields[2];
    entry->pid = atoi(fields[3].c_str());
    entry->tid = atoi(fields[4].c_str());
    entry->uid = static_cast<uid_t>(strtoul(fields[5].c_str(), nullptr, 10));
    entry->priority = fields[6].empty() ? '\0' : fields[6][0];
    entry->tag = fields[7];
    entry->text = fields[8];
    return true;
}

// Reads what the daemon has appended since the last call. The caller holds the mutex.
static void read_new_lines(desk *h) {
    int fd = desk_open(h, LOG_JOURNAL, O_RDONLY);
    if (fd < 0) {
        return;
    }
    const off_t data = lseek(fd, h->log_offset, SEEK_DATA);  // the daemon frees the oldest part of a long journal
    if (data >= 0) {
        const size_t before = h->log_rest.size();
        read_all(fd, &h->log_rest);
        h->log_offset = data + static_cast<off_t>(h->log_rest.size() - before);
    }
    close(fd);
    size_t start = 0;
    for (size_t end; (end = h->log_rest.find('\n', start)) != std::string::npos; start = end + 1) {
        desk_log_entry entry;
        if (parse_log(h->log_rest.substr(start, end - start), &entry)) {
            h->log.push_back(entry);
        }
    }
    h->log_rest.erase(0, start);
}

std::vector<desk_log_entry> desk_log(desk *h, const std::string &tag) {
    std::lock_guard<std::mutex> lock(h->log_mutex);
    read_new_lines(h);
    std::vector<desk_log_entry> chosen;
    std::copy_if(h->log.begin(), h->log.end(), std::back_inserter(chosen),
                 [&tag](const desk_log_entry &entry) { return tag.empty() || entry.tag == tag; });
    return chosen;
}

static uint64_t find_log(desk *h, uint64_t from, const std::function<bool(const desk_log_entry &)> &wanted) {
    std::lock_guard<std::mutex> lock(h->log_mutex);
    read_new_lines(h);
    auto found = std::find_if(h->log.begin(), h->log.end(),
                              [&](const desk_log_entry &entry) { return entry.sequence >= from && wanted(entry); });
    return found == h->log.end() ? 0 : found->sequence + 1;
}

static uint64_t wait_log(desk *h, uint64_t from, int limit_ms,
                         const std::function<bool(const desk_log_entry &)> &wanted) {
    uint64_t next = 0;
    desk_until(
        [&] {
            next = find_log(h, from, wanted);
            return next != 0;
        },
        limit_ms);
    return next;
}

uint64_t desk_wait_log(desk *h, const std::string &tag, const std::string &text, uint64_t from, int limit_ms) {
    return wait_log(h, from, limit_ms, [&](const desk_log_entry &e) { return e.tag == tag && e.text == text; });
}

uint64_t desk_wait_log_part(desk *h, const std::string &tag, const std::string &part, uint64_t from, int limit_ms) {
    return wait_log(h, from, limit_ms,
                    [&](const desk_log_entry &e) { return e.tag == tag && e.text.find(part) != std::string::npos; });
}
