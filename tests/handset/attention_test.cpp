// The attention request AT, which takes precedence over everything else in a request.
#include "tests/support/agent.h"

class Attention : public AgentTest {};

TEST_F(Attention, IsAnsweredInBothCases) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(ask("AT\r"), kOk);
    EXPECT_EQ(ask("at\r"), kOk);
}

TEST_F(Attention, InMixedCaseIsUnknown) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(ask("At\r"), kError);
    EXPECT_EQ(ask("aT\r"), kError);
}

TEST_F(Attention, WithoutCarriageReturnIsUnknown) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(ask("AT"), kError);
    EXPECT_EQ(ask("AT\n"), kError);
    EXPECT_EQ(ask("AT \r"), kError);
}

TEST_F(Attention, AnywhereInARequestKeepsItsCommandFromRunning) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(ask("\r\nxAT\r\n"), kOk);
    EXPECT_EQ(ask("SA+KERNEL_LOG=1,at\r"), kOk);
    EXPECT_EQ(ask("SA+KERNEL_LOG?\rAT\r"), kOk);
    ASSERT_TRUE(wait_file_line("sa_handle_read_cmd_loop req[SA+KERNEL_LOG?\rAT\r] ret_val[0]"));
    EXPECT_EQ(count_lines(file_lines(), "handle_sa_cmd_req SA ret_val[0]"), 0);
    EXPECT_EQ(count_lines(file_lines(), "handle_sa_cmd_req AT ret_val[0]"), 3);
}

TEST_F(Attention, TwiceInOneRequestIsAnsweredOnce) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(ask("AT\rAT\r"), kOk);
    EXPECT_EQ(ask("SA\r"), kError);  // nothing else had come in front of this
}

TEST_F(Attention, LeavesItsRoadInTheDiagnosticFile) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_EQ(ask("AT\r"), kOk);
    ASSERT_TRUE(wait_file_line("sa_handle_read_cmd_loop req[AT\r] ret_val[0]"));
    EXPECT_TRUE(
        in_order(file_lines(), {"sa_handle_read_cmd_loop read_len[3]", "handle_sa_cmd_req req[AT\r]",
                                "handle_sa_cmd_req AT ret_val[0]", "sa_handle_read_cmd_loop req[AT\r] ret_val[0]"}));
}

TEST_F(Attention, LeavesItsRoadInThePlatformLog) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_EQ(ask("AT\r"), kOk);
    ASSERT_NE(desk_wait_log(h, "zr-qel-sa", "sa_handle_read_cmd_loop handle_sa_cmd_req(AT\r) ret_val[0]"), 0u);
    EXPECT_TRUE(in_order(platform_lines(),
                         {"sa_handle_read_cmd_loop()", "sa_handle_read_cmd_loop read_len[3]", "receive <== AT\r",
                          "handle_sa_cmd_req()", "send_rsp_ok()", "send_rsp()", "send ==> \r\nOK\r\n",
                          "sa_handle_read_cmd_loop handle_sa_cmd_req(AT\r) ret_val[0]"}));
}
