// Checks UTF-8.
#ifndef HANDSET_COMMON_UTF8_H
#define HANDSET_COMMON_UTF8_H

#include <string>

// Bytes of the well-formed character at `at`, which is below the text's size; 0 when there is none.
size_t utf8_length(const std::string &text, size_t at);

#endif
