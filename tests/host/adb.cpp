// The real adb of this machine in front of a desk handset. State: one cable a test.
#include "tests/host/adb.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// A listening socket on a free port of the machine.
int listen_anywhere(int *port) {
    struct sockaddr_in address = {};
    socklen_t size = sizeof(address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(fd, reinterpret_cast<struct sockaddr *>(&address), size) | listen(fd, 4), 0);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<struct sockaddr *>(&address), &size), 0);
    *port = ntohs(address.sin_port);
    return fd;
}

// Whether somebody listens on a socket in the file system.
bool can_connect(const std::string &path) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool is_connected = connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) == 0;
    close(fd);
    return is_connected;
}

}  // namespace

bool adb_is_installed() {
    return system("adb version >/dev/null 2>&1") == 0;
}

adb_cable::~adb_cable() {
    kill_server();
    if (!serial.empty()) {
        adb({"kill-server"});  // one that sa-host has started in its place
    }
    if (listening >= 0) {
        close(listening);
    }
}

host_result adb_cable::adb(const words &arguments, const std::string &input) const {
    words argv = {"adb"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    host_job job;
    program_start(argv, true, &job);
    return host_finish(&job, input);
}

void adb_cable::start_daemon(uid_t uid) {
    desk_program program;
    program.argv = {"/system/bin/adbd"};
    program.fds[0] = listening;
    program.uid = uid;
    program.gid = uid;
    ASSERT_TRUE(desk_start(handset, program, &daemon)) << desk_error();
}

void adb_cable::connect() {
    // A server forgets a handset on a network some time after it has said so, and until then connects to nothing new.
    ASSERT_TRUE(desk_until(
        [&] {
            adb({"connect", serial});
            return adb({"-s", serial, "get-state"}).out == "device\n";
        },
        60000));
}

void adb_cable::plug_in(desk *h) {
    int port = 0;
    handset = h;
    listening = listen_anywhere(&port);
    serial = "127.0.0.1:" + std::to_string(port);
    setenv("HOME", home.path.c_str(), 1);
    setenv("XDG_RUNTIME_DIR", home.path.c_str(), 1);
    setenv("ADB_SERVER_SOCKET", ("localfilesystem:" + home.path + "/server").c_str(), 1);
    unsetenv("ANDROID_SERIAL");
    ASSERT_NO_FATAL_FAILURE(start_server());
    ASSERT_NO_FATAL_FAILURE(start_daemon(0));
    connect();
}

void adb_cable::pull() {
    EXPECT_TRUE(desk_kill(handset, daemon.pid, SIGKILL));
    EXPECT_NE(desk_wait(handset, &daemon, 20000), -1);
    EXPECT_TRUE(desk_until([&] { return adb({"-s", serial, "get-state"}).out != "device\n"; }, 60000));
}

void adb_cable::plug_in_again(uid_t uid) {
    if (server < 0) {
        ASSERT_NO_FATAL_FAILURE(start_server());
    }
    adb({"disconnect", serial});  // else the server keeps what it knew of the old one for a while
    ASSERT_NO_FATAL_FAILURE(start_daemon(uid));
    connect();
}

void adb_cable::kill_server() {
    if (server > 0) {
        kill(server, SIGKILL);
        waitpid(server, nullptr, 0);
    }
    server = -1;
}

// As a child, so that its process is known and it ends with the test.
void adb_cable::start_server() {
    const std::string socket_name = "localfilesystem:" + home.path + "/server";
    server = fork();
    if (server == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int log = open((home.path + "/server.log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
        dup2(log, STDOUT_FILENO);
        dup2(log, STDERR_FILENO);
        execlp("adb", "adb", "-L", socket_name.c_str(), "server", "nodaemon", static_cast<char *>(nullptr));
        _exit(127);
    }
    ASSERT_TRUE(desk_until([&] { return can_connect(home.path + "/server"); }, 60000));
}

void AdbTest::SetUp() {
    if (!adb_is_installed()) {
        GTEST_SKIP() << "adb is not installed";
    }
}

void AdbTest::boot_adb(const desk_options &options) {
    ASSERT_NO_FATAL_FAILURE(boot_host(options));
    ASSERT_NO_FATAL_FAILURE(cable.plug_in(h));
}

words AdbTest::inside(const words &arguments) const {
    words all = {"--serial", cable.serial};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}
