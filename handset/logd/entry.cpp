// Converts records to lines. No state.
#include "handset/logd/entry.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "handset/common/journal.h"
#include "handset/logd/wire.h"

static const unsigned kKernelBuffer = 7;  // the kernel fills it, programs do not

// The value of an events record: a number or a string, which the record may cut off. "" for another type.
static std::string value_text(const char *value, size_t length) {
    int32_t number;
    uint32_t size;
    if (length >= 1 + sizeof(number) && value[0] == LOG_EVENT_INT) {
        memcpy(&number, value + 1, sizeof(number));
        return std::to_string(number);
    }
    if (length >= 1 + sizeof(size) && value[0] == LOG_EVENT_STRING) {
        memcpy(&size, value + 1, sizeof(size));
        return std::string(value + 1 + sizeof(size), std::min<size_t>(size, length - 1 - sizeof(size)));
    }
    return "";
}

struct content {
    char letter = '?';
    std::string tag;
    std::string text;
};

// Priority, tag, NUL, text, NUL. The final NUL of a record that was cut is missing.
static content text_content(const char *payload, size_t length) {
    content of;
    const char *nul = length > 1 ? static_cast<const char *>(memchr(payload + 1, '\0', length - 1)) : nullptr;
    if (nul != nullptr) {
        of.letter = log_priority_letter(payload[0]);
        of.tag.assign(payload + 1, nul);
        of.text.assign(nul + 1, strnlen(nul + 1, static_cast<size_t>(payload + length - nul - 1)));
    }
    return of;
}

static content event_content(const char *payload, size_t length) {
    content of;
    uint32_t number;
    if (length >= sizeof(number)) {
        memcpy(&number, payload, sizeof(number));
        of.letter = 'I';
        of.tag = std::to_string(number);
        of.text = value_text(payload + sizeof(number), length - sizeof(number));
    }
    return of;
}

static bool is_binary(unsigned buffer) {
    const std::string name = log_buffer_name(buffer);
    return name == "events" || name == "stats" || name == "security";
}

void entry_append_line(const char *record, size_t length, const struct ucred &sender, uint64_t number,
                       std::string *lines) {
    log_record_header header;
    if (length <= sizeof(header)) {
        return;
    }
    memcpy(&header, record, sizeof(header));
    if (header.buffer >= kLogBufferCount || header.buffer == kKernelBuffer) {
        return;
    }
    const char *payload = record + sizeof(header);
    length -= sizeof(header);
    const content of = is_binary(header.buffer) ? event_content(payload, length) : text_content(payload, length);
    char start[160];
    snprintf(start, sizeof(start), "%llu\t%u.%09u\t%s\t%d\t%u\t%u\t%c\t", static_cast<unsigned long long>(number),
             header.sec, header.nsec, log_buffer_name(header.buffer), sender.pid, header.tid, sender.uid, of.letter);
    *lines += start;
    journal_append_field(of.tag, lines);
    *lines += '\t';
    journal_append_field(of.text, lines);
    *lines += '\n';
}
