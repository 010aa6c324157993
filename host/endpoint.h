#pragma once
// The client's end of a pseudo-terminal that the agent has published under a fixed name.

#include <cstdint>
#include <string>

#include "options.h"

// Opens a path of the handset (device or link, absolute) read-write and non-blocking, close-on-exec, never as
// controlling terminal. Links are followed inside `root`, absolute ones too, so /proc/PID/root reaches a handset from
// outside. Result: descriptor, owned by the caller, or -1 with errno.
int open_inside(const std::string &root, const std::string &path);

// Puts a terminal into raw mode: bytes pass unchanged in both directions. Result: 0, or -1 with errno.
int set_raw(int fd);

// Opens a published endpoint for one conversation: exclusive among all sa-host on this machine, raw, and never used by
// an earlier client, so that no stray answer can be read and no request falls into an endpoint that is being replaced.
// Waits a second for a missing endpoint and until `deadline_ms` (now_ms clock) for a busy one, then says why not.
// `path` is the published name, `role` names it in sentences ("command channel"). Closing the descriptor ends the turn.
// Result: descriptor, owned by the caller, or -1 with the sentence said.
int endpoint_open(const host_options &options, const std::string &path, const char *role, int64_t deadline_ms);

// Writes the whole text within the deadline. Result: 0, or -1 with errno (ETIMEDOUT: the other side does not read).
int write_all(int fd, const char *data, size_t len, int64_t deadline_ms);

// Reads what there is, waiting for the first byte until the deadline.
// Result: bytes read; 0 when the other side has gone; -1 with errno (ETIMEDOUT when nothing came).
long read_some(int fd, char *data, size_t size, int64_t deadline_ms);
