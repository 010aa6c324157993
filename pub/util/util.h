// Descriptor modes and pid files.
#ifndef PUB_UTIL_UTIL_H
#define PUB_UTIL_UTIL_H

#include <stdint.h>

/**
 * Sets or clears a descriptor's non-blocking mode.
 *
 * @param fd                an open descriptor.
 * @param is_nonblock_mode  non-zero: reads and writes of `fd` return at once; zero: they block.
 * @return 0, -101 for a negative descriptor, -118 when the kernel refuses.
 */
int32_t pub_util_set_fd_mode(int32_t fd, int32_t is_nonblock_mode);

/**
 * Writes the calling process's id and a newline to /tmp/NAME.pid. A platform without a writable /tmp has no pid file;
 * that is not an error. The path is cut at 58 characters of the equivalent shell command.
 *
 * @param process_name  the file's base name; null is reported and ignored.
 */
void pub_util_create_pid_file(const char *process_name);

#endif
