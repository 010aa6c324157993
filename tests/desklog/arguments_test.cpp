// logcat's command line and its filters.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "handset/logcat/filter.h"
#include "handset/logcat/options.h"

struct LogArguments : ::testing::Test {
    logcat_options options;
    std::string error;

    LogArguments() {
        unsetenv("ANDROID_LOG_TAGS");
    }
    bool parse(const std::vector<std::string> &words) {
        options = logcat_options();
        std::vector<std::string> copy = words;
        copy.insert(copy.begin(), "logcat");
        std::vector<char *> argv;
        for (std::string &word : copy) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        return logcat_parse(static_cast<int>(copy.size()), argv.data(), &options, &error);
    }
    std::string error_of(const std::vector<std::string> &words) {
        return parse(words) ? "none" : error;
    }
    bool passes(const char *tag, int priority) const {
        return log_filter_passes(options.filter, tag, priority);
    }
};

TEST_F(LogArguments, CollectorCommandLine) {
    ASSERT_TRUE(parse({"-r", "5120", "-v", "threadtime", "-v", "usec", "-v", "printable", "-n", "5", "-b", "radio",
                       "-f", "/data/local/log/logcat-radio.log"}));
    EXPECT_EQ(options.rotate_kib, 5120u);
    EXPECT_EQ(options.older_files, 5u);
    EXPECT_EQ(options.buffers, 1u << 1);
    EXPECT_EQ(options.file, "/data/local/log/logcat-radio.log");
    EXPECT_EQ(options.format.layout, LOG_LAYOUT_THREADTIME);
    EXPECT_EQ(options.format.fraction_digits, 6);
    EXPECT_TRUE(options.format.is_printable);
    EXPECT_FALSE(options.is_dump);
}

TEST_F(LogArguments, DefaultsAreMainSystemAndCrashWithFourOlderFiles) {
    ASSERT_TRUE(parse({}));
    EXPECT_EQ(options.buffers, 1u << 0 | 1u << 3 | 1u << 4);
    EXPECT_EQ(options.older_files, 4u);
    EXPECT_EQ(options.rotate_kib, 0u);
    EXPECT_TRUE(passes("any", 2));
}

TEST_F(LogArguments, BuffersByNameAndList) {
    ASSERT_TRUE(parse({"-b", "main,radio", "-b", "events"}));
    EXPECT_EQ(options.buffers, 7u);
    ASSERT_TRUE(parse({"--buffer=default,radio"}));
    EXPECT_EQ(options.buffers, 1u << 0 | 1u << 1 | 1u << 3 | 1u << 4);
    ASSERT_TRUE(parse({"-b", "all"}));
    EXPECT_EQ(options.buffers, 0xffu);
    EXPECT_EQ(error_of({"-b", "main,nosuch"}), "Unknown buffer 'nosuch' listed for -b.");
}

TEST_F(LogArguments, CountsMustBeWholeNumbersFrom1) {
    for (const char *word : {"5x", "0", "-1", "", " ", "1.5", "0x", "99999999999999999999"}) {
        EXPECT_EQ(error_of({"-f", "F", "-r", word}), std::string("Invalid parameter '") + word + "' to -r.");
        EXPECT_EQ(error_of({"-f", "F", "-n", word}), std::string("Invalid parameter '") + word + "' to -n.");
    }
    ASSERT_TRUE(parse({"-f", "F", "-r", " 12", "-n", "0x10"}));
    EXPECT_EQ(options.rotate_kib, 12u);
    EXPECT_EQ(options.older_files, 16u);
}

TEST_F(LogArguments, WrongCommandLines) {
    EXPECT_EQ(error_of({"-r", "5"}), "-r requires -f as well.");
    EXPECT_EQ(error_of({"-v", "threadtime,wrong"}), "Invalid parameter 'wrong' to -v.");
    EXPECT_EQ(error_of({"-f"}), "Option '-f' needs an argument.");
    EXPECT_EQ(error_of({"-y"}), "Unknown option '-y'.");
    EXPECT_EQ(error_of({":V"}), "Invalid filter expression in logcat args.");
    EXPECT_EQ(error_of({"TAG:Q"}), "Invalid filter expression in logcat args.");
    EXPECT_EQ(error_of({"TAG:"}), "Invalid filter expression in logcat args.");
    EXPECT_EQ(error_of({"--help"}), "");
}

TEST_F(LogArguments, SilenceAndOneTag) {
    ASSERT_TRUE(parse({"-f", "F", "-s", "EMSD:V"}));
    EXPECT_TRUE(passes("EMSD", 2));
    EXPECT_TRUE(passes("EMSD", 7));
    for (const char *tag : {"EMSD2", "EMS", "emsd", "", "*"}) {
        EXPECT_FALSE(passes(tag, 7)) << tag;
    }
}

TEST_F(LogArguments, FiltersWithAndWithoutPriority) {
    ASSERT_TRUE(parse({"A:w", "B", "C:Error,D:4", "*:F"}));
    EXPECT_FALSE(passes("A", 4));
    EXPECT_TRUE(passes("A", 5));
    EXPECT_TRUE(passes("B", 2));
    EXPECT_FALSE(passes("C", 5));
    EXPECT_TRUE(passes("C", 6));
    EXPECT_TRUE(passes("D", 4));
    EXPECT_FALSE(passes("D", 3));
    EXPECT_FALSE(passes("other", 6));
    EXPECT_TRUE(passes("other", 7));
    ASSERT_TRUE(parse({"A:E", "A:V", "*"}));
    EXPECT_TRUE(passes("A", 2));
    EXPECT_FALSE(passes("other", 2));
    EXPECT_TRUE(passes("other", 3));
    ASSERT_TRUE(parse({"A:S"}));
    EXPECT_FALSE(passes("A", 7));
}

TEST_F(LogArguments, StandingFiltersCountOnlyWithoutOperands) {
    setenv("ANDROID_LOG_TAGS", "A:E *:S", 1);
    ASSERT_TRUE(parse({"-d"}));
    EXPECT_FALSE(passes("B", 7));
    EXPECT_TRUE(passes("A", 6));
    ASSERT_TRUE(parse({"-d", "B:V"}));
    EXPECT_TRUE(passes("A", 2));
    setenv("ANDROID_LOG_TAGS", "A:Q", 1);
    EXPECT_EQ(error_of({"-d"}), "Invalid filter expression in logcat args.");
    unsetenv("ANDROID_LOG_TAGS");
}
