// Reader of the typed values of binary records. No state.
#include "handset/logd/event_values.h"

#include <stdio.h>
#include <string.h>

struct cursor {
    const unsigned char *at;
    size_t left;
};

static constexpr int kDepthMax = 8;  // lists in lists; others wrote the bytes, so there is an end to following them

static bool take(cursor *from, void *to, size_t size) {
    if (from->left < size) {
        return false;
    }
    memcpy(to, from->at, size);
    from->at += size;
    from->left -= size;
    return true;
}

static bool int_text(cursor *from, std::string *out) {
    int32_t value;
    if (!take(from, &value, sizeof value)) {
        return false;
    }
    *out += std::to_string(value);
    return true;
}

static bool long_text(cursor *from, std::string *out) {
    int64_t value;
    if (!take(from, &value, sizeof value)) {
        return false;
    }
    *out += std::to_string(value);
    return true;
}

static bool float_text(cursor *from, std::string *out) {
    float value;
    if (!take(from, &value, sizeof value)) {
        return false;
    }
    char text[64];
    snprintf(text, sizeof text, "%f", static_cast<double>(value));
    *out += text;
    return true;
}

static bool string_text(cursor *from, std::string *out) {
    uint32_t length;
    if (!take(from, &length, sizeof length)) {
        return false;
    }
    const size_t present = length < from->left ? length : from->left;
    out->append(reinterpret_cast<const char *>(from->at), present);
    from->at += present;
    from->left -= present;
    return present == length;
}

static bool value_text(cursor *from, int depth, std::string *out);

static bool list_text(cursor *from, int depth, std::string *out) {
    unsigned char count;
    if (depth == kDepthMax || !take(from, &count, 1)) {
        return false;
    }
    *out += '[';
    for (unsigned i = 0; i < count; i++) {
        *out += i == 0 ? "" : ",";
        if (!value_text(from, depth + 1, out)) {
            return false;
        }
    }
    *out += ']';
    return true;
}

static bool value_text(cursor *from, int depth, std::string *out) {
    unsigned char type;
    if (!take(from, &type, 1)) {
        return false;
    }
    switch (type) {
        case LOG_EVENT_INT: return int_text(from, out);
        case LOG_EVENT_LONG: return long_text(from, out);
        case LOG_EVENT_STRING: return string_text(from, out);
        case LOG_EVENT_LIST: return list_text(from, depth, out);
        case LOG_EVENT_FLOAT: return float_text(from, out);
        default: return false;
    }
}

bool log_event_text(const unsigned char *values, size_t length, std::string *out) {
    cursor from = {values, length};
    out->clear();
    return length == 0 || value_text(&from, 0, out);
}
