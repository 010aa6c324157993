#pragma once
// Framed input of a remote command: base64 lines, so that the end of a file can be told.

#include <cstddef>
#include <string>

// Bytes of one full line: a multiple of three, so that only the last line is padded.
constexpr size_t FRAME_BYTES = 57;

// Appends one line with `len` bytes of `bytes` from `at` on.
void frame_line(const std::string &bytes, size_t at, size_t len, std::string *out);
