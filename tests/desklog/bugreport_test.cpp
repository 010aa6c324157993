// bugreport: a report on standard output.
#include "tests/desklog/programs.h"

struct Bugreport : log_desk {};

TEST_F(Bugreport, HasPropertiesProcessesSpaceAndLog) {
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
