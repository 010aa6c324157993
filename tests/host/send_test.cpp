// The command channel: requests as a script sends them, their results, and everything that is refused before it is
// sent.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "tests/host/support.h"

namespace {

class Send : public HostTest {};

TEST_F(Send, AttentionAndResultsAreOneLineEach) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    host_result attention = host({"send", "AT"});
    EXPECT_EQ(attention.status, 0);
    EXPECT_EQ(attention.out, "OK\n");
    EXPECT_EQ(attention.err, "");
    EXPECT_EQ(host({"query", "zr-elog"}).out, "QUERY_SERVICE: 0\n");
    EXPECT_EQ(host({"query", "zr-qel-sa"}).out, "QUERY_SERVICE: 1\n");
    EXPECT_EQ(host({"kernel-log", "?"}).out, "KERNEL_LOG: 0\n");
}

TEST_F(Send, ErrorIsStatusOneWithTheCodeOnStandardError) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    host_result result = host({"send", "+NO_SUCH"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find("ERROR: -1"), std::string::npos) << result.err;
}

TEST_F(Send, RawShowsTheBytesOfBothDirections) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    EXPECT_EQ(host({"send", "--raw", "+DMESG_LOG?"}).out,
              "> AT SA+DMESG_LOG?\\r\n"
              "< \\r\\nDMESG_LOG: 0\\r\\n\\r\\nOK\\r\\n\n");
    host_result error = host({"send", "--raw", "x\x01\\"});
    EXPECT_EQ(error.out, "> AT SAx\\x01\\\\\\r\n< \\r\\nERROR: -1\\r\\n\n");
    EXPECT_EQ(error.status, 1);
}

TEST_F(Send, PrefixAndEndAreAddedWhereTheyLack) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    host_result all =
        host({"send", "+KERNEL_LOG?", "SA+KERNEL_LOG?", "AT SA +KERNEL_LOG?", "ATSA+KERNEL_LOG?\r", "at"});
    EXPECT_EQ(all.status, 0);
    EXPECT_EQ(all.out, "KERNEL_LOG: 0\nKERNEL_LOG: 0\nKERNEL_LOG: 0\nKERNEL_LOG: 0\nOK\n");
    EXPECT_EQ(received(), (words{"AT SA+KERNEL_LOG?\r", "AT SA+KERNEL_LOG?\r", "AT SA +KERNEL_LOG?\r",
                                 "ATSA+KERNEL_LOG?\r", "at\r"}));
}

TEST_F(Send, SeveralRequestsEndAtTheFirstFailure) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    host_result result = host({"send", "AT", "+WRONG", "+KERNEL_LOG?"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "OK\n");
    EXPECT_EQ(received(), (words{"AT\r", "AT SA+WRONG\r"}));
}

TEST_F(Send, EachPlainNameIsItsRequest) {
    static const struct {
        words arguments;
        const char *request;
    } rows[] = {
        {{"query", "zr-elog"}, "AT SA+QUERY_SERVICE=\"zr-elog\"\r"},
        {{"start", "zr-elog"}, "AT SA+START_SERVICE=\"zr-elog\"\r"},
        {{"stop", "zr-elog"}, "AT SA+STOP_SERVICE=\"zr-elog\"\r"},
        {{"autostart", "add", "a b"}, "AT SA+AUTO_START_SERVICE=\"a b\",1\r"},
        {{"autostart", "query", "a b"}, "AT SA+AUTO_START_SERVICE=\"a b\",2\r"},
        {{"autostart", "remove", "a b"}, "AT SA+AUTO_START_SERVICE=\"a b\",0\r"},
        {{"system", "test 'x' = x # no shell of ours"}, "AT SA+SYSTEM=\"test 'x' = x # no shell of ours\"\r"},
        {{"system", "test", "x", "=", "x"}, "AT SA+SYSTEM=\"test x = x\"\r"},
        {{"kernel-log", "on"}, "AT SA+KERNEL_LOG=1\r"},
        {{"kernel-log", "off"}, "AT SA+KERNEL_LOG=0\r"},
        {{"kernel-log", "?"}, "AT SA+KERNEL_LOG?\r"},
        {{"dmesg-log", "on"}, "AT SA+DMESG_LOG=1\r"},
        {{"dmesg-log", "off"}, "AT SA+DMESG_LOG=0\r"},
        {{"kernel-log", "query"}, "AT SA+KERNEL_LOG?\r"},
        {{"dmesg-log", "query"}, "AT SA+DMESG_LOG?\r"},
        {{"packets", "on"}, "AT SA+DATA_PACKETS_LOG=1\r"},
        {{"save-log"}, "AT SA+SAVE_LOG\r"},
        {{"delete-log"}, "AT SA+DELETE_LOG\r"},
    };
    ASSERT_NO_FATAL_FAILURE(boot_host());
    words expected;
    for (const auto &row : rows) {
        host_result result = host(row.arguments);
        EXPECT_EQ(result.status, 0) << row.request << ": " << result.err;
        expected.push_back(row.request);
    }
    EXPECT_EQ(received(), expected);
}

TEST_F(Send, WhatCannotBeWrittenIsRefusedUnsent) {
    static const words rows[] = {
        {"query", "a\"b"},
        {"system", "echo \"x\""},
        {"system", ""},
        {"system", "a\rb"},
        {"start", std::string(40, 'n')},
        {"autostart", "maybe", "zr-elog"},
        {"autostart", "add"},
        {"kernel-log", "2"},
        {"packets", "?"},
        {"save-log", "now"},
        {"query"},
        {"query", "a", "b"},
        {"send"},
        {"send", ""},
        {"no-such"},
        {"query", "--raw", "x"},
        {"--timeout", "soon", "query", "x"},
        {"shell", "--timeout"},
        {},
    };
    ASSERT_NO_FATAL_FAILURE(boot_host());
    for (const words &row : rows) {
        host_result result = host(row);
        std::string shown = row.empty() ? "(nothing)" : row[0] + " " + row.back();
        EXPECT_EQ(result.status, 3) << shown;
        EXPECT_EQ(result.out, "") << shown;
        EXPECT_EQ(result.err.compare(0, 9, "sa-host: "), 0) << shown << ": " << result.err;
    }
    EXPECT_EQ(host({"send", "AT"}).status, 0);
    EXPECT_EQ(received(), words{"AT\r"});
}

TEST_F(Send, TheLongestRequestHas199Bytes) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    const std::string longest = "true " + std::string(199 - std::string("AT SA+SYSTEM=\"true \"\r").size(), 'x');
    EXPECT_EQ(host({"system", longest}).status, 0);
    host_result over = host({"system", longest + "x"});
    EXPECT_EQ(over.status, 3);
    EXPECT_NE(over.err.find("200 bytes"), std::string::npos) << over.err;
    EXPECT_EQ(host({"send", std::string(195, 'x')}).status, 3);
    ASSERT_EQ(received().size(), 1u);
    EXPECT_EQ(received()[0].size(), 199u);
}

TEST_F(Send, ManyClientsAtOnceEachGetTheirOwnAnswer) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    host_job jobs[12];
    for (int i = 0; i < 12; ++i) {
        host_start(inside({"query", i % 2 == 0 ? "zr-qel-sa" : "no-such"}), false, &jobs[i]);
    }
    for (int i = 0; i < 12; ++i) {
        host_result result = host_finish(&jobs[i]);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.out, i % 2 == 0 ? "QUERY_SERVICE: 1\n" : "QUERY_SERVICE: 0\n");
    }
    EXPECT_EQ(received().size(), 12u);
}

// The answer to a request whose client lost patience must not become the answer to the next one's.
TEST_F(Send, AnAbandonedRequestSpoilsNobodysAnswer) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    host_result impatient = host({"--timeout", "1", "system", "sleep 3"});
    EXPECT_EQ(impatient.status, 2);
    EXPECT_NE(impatient.err.find("within 1 s"), std::string::npos) << impatient.err;
    host_result next = host({"query", "zr-qel-sa"});
    EXPECT_EQ(next.status, 0) << next.err;
    EXPECT_EQ(next.out, "QUERY_SERVICE: 1\n");
}

TEST_F(Send, BusyIsASentence) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    open_channel();
    ASSERT_EQ(flock(channel, LOCK_EX | LOCK_NB), 0);
    host_result busy = host({"-T", "1", "send", "AT"});
    EXPECT_EQ(busy.status, 2);
    EXPECT_NE(busy.err.find("is busy: another client"), std::string::npos) << busy.err;
    host_job waiting;
    host_start(inside({"send", "AT"}), false, &waiting);
    hang_up();
    EXPECT_EQ(host_finish(&waiting).out, "OK\n");
}

TEST_F(Send, NoAgentIsStatusTwoWithAnAdvice) {
    desk_options options = quiet_options();
    options.agent = false;
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    host_result none = host({"send", "AT"});
    EXPECT_EQ(none.status, 2);
    EXPECT_NE(none.err.find("There is no command channel at /dev/ttyCMD0"), std::string::npos) << none.err;
    EXPECT_EQ(host({"shell", "true"}).status, 255);
    EXPECT_EQ(host({"kill"}).status, 2);
    EXPECT_EQ(host({"fetch", "/tmp/never"}).status, 2);
    host_result no_root = host_run({"--root", "/no/such/root", "send", "AT"});
    EXPECT_EQ(no_root.status, 2);
    EXPECT_NE(no_root.err.find("no root directory /no/such/root"), std::string::npos) << no_root.err;
}

TEST_F(Send, KillEndsTheAgentAndItsLeftOverLinksAreNamed) {
    desk_options options = quiet_options();
    options.restart_ms = 3600000;
    ASSERT_NO_FATAL_FAILURE(boot_host(options));
    host_result ended = host({"kill"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_TRUE(desk_until([&] { return desk_agent_pid(h) < 0; }));
    host_result after = host({"send", "AT"});
    EXPECT_EQ(after.status, 2);
    EXPECT_NE(after.err.find("the agent that published it has ended"), std::string::npos) << after.err;
}

TEST_F(Send, TwoHandsetsAndAnotherChannelName) {
    desk_options options = quiet_options();
    options.files.push_back({"/system/etc/zr-qel-sa.cfg", "zr.tty.cmd = /dev/ttyOther\n", "", 0644, 0, 0});
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    ASSERT_NE(desk_wait_log_part(h, "zr-qel-sa", "sa_listener_loop fd["), 0u);
    desk *second = desk_boot(quiet_options());
    ASSERT_NE(second, nullptr) << desk_error();
    EXPECT_NE(desk_wait_log_part(second, "zr-qel-sa", "sa_listener_loop fd["), 0u);
    EXPECT_EQ(host({"--channel", "/dev/ttyOther", "kernel-log", "on"}).status, 0);
    EXPECT_EQ(host({"kernel-log", "--channel=/dev/ttyOther", "?"}).out, "KERNEL_LOG: 1\n");
    EXPECT_EQ(host({"kernel-log", "?"}).status, 2);
    EXPECT_EQ(host_run({"-r", desk_host_path(second, "/"), "kernel-log", "?"}).out, "KERNEL_LOG: 0\n");
    desk_end(second);
}

TEST_F(Send, FromInsideTheHandsetWithoutRoot) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    ASSERT_TRUE(desk_bring(h, SA_HOST, "/data/local/tmp/client"));
    desk_result result = desk_shell(h, "/data/local/tmp/client send AT");
    EXPECT_EQ(result.output, "OK\n") << result.errors;
    desk_program stranger;
    stranger.argv = {"/data/local/tmp/client", "send", "AT"};
    stranger.uid = 2000;
    stranger.gid = 2000;
    ASSERT_EQ(chmod(desk_host_path(h, "/data/local/tmp").c_str(), 0777), 0);
    desk_result refused = desk_run(h, stranger);
    EXPECT_EQ(WEXITSTATUS(refused.status), 2);
    EXPECT_NE(refused.errors.find("No permission to open the command channel"), std::string::npos) << refused.errors;
}

TEST_F(Send, ALongCommandShowsItsTimeOnATerminal) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    words argv = inside({"system", "sleep 2"});
    argv.insert(argv.begin(), SA_HOST);
    host_terminal terminal;
    terminal_start(argv, &terminal);
    EXPECT_TRUE(terminal_expect(&terminal, "system sleep 2: 0:01"));
    EXPECT_TRUE(terminal_expect(&terminal, "\r\x1b[KOK\r\n"));
    EXPECT_EQ(terminal_finish(&terminal), 0);
    terminal_end(&terminal);
}

}  // namespace
