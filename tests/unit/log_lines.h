// The lines that functions under test write to the platform log and to the diagnostic file of their handset.
#ifndef TESTS_UNIT_LOG_LINES_H
#define TESTS_UNIT_LOG_LINES_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

// Whole content of a file, "" when it cannot be read.
std::string read_file(const std::string &path);
// Creates or replaces a file.
void write_file(const std::string &path, const std::string &text);
// "0644 2000:1007" for the file that a path names, "" if there is none.
std::string owner_of(const std::string &path);
// Open descriptors of this process, ascending.
std::vector<int> open_descriptors();
// Waits for a condition. Returns false after the time limit.
bool wait_until(const std::function<bool()> &condition, int limit_ms = 10000);

// Base of tests that read the log lines. Each test sees only its own.
class LogLinesTest : public ::testing::Test {
  protected:
    void SetUp() override;

    // Ignores all lines written so far.
    void forget();
    // Texts of the platform log under both tags that a process has written since, in order. The line number of an error
    // report changes with the source, so it is replaced by "LINE-*".
    std::vector<std::string> platform(pid_t pid = 0);
    // Lines of the diagnostic file since, without their time stamps.
    std::vector<std::string> file();

  private:
    size_t journal_start = 0;
};

#endif
