// logcat's files: the content and number of rotated ones, and how a new logcat continues an older one's file.
#include <stdio.h>
#include <time.h>

#include "tests/desklog/programs.h"

static const char kFile[] = "/data/d/logcat.log";

struct Rotation : log_desk {
    // What rotation must leave of these entries: file 0 is the current one, file i the i-th older one.
    static std::vector<std::string> files_of(const std::string &first, const std::vector<std::string> &entries,
                                             size_t limit_kib, size_t older) {
        std::vector<std::string> files = {first};
        size_t counted = 0;
        for (const std::string &entry : entries) {
            files[0] += entry;
            counted += entry.size();
            if (counted / 1024 >= limit_kib) {
                files.insert(files.begin(), "");
                counted = 0;
            }
        }
        if (files.size() > older + 1) {
            files.resize(older + 1);
        }
        return files;
    }
    // The stored entries as the collector prints them, one text each.
    std::vector<std::string> stored() {
        std::vector<std::string> entries = lines_of(dump({"-b", "main", "-v", "usec"}));
        entries.erase(entries.begin());  // the separator
        for (std::string &entry : entries) {
            entry += '\n';
        }
        return entries;
    }
    words arguments(const std::string &kib, const std::string &older) {
        return {"-r", kib, "-v", "threadtime", "-v", "usec", "-n", older, "-b", "main", "-f", kFile};
    }
    bool wait_files(const std::string &format, const std::vector<std::string> &wanted) {
        return desk_until([&] {
            for (size_t i = 0; i < wanted.size(); i++) {
                if (text(name(format, i)) != wanted[i]) {
                    return false;
                }
            }
            return true;
        });
    }
    static std::string name(const std::string &format, size_t number) {
        char suffix[16] = "";
        if (number > 0) {
            snprintf(suffix, sizeof suffix, format == "%02zu" ? ".%02zu" : ".%zu", number);
        }
        return std::string(kFile) + suffix;
    }
    void expect_rotation(const std::string &kib, const std::string &older, const std::string &format, size_t files) {
        log({"-t", "rotate", "-n", "400", std::string(60, 'x')});
        const std::vector<std::string> wanted =
            files_of("--------- beginning of main\n", stored(), std::stoul(kib), std::stoul(older));
        ASSERT_EQ(wanted.size(), files);
        desk_child collector = collect(arguments(kib, older));
        EXPECT_TRUE(wait_files(format, wanted));
        for (size_t i = 0; i < wanted.size(); i++) {
            EXPECT_EQ(text(name(format, i)), wanted[i]) << name(format, i);
            EXPECT_EQ(desk_owner(h, name(format, i)), "0600 2000:1007");
        }
        EXPECT_EQ(desk_list(h, "/data/d").size(), files);
        stop(&collector);
    }
};

TEST_F(Rotation, KeepsTheNumberOfOlderFiles) {
    expect_rotation("1", "3", "%zu", 4);
}

TEST_F(Rotation, NumbersHaveTheDigitsOfTheLargest) {
    expect_rotation("2", "10", "%02zu", 11);
}

TEST_F(Rotation, ShortLogHasFewerFiles) {
    expect_rotation("16", "5", "%zu", 3);
}

TEST_F(Rotation, EntryIsNeverSplit) {
    log({"-t", "long", std::string(3000, 'x') + "\n" + std::string(900, 'y')});
    log({"-t", "long", "after"});
    desk_child collector = collect(arguments("1", "2"));
    ASSERT_TRUE(desk_wait_text(h, kFile, "after\n"));
    const std::vector<std::string> older = lines_of(text(name("%zu", 1)));
    ASSERT_EQ(older.size(), 3u);
    EXPECT_NE(older[1].find(std::string(3000, 'x')), std::string::npos);
    EXPECT_NE(older[2].find(std::string(900, 'y')), std::string::npos);
    EXPECT_EQ(lines_of(text(kFile)).size(), 1u);
    stop(&collector);
}

TEST_F(Rotation, RestartContinuesWithoutDuplicates) {
    const words plain = {"-v", "threadtime", "-v", "usec", "-b", "main", "-f", kFile};
    log({"-t", "again", "-n", "50", "early"});
    desk_child collector = collect(plain);
    ASSERT_TRUE(desk_wait_text(h, kFile, "early 50\n"));
    stop(&collector);
    log({"-t", "again", "-n", "50", "while away"});
    collector = collect(plain);
    ASSERT_TRUE(desk_wait_text(h, kFile, "while away 50\n"));
    log({"-t", "again", "late"});
    ASSERT_TRUE(desk_wait_text(h, kFile, "late\n"));
    stop(&collector);
    const std::string all = text(kFile);
    EXPECT_EQ(occurrences(all, ": early "), 50u);
    EXPECT_EQ(occurrences(all, ": while away "), 50u);
    EXPECT_EQ(occurrences(all, ": late\n"), 1u);
    EXPECT_EQ(occurrences(all, "--------- beginning of main\n"), 2u);
}

TEST_F(Rotation, RemovedFileIsWrittenAgainFromTheStoredEntries) {
    log({"-t", "again", "-n", "50", "early"});
    desk_child collector = collect({"-b", "main", "-f", kFile});
    ASSERT_TRUE(desk_wait_text(h, kFile, "early 50\n"));
    stop(&collector);
    ASSERT_TRUE(desk_remove(h, kFile));
    collector = collect({"-b", "main", "-f", kFile});
    ASSERT_TRUE(desk_wait_text(h, kFile, "early 50\n"));
    EXPECT_EQ(occurrences(text(kFile), ": early "), 50u);
    stop(&collector);
}

TEST_F(Rotation, SizeOfAnExistingFileCounts) {
    ASSERT_TRUE(desk_write_file(h, kFile, std::string(1023, 'x') + "\n", 0600, kShell, kLog));
    log({"-t", "old", "entry"});
    desk_child collector = collect(arguments("1", "1"));
    ASSERT_TRUE(desk_wait_path(h, name("%zu", 1)));
    EXPECT_EQ(text(name("%zu", 1)).substr(0, 1024), std::string(1023, 'x') + "\n");
    stop(&collector);
}

// A stamp has no year. One that would be in the future is last year's, and no new entry may be skipped for it.
TEST_F(Rotation, StampsInTheFutureAreLastYears) {
    const desk_result day = run({"date", "-d", "@" + std::to_string(time(nullptr) + 3 * 86400), "+%m-%d %H:%M:%S"});
    ASSERT_TRUE(
        desk_write_file(h, kFile, day.output.substr(0, 14) + ".000000     1     1 D t: a\n", 0600, kShell, kLog));
    log({"-t", "new", "entry"});
    desk_child collector = collect({"-b", "main", "-v", "usec", "-f", kFile});
    EXPECT_TRUE(desk_wait_text(h, kFile, ": entry\n"));
    stop(&collector);
}

TEST_F(Rotation, NewestPartOfALongLogCountsAsStored) {
    log({"-t", "fill", "-n", "3000", std::string(1000, 'x')});
    const std::vector<std::string> stored_lines = lines_of(dump({"-b", "main"}));
    EXPECT_GT(stored_lines.size(), 1500u);
    EXPECT_LT(stored_lines.size(), 2200u);
    EXPECT_NE(stored_lines.back().find("x 3000"), std::string::npos);
}
