#pragma once
// Reads and writes with a deadline, on any non-blocking descriptor.

#include <cstddef>
#include <cstdint>

// Writes the whole text within the deadline (now_ms clock). Result: 0, or -1 with errno (ETIMEDOUT: the other side does
// not read).
int write_all(int fd, const char *data, size_t len, int64_t deadline_ms);

// Reads what there is, waiting for the first byte until the deadline.
// Result: bytes read; 0 when the other side has gone; -1 with errno (ETIMEDOUT when nothing came).
long read_some(int fd, char *data, size_t size, int64_t deadline_ms);
