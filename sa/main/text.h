// Texts in fixed buffers.
#ifndef SA_MAIN_TEXT_H
#define SA_MAIN_TEXT_H

#include <stddef.h>

/**
 * Formats a text into a buffer. What does not fit is cut off and reported in the platform log; the text always ends
 * inside the buffer. Any thread.
 *
 * @return whether all of it fitted.
 */
bool sa_format(char *text_ptr, size_t size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

/** Copies a text into a field, cut without a word at size - 1 characters: for fields whose length is part of their meaning. */
void sa_copy_cut(char *field_ptr, size_t size, const char *text);

#endif
