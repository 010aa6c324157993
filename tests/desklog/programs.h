// A handset for tests of the log's programs, and calls that run them.
#ifndef TESTS_DESKLOG_PROGRAMS_H
#define TESTS_DESKLOG_PROGRAMS_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "handset/desk/desk.h"

static const uid_t kShell = 2000;
static const gid_t kLog = 1007;

using words = std::vector<std::string>;

// Boots a handset without the agent for each test.
struct log_desk : ::testing::Test {
    desk *h = nullptr;

    explicit log_desk(const std::string &zone = "");
    ~log_desk() override;

    // Runs a program to its end.
    desk_result run(const words &argv, uid_t uid = 0, gid_t gid = 0);
    // Writes an entry with the program log and waits until it is in the journal.
    void log(const words &arguments);
    // Standard output of logcat -d with further arguments.
    std::string dump(const words &arguments = {}, uid_t uid = 0, gid_t gid = 0);
    // Starts a logcat as the collectors run (2000:1007, umask 077).
    desk_child collect(const words &arguments);
    // Ends it with SIGKILL and waits for that.
    void stop(desk_child *child);
    std::string text(const std::string &path);
};

// Exit code of a wait status, -1 when it did not exit.
int exit_code(int status);
// How often `part` occurs in `whole`.
size_t occurrences(const std::string &whole, const std::string &part);
std::vector<std::string> lines_of(const std::string &text);

#endif
