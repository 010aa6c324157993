#pragma once
// A client of the adb server of this machine. The server reaches the handset's adb daemon over USB or a network.

#include <cstdint>
#include <string>

// The server's own sentence for what it refused, and what a person can do about it. Empty: nothing was refused.
struct adb_refusal {
    std::string said;       // "more than one device/emulator"
    std::string advice;     // a whole sentence
    bool may_pass = false;  // the handset is not connected, or not yet
};

// Starts the server if none runs and adb is installed here. Result: whether one listens now, or false with the refusal.
bool adb_need_server(int64_t deadline_ms, adb_refusal *refusal);

// Asks which handset is meant when none is named: the only one there is.
// Result: true with `serial`, or false with the refusal.
bool adb_find_serial(int64_t deadline_ms, std::string *serial, adb_refusal *refusal);

// Opens a service of the handset's daemon ("dev:/dev/ttyCMD0", "sync:", "exec:sh").
// A service that the daemon itself refuses is told apart from a handset that cannot be reached by `is_reached`.
// Result: a non-blocking, close-on-exec stream owned by the caller, or -1 with the refusal.
int adb_open(const std::string &serial, const std::string &service, int64_t deadline_ms, bool *is_reached,
             adb_refusal *refusal);

// Asks whether the handset is connected now. Result: true, or false with the refusal.
bool adb_is_connected(const std::string &serial, int64_t deadline_ms, adb_refusal *refusal);

// Reads exactly `size` bytes of a stream within the deadline. Result: whether they came.
bool adb_read_exactly(int fd, void *data, size_t size, int64_t deadline_ms);
