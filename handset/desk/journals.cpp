// What happened in a handset: the journals of its init and of its log daemon, and waiting. State: in the handle, how
// far the log journal has been read, so that waiting in a long log stays cheap.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>

#include "handle.h"

static std::vector<std::string> split(const std::string &text, char separator) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t end; (end = text.find(separator, start)) != std::string::npos; start = end + 1) {
        parts.push_back(text.substr(start, end - start));
    }
    parts.push_back(text.substr(start));
    return parts;
}

// Undoes \t \n \r \\ and \xNN.
static std::string unescape(const std::string &text) {
    std::string plain;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            plain += text[i];
            continue;
        }
        char c = text[++i];
        if (c == 'x' && i + 2 < text.size()) {
            plain += static_cast<char>(strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
            i += 2;
        } else {
            plain += c == 't' ? '\t' : c == 'n' ? '\n' : c == 'r' ? '\r' : c;
        }
    }
    return plain;
}

std::vector<desk_event> desk_events(desk *h, const std::string &kind) {
    std::vector<desk_event> events;
    std::string text = desk_file_text(h, "/dev/.desk/init.journal");
    std::vector<std::string> lines = split(text, '\n');
    lines.pop_back();
    for (const std::string &line : lines) {
        std::vector<std::string> fields = split(line, '\t');
        if (fields.size() < 2 || (!kind.empty() && fields[1] != kind)) {
            continue;
        }
        desk_event event;
        event.time = atof(fields[0].c_str());
        event.kind = fields[1];
        for (size_t i = 2; i < fields.size(); i++) {
            event.fields.push_back(unescape(fields[i]));
        }
        events.push_back(event);
    }
    return events;
}

// "seq sec.nsec buffer pid tid uid priority tag text", separated by tabs.
static bool parse_log(const std::string &line, desk_log_entry *entry) {
    std::vector<std::string> fields = split(line, '\t');
    if (fields.size() < 9) {
        return false;
    }
    entry->sequence = strtoull(fields[0].c_str(), nullptr, 10);
    entry->time = atof(fields[1].c_str());
    entry->buffer = fields[2];
    entry->pid = atoi(fields[3].c_str());
    entry->tid = atoi(fields[4].c_str());
    entry->uid = static_cast<uid_t>(strtoul(fields[5].c_str(), nullptr, 10));
    entry->priority = fields[6].empty() ? '\0' : fields[6][0];
    entry->tag = unescape(fields[7]);
    entry->text = unescape(fields[8]);
    return true;
}

// Takes what the daemon has added since the last look. The handle's mutex is held.
static void read_on(desk *h) {
    int fd = desk_open(h, "/dev/.desk/log.journal", O_RDONLY);
    if (fd < 0) {
        return;
    }
    char buf[65536];
    ssize_t got;
    while ((got = pread(fd, buf, sizeof(buf), static_cast<off_t>(h->log_offset))) > 0) {
        h->log_offset += static_cast<uint64_t>(got);
        h->log_rest.append(buf, static_cast<size_t>(got));
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
    read_on(h);
    std::vector<desk_log_entry> chosen;
    std::copy_if(h->log.begin(), h->log.end(), std::back_inserter(chosen),
                 [&tag](const desk_log_entry &entry) { return tag.empty() || entry.tag == tag; });
    return chosen;
}

static uint64_t find_log(desk *h, uint64_t from, const std::function<bool(const desk_log_entry &)> &wanted) {
    std::lock_guard<std::mutex> lock(h->log_mutex);
    read_on(h);
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

bool desk_until(const std::function<bool()> &condition, int limit_ms) {
    int64_t end = desk_now_ms() + limit_ms;
    for (useconds_t pause = 1000;; pause = std::min<useconds_t>(pause * 2, 20000)) {
        if (condition()) {
            return true;
        }
        if (desk_now_ms() >= end) {
            return condition();  // a slow machine may have been away since the look above
        }
        usleep(pause);
    }
}

bool desk_wait_path(desk *h, const std::string &path, bool present, int limit_ms) {
    return desk_until([&] { return desk_exists(h, path) == present; }, limit_ms);
}

bool desk_wait_text(desk *h, const std::string &path, const std::string &part, int limit_ms) {
    return desk_until([&] { return desk_file_text(h, path).find(part) != std::string::npos; }, limit_ms);
}

bool desk_wait_gone(desk *h, pid_t pid, int limit_ms) {
    return desk_wait_path(h, "/proc/" + std::to_string(pid), false, limit_ms);
}
