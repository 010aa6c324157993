// The remote shell in scripts and pipes: output and input to the last byte, exit statuses, and what a signal leaves.
#include <signal.h>
#include <unistd.h>

#include <random>

#include "tests/host/support.h"

namespace {

class Shell : public HostTest {};

// Every byte value, in an order that no terminal would leave alone.
std::string some_bytes(size_t size) {
    std::mt19937 random(20261);
    std::string bytes(size, '\0');
    for (char &byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

TEST_F(Shell, OutputAndExitStatusOfACommand) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    host_result result = host({"shell", "echo out; echo err >&2; exit 7"});
    EXPECT_EQ(result.status, 7);
    EXPECT_EQ(result.out, "out\nerr\n");  // one terminal carries both
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(host({"shell", "true"}).status, 0);
    EXPECT_EQ(host({"shell", "false"}).status, 1);
    EXPECT_EQ(host({"shell", "no-such-program"}).status, 127);
    EXPECT_EQ(host({"shell", "printf", "'%s-'", "a", "'b  c'"}).out, "a-b  c-");
    EXPECT_EQ(host({"shell", "sh -c 'kill -9 $$'"}).status, 137);
}

TEST_F(Shell, AwkwardCommandsKeepTheirMeaning) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    EXPECT_EQ(host({"shell", "echo it\\'s \"$((6*7))\" # comment"}).out, "it's 42\n");
    EXPECT_EQ(host({"shell", "cat <<E\none\ntwo\nE"}).out, "one\ntwo\n");
    EXPECT_EQ(host({"shell", "set -e; false; echo not reached"}).out, "");
    EXPECT_EQ(host({"shell", "exec sh -c 'exit 5'"}).status, 5);
    host_result unbalanced = host({"shell", "echo 'open"});
    EXPECT_EQ(unbalanced.status, 1);
    EXPECT_NE(unbalanced.out.find("no closing quote"), std::string::npos) << unbalanced.out;
    // A command that prints command lines shows the wrapping, but no mark that would end it.
    EXPECT_EQ(host({"shell", "cat /proc/[0-9]*/cmdline >/data/all; tr '\\0' ' ' </data/all; exit 3"}).status, 3);
}

TEST_F(Shell, AKilledShellHasNoStatus) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    host_result killed = host({"shell", "echo before; kill -9 $$"});
    EXPECT_EQ(killed.status, 255);
    EXPECT_EQ(killed.out, "before\n");
    EXPECT_NE(killed.err.find("without reporting"), std::string::npos) << killed.err;
}

TEST_F(Shell, OutputIsEightBitClean) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    std::string bytes = some_bytes(8 << 20);
    ASSERT_TRUE(desk_write_file(h, "/data/bytes", bytes));
    host_result marked = host({"shell", "cat /data/bytes"});
    EXPECT_EQ(marked.status, 0) << marked.err;
    EXPECT_TRUE(marked.out == bytes) << marked.out.size();
    host_result bare = host({"shell", "--no-status", "cat", "/data/bytes"});
    EXPECT_TRUE(bare.out == bytes) << bare.out.size();
}

TEST_F(Shell, InputIsEightBitCleanAndHasAnEnd) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    for (size_t size : {0u, 1u, 2u, 3u, 56u, 57u, 58u, 300000u}) {
        std::string bytes = some_bytes(size);
        host_result copy = host_with({"shell", "cat; cat >/data/rest; exit 9"}, bytes);
        EXPECT_EQ(copy.status, 9) << copy.err;
        EXPECT_TRUE(copy.out == bytes) << size << ": " << copy.out.size();
        EXPECT_EQ(desk_file_text(h, "/data/rest"), "");
    }
    std::string bytes = some_bytes(2 << 20);
    EXPECT_EQ(host_with({"shell", "cat > /data/copy"}, bytes).status, 0);
    EXPECT_TRUE(desk_file_text(h, "/data/copy") == bytes);
}

TEST_F(Shell, ACommandNeedNotReadItsInput) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    host_result first = host_with({"shell", "head -c 1"}, std::string(1 << 20, 'y'));
    EXPECT_EQ(first.status, 0) << first.err;
    EXPECT_EQ(first.out, "y");
    host_job open_input;  // an input that never ends must not keep the end of the command back
    host_start(inside({"shell", "echo done"}), true, &open_input);
    int held = dup(open_input.in);
    host_result result;
    char buf[16];
    ASSERT_TRUE(desk_until([&] { return read(open_input.out, buf, sizeof(buf)) == 5; }));
    EXPECT_EQ(host_wait(open_input.pid), 0);
    close(held);
    EXPECT_EQ(host_with({"shell", "-n", "cat"}, "not for you").out, "");
    EXPECT_EQ(host_with({"shell", "-nt", "cat"}, "not for you").out, "");
    EXPECT_EQ(host({"shell", "cat"}).out, "");
}

TEST_F(Shell, AScriptOnStandardInputRunsWithoutPrompts) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    host_result script = host_with({"shell"}, "x=4\necho $((x * 2))\nexit $x\n");
    EXPECT_EQ(script.out, "8\n");
    EXPECT_EQ(script.status, 4);
    host_result bare = host_with({"shell", "--no-status"}, "echo $((3 * 3))\n");
    EXPECT_EQ(bare.status, 0);
    EXPECT_NE(bare.out.find("\n9\n"), std::string::npos) << bare.out;
}

TEST_F(Shell, TheStatusIsGivenUpOnlyWhereItDoesNotFit) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    auto command = [](size_t size) { return "false " + std::string(size - 6, 'x'); };
    EXPECT_EQ(host({"shell", command(800)}).status, 1);
    host_result longest = host({"shell", command(1023 - 6)});
    EXPECT_EQ(longest.status, 0);
    EXPECT_NE(longest.err.find("does not fit"), std::string::npos) << longest.err;
    EXPECT_EQ(host({"shell", "--no-status", command(1023 - 6)}).err, "");
    host_result over = host({"shell", command(1023 - 5)});
    EXPECT_EQ(over.status, 255);
    EXPECT_NE(over.err.find("too long"), std::string::npos) << over.err;
    EXPECT_EQ(host({"shell", "echo still there"}).out, "still there\n");
}

// The agent closes 200 ms after its child has ended, and what the client has not read by then is lost. When the command
// here ends, its last bytes wait behind a full pipe and a full buffer, for which this reader takes longer than that.
TEST_F(Shell, ASlowReaderLosesNothing) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    host_job job;
    host_start(inside({"shell", "seq 100000"}), false, &job);
    bool is_open = true;
    while (is_open) {
        char buf[8192];
        const ssize_t got = read(job.out, buf, sizeof(buf));
        is_open = got > 0 || (got < 0 && errno == EAGAIN);
        job.out_text.append(buf, static_cast<size_t>(got > 0 ? got : 0));
        usleep(15000);
    }
    host_result result = host_finish(&job);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out.size(), 588895u);
    EXPECT_EQ(result.out.substr(result.out.size() - 14), "\n99999\n100000\n");
}

TEST_F(Shell, AReaderThatLeavesEndsBothSides) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    host_job job;
    host_start(inside({"shell", "yes left-behind"}), false, &job);
    ASSERT_TRUE(wait_runs({"yes", "left-behind"}));
    close(job.out);
    job.out = -1;
    EXPECT_EQ(host_finish(&job).status, 128 + SIGPIPE);
    EXPECT_TRUE(wait_gone({"yes", "left-behind"}));
}

TEST_F(Shell, ASignalEndsBothSides) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    for (int number : {SIGTERM, SIGINT, SIGHUP}) {
        host_job job;
        host_start(inside({"shell", "sleep 7654; echo not reached"}), false, &job);
        ASSERT_TRUE(wait_runs({"sleep", "7654"}));
        kill(job.pid, number);
        host_result result = host_finish(&job);
        EXPECT_EQ(result.status, 128 + number);
        EXPECT_EQ(result.out, "");
        ASSERT_TRUE(wait_gone({"sleep", "7654"})) << number;
    }
}

TEST_F(Shell, TheEndOfTheCommandIsTheEndEvenWithAChildInTheBackground) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    EXPECT_EQ(host({"shell", "sleep 4321 & echo started"}).out, "started\n");
    EXPECT_TRUE(wait_runs({"sleep", "4321"}));  // it may still be a fork of the shell when the command has ended
}

TEST_F(Shell, ManyAtOnceLeaveNothingBehindInTheAgent) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    ASSERT_EQ(host({"shell", "true"}).status, 0);
    ASSERT_EQ(host({"send", "AT"}).status, 0);
    const pid_t agent = desk_agent_pid(h);
    ASSERT_TRUE(desk_until([&] { return threads(agent) == 2; }));
    const size_t before = descriptors(agent).size();
    host_job jobs[20];
    for (int i = 0; i < 20; ++i) {
        const std::string number = std::to_string(i);
        // Twenty take their turns at the one listener: on a busy machine that is more than the usual patience.
        host_start(inside({"--timeout", "60", "shell", "echo " + number + "; exit " + number}), false, &jobs[i]);
    }
    for (int i = 0; i < 20; ++i) {
        host_result result = host_finish(&jobs[i]);
        EXPECT_EQ(result.out, std::to_string(i) + "\n");
        EXPECT_EQ(result.status, i) << result.err;
    }
    EXPECT_TRUE(desk_until([&] { return threads(agent) == 2 && descriptors(agent).size() == before; }))
        << threads(agent) << " threads, " << descriptors(agent).size() << " descriptors, before " << before;
}

}  // namespace
