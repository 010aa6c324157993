// The agent's diagnostic log as sa-host shows and follows it, and the lines that one request leaves.
#include <signal.h>

#include "tests/host/links.h"

namespace {

const char kLog[] = "/data/local/log/sa.log";

class Log : public LinkTest {};

TEST_P(Log, PrintsAllOrTheLastLines) {
    ASSERT_NO_FATAL_FAILURE(boot_link());
    const host_result all = host({"log"});
    EXPECT_EQ(all.status, 0) << all.err;
    EXPECT_GT(all.out.size(), 1000u);
    EXPECT_EQ(desk_file_text(h, kLog).compare(0, all.out.size(), all.out), 0);
    const host_result last = host({"log", "-n", "3"});
    EXPECT_EQ(std::count(last.out.begin(), last.out.end(), '\n'), 3);
    EXPECT_NE(desk_file_text(h, kLog).find("\n" + last.out), std::string::npos) << last.out;
}

TEST_P(Log, FollowsWithoutALossOverARestartOfTheAgent) {
    desk_options options = quiet_options();
    options.restart_ms = 100;
    ASSERT_NO_FATAL_FAILURE(boot_link(options));
    host_job follower;
    host_start(inside({"log", "-f", "-n", "2"}), false, &follower);
    ASSERT_TRUE(host_expect(&follower, "sa_listener_loop reopen"));
    for (int round = 1; round <= 2; ++round) {
        const std::string name = "round-" + std::to_string(round);
        ASSERT_EQ(host({"-T", "100", "query", name}).status, 0);
        ASSERT_TRUE(host_expect(&follower, "SA+QUERY_SERVICE=\"" + name + "\"\r] ret_val[0]")) << follower.out_text;
        ASSERT_EQ(host({"kill"}).status, 0);
    }
    ASSERT_EQ(host({"-T", "100", "query", "last"}).status, 0);
    ASSERT_TRUE(host_expect(&follower, "SA+QUERY_SERVICE=\"last\"\r] ret_val[0]")) << follower.out_text;
    kill(follower.pid, SIGINT);
    const host_result followed = host_finish(&follower);
    EXPECT_EQ(followed.status, 128 + SIGINT);
    std::string written;
    for (const char *generation : {".2", ".1", ""}) {
        written += desk_file_text(h, std::string(kLog) + generation);
    }
    EXPECT_NE(written.find(followed.out), std::string::npos) << followed.out;
}

TEST_P(Log, TheFollowerLeavesNothingOnTheHandset) {
    ASSERT_NO_FATAL_FAILURE(boot_link());
    host_job follower;
    host_start(inside({"log", "-f"}), false, &follower);
    ASSERT_TRUE(host_expect(&follower, "sa_listener_loop reopen"));
    const std::vector<pid_t> shells = desk_pids(h, "/system/bin/sh");
    ASSERT_FALSE(shells.empty());
    kill(follower.pid, SIGTERM);
    EXPECT_EQ(host_finish(&follower).status, 128 + SIGTERM);
    EXPECT_TRUE(desk_until([&] { return desk_pids(h, "/system/bin/sh").empty(); }));
}

TEST_P(Log, VerboseShowsTheLinesOfTheRequestAlone) {
    ASSERT_NO_FATAL_FAILURE(boot_link());
    ASSERT_EQ(host({"query", "before"}).status, 0);
    const host_result query = host({"-v", "query", "zr-qel-sa"});
    EXPECT_EQ(query.out, "QUERY_SERVICE: 1\n");
    EXPECT_EQ(query.err.find("  | "), 0u) << query.err;
    EXPECT_LT(query.err.find("receive <== AT SA+QUERY_SERVICE=\"zr-qel-sa\"\\r\n"), 80u) << query.err;
    EXPECT_NE(query.err.find("handle_sa_query_service_set()"), std::string::npos) << query.err;
    EXPECT_EQ(query.err.find("before"), std::string::npos) << query.err;
    EXPECT_EQ(query.err.find("pub_pty_open"), std::string::npos) << query.err;
    const std::string end = "handle_sa_cmd_req(AT SA+QUERY_SERVICE=\"zr-qel-sa\"\\r) ret_val[0]\n";
    ASSERT_GT(query.err.size(), end.size());
    EXPECT_EQ(query.err.substr(query.err.size() - end.size()), end);
}

TEST_P(Log, VerboseShowsWhyARequestWasRefused) {
    ASSERT_NO_FATAL_FAILURE(boot_link());
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(host({"autostart", "add", "name-" + std::to_string(i)}).status, 0);
    }
    const host_result plain = host({"autostart", "add", "eleventh"});
    EXPECT_EQ(plain.status, 1);
    EXPECT_NE(plain.err.find("With -v sa-host shows"), std::string::npos) << plain.err;
    EXPECT_NE(host({"-v", "autostart", "add", "eleventh"}).err.find("no free space for \"eleventh\"\n"),
              std::string::npos);
}

OVER_EVERY_LINK(Log);

}  // namespace
