// Parsing of requests: prefix, terminator, name, form, and requests split over several reads.
#include "tests/support/agent.h"

static const char kKernelOff[] = "\r\nKERNEL_LOG: 0\r\n\r\nOK\r\n";
static const char kNotRunning[] = "\r\nQUERY_SERVICE: 0\r\n\r\nOK\r\n";

class Request : public AgentTest {
  protected:
    // Waits until the loop has written its last line about a request.
    bool wait_served(const std::string &request) {
        return wait_file_line("sa_handle_read_cmd_loop req[" + request + "] ret_val[0]");
    }
};

// ---- unknown

TEST_F(Request, UnknownOnesAreAnsweredWithMinusOne) {
    ASSERT_NO_FATAL_FAILURE(boot());
    for (const char *request : {"\r", "hello\r", "AT+CSQ\r", "SA\r", "SA+\r", "SA+NOPE\r", "SA+NOPE=1\r", "AT SA +\r",
                                "SA+KERNEL\r", "SA KERNEL_LOG?\r", "SASA+KERNEL_LOG?\r"}) {
        EXPECT_EQ(ask(request), kError) << request;
    }
}

TEST_F(Request, UnknownOneLeavesItsRoad) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_EQ(ask("SA+NOPE=1\r"), kError);
    ASSERT_TRUE(wait_served("SA+NOPE=1\r"));
    const std::vector<std::string> lines = file_lines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(std::vector<std::string>(lines.end() - 3, lines.end()),
              (std::vector<std::string>{"sa_handle_read_cmd_loop read_len[10]", "handle_sa_cmd_req req[SA+NOPE=1\r]",
                                        "sa_handle_read_cmd_loop req[SA+NOPE=1\r] ret_val[0]"}));
    ASSERT_NE(desk_wait_log(h, "zr-qel-sa", "sa_handle_read_cmd_loop handle_sa_cmd_req(SA+NOPE=1\r) ret_val[0]"), 0u);
    EXPECT_TRUE(in_order(platform_lines(), {"receive <== SA+NOPE=1\r", "handle_sa_cmd_req()", "send_rsp_err()",
                                            "send_rsp()", "send ==> \r\nERROR: -1\r\n"}));
}

TEST_F(Request, WithoutATerminatorIsUnknown) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(ask("SA+KERNEL_LOG?"), kError);
    EXPECT_EQ(ask("SA+KERNEL_LOG?\n"), kError);
    EXPECT_EQ(ask("\rSA+KERNEL_LOG?"), kError);  // a carriage return in front of the command ends nothing
}

TEST_F(Request, CarriageReturnInsideQuotesIsNoTerminator) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(ask("SA+QUERY_SERVICE=\"no\rbody\""), kError);
    EXPECT_EQ(ask("SA+START_SERVICE=\"zr-elog\r\""), kError);
    EXPECT_EQ(ask("SA+START_SERVICE=\"zr-elog\r"), kError);  // the quote stays open
    EXPECT_EQ(ask("SA+QUERY_SERVICE=\"no\rbody\"\r"), kNotRunning);
    EXPECT_EQ(ask("SA+QUERY_SERVICE=\"nobody\" \"\r\"\r"), kNotRunning);
    ASSERT_TRUE(wait_served("SA+START_SERVICE=\"zr-elog\r"));
    EXPECT_EQ(desk_property(h, "ril.zr.elog.state"), "");
}

// ---- prefix and name

TEST_F(Request, PrefixIsFoundWhereverItStands) {
    ASSERT_NO_FATAL_FAILURE(boot());
    for (const char *request : {"SA+KERNEL_LOG?\r", "AT SA+KERNEL_LOG?\r", "ATSA+KERNEL_LOG?\r",
                                "at \r\nSA+KERNEL_LOG?\r", "anythingSA   +KERNEL_LOG?\r"}) {
        EXPECT_EQ(ask(request), kKernelOff) << request;
    }
}

TEST_F(Request, PrefixIsUpperCase) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(ask("sa+KERNEL_LOG?\r"), kError);
    EXPECT_EQ(ask("Sa+KERNEL_LOG?\r"), kError);
}

TEST_F(Request, NameMatchesInAnyCase) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(ask("SA+kernel_log?\r"), kKernelOff);
    EXPECT_EQ(ask("SA +Kernel_LOG?\r"), kKernelOff);
    EXPECT_EQ(ask("AT SA+query_service=\"nobody\"\r"), kNotRunning);
}

TEST_F(Request, NameMatchesByItsBeginning) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(ask("SA+QUERY_SERVICEX=\"nobody\"\r"), kError);
    ASSERT_TRUE(wait_served("SA+QUERY_SERVICEX=\"nobody\"\r"));
    EXPECT_TRUE(
        in_order(file_lines(), {"handle_sa_cmd_req req[SA+QUERY_SERVICEX=\"nobody\"\r]",
                                "handle_sa_query_service_set req[X=\"nobody\"\r]", "handle_sa_cmd_req SA ret_val[0]"}));
}

// ---- forms

TEST_F(Request, TestFormOfEveryCommandIsUnknown) {
    ASSERT_NO_FATAL_FAILURE(boot());
    for (const char *name : {"+START_SERVICE", "+STOP_SERVICE", "+QUERY_SERVICE", "+AUTO_START_SERVICE", "+SAVE_LOG",
                             "+SYSTEM", "+KERNEL_LOG", "+DMESG_LOG", "+DATA_PACKETS_LOG", "+DELETE_LOG"}) {
        EXPECT_EQ(ask("SA" + std::string(name) + "=?\r"), kError) << name;
        EXPECT_EQ(ask("SA" + std::string(name) + "  =?\r"), kError) << name;
    }
    ASSERT_TRUE(wait_served("SA+DELETE_LOG  =?\r"));
    EXPECT_EQ(count_lines(file_lines(), "handle_sa_cmd_req SA ret_val[0]"), 0);
}

TEST_F(Request, ReadFormExistsForTwoCommandsOnly) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(ask("SA+KERNEL_LOG?\r"), kKernelOff);
    EXPECT_EQ(ask("SA+DMESG_LOG  ?\r"), "\r\nDMESG_LOG: 0\r\n\r\nOK\r\n");
    ASSERT_TRUE(wait_served("SA+DMESG_LOG  ?\r"));
    const int handled = count_lines(file_lines(), "handle_sa_cmd_req SA ret_val[0]");
    EXPECT_EQ(handled, 2);
    for (const char *name : {"+START_SERVICE", "+STOP_SERVICE", "+QUERY_SERVICE", "+AUTO_START_SERVICE", "+SAVE_LOG",
                             "+SYSTEM", "+DATA_PACKETS_LOG", "+DELETE_LOG"}) {
        EXPECT_EQ(ask("SA" + std::string(name) + "?\r"), kError) << name;
    }
    ASSERT_TRUE(wait_served("SA+DELETE_LOG?\r"));
    EXPECT_EQ(count_lines(file_lines(), "handle_sa_cmd_req SA ret_val[0]"), handled);
}

TEST_F(Request, ArgumentBeginsBehindTheBlanksAndReachesToTheEnd) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(ask("SA+QUERY_SERVICE  =   \"nobody\" x\rtail"), kNotRunning);
    ASSERT_TRUE(wait_served("SA+QUERY_SERVICE  =   \"nobody\" x\rtail"));
    EXPECT_EQ(count_lines(file_lines(), "handle_sa_query_service_set req[\"nobody\" x\rtail]"), 1);
}

TEST_F(Request, BareNameReachesTheSetHandler) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(ask("SA+QUERY_SERVICE  \r"), kError);
    EXPECT_EQ(ask("SA+QUERY_SERVICE \"nobody\"\r"), kNotRunning);  // the equals sign may be left out
    ASSERT_TRUE(wait_served("SA+QUERY_SERVICE \"nobody\"\r"));
    EXPECT_TRUE(in_order(file_lines(),
                         {"handle_sa_query_service_set req[\r]", "handle_sa_query_service_set req[\"nobody\"\r]"}));
}

TEST_F(Request, BlankBetweenEqualsSignAndQuestionMarkMakesASetForm) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(ask("SA+QUERY_SERVICE= ?\r"), kError);
    ASSERT_TRUE(wait_served("SA+QUERY_SERVICE= ?\r"));
    EXPECT_EQ(count_lines(file_lines(), "handle_sa_query_service_set req[?\r]"), 1);
}

// ---- reads

TEST_F(Request, Of199BytesIsServed) {
    ASSERT_NO_FATAL_FAILURE(boot());
    const std::string request = "SA+QUERY_SERVICE=\"" + std::string(179, 'n') + "\"\r";
    ASSERT_EQ(request.size(), 199u);
    EXPECT_EQ(ask(request), kNotRunning);
    EXPECT_TRUE(wait_served(request));
    EXPECT_EQ(count_lines(file_lines(), "sa_handle_read_cmd_loop read_len[199]"), 1);
    EXPECT_EQ(ask("AT\r"), kOk);
}

TEST_F(Request, Of200BytesIsTwoRequests) {
    ASSERT_NO_FATAL_FAILURE(boot());
    std::string answers = ask("SA+QUERY_SERVICE=\"" + std::string(180, 'n') + "\"\r");
    if (answers == kError) {  // else both have come at once
        answers += receive();
    }
    EXPECT_EQ(answers, std::string(kError) + kError);
    ASSERT_TRUE(wait_served("\r"));
    EXPECT_TRUE(in_order(file_lines(), {"sa_handle_read_cmd_loop read_len[199]", "sa_handle_read_cmd_loop read_len[1]",
                                        "handle_sa_cmd_req req[\r]"}));
    EXPECT_EQ(ask("AT\r"), kOk);
}

TEST_F(Request, OverTwoReadsIsTwoUnknownOnes) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(ask("A"), kError);
    EXPECT_EQ(ask("T\r"), kError);
    EXPECT_EQ(ask("SA+KERNEL"), kError);
    EXPECT_EQ(ask("_LOG?\r"), kError);
}

TEST_F(Request, BehindAnotherInTheSameReadIsNotServed) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(ask("SA+KERNEL_LOG?\rSA+DMESG_LOG?\r"), kKernelOff);
    EXPECT_EQ(ask("AT\r"), kOk);
}

TEST_F(Request, EndsAtItsFirstNulByte) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(ask(std::string("\0AT\r", 4)), kError);
    EXPECT_EQ(ask(std::string("SA+KERNEL_LOG?\0\r", 16)), kError);
    EXPECT_EQ(ask(std::string("SA+KERNEL_LOG?\r\0SA+DMESG_LOG?\r", 30)), kKernelOff);
    ASSERT_TRUE(wait_served("SA+KERNEL_LOG?\r"));
    EXPECT_TRUE(
        in_order(file_lines(), {"sa_handle_read_cmd_loop read_len[4]", "handle_sa_cmd_req req[]",
                                "sa_handle_read_cmd_loop req[] ret_val[0]", "sa_handle_read_cmd_loop read_len[16]",
                                "handle_sa_cmd_req req[SA+KERNEL_LOG?]", "sa_handle_read_cmd_loop read_len[30]"}));
}

TEST_F(Request, OfEveryByteValuePassesUnchanged) {
    ASSERT_NO_FATAL_FAILURE(boot());
    std::string bytes;
    for (int value = 1; value < 128; value++) {
        if (value != '\n') {  // would be two lines of the file
            bytes += static_cast<char>(value);
        }
    }
    EXPECT_EQ(ask(bytes), kError);
    EXPECT_TRUE(wait_file_line("handle_sa_cmd_req req[" + bytes + "]"));
    bytes.clear();
    for (int value = 128; value < 256; value++) {
        bytes += static_cast<char>(value);
    }
    EXPECT_EQ(ask(bytes), kError);
    EXPECT_TRUE(wait_file_line("handle_sa_cmd_req req[" + bytes + "]"));
}
