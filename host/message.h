#pragma once
// What sa-host says to a person: sentences on standard error, and one transient progress line on a terminal.

#include <cstdint>
#include <string>

// Exit statuses of every sub-command but `shell`, which passes on the remote command's own.
enum host_status {
    HOST_OK = 0,       // answered OK, or done
    HOST_ERROR = 1,    // answered ERROR, or a step failed
    HOST_NO_WAY = 2,   // no channel, busy, hung up or no answer in time
    HOST_REFUSED = 3,  // wrong usage, or a request that cannot be written; nothing was sent
    HOST_STOPPED = 4,  // `query -q` alone: the service does not run
    HOST_SHELL = 255,  // `shell` alone: sa-host itself failed, not the remote command
};

// Writes one sentence to standard error, with the program's name in front and a newline behind. Wipes the progress
// line.
void say(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Writes to standard output at once. The first failure is kept for print_finish and nothing is written after it. When
// the reader has gone, the process ends by SIGPIPE, quietly.
void print(const char *format, ...) __attribute__((format(printf, 1, 2)));
void print_text(const std::string &text);

// Whether all output could be written so far.
bool print_is_good();

// To be called last: says why output could not be written, if so, and turns the status into a failure.
// Result: the exit status of the process.
int print_finish(int status);

// Shows `text` in place of the last progress line when standard error is a terminal; else does nothing.
void progress_show(const std::string &text);

// Wipes the progress line, if one is shown.
void progress_clear();

// "12 B", "3.4 kB", "120.3 MB": a number of bytes for a person.
std::string in_bytes(uint64_t count);

// "0:07", "12:34", "1:02:03": a number of seconds for a person.
std::string in_time(uint64_t seconds);

// printf into a string.
std::string text_of(const char *format, ...) __attribute__((format(printf, 1, 2)));

// `text` as a string of JSON, in its quotes. Bytes that are no UTF-8 text become U+FFFD.
std::string json_quoted(const std::string &text);

// Milliseconds of the monotonic clock.
int64_t now_ms();
