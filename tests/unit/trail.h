// The trail that functions under test leave in the platform log and in the diagnostic file of the handset around them.
#ifndef TESTS_UNIT_TRAIL_H
#define TESTS_UNIT_TRAIL_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

// Whole content of a file, "" when it cannot be read.
std::string read_file(const std::string &path);
// Creates or replaces a file.
void write_file(const std::string &path, const std::string &text);
// "0644 2000:1007" of what a path leads to, "" when it leads nowhere.
std::string owner_of(const std::string &path);
// Open descriptors of this process, ascending.
std::vector<int> open_descriptors();
// Whether a condition came true before the time was up.
bool wait_until(const std::function<bool()> &condition, int limit_ms = 10000);

// Tests that read the trail. It begins anew with each test.
class TrailTest : public ::testing::Test {
  protected:
    void SetUp() override;

    // The trail begins here.
    void forget();
    // Texts of the platform log under both tags that a process has written since, in order. The source line of a report
    // is a matter of the source: it reads "LINE-*".
    std::vector<std::string> platform(pid_t pid = 0);
    // Lines of the diagnostic file since, without their time stamps.
    std::vector<std::string> file();

  private:
    size_t journal_start = 0;
};

#endif
