// Names of buffers and priorities, and the pieces of a payload. No state.
#include "handset/logd/wire.h"

#include <string.h>

static const char *const kBufferNames[kLogBufferCount] = {
    "main", "radio", "events", "system", "crash", "stats", "security", "kernel",
};

const char *log_buffer_name(unsigned buffer) {
    return buffer < kLogBufferCount ? kBufferNames[buffer] : nullptr;
}

int log_buffer_number(const char *name) {
    for (unsigned i = 0; i < kLogBufferCount; i++) {
        if (strcmp(kBufferNames[i], name) == 0) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

bool log_buffer_is_binary(unsigned buffer) {
    const char *name = log_buffer_name(buffer);
    return name != nullptr &&
           (strcmp(name, "events") == 0 || strcmp(name, "stats") == 0 || strcmp(name, "security") == 0);
}

char log_priority_letter(int priority) {
    static const char letters[] = "??VDIWEFS";
    const bool known = priority >= 0 && priority < static_cast<int>(sizeof letters - 1);
    return known ? letters[priority] : '?';
}

bool log_split_text(const unsigned char *payload, size_t length, log_text *out) {
    const char *bytes = reinterpret_cast<const char *>(payload);
    if (length < 2) {
        return false;
    }
    const auto *end_of_tag = static_cast<const char *>(memchr(bytes + 1, '\0', length - 1));
    if (end_of_tag == nullptr) {
        return false;
    }
    out->priority = payload[0];
    out->tag = bytes + 1;
    out->tag_length = static_cast<size_t>(end_of_tag - out->tag);
    out->text = end_of_tag + 1;
    out->text_length = strnlen(out->text, length - 2 - out->tag_length);
    return true;
}

bool log_split_event(const unsigned char *payload, size_t length, log_event *out) {
    if (length < sizeof out->number) {
        return false;
    }
    memcpy(&out->number, payload, sizeof out->number);
    out->values = payload + sizeof out->number;
    out->values_length = length - sizeof out->number;
    return true;
}
