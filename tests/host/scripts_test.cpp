// sa-host in scripts: exit statuses, checked output, consoles fed by a pipe, and the console's prompt after Ctrl-C.
#include "tests/host/links.h"

namespace {

class Scripts : public LinkTest {
  protected:
    // Runs a command line of this machine's shell in which $S is sa-host with the way to the handset.
    host_result script(const std::string &line) {
        std::string way = SA_HOST;
        for (const std::string &word : inside({})) {
            way += " " + word;
        }
        const std::string text = "S='" + way + "'; " + line;
        const int status = system(("out=$(mktemp); { " + text + "; } >$out 2>$out.err; status=$?; mv $out " + dir.path +
                                   "/out; mv $out.err " + dir.path + "/err; exit $status")
                                      .c_str());
        host_result result;
        result.status = WEXITSTATUS(status);
        result.out = content("out");
        result.err = content("err");
        return result;
    }
    std::string content(const std::string &name) {
        std::string text(65536, '\0');
        FILE *file = fopen((dir.path + "/" + name).c_str(), "re");
        text.resize(file != nullptr ? fread(&text[0], 1, text.size(), file) : 0);
        if (file != nullptr) {
            fclose(file);
        }
        return text;
    }

    temporary_dir dir;
};

TEST_P(Scripts, QuietQueryAnswersByItsStatus) {
    ASSERT_NO_FATAL_FAILURE(boot_link());
    const host_result runs = host({"query", "-q", "zr-qel-sa"});
    EXPECT_EQ(runs.status, 0);
    EXPECT_EQ(runs.out + runs.err, "");
    const host_result stopped = host({"query", "zr-elog", "--quiet"});
    EXPECT_EQ(stopped.status, 4);
    EXPECT_EQ(stopped.out + stopped.err, "");
    EXPECT_EQ(host({"query", "zr-elog", "-j"}).out, "{\"service\": \"zr-elog\", \"runs\": false}\n");
    EXPECT_EQ(host({"query", "--", "-zz"}).out, "QUERY_SERVICE: 0\n");
}

TEST_P(Scripts, AFullDiskIsAFailure) {
    ASSERT_NO_FATAL_FAILURE(boot_link());
    for (const char *line : {"$S query x >/dev/full", "$S --help >/dev/full", "$S status >/dev/full",
                             "$S log >/dev/full", "$S shell 'echo x' >/dev/full", "$S send --raw AT >/dev/full"}) {
        const host_result full = script(line);
        EXPECT_NE(full.status, 0) << line;
        EXPECT_EQ(full.err, "sa-host: Writing the output failed: No space left on device.\n") << line;
    }
}

TEST_P(Scripts, AClosedPipeIsQuiet) {
    ASSERT_NO_FATAL_FAILURE(boot_link());
    for (const char *line : {"{ sleep 0.2; $S --help; } | true", "{ sleep 0.2; $S log; } | true",
                             "trap '' PIPE; { sleep 0.2; $S query x; } | true"}) {
        EXPECT_EQ(script(line).err, "") << line;
    }
}

TEST_P(Scripts, EchoAndStopOfAPipedConsole) {
    ASSERT_NO_FATAL_FAILURE(boot_link());
    const std::string lines = "query zr-qel-sa\n# a comment\n+WRONG\nquery zr-elog\n";
    const host_result all = host_with({"console", "--echo"}, lines);
    EXPECT_EQ(all.status, 1);
    EXPECT_EQ(all.out, "query zr-qel-sa\nQUERY_SERVICE: 1\n# a comment\n+WRONG\nquery zr-elog\nQUERY_SERVICE: 0\n");
    const host_result stopped = host_with({"console", "--stop"}, lines);
    EXPECT_EQ(stopped.status, 1);
    EXPECT_EQ(stopped.out, "QUERY_SERVICE: 1\n");
}

TEST_P(Scripts, StandardErrorOfARemoteCommandComesOutApart) {
    ASSERT_NO_FATAL_FAILURE(boot_link());
    const host_result both = host({"shell", "--stderr", "echo out; echo err >&2; exit 7"});
    EXPECT_EQ(both.status, 7);
    EXPECT_EQ(both.out, "out\n");
    EXPECT_EQ(both.err, "err\n");
    const host_result fed = host_with({"shell", "-e", "cat; ls /no/such"}, "input\n");
    EXPECT_EQ(fed.status, 1);
    EXPECT_EQ(fed.out, "input\n");
    EXPECT_NE(fed.err.find("/no/such: No such file"), std::string::npos) << fed.err;
    EXPECT_EQ(host({"shell", "--stderr"}).status, 3);
    EXPECT_TRUE(desk_until([&] { return desk_list(h, "/data/local/tmp").empty(); })) << "the FIFO is still there";
}

TEST_P(Scripts, InTheConsoleCtrlCAbandonsTheRequestAndKeepsThePrompt) {
    if (!HAS_CONSOLE) {
        GTEST_SKIP() << "sa-host was built without its console";
    }
    ASSERT_NO_FATAL_FAILURE(boot_link());
    words argv = inside({"console"});
    argv.insert(argv.begin(), SA_HOST);
    host_terminal terminal;
    terminal_start(argv, &terminal);
    EXPECT_TRUE(terminal_expect(&terminal, "sa> "));
    terminal_type(&terminal, "system 'sleep 5'\n");
    EXPECT_TRUE(terminal_expect(&terminal, "system sleep 5: 0:01"));
    terminal_type(&terminal, "\x03");
    EXPECT_TRUE(terminal_expect(&terminal, "Abandoned. The agent still carries out a request that it has begun."));
    EXPECT_TRUE(terminal_expect(&terminal, "sa> "));
    terminal_type(&terminal, "query zr-qel-sa\n");
    EXPECT_TRUE(terminal_expect(&terminal, "QUERY_SERVICE: 1\r\n", 60000));
    terminal_type(&terminal, "quit\n");
    EXPECT_EQ(terminal_finish(&terminal), 130);  // of the line that failed
    terminal_end(&terminal);
}

OVER_EVERY_LINK(Scripts);

}  // namespace
