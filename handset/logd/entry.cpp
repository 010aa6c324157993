// Converts records to lines. No state.
#include "handset/logd/entry.h"

#include <stdio.h>
#include <string.h>

#include "handset/common/journal.h"
#include "handset/logd/wire.h"

static const unsigned kKernelBuffer = 7;  // the kernel fills it, programs do not
static const int kMaxDepth = 8;           // of lists in lists

struct cursor {
    const char *at;
    size_t left;
};

static bool take(cursor *from, void *to, size_t size) {
    if (from->left < size) {
        return false;
    }
    memcpy(to, from->at, size);
    from->at += size;
    from->left -= size;
    return true;
}

template <typename number>
static bool append_number(cursor *from, std::string *out) {
    number value;
    if (!take(from, &value, sizeof(value))) {
        return false;
    }
    *out += std::to_string(value);
    return true;
}

// A string that the record cuts off is appended as far as it goes.
static bool append_string(cursor *from, std::string *out) {
    uint32_t length;
    if (!take(from, &length, sizeof(length))) {
        return false;
    }
    const size_t present = length < from->left ? length : from->left;
    out->append(from->at, present);
    from->at += present;
    from->left -= present;
    return present == length;
}

static bool append_value(cursor *from, int depth, std::string *out);

static bool append_list(cursor *from, int depth, std::string *out) {
    unsigned char count;
    if (depth == kMaxDepth || !take(from, &count, 1)) {
        return false;
    }
    *out += '[';
    for (unsigned i = 0; i < count; i++) {
        *out += i == 0 ? "" : ",";
        if (!append_value(from, depth + 1, out)) {
            return false;
        }
    }
    *out += ']';
    return true;
}

// Appends one typed value. False when it is cut off or of an unknown type; the text then ends there.
static bool append_value(cursor *from, int depth, std::string *out) {
    unsigned char type;
    if (!take(from, &type, 1)) {
        return false;
    }
    switch (type) {
        case LOG_EVENT_INT: return append_number<int32_t>(from, out);
        case LOG_EVENT_LONG: return append_number<int64_t>(from, out);
        case LOG_EVENT_FLOAT: return append_number<float>(from, out);
        case LOG_EVENT_STRING: return append_string(from, out);
        case LOG_EVENT_LIST: return append_list(from, depth, out);
        default: return false;
    }
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
    cursor from = {payload, length};
    uint32_t number;
    if (take(&from, &number, sizeof(number))) {
        of.letter = 'I';
        of.tag = std::to_string(number);
        append_value(&from, 0, &of.text);
    }
    return of;
}

static bool is_binary(unsigned buffer) {
    const std::string name = log_buffer_name(buffer);
    return name == "events" || name == "stats" || name == "security";
}

bool entry_append_line(const char *record, size_t length, const struct ucred &sender, uint64_t number,
                       std::string *lines) {
    log_record_header header;
    if (length <= sizeof(header)) {
        return false;
    }
    memcpy(&header, record, sizeof(header));
    if (header.buffer >= kLogBufferCount || header.buffer == kKernelBuffer) {
        return false;
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
    return true;
}
