// Typed values of binary records, in bytes and as text.
#ifndef HANDSET_LOGD_EVENT_VALUES_H
#define HANDSET_LOGD_EVENT_VALUES_H

#include <stddef.h>
#include <stdint.h>

#include <string>

// Types of a value, the byte in front of it.
enum log_event_type {
    LOG_EVENT_INT = 0,     // 4 bytes
    LOG_EVENT_LONG = 1,    // 8 bytes
    LOG_EVENT_STRING = 2,  // length in 4 bytes, then that many bytes, no NUL
    LOG_EVENT_LIST = 3,    // count in 1 byte, then that many values
    LOG_EVENT_FLOAT = 4,   // 4 bytes
};

// The values as people read them: numbers and strings as they are, a list as "[a,b,c]". What is cut off or of an
// unknown type ends the text; false then, with what could be read before it.
bool log_event_text(const unsigned char *values, size_t length, std::string *out);

#endif
