// What sa-host makes of an adb server's refusals. The server is the test itself, so that each of them can be had.
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "tests/host/support.h"

namespace {

// Gives every request the same answer, whatever it asks for.
class false_server {
  public:
    false_server(const std::string &path, const std::string &its_answer) : answer(its_answer) {
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        listening = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(listening, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(listening, 8), 0);
        worker = std::thread([this] { serve(); });
    }
    ~false_server() {
        is_over = true;
        worker.join();
        close(listening);
    }

  private:
    void serve() {
        while (!is_over) {
            struct pollfd ready = {listening, POLLIN, 0};
            if (poll(&ready, 1, 20) != 1) {
                continue;
            }
            const int fd = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
            char request[256];
            if (read(fd, request, sizeof(request)) > 0) {  // nothing: a client that only asks whether somebody listens
                EXPECT_EQ(send(fd, answer.data(), answer.size(), MSG_NOSIGNAL), static_cast<ssize_t>(answer.size()));
            }
            close(fd);
        }
    }
    const std::string answer;
    int listening = -1;
    std::atomic<bool> is_over{false};
    std::thread worker;
};

struct refusal {
    const char *name;
    const char *said;
    const char *advice;
};

std::ostream &operator<<(std::ostream &out, const refusal &one) {
    return out << one.name;
}

host_result ask(const std::string &answer) {
    temporary_dir dir;
    setenv("ADB_SERVER_SOCKET", ("localfilesystem:" + dir.path + "/server").c_str(), 1);
    setenv("XDG_RUNTIME_DIR", dir.path.c_str(), 1);
    false_server server(dir.path + "/server", answer);
    return host_run({"--serial", "ABC", "send", "AT"});
}

class AdbRefusal : public ::testing::TestWithParam<refusal> {};

TEST_P(AdbRefusal, IsPassedOnWithWhatToDo) {
    const std::string said = GetParam().said;
    char length[8];
    snprintf(length, sizeof(length), "%04zx", said.size());
    const host_result result = ask("FAIL" + std::string(length) + said);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "sa-host: adb: " + said + ". " + GetParam().advice + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    Sentence, AdbRefusal,
    ::testing::Values(refusal{"NoDevice", "no devices/emulators found",
                              "Plug in the handset and switch on USB debugging, or run adb connect HOST:PORT."},
                      refusal{"MoreThanOne", "more than one device/emulator",
                              "Name the handset with --serial; adb devices lists them."},
                      refusal{"NotFound", "device 'ABC' not found",
                              "Check the cable and the serial number; adb devices lists what is there."},
                      refusal{"Offline", "device offline", "Plug the cable in again, or run adb reconnect."},
                      refusal{"Unauthorized", "device unauthorized",
                              "Confirm the question on the handset's screen, then try again."},
                      refusal{"AnythingElse", "something new", "See adb devices -l."}),
    [](const ::testing::TestParamInfo<refusal> &one) { return std::string(one.param.name); });

TEST(AdbServer, HangsUpInsteadOfAnAnswer) {
    const host_result result = ask("");
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("the adb server did not answer"), std::string::npos) << result.err;
}

}  // namespace
