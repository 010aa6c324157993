// The journal's file. State: the file, the bytes in it, and the sum of losses that senders have told; all of it
// belongs to the thread that writes, once the file is open.
#include "handset/logd/journal.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "handset/logd/event_values.h"

static constexpr char kDirectory[] = "/dev/.desk";
static constexpr char kJournal[] = "/dev/.desk/log.journal";
static constexpr char kLost[] = "/dev/.desk/log.lost";
static constexpr off_t kJournalMax = 256 << 20;
static constexpr uint32_t kLostTag = 1006;  // an events record by which a sender tells how many entries it dropped

static int m_fd = -1;
static off_t m_size = 0;
static uint64_t m_lost = 0;

static void append_escaped(const std::string &text, std::string *out) {
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        switch (c) {
            case '\n': *out += "\\n"; continue;
            case '\t': *out += "\\t"; continue;
            case '\r': *out += "\\r"; continue;
            case '\\': *out += "\\\\"; continue;
            default: break;
        }
        if (byte >= ' ' && byte != 0x7f) {
            *out += c;
            continue;
        }
        char code[8];
        snprintf(code, sizeof code, "\\x%02X", byte);
        *out += code;
    }
}

static void take_apart(const log_entry &entry, char *letter, std::string *tag, std::string *text) {
    const auto *payload = reinterpret_cast<const unsigned char *>(entry.payload.data());
    log_text parts;
    log_event event;
    *letter = '?';
    if (log_buffer_is_binary(entry.header.buffer)) {
        if (log_split_event(payload, entry.payload.size(), &event)) {
            *letter = 'I';
            *tag = std::to_string(event.number);
            log_event_text(event.values, event.values_length, text);
        }
    } else if (log_split_text(payload, entry.payload.size(), &parts)) {
        *letter = log_priority_letter(parts.priority);
        tag->assign(parts.tag, parts.tag_length);
        text->assign(parts.text, parts.text_length);
    }
}

std::string journal_line(const log_entry &entry) {
    char letter;
    std::string tag;
    std::string text;
    take_apart(entry, &letter, &tag, &text);
    const log_answer_header &of = entry.header;
    char start[160];
    snprintf(start, sizeof start, "%llu\t%u.%09u\t%s\t%d\t%u\t%u\t%c\t",
             static_cast<unsigned long long>(entry.sequence), of.sec, of.nsec, log_buffer_name(of.buffer), of.pid,
             of.tid, of.uid, letter);
    std::string line = start;
    append_escaped(tag, &line);
    line += '\t';
    append_escaped(text, &line);
    line += '\n';
    return line;
}

// What senders could not deliver, as a number in a file of its own.
static void count_losses(const log_entry &entry) {
    const auto *payload = reinterpret_cast<const unsigned char *>(entry.payload.data());
    log_event event;
    int32_t count = 0;
    if (!log_buffer_is_binary(entry.header.buffer) || !log_split_event(payload, entry.payload.size(), &event) ||
        event.number != kLostTag || event.values_length != 1 + sizeof count || event.values[0] != LOG_EVENT_INT) {
        return;
    }
    memcpy(&count, event.values + 1, sizeof count);
    m_lost += static_cast<uint32_t>(count);
    FILE *file = fopen(kLost, "we");
    if (file != nullptr) {
        fprintf(file, "%llu\n", static_cast<unsigned long long>(m_lost));
        fclose(file);
    }
}

static void append(const std::string &lines) {
    const char *at = lines.data();
    size_t left = lines.size();
    while (left > 0) {
        const ssize_t written = write(m_fd, at, left);
        if (written == -1 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return;  // no room: the journal has a gap, which the running numbers show
        }
        at += written;
        left -= static_cast<size_t>(written);
        m_size += written;
    }
}

// Number of the last whole line, 0 if there is none. A line that the end of an earlier daemon cut off is ended here.
static uint64_t last_number() {
    char tail[3 * kLogPayloadMax * 4];  // more than two lines, every byte of them escaped
    const off_t start = m_size > static_cast<off_t>(sizeof tail) ? m_size - static_cast<off_t>(sizeof tail) : 0;
    const ssize_t length = pread(m_fd, tail, sizeof tail, start);
    if (length <= 0) {
        return 0;
    }
    std::string text(tail, static_cast<size_t>(length));
    if (text.back() != '\n') {
        append("\n");
        text.resize(text.rfind('\n') == std::string::npos ? 0 : text.rfind('\n') + 1);
    }
    const size_t before = text.size() < 2 ? std::string::npos : text.rfind('\n', text.size() - 2);
    return strtoull(text.c_str() + (before == std::string::npos ? 0 : before + 1), nullptr, 10);
}

bool journal_open(uint64_t *last) {
    *last = 0;
    if (mkdir(kDirectory, 0755) == -1 && errno != EEXIST) {
        return false;
    }
    m_fd = open(kJournal, O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (m_fd == -1) {
        return false;
    }
    m_size = lseek(m_fd, 0, SEEK_END);
    *last = last_number();
    return true;
}

void journal_write(const std::vector<log_entry> &entries) {
    std::string lines;
    for (const log_entry &entry : entries) {
        count_losses(entry);
        lines += journal_line(entry);
    }
    if (m_fd != -1 && m_size < kJournalMax) {
        append(lines);
    }
}
