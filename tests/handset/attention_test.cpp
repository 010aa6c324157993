// Plain attention and what is no command.
#include "tests/support/agent.h"

class Attention : public AgentTest {};

TEST_F(Attention, IsAnsweredInBothCases) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(ask("AT\r"), kOk);
    EXPECT_EQ(ask("at\r"), kOk);
}

TEST_F(Attention, WithoutCarriageReturnIsUnknown) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(ask("AT"), kError);
}

TEST_F(Attention, LeavesItsRoadInTheDiagnosticFile) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_EQ(ask("AT\r"), kOk);
    ASSERT_TRUE(wait_file_line("sa_handle_read_cmd_loop req[AT\r] ret_val[0]"));
    EXPECT_TRUE(
        in_order(file_lines(), {"sa_handle_read_cmd_loop read_len[3]", "handle_sa_cmd_req req[AT\r]",
                                "handle_sa_cmd_req AT ret_val[0]", "sa_handle_read_cmd_loop req[AT\r] ret_val[0]"}));
}
