// sa-host and a real adb: requests, shells, log sets and what happens when the cable or the server goes.
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <random>
#include <sstream>

#include "tests/host/adb.h"

namespace {

const char kRoot[] = "/storage/real_sd/logs";

std::string random_bytes(size_t size) {
    std::mt19937 random(static_cast<unsigned>(size));
    std::string bytes(size, '\0');
    for (char &byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

// What a person does with a handset on a cable beside sa-host.
TEST_F(AdbTest, AdbItselfHasShellsAndFiles) {
    ASSERT_NO_FATAL_FAILURE(boot_adb());
    const words handset = {"-s", cable.serial};
    auto adb = [&](const words &arguments, const std::string &input = "") {
        words all = handset;
        all.insert(all.end(), arguments.begin(), arguments.end());
        return cable.adb(all, input);
    };
    host_result result = adb({"shell", "echo out; echo err >&2; cat; exit 7"}, "in\n");
    EXPECT_EQ(result.out, "out\nin\n");
    EXPECT_EQ(result.err, "err\n");
    EXPECT_EQ(result.status, 7);
    EXPECT_EQ(adb({"shell", "-t", "-t", "test -t 0 && tty"}).out, "/dev/pts/2\r\n");
    const std::string bytes = random_bytes(3u << 20);
    ASSERT_TRUE(desk_write_file(h, "/data/big", bytes));
    EXPECT_TRUE(adb({"exec-out", "cat /data/big"}).out == bytes);
    temporary_dir dir;
    EXPECT_EQ(adb({"pull", "/data/big", dir.path + "/big"}).status, 0);
    std::ifstream copy(dir.path + "/big", std::ios::binary);
    EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(copy), {}) == bytes);
    EXPECT_NE(adb({"pull", "/data/nothing", dir.path + "/nothing"}).status, 0);
}

TEST_F(AdbTest, RequestsAndTheirResults) {
    ASSERT_NO_FATAL_FAILURE(boot_adb());
    EXPECT_EQ(host({"send", "AT", "+KERNEL_LOG?"}).out, "OK\nKERNEL_LOG: 0\n");
    EXPECT_EQ(host({"start", "zr-elog"}).out, "OK\n");
    EXPECT_EQ(host({"query", "zr-elog"}).out, "QUERY_SERVICE: 1\n");
    EXPECT_EQ(host({"system", "false"}).status, 1);
    EXPECT_EQ(received(), (words{"AT\r", "AT SA+KERNEL_LOG?\r", "AT SA+START_SERVICE=\"zr-elog\"\r",
                                 "AT SA+QUERY_SERVICE=\"zr-elog\"\r", "AT SA+SYSTEM=\"false\"\r"}));
}

TEST_F(AdbTest, TheOnlyHandsetNeedsNoName) {
    ASSERT_NO_FATAL_FAILURE(boot_adb());
    EXPECT_EQ(host_run({"--adb", "send", "AT"}).out, "OK\n");
    setenv("ANDROID_SERIAL", "nobody", 1);
    host_result other = host_run({"--adb", "send", "AT"});
    EXPECT_EQ(other.status, 2);
    EXPECT_NE(other.err.find("device 'nobody' not found"), std::string::npos) << other.err;
    unsetenv("ANDROID_SERIAL");
    setenv("SA_HOST_LINK", ("adb:" + cable.serial).c_str(), 1);
    EXPECT_EQ(host_run({"send", "AT"}).out, "OK\n");
    unsetenv("SA_HOST_LINK");
}

TEST_F(AdbTest, NoHandsetIsTheServersOwnSentence) {
    ASSERT_NO_FATAL_FAILURE(boot_adb());
    cable.pull();
    cable.adb({"disconnect", cable.serial});
    host_result result = host_run({"--adb", "send", "AT"});
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("no devices/emulators found. Plug in the handset"), std::string::npos) << result.err;
}

TEST_F(AdbTest, TheServerIsStartedWhenNoneRuns) {
    ASSERT_NO_FATAL_FAILURE(boot_adb());
    cable.kill_server();
    host_result result = host_run({"--adb", "send", "AT"});  // a new server knows of no handset on a network
    EXPECT_NE(result.err.find("no devices/emulators found"), std::string::npos) << result.err;
    EXPECT_EQ(cable.adb({"kill-server"}).status, 0);
}

TEST_F(AdbTest, WithoutAdbThereIsNoServer) {
    setenv("ADB_SERVER_SOCKET", "localfilesystem:/nowhere/server", 1);
    const std::string path = getenv("PATH");
    setenv("PATH", "/nowhere", 1);
    host_result result = host_run({"--adb", "send", "AT"});
    setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("no adb server at localfilesystem:/nowhere/server"), std::string::npos) << result.err;
}

TEST_F(AdbTest, AnAgentThatIsNotThereIsASentence) {
    desk_options options = quiet_options();
    options.agent = false;
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    ASSERT_NO_FATAL_FAILURE(cable.plug_in(h));
    host_result result = host({"send", "AT"});
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("There is no command channel at /dev/ttyCMD0 on the handset"), std::string::npos)
        << result.err;
}

TEST_F(AdbTest, ATerminalThatIsNotTheAgentsIsNotOpened) {
    ASSERT_NO_FATAL_FAILURE(boot_adb());
    ASSERT_EQ(WEXITSTATUS(desk_shell(h, "ln -s /dev/null /data/stranger").status), 0);
    host_result result = host({"--channel", "/data/stranger", "send", "AT"});
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("not the agent's (owner 0:0)"), std::string::npos) << result.err;
}

// A daemon without root's rights, as builds for customers have it: the agent's terminals are 0660 1000:1001.
TEST_F(AdbTest, ADaemonThatMayNotOpenTheTerminalIsToldToBecomeRoot) {
    ASSERT_NO_FATAL_FAILURE(boot_adb());
    cable.pull();
    ASSERT_NO_FATAL_FAILURE(cable.plug_in_again(2000));
    host_result result = host({"send", "AT"});
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("cannot open /dev/ttyCMD0: it needs root's rights. Run adb root"), std::string::npos)
        << result.err;
    EXPECT_EQ(received(), words());
}

TEST_F(AdbTest, CommandsWithInputOutputAndStatus) {
    ASSERT_NO_FATAL_FAILURE(boot_adb());
    host_result result = host({"shell", "echo out; exit 7"});
    EXPECT_EQ(result.out, "out\n");
    EXPECT_EQ(result.status, 7);
    EXPECT_EQ(host_with({"shell", "tr a-z A-Z"}, "two\nlines\n").out, "TWO\nLINES\n");
    EXPECT_EQ(host({"shell", "kill -9 $$"}).status, 255);
}

TEST_F(AdbTest, TenMegabytesBothWays) {
    ASSERT_NO_FATAL_FAILURE(boot_adb());
    const std::string bytes = random_bytes(10u << 20);
    host_job up;
    host_start(inside({"shell", "cat > /data/big"}), true, &up);
    host_result sent = host_finish(&up, bytes);
    EXPECT_EQ(sent.status, 0) << sent.err;
    EXPECT_TRUE(desk_file_text(h, "/data/big") == bytes);
    EXPECT_TRUE(host({"shell", "cat /data/big"}).out == bytes);
}

TEST_F(AdbTest, TwentyClientsAtOnceGetTheirOwnAnswers) {
    ASSERT_NO_FATAL_FAILURE(boot_adb());
    std::vector<host_job> jobs(20);
    for (size_t i = 0; i < jobs.size(); i++) {
        const bool is_odd = i % 2 != 0;
        host_start(inside(is_odd ? words{"shell", "-n", "echo shell " + std::to_string(i)}
                                 : words{"query", i % 4 == 0 ? "zr-qel-sa" : "nobody"}),
                   false, &jobs[i]);
    }
    for (size_t i = 0; i < jobs.size(); i++) {
        host_result result = host_finish(&jobs[i]);
        EXPECT_EQ(result.status, 0) << i << ": " << result.err;
        EXPECT_EQ(result.out, i % 2 != 0   ? "shell " + std::to_string(i) + "\n"
                              : i % 4 == 0 ? "QUERY_SERVICE: 1\n"
                                           : "QUERY_SERVICE: 0\n");
    }
}

TEST_F(AdbTest, SavedAndFetchedWithItsChecksum) {
    ASSERT_NO_FATAL_FAILURE(boot_adb(desk_options()));
    temporary_dir dir;
    host_result saved = host({"save-log", "--fetch", dir.path});
    ASSERT_EQ(saved.status, 0) << saved.err;
    EXPECT_NE(saved.out.find("size and checksum are right"), std::string::npos) << saved.out;
    const std::vector<std::string> sets = desk_list(h, kRoot);
    ASSERT_EQ(sets.size(), 1u);
    const std::string there = desk_host_path(h, std::string(kRoot) + "/" + sets[0]);
    EXPECT_EQ(system(("diff -r -x handset.txt '" + there + "' '" + dir.path + "/" + sets[0] + "'").c_str()), 0);
}

// Every line of the README that uses adb, as it stands there.
TEST_F(AdbTest, TheReadmesLinesWork) {
    ASSERT_NO_FATAL_FAILURE(boot_adb(desk_options()));
    temporary_dir dir;
    ASSERT_EQ(chdir(dir.path.c_str()), 0);
    std::ifstream readme(SOURCE_DIR "/README.md");
    size_t count = 0;
    for (std::string line; std::getline(readme, line);) {
        if (line.compare(0, 14, "sa-host --adb ") != 0) {
            continue;
        }
        std::istringstream text(line.substr(0, line.find('#')));
        words argv{std::istream_iterator<std::string>(text), std::istream_iterator<std::string>()};
        argv.erase(argv.begin());
        const host_result result = host_run(argv);
        EXPECT_EQ(result.status, 0) << line << "\n" << result.err;
        count++;
    }
    EXPECT_GE(count, 4u);
    EXPECT_EQ(desk_list(h, kRoot).size(), 1u);
    EXPECT_EQ(access(("logs/" + desk_list(h, kRoot)[0]).c_str(), F_OK), 0);
    ASSERT_EQ(chdir("/"), 0);
}

TEST_F(AdbTest, TheInteractiveShellHasTheWindowsSize) {
    ASSERT_NO_FATAL_FAILURE(boot_adb());
    words argv = inside({"shell"});
    argv.insert(argv.begin(), SA_HOST);
    host_terminal terminal;
    terminal_start(argv, &terminal, 31, 97);
    ASSERT_TRUE(terminal_expect(&terminal, "# "));
    terminal_type(&terminal, "busybox stty size\r");
    EXPECT_TRUE(terminal_expect(&terminal, "31 97\r\n"));
    terminal_type(&terminal, "exit 6\r");
    EXPECT_EQ(terminal_finish(&terminal), 6);
    terminal_end(&terminal);
}

TEST_F(AdbTest, TheInteractiveShellReadsLinesForPrograms) {
    ASSERT_NO_FATAL_FAILURE(boot_adb());
    words argv = inside({"shell"});
    argv.insert(argv.begin(), SA_HOST);
    host_terminal terminal;
    terminal_start(argv, &terminal);
    ASSERT_TRUE(terminal_expect(&terminal, "# "));
    terminal_type(&terminal, "cat > /data/typed; echo ended\r");
    ASSERT_TRUE(terminal_expect(&terminal, "ended\r\r\n"));
    ASSERT_TRUE(wait_runs({"cat"}));
    terminal_type(&terminal, "lineX\x7f\r");
    EXPECT_TRUE(terminal_expect(&terminal, "lineX\b \b\r\n"));
    EXPECT_TRUE(desk_until([&] { return desk_file_text(h, "/data/typed") == "line\n"; }));
    terminal_type(&terminal, "\x04");
    EXPECT_TRUE(terminal_expect(&terminal, "ended\r\n# "));
    terminal_type(&terminal, "exit 6\r");
    EXPECT_EQ(terminal_finish(&terminal), 6);
    terminal_end(&terminal);
}

TEST_F(AdbTest, TheShellInTmux) {
    ASSERT_NO_FATAL_FAILURE(boot_adb());
    try_shell_in_tmux();
}

// ---- what breaks in the middle

class AdbBreak : public AdbTest {
  protected:
    // Starts a request that does not end by itself, and waits until the agent is at it.
    void start_request(host_job *job) {
        host_start(inside({"system", "sleep 4321||true"}), false, job);
        ASSERT_TRUE(wait_runs({"sleep", "4321"}));
    }
    // Ends that request on the handset.
    void end_sleep() {
        for (pid_t pid : desk_pids(h, "sleep")) {
            desk_kill(h, pid, SIGKILL);
        }
    }
};

TEST_F(AdbBreak, ThePulledCableEndsARequestAndTheNextOneGoesThrough) {
    ASSERT_NO_FATAL_FAILURE(boot_adb());
    host_job job;
    ASSERT_NO_FATAL_FAILURE(start_request(&job));
    cable.pull();
    host_result result = host_finish(&job);
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("Whether the request \"system sleep 4321||true\" was carried out is unknown"),
              std::string::npos)
        << result.err;
    EXPECT_EQ(result.err.find("The agent"), std::string::npos) << result.err;
    end_sleep();
    ASSERT_NO_FATAL_FAILURE(cable.plug_in_again());
    EXPECT_EQ(host({"--timeout", "60", "send", "AT"}).out, "OK\n");
}

TEST_F(AdbBreak, ThePulledCableEndsAShell) {
    ASSERT_NO_FATAL_FAILURE(boot_adb());
    host_job job;
    host_start(inside({"shell", "cat"}), true, &job);
    ASSERT_TRUE(wait_runs({"cat"}));
    cable.pull();
    host_result result = host_finish(&job);
    EXPECT_EQ(result.status, 255);
    EXPECT_NE(result.err.find("sa-host: adb: "), std::string::npos) << result.err;
    EXPECT_TRUE(wait_gone({"cat"}));
    ASSERT_NO_FATAL_FAILURE(cable.plug_in_again());
    EXPECT_EQ(host({"shell", "echo again"}).out, "again\n");
}

TEST_F(AdbBreak, ThePulledCableEndsAFetchThatGoesOnLater) {
    desk_options options = quiet_options();
    options.sd_card_size = 256u << 20;
    ASSERT_NO_FATAL_FAILURE(boot_adb(options));
    const std::string set = "2026_01_02_03_04_05";
    ASSERT_TRUE(desk_make_dir(h, std::string(kRoot) + "/" + set));
    ASSERT_TRUE(desk_write_file(h, std::string(kRoot) + "/" + set + "/big", random_bytes(64u << 20)));
    temporary_dir dir;
    host_job job;
    host_start(inside({"fetch", dir.path}), false, &job);
    const std::string part = dir.path + "/." + set + ".tar.part";
    struct stat st = {};
    ASSERT_TRUE(desk_until([&] { return stat(part.c_str(), &st) == 0 && st.st_size > 0; }, 60000));
    cable.pull();
    host_result result = host_finish(&job);
    EXPECT_EQ(result.status, 2) << result.out;
    EXPECT_NE(result.err.find("Run the same command again"), std::string::npos) << result.err;
    ASSERT_EQ(stat(part.c_str(), &st), 0);
    ASSERT_NO_FATAL_FAILURE(cable.plug_in_again());
    host_result again = host({"fetch", dir.path});
    EXPECT_EQ(again.status, 0) << again.err;
    const std::string there = desk_host_path(h, std::string(kRoot) + "/" + set);
    EXPECT_EQ(system(("diff -r -x handset.txt '" + there + "' '" + dir.path + "/" + set + "'").c_str()), 0);
}

TEST_F(AdbBreak, WaitCoversACableThatComesLater) {
    ASSERT_NO_FATAL_FAILURE(boot_adb());
    cable.pull();
    cable.adb({"disconnect", cable.serial});
    host_job job;
    host_start({"--adb", "--timeout", "120", "wait"}, false, &job);
    EXPECT_FALSE(desk_until([&] { return waitpid(job.pid, nullptr, WNOHANG) != 0; }, 1500)) << "gave up at once";
    ASSERT_NO_FATAL_FAILURE(cable.plug_in_again());
    host_result result = host_finish(&job);
    EXPECT_EQ(result.status, 0) << result.err;
}

TEST_F(AdbBreak, TheKilledServerEndsARequest) {
    ASSERT_NO_FATAL_FAILURE(boot_adb());
    host_job job;
    ASSERT_NO_FATAL_FAILURE(start_request(&job));
    cable.kill_server();
    host_result result = host_finish(&job);
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("there is no adb server"), std::string::npos) << result.err;
    end_sleep();
    ASSERT_NO_FATAL_FAILURE(cable.plug_in_again());
    EXPECT_EQ(host({"--timeout", "60", "send", "AT"}).out, "OK\n");
}

}  // namespace
