// What the desk library's files share: the handle and the way to a handset's init. Not for users of the library.
#ifndef HANDSET_DESK_HANDLE_H
#define HANDSET_DESK_HANDLE_H

#include <mutex>

#include "desk.h"
#include "in_place.h"

// One handset. The descriptors are open while it is booted, -1 else; `data_ns` stays over reboots.
struct desk {
    desk_options options;
    int place = -1;          // in place: the register, locked for as long as the handle lives
    int data_ns = -1;        // mount namespace that holds the file system of /data
    std::string data_place;  // where in it
    bool attached = false;   // booted by another process: not ours to end
    bool same_data = false;  // this boot found the /data of an earlier boot with the same options
    bool kept_data = false;  // this boot found the /data of an earlier boot
    pid_t sandbox = -1;      // the sandbox program, our child; in place: init itself
    pid_t init = -1;         // the handset's first process
    int line = -1;           // to init: closing it ends the handset
    int root = -1;           // the handset's root directory
    int reports = -1;        // the directory of sanitizers' reports
    std::mutex log_mutex;    // over the three below: what has been read of the log journal
    std::vector<desk_log_entry> log;
    uint64_t log_offset = 0;
    std::string log_rest;
};

// Notes a failure's reason and returns false.
bool desk_fail(const std::string &reason);
// The same with errno's text.
bool desk_fail_errno(const std::string &what);

// Tells that a handset in place has not got `what`, and returns false.
bool desk_lacks(const std::string &what);
// False, with the reason told, when options ask for what a handset in place has not got.
bool in_place_allows(const desk_options &options);
// Whether a path belongs to a handset in place; tells when it does not.
bool in_place_owns(const std::string &path);
// Opens and locks the register; -1 when another handset has kept it for that long.
int in_place_lock(int limit_ms);
void in_place_unlock(int fd);
// For the agent, which takes every process in whose first argument its name appears for another agent: takes the name
// out of ours.
void in_place_hide_name();

// Opens a connection to init's control socket; -1 on failure.
int control_connect(const desk *h);
// Sends one request, with descriptors.
bool control_send(int fd, const std::vector<std::string> &words, const std::vector<int> &fds = {});
// Next answer; "" when the connection ended or the limit passed. `sender`, when given, gets the pid that came along
// (the socket must have asked for it before the answer was sent: SO_PASSCRED).
std::string control_receive(int fd, int limit_ms, pid_t *sender = nullptr);
// One request, one answer.
std::string control_ask(const desk *h, const std::vector<std::string> &words, int limit_ms = 30000);
// Number behind the first blank of an answer that starts with `word`, else `fallback`.
int control_number(const std::string &answer, const std::string &word, int fallback);

// Names in the directory that `fd` has open, sorted; closes it.
std::vector<std::string> names_in(int fd);

// Instructions to sanitizers for everything inside, our own environment's included: NAME=VALUE. None in a build without.
std::vector<std::string> reports_environment();
// Makes the place of the reports; before anything but init runs.
bool reports_open(desk *h);
// After the handset has ended: prints all reports on standard error, and aborts if there are any. What a sanitizer
// finds must not pass for success.
void reports_close(desk *h);

#endif
