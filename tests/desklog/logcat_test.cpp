// logcat as a program: exact lines, buffers, separators, filters, errors.
#include <signal.h>
#include <stdio.h>

#include "handset/common/paths.h"
#include "tests/desklog/programs.h"

static const char kFile[] = "/data/d/logcat.log";

struct Logcat : log_desk {
    Logcat() : log_desk("CET-1CEST,M3.5.0,M10.5.0/3") {}
    std::string error_of(const words &arguments, gid_t gid = kLog) {
        words argv = {"logcat"};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        const desk_result result = run(argv, kShell, gid);
        EXPECT_EQ(exit_code(result.status), 1) << result.output;
        EXPECT_EQ(result.output, "");
        return result.errors;
    }
    // What precedes the text of the newest entry of a tag in logcat's lines.
    std::string prefix_of(const std::string &tag) {
        const desk_log_entry entry = desk_log(h, tag).back();
        const std::string line = text(LOG_JOURNAL).substr(entry.sequence - 1);
        const std::string stamp = line.substr(line.find('\t') + 1, 20);
        const desk_result date = run({"date", "-d", "@" + stamp.substr(0, 10), "+%m-%d %H:%M:%S"});
        char prefix[160];
        snprintf(prefix, sizeof(prefix), "%s.%s %5d %5d %c %-8s: ", date.output.substr(0, 14).c_str(),
                 stamp.substr(11, 6).c_str(), entry.pid, entry.tid, entry.priority, tag.c_str());
        return prefix;
    }
    // The lines of one entry as the collectors print them, without the prefix.
    std::string print(const std::string &text) {
        log({"-t", "zr", text});
        const std::string prefix = prefix_of("zr");
        std::string all = dump({"-v", "usec", "-v", "printable", "-s", "zr"});
        std::string lines;
        for (size_t at = all.find(prefix); at != std::string::npos; at = all.find(prefix, at)) {
            at += prefix.size();
            lines += all.substr(at, all.find('\n', at) + 1 - at);
        }
        return lines;
    }
};

TEST_F(Logcat, CollectorsFileHasExactlyTheseLines) {
    log({"-t", "zr", "-p", "D", "first\nsecond\n"});
    const std::string prefix = prefix_of("zr");
    desk_child collector = collect(
        {"-r", "5120", "-v", "threadtime", "-v", "usec", "-v", "printable", "-n", "5", "-b", "main", "-f", kFile});
    EXPECT_TRUE(desk_wait_text(h, kFile, "second\n"));
    EXPECT_EQ(text(kFile), "--------- beginning of main\n" + prefix + "first\n" + prefix + "second\n");
    EXPECT_EQ(desk_owner(h, kFile), "0600 2000:1007");
    log({"-t", "longer-than-8", "-p", "F", "later"});
    ASSERT_TRUE(desk_wait_text(h, kFile, "later\n"));
    EXPECT_EQ(lines_of(text(kFile)).back(), prefix_of("longer-than-8") + "later");
    stop(&collector);
}

TEST_F(Logcat, EveryLineOfATextHasThePrefix) {
    EXPECT_EQ(print(""), "\n");
    EXPECT_EQ(print("a\n\nb"), "a\n\nb\n");
    EXPECT_EQ(print("a\n\n"), "a\n\n");
}

TEST_F(Logcat, PrintableEscapesControlBytesAndBadCharacters) {
    EXPECT_EQ(print("\a\b\v\f\r\\ tab\tstays \x01\x1b\x7f"), "\\a\\b\\v\\f\\r\\\\ tab\tstays \\x01\\x1B\x7f\n");
    const std::string good = "\xc2\x80 \xdf\xbf \xe0\xa0\x80 \xe2\x82\xac \xf0\x90\x80\x80 \xf4\x8f\xbf\xbf";
    EXPECT_EQ(print(good), good + "\n");
    EXPECT_EQ(print("\xff \xc3( \xe2\x82 \xc0\xaf"), "\\xFF \\xC3( \\xE2\\x82 \\xC0\\xAF\n");
    EXPECT_EQ(print("\xe0\x9f\xbf \xed\xa0\x80"), "\\xE0\\x9F\\xBF \\xED\\xA0\\x80\n");
    EXPECT_EQ(print("\xf0\x8f\xbf\xbf \xf4\x90\x80\x80"), "\\xF0\\x8F\\xBF\\xBF \\xF4\\x90\\x80\\x80\n");
}

TEST_F(Logcat, MillisecondsWithoutUsec) {
    log({"-t", "zr", "x"});
    const std::string prefix = prefix_of("zr");
    EXPECT_EQ(lines_of(dump({"-b", "main"})).back(), prefix.substr(0, 18) + prefix.substr(21) + "x");
}

TEST_F(Logcat, ReadsItsBuffersAndAnnouncesEachOnce) {
    log({"-b", "radio", "-t", "r", "radio-1"});
    log({"-b", "system", "-t", "s", "system-1"});
    log({"-t", "m", "main-1"});
    log({"-b", "system", "-t", "s", "system-2"});
    const std::string all = dump({"-b", "main,system", "-s", "m", "s"});
    const std::vector<std::string> lines = lines_of(all);
    ASSERT_EQ(lines.size(), 5u) << all;
    EXPECT_EQ(lines[0], "--------- beginning of system");
    EXPECT_NE(lines[1].find("system-1"), std::string::npos);
    EXPECT_EQ(lines[2], "--------- beginning of main");
    EXPECT_NE(lines[3].find("main-1"), std::string::npos);
    EXPECT_NE(lines[4].find("system-2"), std::string::npos);
    EXPECT_EQ(occurrences(dump(), "radio-1"), 0u);
    EXPECT_EQ(occurrences(dump({"-b", "radio"}), "radio-1"), 1u);
}

TEST_F(Logcat, PrintsEventsByName) {
    log({"-e", "42", "s:everything"});
    log({"-e", "123456", "i:-5"});
    const std::string all = dump({"-b", "events"});
    EXPECT_NE(all.find(" I answer  : everything\n"), std::string::npos) << all;
    EXPECT_NE(all.find(" I [123456]: -5\n"), std::string::npos) << all;
    EXPECT_EQ(occurrences(dump({"-b", "events", "-s", "answer"}), "\n"), 2u);
}

TEST_F(Logcat, FilterKeepsOneTag) {
    log({"-t", "EMSD", "-p", "V", "kept"});
    log({"-t", "EMSD2", "-p", "F", "dropped"});
    desk_child collector = collect({"-f", kFile, "-s", "EMSD:V"});
    ASSERT_TRUE(desk_wait_text(h, kFile, "kept\n"));
    log({"-t", "EMSDx", "dropped"});
    log({"-t", "EMSD", "end"});
    ASSERT_TRUE(desk_wait_text(h, kFile, "end\n"));
    EXPECT_EQ(occurrences(text(kFile), "dropped"), 0u);
    stop(&collector);
}

TEST_F(Logcat, FiltersHaveLowestPriorities) {
    for (const char *tag : {"A", "B", "C", "other"}) {
        for (const char *priority : {"V", "W", "E"}) {
            log({"-t", tag, "-p", priority, tag + std::string("-") + priority});
        }
    }
    const auto printed = [this](const words &filters) {
        std::string found;
        for (const std::string &line : lines_of(dump(filters))) {
            const size_t text = line.rfind(": ");
            found += line.find("desk-marker") == std::string::npos && text != std::string::npos
                         ? line.substr(text + 2) + " "
                         : "";
        }
        return found;
    };
    EXPECT_EQ(printed({"A:w", "B", "C:E", "*:S"}), "A-W A-E B-V B-W B-E C-E ");
    EXPECT_EQ(printed({"A:E", "A:V", "*:F"}), "A-V A-W A-E ");
    EXPECT_EQ(printed({"A:S", "B:S", "C:S", "*"}), "other-W other-E ") << "* alone means D";
}

TEST_F(Logcat, WrongArgumentsEndItAndCreateNoFile) {
    for (const char *count : {"5x", "0", "-1", "", "1.5", "99999999999999999999"}) {
        EXPECT_EQ(error_of({"-f", kFile, "-r", count}),
                  std::string("logcat: Invalid parameter '") + count + "' to -r.\n");
    }
    EXPECT_EQ(error_of({"-n", "0", "-f", kFile}), "logcat: Invalid parameter '0' to -n.\n");
    EXPECT_EQ(error_of({"-r", "5"}), "logcat: -r requires -f as well.\n");
    EXPECT_EQ(error_of({"-b", "nosuch", "-f", kFile}), "logcat: Unknown buffer 'nosuch' listed for -b.\n");
    EXPECT_EQ(error_of({"-v", "usec,wrong", "-f", kFile}), "logcat: Invalid parameter 'wrong' to -v.\n");
    EXPECT_EQ(error_of({"-f"}), "logcat: Option '-f' needs an argument.\n");
    EXPECT_EQ(error_of({"-f", kFile, "TAG:Q"}), "logcat: Invalid filter expression in logcat args.\n");
    EXPECT_FALSE(desk_exists(h, kFile));
    EXPECT_EQ(error_of({"-f", "/nowhere/x"}), "logcat: Couldn't open output file: No such file or directory\n");
}

TEST_F(Logcat, OnlyTheLogGroupReadsTheLog) {
    EXPECT_EQ(error_of({"-d"}, kShell), "logcat: Logcat read failure: Permission denied\n");
}

TEST_F(Logcat, MissingDaemonEndsIt) {
    ASSERT_EQ(desk_service_stop(h, "logd"), 0);
    ASSERT_TRUE(desk_wait_service(h, "logd", "stopped"));
    EXPECT_EQ(error_of({"-b", "main"}), "logcat: Logcat read failure: Connection refused\n");
}

TEST_F(Logcat, EndOfTheDaemonEndsIt) {
    log({"-t", "last", "words"});
    desk_child collector = collect({"-f", kFile});
    ASSERT_TRUE(desk_wait_text(h, kFile, "words\n"));
    ASSERT_EQ(desk_service_stop(h, "logd"), 0);
    EXPECT_EQ(exit_code(desk_wait(h, &collector, 30000)), 1);
}

TEST_F(Logcat, FullFileSystemEndsIt) {
    log({"-t", "some", "entry"});
    ASSERT_TRUE(desk_fill_data(h, 0));
    const std::string errors = error_of({"-f", kFile});
    EXPECT_NE(errors.find("logcat: Output error: No space left on device\n"), std::string::npos) << errors;
}
