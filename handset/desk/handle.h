// What the files of the desk library share: the handle, and functions that are not for users of the library. A file
// calls those listed before it: base, in_place, control, files, journals, programs, services, reports, boot.
#ifndef HANDSET_DESK_HANDLE_H
#define HANDSET_DESK_HANDLE_H

#include <mutex>

#include "handset/desk/desk.h"
#include "handset/desk/in_place.h"

// One handset. The descriptors are open while it is booted, -1 else; `data_ns` is kept over reboots.
struct desk {
    desk_options options;
    int register_fd = -1;    // in place: the register, locked while the handle exists
    int data_ns = -1;        // mount namespace that holds the file system of /data
    std::string data_mount;  // its mount point there
    bool attached = false;   // booted by another process
    bool same_data = false;  // this boot found the /data of an earlier boot with the same options
    bool kept_data = false;  // this boot found the /data of an earlier boot
    pid_t sandbox = -1;      // bwrap, a child of this process; in place: init itself
    pid_t init = -1;         // the handset's first process
    int init_fd = -1;        // socket to init, which ends the handset when this is closed
    int root = -1;           // the handset's root directory
    int reports = -1;        // the directory of sanitizers' reports
    std::mutex log_mutex;    // guards the three below: what has been read of the log journal
    std::vector<desk_log_entry> log;
    off_t log_offset = 0;
    std::string log_rest;
};

// ---- base.cpp -------------------------------------------------------------------------------------------------------

// Stores the reason of a failure and returns false; the second adds errno's text.
bool desk_fail(const std::string &reason);
bool desk_fail_errno(const std::string &what);

// ---- in_place.cpp ---------------------------------------------------------------------------------------------------

// Reports that a handset in place does not have `what`, and returns false.
bool in_place_missing(const std::string &what);
// False, with the reason stored, when the options ask for what a handset in place does not have.
bool in_place_allows(const desk_options &options);
// Whether a path belongs to a handset in place; false with the reason stored.
bool in_place_owns(const std::string &path);
// Opens and locks the register; -1 when another handset still holds the lock after the limit.
int in_place_lock(int limit_ms);
void in_place_unlock(int fd);
// Overwrites the agent's name in this process' first argument. The agent would take this process for another agent.
void in_place_hide_name();

// ---- control.cpp: requests to a handset's init ----------------------------------------------------------------------

// Opens a connection to init's control socket; -1 on failure.
int control_connect(const desk *h);
// Sends one request, with descriptors.
bool control_send(int fd, const std::vector<std::string> &words, const std::vector<int> &fds = {});
// The next answer; "" when the connection has ended or the limit has passed. `sender`, if given, receives the sender's
// pid (SO_PASSCRED must be set on the socket before the answer is sent).
std::string control_receive(int fd, int limit_ms, pid_t *sender = nullptr);
// One request, one answer.
std::string control_ask(const desk *h, const std::vector<std::string> &words, int limit_ms = 30000);
// The number after `word` and a blank in an answer; `fallback` for another answer.
int control_number(const std::string &answer, const std::string &word, int fallback);

// ---- files.cpp ------------------------------------------------------------------------------------------------------

// Names in the directory that `fd` has open, sorted; closes it.
std::vector<std::string> names_in(int fd);
// Appends all that can be read from `fd`; false on an error.
bool read_all(int fd, std::string *text);

// ---- reports.cpp ----------------------------------------------------------------------------------------------------

// NAME=VALUE for sanitizers of everything inside, with the values of this process' environment. None in other builds.
std::vector<std::string> reports_environment();
// Makes the directory of the reports. To be called before anything but init runs.
bool reports_open(desk *h);
// To be called after the handset has ended. Prints all reports on standard error and aborts if there are any, so that no
// test passes.
void reports_close(desk *h);

#endif
