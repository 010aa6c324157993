// bugreport: a real report on standard output, and its slow mode.
#include <time.h>

#include "programs.h"

struct Bugreport : log_desk {};

TEST_F(Bugreport, TellsPropertiesProcessesSpaceAndLog) {
    ASSERT_EQ(desk_set_property(h, "test.bugreport", "a value"), 0);
    log({"-t", "report", "me"});
    const desk_result report = run({"bugreport"});
    EXPECT_EQ(report.status, 0);
    EXPECT_EQ(report.output.substr(0, 57 + 14), std::string(56, '=') + "\n== dumpstate: ");
    EXPECT_NE(report.output.find("\n" + std::string(56, '=') + "\n\nBuild: "), std::string::npos);
    EXPECT_NE(report.output.find("\n[test.bugreport]: [a value]\n"), std::string::npos);
    EXPECT_NE(report.output.find("------ PROCESSES (ps -A) ------\n"), std::string::npos);
    EXPECT_NE(report.output.find(" logd\n"), std::string::npos);
    EXPECT_NE(report.output.find(" /data\n"), std::string::npos);
    EXPECT_NE(report.output.find(" report  : me\n"), std::string::npos);
    EXPECT_EQ(report.output.find("*** "), std::string::npos) << report.output;
    EXPECT_EQ(occurrences(report.errors, "WARNING: flat bugreports are deprecated"), 1u);
}

TEST_F(Bugreport, TakesNoArguments) {
    const desk_result report = run({"bugreport", "-z"});
    EXPECT_EQ(exit_code(report.status), 1);
    EXPECT_EQ(report.output, "");
    EXPECT_EQ(report.errors, "usage: bugreport\n");
}

TEST_F(Bugreport, LastsAsLongAsItIsTold) {
    ASSERT_EQ(desk_set_property(h, "desk.bugreport.seconds", "1.2"), 0);
    struct timespec before = {};
    struct timespec after = {};
    clock_gettime(CLOCK_MONOTONIC, &before);
    EXPECT_EQ(run({"bugreport"}).status, 0);
    clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_GE((after.tv_sec - before.tv_sec) * 1000 + (after.tv_nsec - before.tv_nsec) / 1000000, 1199);
}
