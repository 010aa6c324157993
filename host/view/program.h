#pragma once
// Programs of this machine that `view` uses: tcpdump, gzip, the pager.

#include <sys/types.h>
#include <string>
#include <vector>

// Starts a program found by PATH, with default signals. `in_fd` and `out_fd` become its standard input and output (-1:
// this process's own); `is_quiet` sends its standard error to /dev/null. Result: its process id, or -1 with errno.
pid_t program_start(const std::vector<std::string> &words, int in_fd, int out_fd, bool is_quiet);

// Waits for its end. Result: its exit status, or 128 and the signal's number.
int program_wait(pid_t pid);

// Makes a pipe that no program inherits. Result: whether that worked.
bool program_pipe(int *read_fd, int *write_fd);

// Writes everything. Result: false with errno.
bool write_whole(int fd, const char *data, size_t len);
