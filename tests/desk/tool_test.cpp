// The command line tool `handset`.
#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "tests/desk/fixture.h"

struct outcome {
    int status;
    std::string output;
};

static outcome call(const std::string &arguments) {
    outcome result = {-1, ""};
    FILE *pipe = popen((std::string(HANDSET_TOOL) + " " + arguments).c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    char buf[4096];
    for (size_t got; (got = fread(buf, 1, sizeof(buf), pipe)) > 0;) {
        result.output.append(buf, got);
    }
    result.status = pclose(pipe);
    return result;
}

// A temporary directory of the machine, removed at the end of its scope.
struct scratch {
    scratch() {
        char path_a[] = "/tmp/desk-test-XXXXXX";
        path = mkdtemp(path_a) != nullptr ? path_a : "";
    }
    ~scratch() {
        if (!path.empty() && system(("rm -rf " + path).c_str()) != 0) {
            perror(path.c_str());
        }
    }
    std::string path;
};

TEST(Tool, RunPassesOutputAndStatus) {
    outcome result = call("run -- sh -c 'echo from inside; exit 5'");
    EXPECT_EQ(result.output, "from inside\n");
    EXPECT_EQ(WEXITSTATUS(result.status), 5);
    result = call("run -- sh -c 'kill -9 $$'");
    EXPECT_EQ(WEXITSTATUS(result.status), 128 + 9);
    EXPECT_EQ(call("run -- getprop init.svc.zr-qel-sa").output, "\n") << "no agent unless asked for";
}

TEST(Tool, RunGivesItsInput) {
    EXPECT_EQ(call("run -- cat < /proc/sys/kernel/ostype").output, "Linux\n");
}

TEST(Tool, BringAndWriteCreateFiles) {
    scratch dir;
    std::ofstream(dir.path + "/script") << "#!/system/bin/sh\necho script $1\n";
    ASSERT_EQ(system(("chmod 755 " + dir.path + "/script").c_str()), 0);
    outcome result = call("run --bring " + dir.path +
                          "/script:/desk/script --write '/data/x:a text' -- "
                          "sh -c '/desk/script it; cat /data/x'");
    EXPECT_EQ(result.output, "script it\na text");
    EXPECT_EQ(WEXITSTATUS(result.status), 0);
}

TEST(Tool, OptionsReachTheHandset) {
    outcome result = call(
        "run --no-tmp --no-sd-card --data 8m --prop a.b=c=d --timezone X-1 -- "
        "sh -c 'ls -d /tmp /storage/real_sd 2>/dev/null; stat -f -c %b /data; getprop a.b; echo $TZ'");
    EXPECT_EQ(result.output, "2048\nc=d\nX-1\n");
    EXPECT_EQ(call("run --user 2000:1007 -- id -u").output, "2000\n");
}

TEST(Tool, WrongArgumentsEndWithStatus2) {
    EXPECT_EQ(WEXITSTATUS(call("2>/dev/null").status), 2);
    EXPECT_EQ(WEXITSTATUS(call("run 2>/dev/null").status), 2);
    EXPECT_EQ(WEXITSTATUS(call("run --nonsense -- true 2>/dev/null").status), 2);
    EXPECT_EQ(WEXITSTATUS(call("run --data 5000 -- true 2>/dev/null").status), 2);
    EXPECT_NE(call("--help").output.find("usage: handset run"), std::string::npos);
}

TEST(Tool, StateKeepsData) {
    scratch dir;
    std::string keep = "--state " + dir.path + "/state ";
    EXPECT_EQ(
        call("run " + keep + "-- sh -c 'setprop persist.desk.tool 7; echo x > /data/mine; chown 2000:1007 /data/mine'")
            .status,
        0);
    EXPECT_EQ(call("run " + keep + "-- sh -c 'getprop persist.desk.tool; stat -c %u:%g /data/mine'").output,
              "7\n2000:1007\n");
}

TEST(Tool, ShellHasATerminal) {
    int master = -1;
    pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) {
        execl(HANDSET_TOOL, HANDSET_TOOL, "shell", "--no-agent", static_cast<char *>(nullptr));
        _exit(127);
    }
    ASSERT_GT(pid, 0);
    std::string typed = "tty; echo $((6*7)); exit 3\n";
    ASSERT_EQ(write(master, typed.data(), typed.size()), static_cast<ssize_t>(typed.size()));
    std::string seen;
    char buf[4096];
    for (ssize_t got; (got = read(master, buf, sizeof(buf))) > 0;) {
        seen.append(buf, static_cast<size_t>(got));
    }
    int status = 0;
    waitpid(pid, &status, 0);
    close(master);
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_NE(seen.find("/dev/pts/0\r\n42\r\n"), std::string::npos) << seen;
}

// The pid that a line of `handset boot` ends with.
static int pid_behind(const std::string &output, const std::string &label) {
    const size_t at = output.find(label);
    return at == std::string::npos ? 0 : atoi(output.c_str() + at + label.size());
}

TEST(Tool, DetachedHandsetStaysWithoutInputUntilASignal) {
    scratch dir;
    const std::string pid_file = dir.path + "/pid";
    const outcome booted = call("boot --no-agent --detach --pid-file " + pid_file + " < /dev/null");
    ASSERT_EQ(booted.status, 0) << booted.output;
    const int init = pid_behind(booted.output, "handset is up: pid ");
    const int keeper = pid_behind(booted.output, "to end it:   kill ");
    ASSERT_GT(init, 0);
    ASSERT_GT(keeper, 0);
    EXPECT_NE(booted.output.find("--root /proc/" + std::to_string(init) + "/root/ send AT"), std::string::npos);
    int kept = 0;
    std::ifstream(pid_file) >> kept;
    EXPECT_EQ(kept, init);
    const std::string enter = "enter " + std::to_string(init);
    EXPECT_EQ(call(enter + " -- tr a-z A-Z < /proc/sys/kernel/ostype").output, "LINUX\n");
    EXPECT_EQ(call(enter + " -- printf '%s\\r\\0end' one | od -An -c").output, "   o   n   e  \\r  \\0   e   n   d\n");
    EXPECT_EQ(WEXITSTATUS(call(enter + " -- sh -c 'exit 9' < /dev/null").status), 9);
    EXPECT_EQ(kill(keeper, SIGTERM), 0);
    EXPECT_TRUE(desk_until([&] { return kill(init, 0) != 0 && access(pid_file.c_str(), F_OK) != 0; }, 60000));
}

TEST(Tool, BootStaysAndCanBeEntered) {
    int input[2];
    ASSERT_EQ(pipe2(input, O_CLOEXEC), 0);
    int output[2];
    ASSERT_EQ(pipe2(output, O_CLOEXEC), 0);
    pid_t tool = fork();
    if (tool == 0) {
        dup2(input[0], 0);
        dup2(output[1], 1);
        execl(HANDSET_TOOL, HANDSET_TOOL, "boot", "--no-agent", "--prop", "desk.who=booted",
              static_cast<char *>(nullptr));
        _exit(127);
    }
    close(input[0]);
    close(output[1]);
    FILE *told = fdopen(output[0], "r");
    int init = 0;
    ASSERT_EQ(fscanf(told, "handset is up: pid %d", &init), 1);
    desk *h = desk_attach(init);
    ASSERT_NE(h, nullptr) << desk_error();
    EXPECT_EQ(desk_shell(h, "getprop desk.who").output, "booted\n");
    desk_end(h);
    EXPECT_NE(call("enter " + std::to_string(init) + " -- getprop desk.who < /dev/null").output.find("booted"),
              std::string::npos);
    EXPECT_EQ(desk_attach(getpid()), nullptr);
    close(input[1]);
    int status = -1;
    EXPECT_EQ(waitpid(tool, &status, 0), tool);
    EXPECT_EQ(status, 0) << "the end of its input ends it";
    fclose(told);
    EXPECT_EQ(desk_attach(init), nullptr);
}
