// The launcher: the environment of children, the log lines of waiters, and what remains if a step fails.
#include "sa/main/base/subproc.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "tests/unit/faults.h"
#include "tests/unit/log_lines.h"

typedef std::vector<std::string> lines;

static int count_of(const lines &found, const std::string &text) {
    return static_cast<int>(std::count(found.begin(), found.end(), text));
}

// A command line as /proc shows it: every argument with its NUL.
static std::string command_line(const lines &arguments) {
    std::string text;
    for (const std::string &argument : arguments) {
        text += argument + '\0';
    }
    return text;
}

class Launcher : public LogLinesTest {
  protected:
    void SetUp() override {
        LogLinesTest::SetUp();
        shorten_pauses(true);
        before = open_descriptors();
        unlink("/tmp/out");
    }
    void TearDown() override {
        pass_calls();
        divert_open("", "");
        replace_waits(0, 0, 0);
        expect_descriptors_as_before();  // a waiter's last step
        shorten_pauses(false);
    }

    // Runs a shell script as a command child of this name and returns its pid once it has been reaped.
    int run_script(const std::string &name, const std::string &text) {
        write_file("/tmp/" + name, "#!/system/bin/sh\n" + text);
        chmod(("/tmp/" + name).c_str(), 0755);
        const std::string path = "/tmp/" + name;
        return run(path, {path});
    }
    int run(const std::string &program, std::vector<std::string> arguments) {
        std::vector<char *> argv;
        for (std::string &argument : arguments) {
            argv.push_back(&argument[0]);
        }
        argv.push_back(nullptr);
        const int pid = sa_create_subproc_thread(program.c_str(), argv.data(), static_cast<int>(arguments.size()));
        if (pid > 0) {
            await_end(pid);
        }
        return pid;
    }
    // Waits until the waiter of a child is done with all but its pause.
    void await_end(int pid) {
        const std::string line = "subproc_waiter_service pid[" + std::to_string(pid) + "] exit errno[0-Success]";
        ASSERT_TRUE(until([&] { return count_of(file(), line) == 1; })) << "no end of " << pid;
    }
    void expect_descriptors_as_before() {
        EXPECT_TRUE(until([&] { return open_descriptors() == before; }));
    }
    static bool until(const std::function<bool()> &condition) {
        for (int attempt = 0; attempt < 10000; attempt++) {
            if (condition()) {
                return true;
            }
            usleep(1000);
        }
        return condition();
    }
    // The number that the next descriptor gets.
    static std::string next_fd() {
        const int probe = open("/dev/null", O_RDONLY);
        close(probe);
        return std::to_string(probe);
    }

    std::vector<int> before;
};

// ---- command children ----

class CommandChild : public Launcher {};

TEST_F(CommandChild, LosesTheAgentsIdentity) {
    const int pid = run_script("plain",  // a redirection in front would change what is looked at
                               "for fd in 0 1 2; do [ /proc/$$/fd/$fd -ef /dev/null ] && on=\"$on$fd\"; done\n"
                               "{ id -u; id -g; echo $on; } >/tmp/out\n");
    ASSERT_GT(pid, 0);
    EXPECT_EQ(read_file("/tmp/out"), "2000\n1007\n012\n");
    EXPECT_EQ(owner_of("/tmp/out").substr(5), "2000:1007");
    expect_descriptors_as_before();
}

TEST_F(CommandChild, LeadsAGroupOfItsOwn) {
    const std::string own_session = std::to_string(getsid(0));
    const int pid = run_script("group", "cut -d ' ' -f 5,6 /proc/$$/stat >/tmp/out\n");
    EXPECT_EQ(read_file("/tmp/out"), std::to_string(pid) + " " + own_session + "\n");
}

TEST_F(CommandChild, OfPacketCaptureKeepsTheAgentsIdentity) {
    ASSERT_EQ(chdir("/data"), 0);
    const mode_t mask = umask(002);
    const int pid =
        run_script("my-tcpdump-2", "{ id -u; id -g; pwd; umask; cut -d ' ' -f 5,6 /proc/$$/stat; } >/tmp/out\n");
    umask(mask);
    ASSERT_EQ(chdir("/"), 0);
    const std::string number = std::to_string(pid);
    EXPECT_EQ(read_file("/tmp/out"), "0\n0\n/\n077\n" + number + " " + number + "\n");
    EXPECT_EQ(count_of(platform(pid), "create_subprocess_ex tcpdump[1]"), 1);
}

TEST_F(CommandChild, IsLookedUpInThePathAndGetsItsVector) {
    const int pid = run("sh", {"any name", "-c", "cat /proc/$$/cmdline >/tmp/out; exit 3", "x y", ""});
    ASSERT_GT(pid, 0);
    EXPECT_EQ(read_file("/tmp/out"),
              command_line({"any name", "-c", "cat /proc/$$/cmdline >/tmp/out; exit 3", "x y", ""}));
}

TEST_F(CommandChild, HasNothingOpenButItsStreams) {
    const int stray = open("/dev/zero", O_RDONLY);  // not close-on-exec, as another thread may have one for a moment
    std::string script = "exec readlink";
    for (int fd = 0; fd < 32; fd++) {
        script += " /proc/self/fd/" + std::to_string(fd);
    }
    run_script("open", script + " >/tmp/out\n");
    close(stray);
    EXPECT_EQ(read_file("/tmp/out"), "/dev/null\n/tmp/out\n/dev/null\n");
}

TEST_F(CommandChild, StartsWithDefaultSignals) {
    signal(SIGUSR2, SIG_IGN);
    signal(SIGTERM, SIG_IGN);
    sigset_t mask;
    sigset_t saved;
    sigfillset(&mask);
    pthread_sigmask(SIG_SETMASK, &mask, &saved);
    run_script("signals", "exec grep -E '^Sig(Blk|Ign)' /proc/self/status >/tmp/out\n");
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    signal(SIGUSR2, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    EXPECT_EQ(read_file("/tmp/out"), "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
}

TEST_F(CommandChild, GetsAnOrdinaryOutOfMemoryScore) {
    write_file("/tmp/oom", "");
    divert_open("/oom_adj", "/tmp/oom");
    const int pid = run_script("score", "exit 0\n");
    EXPECT_EQ(read_file("/tmp/oom"), "0") << "one byte, no newline";
    const lines found = platform(pid);
    EXPECT_EQ(count_of(found, "create_subprocess_ex text[/proc/" + std::to_string(pid) + "/oom_adj]"), 1);
}

TEST_F(CommandChild, GoesOnWithoutAnOutOfMemoryScore) {
    divert_open("/oom_adj", "/no/such/file");
    const int pid = run_script("score", "echo on >/tmp/out\n");
    const lines found = platform(pid);
    const auto at = std::find(found.begin(), found.end(), "create_subprocess_ex fdoo[-1]");
    ASSERT_NE(at, found.end());
    EXPECT_EQ(*(at + 1), "create_subprocess_ex open(fdoo) error[2-No such file or directory]");
    EXPECT_EQ(count_of(file(), "create_subprocess_ex open errno[2-No such file or directory]"), 1);
    EXPECT_EQ(read_file("/tmp/out"), "on\n");
}

TEST_F(CommandChild, GoesOnWhenItsOutOfMemoryScoreCannotBeWritten) {
    divert_open("/oom_adj", "/dev/full");
    const int pid = run_script("score", "echo on >/tmp/out\n");
    const lines found = platform(pid);
    EXPECT_EQ(count_of(found, "create_subprocess_ex write(fdoo) error[28-No space left on device]"), 1);
    EXPECT_EQ(count_of(file(), "create_subprocess_ex write errno[28-No space left on device]"), 1);
    EXPECT_EQ(read_file("/tmp/out"), "on\n");
}

// A program must not run on the agent's own streams.
TEST_F(CommandChild, WithoutOneOfItsStreamsEndsBeforeTheProgram) {
    for (const int skip : {0, 1, 2}) {
        SCOPED_TRACE("stream " + std::to_string(skip));
        forget();
        fail_call("dup2", EBUSY, skip);
        const int pid = run_script("never", "echo ran >/tmp/out\n");
        pass_calls();
        EXPECT_EQ(platform(pid).back(), "create_subprocess_ex dup2 error[16-Device or resource busy]");
        EXPECT_EQ(count_of(file(), "create_subprocess_ex dup2 errno[16-Device or resource busy]"), 1);
        EXPECT_EQ(count_of(platform(), "subproc_waiter_service Exit code[255]"), 1);
        EXPECT_EQ(access("/tmp/out", F_OK), -1);
    }
}

TEST_F(CommandChild, LeavesItsTrail) {
    const std::string fd = next_fd();
    const int number = run("sh", {"sh", "-c", "exit 3"});
    const std::string pid = std::to_string(number);
    EXPECT_EQ(platform(number).front(), "create_subprocess_ex fd[" + fd + "] cmd[sh] arg0_size[2] pid[0]");
    const lines child = platform(number);
    ASSERT_GE(child.size(), 4u);
    EXPECT_EQ(child[1], "create_subprocess_ex tcpdump[0]");
    EXPECT_EQ(child[2], "create_subprocess_ex text[/proc/" + pid + "/oom_adj]");
    EXPECT_EQ(child[3].compare(0, 26, "create_subprocess_ex fdoo["), 0);
    expect_descriptors_as_before();
    EXPECT_EQ(pauses_of(100000), 1) << "the launcher's";
    EXPECT_EQ(pauses_of(200000), 1) << "the waiter's";

    // Launcher and waiter run side by side; each keeps its own order.
    lines launcher;
    lines waiter;
    for (const std::string &line : platform()) {
        const bool is_waiters = line.compare(0, 22, "subproc_waiter_service") == 0 ||
                                line.compare(0, 17, "service_bootstrap") == 0 ||
                                line == "fd[" + fd + "] pid[" + pid + "]";
        (is_waiters ? waiter : launcher).push_back(line);
    }
    const std::string both = "fd[" + fd + "] pid[" + pid + "]";
    EXPECT_EQ(launcher, (lines{
                            "sa_create_subproc_thread()",
                            "sa_create_subproc_thread cmd[sh] param_size[3]",
                            "sa_create_subproc_thread fd[" + fd + "]",
                            "create_subproc_thread_ex()",
                            "create_subproc_thread_ex fd[" + fd + "] cmd[sh] param_size[3]",
                            "create_subprocess_ex()",
                            "create_subprocess_ex fd[" + fd + "] cmd[sh] arg0_size[2] pid[" + pid + "]",
                            "create_subproc_thread_ex ret_fd[" + fd + "] pid[" + pid + "]",
                            "thread_create()",
                            "create_subproc_thread_ex pid[" + pid + "]",
                            "sa_create_subproc_thread ret[" + pid + "]",
                        }));
    EXPECT_EQ(waiter, (lines{
                          "service_bootstrap_func()",
                          both,
                          "subproc_waiter_service " + both,
                          "subproc_waiter_service status[768] p[" + pid + "]",
                          "subproc_waiter_service " + both,
                          "subproc_waiter_service Exit code[3]",
                          "subproc_waiter_service shell exited " + both + " errno[0]",
                      }));
    const lines text = file();
    EXPECT_EQ(count_of(text, "create_subprocess_ex child process pid[" + pid + "]"), 0)
        << "user 2000 cannot write into root's file";
    EXPECT_EQ(count_of(text, "create_subprocess_ex parent process"), 1);
    EXPECT_EQ(count_of(text, "subproc_waiter_service p[" + pid + "] status[768]"), 1);
    EXPECT_EQ(count_of(text, "subproc_waiter_service pid[" + pid + "] exit code[3]"), 1);
}

TEST_F(CommandChild, WritesItsLineWhereItMay) {
    write_file("/data/local/log/sa.log", "");
    ASSERT_EQ(chmod("/data/local/log/sa.log", 0666), 0);
    const int pid = run_script("line", "exit 0\n");
    EXPECT_EQ(count_of(file(), "create_subprocess_ex child process pid[" + std::to_string(pid) + "]"), 1);
}

TEST_F(CommandChild, ThatCannotBeExecutedEndsWith255) {
    const int pid = run("no-such-program", {"no-such-program"});
    ASSERT_GT(pid, 0) << "the launch itself succeeded";
    EXPECT_EQ(platform(pid).back(),
              "create_subprocess_ex execvp(no-such-program) ret_val[-1] error[2-No such file or directory]");
    EXPECT_EQ(count_of(platform(), "subproc_waiter_service Exit code[255]"), 1);
}

TEST_F(CommandChild, ThatCannotDropItsGroupEndsBeforeTheProgram) {
    fail_every_call("setgid", EPERM);
    const int pid = run_script("never", "echo ran >/tmp/out\n");
    pass_calls();
    EXPECT_EQ(platform(pid).back(), "create_subprocess_ex setgid(AID_LOG) error[1-Operation not permitted]");
    EXPECT_EQ(count_of(file(), "create_subprocess_ex setgid errno[1-Operation not permitted]"), 1);
    EXPECT_EQ(count_of(platform(), "subproc_waiter_service Exit code[255]"), 1);
    EXPECT_EQ(access("/tmp/out", F_OK), -1);
}

TEST_F(CommandChild, ThatCannotDropItsUserEndsBeforeTheProgram) {
    fail_every_call("setuid", EAGAIN);
    const int pid = run_script("never", "echo ran >/tmp/out\n");
    pass_calls();
    EXPECT_EQ(platform(pid).back(),
              "create_subprocess_ex setuid(AID_SHELL) error[11-Resource temporarily unavailable]");
    EXPECT_EQ(count_of(platform(), "subproc_waiter_service Exit code[255]"), 1);
    EXPECT_EQ(access("/tmp/out", F_OK), -1);
}

TEST_F(CommandChild, OfNothingIsRefused) {
    char *argv[] = {nullptr};
    EXPECT_EQ(sa_create_subproc_thread(nullptr, argv, 0), -1);
    EXPECT_EQ(sa_create_subproc_thread("sh", nullptr, 0), -1);
    EXPECT_EQ(platform(), (lines{"sa_create_subproc_thread()", "sa_create_subproc_thread parameters invalid",
                                 "sa_create_subproc_thread()", "sa_create_subproc_thread parameters invalid"}));
    EXPECT_EQ(file(),
              (lines{"sa_create_subproc_thread parameters invalid", "sa_create_subproc_thread parameters invalid"}));
    EXPECT_EQ(pauses_of(100000), 0);
}

TEST_F(CommandChild, NeedsTheNullDevice) {
    fail_call("open", ENFILE, 1);  // the first is the diagnostic file's
    EXPECT_EQ(run("sh", {"sh"}), -1);
    EXPECT_EQ(platform(), (lines{"sa_create_subproc_thread()", "sa_create_subproc_thread cmd[sh] param_size[1]",
                                 "sa_create_subproc_thread fd[-1]",
                                 "sa_create_subproc_thread open error[23-Too many open files in system]"}));
    EXPECT_EQ(file().back(), "sa_create_subproc_thread open errno[23-Too many open files in system]");
    EXPECT_EQ(pauses_of(100000), 0);
}

TEST_F(CommandChild, RefusesDescriptorZeroAndLeavesItOpen) {
    const int input = dup(0);
    close(0);
    EXPECT_EQ(run("sh", {"sh"}), -1);
    EXPECT_EQ(count_of(platform(), "sa_create_subproc_thread fd[0]"), 1);
    EXPECT_GE(fcntl(0, F_GETFD), 0);
    char target[32] = "";
    EXPECT_GT(readlink("/proc/self/fd/0", target, sizeof(target) - 1), 0);
    EXPECT_STREQ(target, "/dev/null");
    dup2(input, 0);
    close(input);
}

TEST_F(CommandChild, ThatCannotBeForkedLeavesNothing) {
    const std::string fd = next_fd();
    fail_call("fork", EAGAIN);
    EXPECT_EQ(run("sh", {"sh"}), -1);
    const lines found = platform();
    ASSERT_GE(found.size(), 7u);
    EXPECT_EQ(lines(found.begin() + 5, found.end()),
              (lines{"create_subprocess_ex()", "create_subprocess_ex fd[" + fd + "] cmd[sh] arg0_size[2] pid[-1]",
                     "create_subprocess_ex fork errno[11-Resource temporarily unavailable]",
                     "create_subproc_thread_ex ret_fd[-1] pid[-1]",
                     "create_subproc_thread_ex create_subprocess_ex error[11-Resource temporarily unavailable]",
                     "sa_create_subproc_thread ret[-1]"}));
    EXPECT_EQ(count_of(file(), "create_subprocess_ex fork errno[11-Resource temporarily unavailable]"), 1);
    EXPECT_EQ(pauses_of(100000), 1) << "a failed launch costs its pause, too";
    EXPECT_EQ(open_descriptors(), before);
}

// A child without a waiter is neither killed nor reaped; only its descriptor is closed.
TEST_F(CommandChild, WithoutAWaiterRunsOn) {
    for (const std::string call : {"malloc", "pthread_create"}) {
        forget();
        unlink("/tmp/out");
        const int error = call == "malloc" ? ENOMEM : EAGAIN;
        fail_call(call, error);
        EXPECT_EQ(run("sh", {"sh", "-c", "echo ran >/tmp/out"}), -1) << call;
        EXPECT_EQ(pass_calls(), 1) << call;
        const std::string label = call == "malloc" ? "malloc" : "thread_create";
        const std::string reason = std::to_string(error) + "-" + strerror(error);
        const lines found = platform();
        ASSERT_GE(found.size(), 2u);
        EXPECT_EQ(found[found.size() - 2], "create_subproc_thread_ex " + label + " error[" + reason + "]");
        EXPECT_EQ(found.back(), "sa_create_subproc_thread ret[-1]");
        EXPECT_EQ(count_of(file(), "create_subproc_thread_ex " + label + " errno[" + reason + "]"), 1);
        EXPECT_EQ(open_descriptors(), before) << call;
        EXPECT_TRUE(until([] { return read_file("/tmp/out") == "ran\n"; })) << call;
        int status = -1;
        EXPECT_GT(waitpid(-1, &status, 0), 0) << call;
        EXPECT_EQ(status, 0) << call;
    }
}

// ---- shell children ----

class ShellChild : public Launcher {
  protected:
    void SetUp() override {
        Launcher::SetUp();
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        mine = ends[0];
        theirs = ends[1];
        number = std::to_string(theirs);
    }
    void TearDown() override {
        EXPECT_EQ(pauses_of(100000), 0) << "a shell costs its caller no pause";
        close(mine);
        Launcher::TearDown();
    }
    // All that comes until the waiter has closed its end.
    std::string output() {
        std::string text;
        char bytes[4096];
        ssize_t count;
        while ((count = read(mine, bytes, sizeof(bytes))) > 0) {
            text.append(bytes, static_cast<size_t>(count));
        }
        return text;
    }

    int mine = -1;
    int theirs = -1;
    std::string number;
};

TEST_F(ShellChild, RunsACommandLine) {
    const char *script = "cat /proc/$$/cmdline; id -u; cut -d ' ' -f 5,6 /proc/$$/stat";
    EXPECT_EQ(create_subproc_thread(theirs, script), theirs);
    const std::string text = output();
    const std::string vector = command_line({"/system/bin/sh", "-c", script});
    ASSERT_GT(text.size(), vector.size());
    EXPECT_EQ(text.substr(0, vector.size()), vector);
    int group = 0;
    int session = -1;
    ASSERT_EQ(sscanf(text.c_str() + vector.size(), "0\n%d %d", &group, &session), 2) << "it keeps the agent's identity";
    EXPECT_EQ(group, session) << "a session of its own";
    EXPECT_NE(session, getsid(0));
    EXPECT_TRUE(until([&] { return open_descriptors().size() == before.size() + 1; }));
}

TEST_F(ShellChild, GoesOnWhenItsOutOfMemoryScoreCannotBeWritten) {
    divert_open("/oom_adj", "/dev/full");
    int pid = 0;
    ASSERT_EQ(create_subprocess(theirs, "-c", "echo on", &pid), theirs);
    close(theirs);
    EXPECT_EQ(output(), "on\n");
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
    const lines found = platform(pid);
    EXPECT_EQ(count_of(found, "create_subprocess write(fdoo) error[28-No space left on device]"), 1);
    EXPECT_EQ(count_of(file(), "create_subprocess write errno[28-No space left on device]"), 1);
}

TEST_F(ShellChild, WithoutOneOfItsStreamsEndsBeforeTheProgram) {
    int pid = 0;
    int status = 0;
    fail_call("dup2", EBUSY, 2);
    ASSERT_EQ(create_subprocess(theirs, "-c", "echo ran", &pid), theirs);
    pass_calls();
    close(theirs);
    EXPECT_EQ(output(), "");
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(WEXITSTATUS(status), 255);
    EXPECT_EQ(platform(pid).back(), "create_subprocess dup2 error[16-Device or resource busy]");
    EXPECT_EQ(count_of(file(), "create_subprocess dup2 errno[16-Device or resource busy]"), 1);
}

TEST_F(ShellChild, WithoutACommandIsInteractive) {
    EXPECT_EQ(create_subproc_thread(theirs, nullptr), theirs);
    const std::string commands = "cat /proc/$$/cmdline\nexit 5\n";
    ASSERT_EQ(write(mine, commands.data(), commands.size()), static_cast<ssize_t>(commands.size()));
    EXPECT_NE(output().find(command_line({"/system/bin/sh", "-"})), std::string::npos);
    const lines found = platform();
    EXPECT_EQ(found[0], "create_subproc_thread fd[" + number + "] name[(null)]");
    EXPECT_EQ(count_of(found, "subproc_waiter_service Exit code[5]"), 1);
    bool is_traced = false;
    for (const std::string &line : found) {
        is_traced = is_traced || line.compare(0, 31 + number.size() + 37,
                                              "create_subprocess fd[" + number +
                                                  "] cmd[/system/bin/sh] arg0[-] arg1[(null)] pid[") == 0;
    }
    EXPECT_TRUE(is_traced);
}

TEST_F(ShellChild, ThatCannotBeForkedIsClosed) {
    fail_call("fork", ENOMEM);
    EXPECT_EQ(create_subproc_thread(theirs, "true"), -1);
    EXPECT_EQ(output(), "");
    EXPECT_EQ(platform(), (lines{"create_subproc_thread fd[" + number + "] name[true]", "create_subprocess()",
                                 "create_subprocess fd[" + number + "] cmd[/system/bin/sh] arg0[-c] arg1[true] pid[-1]",
                                 "create_subprocess fork errno[12-Cannot allocate memory]",
                                 "create_subproc_thread ret_fd[-1] pid[-1]",
                                 "create_subproc_thread create_subprocess error[12-Cannot allocate memory]"}));
    EXPECT_EQ(file(), (lines{"create_subproc_thread fd[" + number + "] name[true]",
                             "create_subprocess fd[" + number + "] cmd[/system/bin/sh] arg0[-c] arg1[true] pid[-1]",
                             "create_subprocess fork errno[12-Cannot allocate memory]",
                             "create_subproc_thread ret_fd[-1] pid[-1]",
                             "create_subproc_thread create_subprocess errno[12-Cannot allocate memory]"}));
}

TEST_F(ShellChild, WithoutMemoryForItsWaiterIsToldOnStandardOutput) {
    const int output_fd = dup(STDOUT_FILENO);
    const int notice = open("/tmp/notice", O_RDWR | O_CREAT | O_TRUNC, 0600);
    dup2(notice, STDOUT_FILENO);
    fail_call("malloc", ENOMEM);
    const int result = create_subproc_thread(theirs, "true");
    dup2(output_fd, STDOUT_FILENO);
    close(output_fd);
    close(notice);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(read_file("/tmp/notice"), "malloc stinfo failed");
    EXPECT_EQ(platform().back(), "create_subproc_thread malloc error[12-Cannot allocate memory]");
    EXPECT_EQ(count_of(file(), "create_subproc_thread malloc errno[12-Cannot allocate memory]"), 1);
    EXPECT_EQ(fcntl(theirs, F_GETFD), -1);
    EXPECT_GT(waitpid(-1, nullptr, 0), 0) << "the child is nobody's";
}

TEST_F(ShellChild, WithoutAThreadForItsWaiterIsClosed) {
    fail_call("pthread_create", EAGAIN);
    EXPECT_EQ(create_subproc_thread(theirs, "true"), -1);
    EXPECT_EQ(fcntl(theirs, F_GETFD), -1);
    EXPECT_EQ(platform().back(), "create_subproc_thread thread_create error[11-Resource temporarily unavailable]");
    EXPECT_EQ(count_of(file(), "thread_create thd[11] pthread[0]"), 1);
    EXPECT_EQ(count_of(file(), "create_subproc_thread thread_create errno[11-Resource temporarily unavailable]"), 1);
    EXPECT_GT(waitpid(-1, nullptr, 0), 0);
}

TEST_F(ShellChild, OnOneOfTheStreamsKeepsIt) {
    const int input = dup(0);
    dup2(theirs, 0);
    close(theirs);
    int pid = 0;
    ASSERT_EQ(create_subprocess(0, "-c", "readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2", &pid), 0);
    dup2(input, 0);
    close(input);
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
    const std::string text = output();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3) << text;
    EXPECT_EQ(text.compare(0, 8, "socket:["), 0) << text;
}

// ---- waiters ----

class Waiter : public Launcher {
  protected:
    // A child that ends as the body does.
    static int start(void (*body)()) {
        const pid_t pid = fork();
        if (pid == 0) {
            body();
            _exit(0);
        }
        return pid;
    }
    // Runs the waiter on this thread and returns its last lines in the platform log and in the file.
    std::pair<lines, lines> wait(int pid) {
        errno = 0;
        const int fd = open("/dev/null", O_RDONLY);
        EXPECT_EQ(subproc_waiter_service(fd, pid), 0);
        EXPECT_EQ(open_descriptors(), before) << "the descriptor is closed in the end";
        return {platform(), file()};
    }
};

TEST_F(Waiter, TellsTheSignal) {
    const int pid = start([] { kill(getpid(), SIGKILL); });
    const auto found = wait(pid);
    EXPECT_EQ(count_of(found.first, "subproc_waiter_service Killed by signal[9]"), 1);
    EXPECT_EQ(count_of(found.second, "subproc_waiter_service pid[" + std::to_string(pid) + "] killed by signal[9]"), 1);
}

TEST_F(Waiter, TellsTheSignalBehindACoreDump) {
    const int pid = start([] { kill(getpid(), SIGKILL); });
    replace_waits(pid, SIGSEGV | 0x80, 1);
    const auto found = wait(pid);
    EXPECT_EQ(count_of(found.first, "subproc_waiter_service Killed by signal[11]"), 1);
    EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
}

TEST_F(Waiter, TellsTheExitCode) {
    const int pid = start([] { _exit(200); });
    const auto found = wait(pid);
    EXPECT_EQ(count_of(found.first, "subproc_waiter_service Exit code[200]"), 1);
    EXPECT_EQ(count_of(found.second, "subproc_waiter_service pid[" + std::to_string(pid) + "] exit code[200]"), 1);
}

TEST_F(Waiter, TellsAStoppedChild) {
    const int pid = start([] { pause(); });
    replace_waits(pid, (SIGSTOP << 8) | 0x7f, 1);
    const auto found = wait(pid);
    EXPECT_EQ(count_of(found.first, "subproc_waiter_service Didn't exit!!. status[4991]"), 1);
    EXPECT_EQ(count_of(found.second, "subproc_waiter_service pid[" + std::to_string(pid) + "] terminated abnormally"),
              1);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

TEST_F(Waiter, GoesOnWaitingAfterAnyOtherResult) {
    const int pid = start([] { _exit(1); });
    replace_waits(-1, 77, 3);
    const auto found = wait(pid);
    EXPECT_EQ(count_of(found.first, "subproc_waiter_service status[77] p[-1]"), 3);
    EXPECT_EQ(count_of(found.second, "subproc_waiter_service p[-1] status[77]"), 3);
    EXPECT_EQ(count_of(found.first, "subproc_waiter_service status[256] p[" + std::to_string(pid) + "]"), 1);
    EXPECT_EQ(count_of(found.first, "subproc_waiter_service Exit code[1]"), 1);
}

TEST_F(Waiter, ReturnsWhatItsCloseReturns) {
    const int pid = start([] { _exit(0); });
    EXPECT_EQ(subproc_waiter_service(999, pid), -1);
}
