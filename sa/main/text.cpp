// Formatting with the bound in view. No state.
#include "sa/main/text.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "sa/main/log.h"

bool sa_format(char *text_ptr, size_t size, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const int length = vsnprintf(text_ptr, size, fmt, args);
    va_end(args);
    if (length >= 0 && static_cast<size_t>(length) < size) {
        return true;
    }
    sa_log_platform("WARNING !");
    sa_log_platform("text cut to %d of %d characters: %s", static_cast<int>(size) - 1, length, text_ptr);
    return false;
}

void sa_copy_cut(char *field_ptr, size_t size, const char *text) {
    const size_t length = strnlen(text, size - 1);
    memcpy(field_ptr, text, length);
    field_ptr[length] = '\0';
}
