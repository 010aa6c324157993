// logcat as a program: exact lines, buffers, separators, filters, errors.
#include <signal.h>
#include <stdio.h>

#include "programs.h"

struct Logcat : log_desk {
    Logcat() : log_desk("CET-1CEST") {}
    std::string error_of(const words &arguments) {
        words argv = {"logcat"};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        const desk_result result = run(argv, kShell, kLog);
        EXPECT_EQ(exit_code(result.status), 1) << result.output;
        EXPECT_EQ(result.output, "");
        return result.errors;
    }
};

TEST_F(Logcat, CollectorsFileHoldsExactlyTheseLines) {
    log({"-t", "zr", "-p", "D", "first\nsecond\n"});
    const desk_log_entry entry = desk_log(h, "zr").at(0);
    const std::string journal = lines_of(text("/dev/.desk/log.journal")).at(0);
    const std::string sec_nsec = journal.substr(2, 20);
    const desk_result date = run({"date", "-d", "@" + sec_nsec.substr(0, 10), "+%m-%d %H:%M:%S"});
    const std::string stamp = date.output.substr(0, 14) + "." + sec_nsec.substr(11, 6);
    char prefix[128];
    snprintf(prefix, sizeof prefix, "%s %5d %5d D zr      : ", stamp.c_str(), entry.pid, entry.tid);
    const std::string wanted = "--------- beginning of main\n" + std::string(prefix) + "first\n" + prefix + "second\n";
    desk_child collector = collect({"-r", "5120", "-v", "threadtime", "-v", "usec", "-v", "printable", "-n", "5", "-b",
                                    "main", "-f", "/data/d/logcat.log"});
    EXPECT_TRUE(desk_wait_text(h, "/data/d/logcat.log", "second\n"));
    EXPECT_EQ(text("/data/d/logcat.log"), wanted);
    EXPECT_EQ(desk_owner(h, "/data/d/logcat.log"), "0600 2000:1007");
    stop(&collector);
}

TEST_F(Logcat, ReadsItsBuffersAndNamesEachOnce) {
    log({"-b", "radio", "-t", "r", "radio-1"});
    log({"-b", "system", "-t", "s", "system-1"});
    log({"-t", "m", "main-1"});
    log({"-b", "system", "-t", "s", "system-2"});
    const std::string all = dump({"-b", "main,system", "-v", "brief", "-s", "m", "s"});
    const std::vector<std::string> lines = lines_of(all);
    ASSERT_EQ(lines.size(), 5u) << all;
    EXPECT_EQ(lines[0], "--------- beginning of system");
    EXPECT_NE(lines[1].find("system-1"), std::string::npos);
    EXPECT_EQ(lines[2], "--------- beginning of main");
    EXPECT_NE(lines[3].find("main-1"), std::string::npos);
    EXPECT_NE(lines[4].find("system-2"), std::string::npos);
    EXPECT_EQ(occurrences(dump({"-D", "-b", "main,system"}), "--------- switch to system\n"), 1u);
    EXPECT_EQ(occurrences(dump(), "radio-1"), 0u);
    EXPECT_EQ(occurrences(dump({"-b", "radio"}), "radio-1"), 1u);
}

TEST_F(Logcat, OldSeparatorsAreForSeveralBuffersOnly) {
    log({"-t", "m", "main-1"});
    ASSERT_EQ(desk_set_property(h, "desk.logcat.separators", "old"), 0);
    EXPECT_EQ(occurrences(dump({"-b", "main"}), "---------"), 0u);
    EXPECT_EQ(occurrences(dump({"-b", "main,radio"}), "--------- beginning of main\n"), 1u);
    ASSERT_EQ(desk_set_property(h, "desk.logcat.separators", ""), 0);
    EXPECT_EQ(occurrences(dump({"-b", "main"}), "--------- beginning of main\n"), 1u);
}

TEST_F(Logcat, PrintsEventsByNameAndValue) {
    log({"-e", "42", "s:everything"});
    log({"-e", "2722", "i:77", "i:4100", "i:-5"});
    log({"-e", "123456", "l:5"});
    const std::string all = dump({"-b", "events", "-v", "brief"});
    EXPECT_NE(all.find("I/answer  ("), std::string::npos) << all;
    EXPECT_NE(all.find("): everything\n"), std::string::npos) << all;
    EXPECT_NE(all.find("I/battery_level("), std::string::npos) << all;
    EXPECT_NE(all.find("): [77,4100,-5]\n"), std::string::npos) << all;
    EXPECT_NE(all.find("I/[123456]("), std::string::npos) << all;
    EXPECT_EQ(occurrences(dump({"-b", "events", "-s", "answer"}), "\n"), 2u);
}

TEST_F(Logcat, FilterKeepsOneTag) {
    log({"-t", "EMSD", "-p", "V", "kept"});
    log({"-t", "EMSD2", "-p", "F", "dropped"});
    desk_child collector = collect({"-f", "/data/d/emsd.log", "-s", "EMSD:V"});
    ASSERT_TRUE(desk_wait_text(h, "/data/d/emsd.log", "kept\n"));
    log({"-t", "EMSDx", "dropped"});
    log({"-t", "EMSD", "end"});
    ASSERT_TRUE(desk_wait_text(h, "/data/d/emsd.log", "end\n"));
    EXPECT_EQ(occurrences(text("/data/d/emsd.log"), "dropped"), 0u);
    stop(&collector);
}

TEST_F(Logcat, NewestEntriesOnly) {
    log({"-t", "n", "-n", "5", "number"});
    const std::vector<std::string> lines = lines_of(dump({"-b", "main", "-t", "2", "-v", "raw"}));
    EXPECT_EQ(lines, (words{"--------- beginning of main", "number 4", "number 5"}));
}

TEST_F(Logcat, WrongArgumentsEndWithAWordAndNoFile) {
    EXPECT_EQ(error_of({"-r", "5x", "-f", "/data/d/x"}), "logcat: Invalid parameter '5x' to -r.\n");
    EXPECT_EQ(error_of({"-n", "0", "-f", "/data/d/x"}), "logcat: Invalid parameter '0' to -n.\n");
    EXPECT_EQ(error_of({"-r", "5"}), "logcat: -r requires -f as well.\n");
    EXPECT_EQ(error_of({"-b", "nosuch", "-f", "/data/d/x"}), "logcat: Unknown buffer 'nosuch' listed for -b.\n");
    EXPECT_FALSE(desk_exists(h, "/data/d/x"));
    EXPECT_EQ(error_of({"-f", "/nowhere/x"}), "logcat: Couldn't open output file: No such file or directory\n");
}

TEST_F(Logcat, MissingDaemonIsToldAndEndsIt) {
    ASSERT_EQ(desk_service_stop(h, "logd"), 0);
    ASSERT_TRUE(desk_wait_service(h, "logd", "stopped"));
    const std::string errors = error_of({"-b", "main"});
    EXPECT_EQ(errors, "logcat: Logcat read failure: Connection refused\n");
    ASSERT_TRUE(desk_remove(h, "/dev/socket/logdr"));
    EXPECT_EQ(error_of({"-b", "main"}), "logcat: Logcat read failure: No such file or directory\n");
}

TEST_F(Logcat, EndOfTheDaemonEndsIt) {
    log({"-t", "last", "words"});
    desk_child collector = collect({"-f", "/data/d/log"});
    ASSERT_TRUE(desk_wait_text(h, "/data/d/log", "words\n"));
    ASSERT_EQ(desk_service_stop(h, "logd"), 0);
    EXPECT_EQ(exit_code(desk_wait(h, &collector, 10000)), 1);
}

TEST_F(Logcat, FullFileSystemEndsIt) {
    log({"-t", "some", "entry"});
    ASSERT_TRUE(desk_fill_data(h, 0));
    const std::string errors = error_of({"-f", "/data/d/log"});
    EXPECT_NE(errors.find("logcat: Output error: No space left on device\n"), std::string::npos) << errors;
}
