// Names of buffers and priorities. No state.
#include "handset/logd/wire.h"

#include <ctype.h>
#include <string.h>

static const char *const kBufferNames[kLogBufferCount] = {
    "main", "radio", "events", "system", "crash", "stats", "security", "kernel",
};
static const char kPriorityLetters[] = "??VDIWEFS";

const char *log_buffer_name(unsigned buffer) {
    return kBufferNames[buffer];
}

int log_buffer_number(const char *name) {
    for (unsigned i = 0; i < kLogBufferCount; i++) {
        if (strcmp(kBufferNames[i], name) == 0) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

char log_priority_letter(int priority) {
    const bool is_known = priority >= 0 && priority < static_cast<int>(sizeof(kPriorityLetters)) - 1;
    return is_known ? kPriorityLetters[priority] : '?';
}

int log_priority_number(char letter) {
    const char *found = letter != '\0' ? strchr(kPriorityLetters + 2, toupper(letter)) : nullptr;
    return found != nullptr ? static_cast<int>(found - kPriorityLetters) : 0;
}
