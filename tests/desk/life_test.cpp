// Handsets as a whole: several at a time, reboots, what is left when a part of one is killed; programs inside.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "tests/desk/fixture.h"

static std::string ns_of(pid_t pid, const char *kind) {
    char link[128];
    ssize_t length = readlink(("/proc/" + std::to_string(pid) + "/ns/" + kind).c_str(), link, sizeof(link));
    return length > 0 ? std::string(link, static_cast<size_t>(length)) : "";
}

// How many of the machine's processes are in this namespace.
static int processes_in(const std::string &ns, const char *kind) {
    int count = 0;
    DIR *dir = opendir("/proc");
    for (struct dirent *entry; dir != nullptr && (entry = readdir(dir)) != nullptr;) {
        pid_t pid = atoi(entry->d_name);
        count += pid > 0 && ns_of(pid, kind) == ns ? 1 : 0;
    }
    closedir(dir);
    return count;
}

static std::string machine_mounts() {
    std::ifstream in("/proc/self/mounts");
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(Life, TwoAtATimeAreSeparate) {
    handset one;
    handset two;
    BOOTED(one);
    BOOTED(two);
    ASSERT_EQ(desk_set_property(one.h, "desk.who", "one"), 0);
    ASSERT_EQ(desk_set_property(two.h, "desk.who", "two"), 0);
    ASSERT_TRUE(desk_write_file(one.h, "/data/only-one", "x"));
    EXPECT_EQ(desk_shell(one.h, "getprop desk.who").output, "one\n");
    EXPECT_EQ(desk_shell(two.h, "getprop desk.who; ls /data/only-one").output, "two\n");
}

TEST(Life, NoProcessHasTheAgentsName) {
    handset set;
    BOOTED(set);
    EXPECT_EQ(desk_service_state(set.h, "logd"), "running");
    EXPECT_EQ(desk_pids(set.h, "zr-qel-sa"), std::vector<pid_t>());
    EXPECT_EQ(desk_pids(set.h, "init"), std::vector<pid_t>{1});
}

TEST(Life, RebootKeepsOrDropsData) {
    handset set;
    BOOTED(set);
    pid_t before = desk_init_pid(set.h);
    ASSERT_TRUE(desk_write_file(set.h, "/data/note", "kept", 0600, 2000, 1007));
    ASSERT_TRUE(desk_write_file(set.h, "/system/etc/note", "lost"));
    ASSERT_TRUE(desk_reboot(set.h, true)) << desk_error();
    EXPECT_NE(desk_init_pid(set.h), before);
    EXPECT_EQ(desk_file_text(set.h, "/data/note"), "kept");
    EXPECT_EQ(desk_owner(set.h, "/data/note"), "0600 2000:1007");
    EXPECT_FALSE(desk_exists(set.h, "/system/etc/note"));
    desk_options smaller = handset::no_agent();
    smaller.data_size = 1 << 20;
    ASSERT_TRUE(desk_reboot(set.h, false, &smaller)) << desk_error();
    EXPECT_FALSE(desk_exists(set.h, "/data/note"));
    EXPECT_EQ(desk_shell(set.h, "stat -f -c %b /data").output, "256\n");
}

// Boots in a child process, calls `harm`, and expects that no process and no mount of the handset is left.
static void expect_gone_after(const std::function<void(pid_t booter, pid_t sandbox, pid_t init)> &harm) {
    std::string mounts = machine_mounts();
    int up[2];
    ASSERT_EQ(pipe2(up, O_CLOEXEC), 0);
    pid_t booter = fork();
    if (booter == 0) {
        desk_options options = handset::no_agent();
        options.files.push_back(
            rc_file("service tough /system/bin/sh -c \"trap '' TERM HUP INT; setsid sleep 500 &"
                    " sleep 501\"\n    class main\n"));
        desk *h = desk_boot(options);
        pid_t init = h != nullptr ? desk_init_pid(h) : -1;
        if (write(up[1], &init, sizeof(init)) < 0) {
            _exit(1);
        }
        for (;;) {
            pause();
        }
    }
    pid_t init = -1;
    ASSERT_EQ(read(up[0], &init, sizeof(init)), static_cast<ssize_t>(sizeof(init)));
    ASSERT_GT(init, 0);
    std::string pids = ns_of(init, "pid");
    std::string mount_ns = ns_of(init, "mnt");
    ASSERT_TRUE(desk_until([&] { return processes_in(pids, "pid") >= 5; }))
        << "init, logd, the service and its two children";
    std::ifstream stat("/proc/" + std::to_string(init) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    pid_t sandbox = -1;
    sscanf(text.c_str() + text.rfind(')') + 1, " %*c %d", &sandbox);
    harm(booter, sandbox, init);
    EXPECT_TRUE(desk_until([&] { return processes_in(pids, "pid") == 0; }));
    EXPECT_TRUE(desk_until([&] { return processes_in(mount_ns, "mnt") == 0; }));
    EXPECT_EQ(machine_mounts(), mounts);
    kill(booter, SIGKILL);
    waitpid(booter, nullptr, 0);
    close(up[0]);
    close(up[1]);
}

TEST(Life, LeavesNothingWhenTheBooterIsKilled) {
    expect_gone_after([](pid_t booter, pid_t, pid_t) { kill(booter, SIGKILL); });
}

TEST(Life, LeavesNothingWhenTheSandboxIsKilled) {
    expect_gone_after([](pid_t, pid_t sandbox, pid_t) { kill(sandbox, SIGKILL); });
}

TEST(Life, LeavesNothingWhenInitIsKilled) {
    expect_gone_after([](pid_t, pid_t, pid_t init) { kill(init, SIGKILL); });
}

TEST(Life, LeavesNothingAtItsEnd) {
    std::string mounts = machine_mounts();
    std::string pids;
    {
        handset set;
        BOOTED(set);
        pids = ns_of(desk_init_pid(set.h), "pid");
        EXPECT_GE(processes_in(pids, "pid"), 2);
    }
    EXPECT_EQ(processes_in(pids, "pid"), 0);
    EXPECT_EQ(machine_mounts(), mounts);
}

TEST(Life, FailedBootHasAReason) {
    desk_options options = handset::no_agent();
    options.prepare = [](desk *h) { return desk_stat(h, "/no/such/file", nullptr); };
    desk *h = desk_boot(options);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(desk_error(), "prepare has failed: /no/such/file: No such file or directory");
    desk_end(h);
}

TEST(Program, OutputStatusAndInput) {
    handset set;
    BOOTED(set);
    desk_program program;
    program.argv = {"sh", "-c", "read line; echo got $line; echo bad >&2; exit 3"};
    desk_result result = desk_run(set.h, program, "hello\n");
    EXPECT_EQ(WEXITSTATUS(result.status), 3);
    EXPECT_EQ(result.output, "got hello\n");
    EXPECT_EQ(result.errors, "bad\n");
    program.argv = {"/no/such/program"};
    EXPECT_EQ(WEXITSTATUS(desk_run(set.h, program).status), 127);
    program.argv = {"true"};
    EXPECT_EQ(desk_run(set.h, program, std::string(1 << 20, 'x')).status, 0) << "a program need not read its input";
}

TEST(Program, BigOutputAndAProcessThatKeepsTheStreamOpen) {
    handset set;
    BOOTED(set);
    desk_result result = desk_shell(set.h, "yes | head -c 1000000; /system/bin/sleep 1000 &");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output.size(), 1000000u);
}

TEST(Program, RunsWithIdentityDirectoryMaskAndEnvironment) {
    handset set;
    BOOTED(set);
    desk_program program;
    program.argv = {"sh", "-c", "id -u; id -g; pwd; umask; echo $MORE"};
    program.uid = 2000;
    program.gid = 1007;
    program.cwd = "/data/local";
    program.umask = 027;
    program.environment = {"MORE=less"};
    EXPECT_EQ(desk_run(set.h, program).output, "2000\n1007\n/data/local\n027\nless\n");
}

TEST(Program, IsKilledAtItsLimit) {
    handset set;
    BOOTED(set);
    desk_program program;
    program.argv = {"sleep", "1000"};
    EXPECT_EQ(desk_run(set.h, program, "", 100).status, -1);
    EXPECT_TRUE(desk_until([&] { return desk_pids(set.h, "sleep").empty(); }));
}

TEST(Program, HasAPidInsideAndOneOnTheHost) {
    handset set;
    BOOTED(set);
    desk_program program;
    program.argv = {"sleep", "4321"};
    desk_child child;
    ASSERT_TRUE(desk_start(set.h, program, &child));
    EXPECT_EQ(desk_pids(set.h, "sleep"), std::vector<pid_t>{child.pid});
    pid_t outside = desk_host_pid(set.h, child.pid);
    std::ifstream in("/proc/" + std::to_string(outside) + "/cmdline");
    std::string line((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(line, std::string("sleep\0004321\0", 11));
    EXPECT_EQ(desk_host_pid(set.h, 1), desk_init_pid(set.h));
    ASSERT_EQ(kill(outside, SIGTERM), 0);
    EXPECT_EQ(desk_wait(set.h, &child, 10000), SIGTERM);
    EXPECT_EQ(desk_host_pid(set.h, child.pid), -1);
}

TEST(Program, OrphansAreReaped) {
    handset set;
    BOOTED(set);
    // The orphan runs until its parents have ended: a shell would reap it.
    ASSERT_EQ(desk_shell(set.h, "busybox mkfifo /data/gate && (sh -c 'read go </data/gate; exit 9' >/dev/null 2>&1 &)")
                  .status,
              0);
    ASSERT_EQ(desk_shell(set.h, "echo go >/data/gate").status, 0);
    EXPECT_TRUE(desk_until([&] {
        for (const desk_event &event : desk_events(set.h, "exit")) {
            if (event.fields[0] == "-" && event.fields[2] == std::to_string(9 << 8)) {
                return true;
            }
        }
        return false;
    }));
}

TEST(Terminal, IsOpenedThroughALink) {
    handset set;
    BOOTED(set);
    int master = desk_open(set.h, "/dev/ptmx", O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(unlockpt(master), 0);
    ASSERT_EQ(desk_shell(set.h, "ln -s /dev/pts/0 /dev/ttyTest").status, 0);
    int slave = desk_open_tty(set.h, "/dev/ttyTest");
    ASSERT_GE(slave, 0) << "the link's absolute target is inside the handset";
    ASSERT_EQ(write(slave, "hi\n", 3), 3);
    char buf[8];
    ASSERT_EQ(read(master, buf, sizeof(buf)), 4);
    EXPECT_EQ(std::string(buf, 4), "hi\r\n");
    close(slave);
    close(master);
}
