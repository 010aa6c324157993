// sa-host over a serial line: a pseudo-terminal pair stands for the line, and socat for the relay on the handset.
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "tests/host/support.h"

namespace {

class SerialLine : public HostTest {
  protected:
    void SetUp() override {
        unsetenv("SA_HOST_LINK");
        endpoint_publish(dir.path + "/line", &line);
    }
    void TearDown() override {
        endpoint_close(&line);
        if (relay > 0) {
            kill(relay, SIGKILL);
            waitpid(relay, nullptr, 0);
        }
        HostTest::TearDown();
    }
    // socat between a line of its own and the handset's command channel.
    void start_relay(const std::string &name) {
        const std::string near = "PTY,rawer,link=" + name;
        const std::string far = desk_host_path(h, desk_link_target(h, "/dev/ttyCMD0")) + ",rawer";
        relay = fork();
        if (relay == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            execlp("socat", "socat", near.c_str(), far.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        ASSERT_TRUE(desk_until([&] { return access(name.c_str(), F_OK) == 0; }));
    }

    temporary_dir dir;
    false_endpoint line;
    pid_t relay = -1;
};

TEST_F(SerialLine, RequestsPassARelay) {
    if (system("socat -V >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "socat is not installed";
    }
    ASSERT_NO_FATAL_FAILURE(boot_host());
    const std::string name = dir.path + "/relayed";
    ASSERT_NO_FATAL_FAILURE(start_relay(name));
    EXPECT_EQ(host_run({"--tty", name, "send", "AT", "+KERNEL_LOG?"}).out, "OK\nKERNEL_LOG: 0\n");
    EXPECT_EQ(host_run({"--tty", name, "wait"}).status, 0) << "it waits for the command channel alone";
    setenv("SA_HOST_LINK", ("tty:" + name + ",57600").c_str(), 1);
    EXPECT_EQ(host_run({"query", "zr-qel-sa"}).out, "QUERY_SERVICE: 1\n");
}

TEST_F(SerialLine, TheLineIsRawAndHasItsSpeed) {
    host_job job;
    host_start({"--tty", line.link + ",9600", "send", "AT"}, false, &job);
    EXPECT_EQ(endpoint_read(&line), "AT\r");
    struct termios attr = {};
    ASSERT_EQ(tcgetattr(line.master, &attr), 0);
    EXPECT_EQ(cfgetospeed(&attr), static_cast<speed_t>(B9600));
    EXPECT_EQ(attr.c_lflag & (ICANON | ECHO | ISIG), 0u);
    EXPECT_EQ(attr.c_cflag & (CLOCAL | CREAD), static_cast<tcflag_t>(CLOCAL | CREAD));
    endpoint_write(&line, "\r\nOK\r\n");
    EXPECT_EQ(host_finish(&job).out, "OK\n");
}

TEST_F(SerialLine, WhatCameBeforeTheRequestIsNoAnswer) {
    host_job job;
    endpoint_write(&line, "\r\nERROR: -1\r\n");
    host_start({"--tty", line.link, "send", "AT"}, false, &job);
    EXPECT_EQ(endpoint_read(&line), "AT\r");
    endpoint_write(&line, "\r\nOK\r\n");
    EXPECT_EQ(host_finish(&job).out, "OK\n");
}

TEST_F(SerialLine, OneClientAtATime) {
    host_job first;
    host_start({"--tty", line.link, "send", "AT"}, false, &first);
    EXPECT_EQ(endpoint_read(&line), "AT\r");
    host_result second = host_run({"--tty", line.link, "--timeout", "1", "send", "AT"});
    EXPECT_EQ(second.status, 2);
    EXPECT_NE(second.err.find("is busy: another client is using it"), std::string::npos) << second.err;
    endpoint_write(&line, "\r\nOK\r\n");
    EXPECT_EQ(host_finish(&first).out, "OK\n");
}

TEST_F(SerialLine, ThePulledCableEndsARequest) {
    host_job job;
    host_start({"--tty", line.link, "delete-log"}, false, &job);
    EXPECT_EQ(endpoint_read(&line), "AT SA+DELETE_LOG\r");
    endpoint_close(&line);
    host_result result = host_finish(&job);
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("The serial line has ended"), std::string::npos) << result.err;
    result = host_run({"--tty", line.link, "send", "AT"});
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("There is no serial line"), std::string::npos) << result.err;
}

TEST_F(SerialLine, WhatNeedsARemoteShellIsRefusedBeforeAnythingIsSent) {
    const words commands[] = {
        {"shell", "id"}, {"fetch", dir.path}, {"log"}, {"kill"}, {"save-log", "--fetch", dir.path}};
    for (const words &command : commands) {
        words arguments = {"--tty", line.link};
        arguments.insert(arguments.end(), command.begin(), command.end());
        host_result result = host_run(arguments);
        EXPECT_NE(result.status, 0) << command[0];
        EXPECT_NE(result.err.find("A serial line carries the command channel alone"), std::string::npos) << result.err;
        EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
    }
    EXPECT_EQ(endpoint_read(&line, 0), "");
}

TEST_F(SerialLine, AChoiceThatIsNoneIsRefused) {
    EXPECT_EQ(host_run({"--tty", line.link + ",12", "send", "AT"}).status, 3);
    EXPECT_EQ(host_run({"--tty", line.link, "--adb", "send", "AT"}).status, 3);
    EXPECT_EQ(host_run({"--tty", line.link, "--root", "/proc/1/root", "send", "AT"}).status, 3);
    for (const char *text : {"usb", "tty:", "adb:", "local:", "tty"}) {
        setenv("SA_HOST_LINK", text, 1);
        host_result result = host_run({"send", "AT"});
        EXPECT_EQ(result.status, 3) << text;
        EXPECT_NE(result.err.find("SA_HOST_LINK is \"" + std::string(text) + "\""), std::string::npos) << result.err;
    }
    EXPECT_EQ(endpoint_read(&line, 0), "");
}

}  // namespace
