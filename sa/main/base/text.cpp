// Bounded formatting and copying. No state.
#include "sa/main/base/text.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

void sa_format(char *text_ptr, size_t size, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vsnprintf(text_ptr, size, fmt, args);
    va_end(args);
}

void sa_copy_cut(char *field_ptr, size_t size, const char *text) {
    const size_t length = strnlen(text, size - 1);
    memcpy(field_ptr, text, length);
    field_ptr[length] = '\0';
}
