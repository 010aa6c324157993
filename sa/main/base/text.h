// Texts in fixed buffers. No state; any thread.
#ifndef SA_MAIN_BASE_TEXT_H
#define SA_MAIN_BASE_TEXT_H

#include <stddef.h>

/** Formats a text into a buffer of `size` bytes. What does not fit is cut off; the text always ends inside the buffer. */
void sa_format(char *text_ptr, size_t size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

/** Copies a text into a field of `size` bytes, cut at size - 1 characters. */
void sa_copy_cut(char *field_ptr, size_t size, const char *text);

#endif
