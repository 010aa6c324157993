// sa-host opens no terminal but the agent's: neither one that a published name leads to, nor one that is announced.
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include "tests/host/support.h"

namespace {

// A terminal of this machine that belongs to somebody else.
struct stranger {
    explicit stranger(uid_t uid = 0, gid_t gid = 5) {
        endpoint_publish(dir.path + "/link", &terminal);
        char slave[64];
        EXPECT_EQ(ptsname_r(terminal.master, slave, sizeof(slave)), 0);
        EXPECT_EQ(chown(slave, uid, gid), 0);
        path = slave;
    }
    ~stranger() {
        endpoint_close(&terminal);
    }
    // A pseudo-terminal that somebody has opened and closed again reports a hang-up; a fresh one does not.
    bool was_opened() const {
        struct pollfd state = {terminal.master, POLLIN, 0};
        return poll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLIN)) != 0;
    }
    temporary_dir dir;
    false_endpoint terminal;
    std::string path;
};

class LocalLink : public HostTest {
  protected:
    void TearDown() override {
        endpoint_close(&listener);
        HostTest::TearDown();
    }
    // Plays the agent up to the announcement of `path` and expects a refusal that names the terminal's owner.
    void expect_refused(const std::string &listener_path, const std::string &path, const std::string &owner) {
        host_job job;
        host_start({"--listener", listener_path, "shell", "-n", "true"}, false, &job);
        EXPECT_NE(endpoint_read(&listener).find("shell:"), std::string::npos);
        endpoint_write(&listener, path);
        host_result result = host_finish(&job);
        EXPECT_EQ(result.status, 255);
        EXPECT_NE(result.err.find("not a terminal of the agent here (owner " + owner + ")"), std::string::npos)
            << result.err;
        EXPECT_EQ(endpoint_read(&listener, 0), "") << "acknowledged";
    }
    false_endpoint listener;
};

TEST_F(LocalLink, AnAnnouncedTerminalOfAnotherOwnerIsNotOpened) {
    temporary_dir dir;
    stranger person;
    endpoint_publish(dir.path + "/listener", &listener);
    expect_refused(listener.link, person.path, "0:5");
    EXPECT_FALSE(person.was_opened());
}

// What a relay by hand makes of the listener: the agent's device is on the other machine, the announced path is a person's here.
TEST_F(LocalLink, ARelayedListenerOpensNoTerminalOfThisMachine) {
    temporary_dir dir;
    stranger person(1000, 5);
    endpoint_publish(dir.path + "/relay", &listener);
    char slave[64];
    ASSERT_EQ(ptsname_r(listener.master, slave, sizeof(slave)), 0);
    ASSERT_EQ(chown(slave, 0, 5), 0);
    expect_refused(slave, person.path, "1000:5");
    EXPECT_FALSE(person.was_opened());
}

TEST_F(LocalLink, AnAnnouncedTerminalOfAnotherMountIsNotOpened) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    stranger person(1000, 1001);
    listener.master = open(desk_host_path(h, "/dev/ptmx").c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    ASSERT_GE(listener.master, 0);
    ASSERT_EQ(unlockpt(listener.master), 0);
    char slave[64];
    ASSERT_EQ(ptsname_r(listener.master, slave, sizeof(slave)), 0);
    expect_refused(desk_host_path(h, slave), person.path, "1000:1001");
    EXPECT_FALSE(person.was_opened());
}

TEST_F(LocalLink, APublishedNameThatLeadsToAStrangersTerminalIsNotOpened) {
    temporary_dir dir;
    stranger person;
    const std::string name = dir.path + "/channel";
    ASSERT_EQ(symlink(person.path.c_str(), name.c_str()), 0);
    host_result result = host_run({"--channel", name, "send", "AT"});
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("not the agent's (owner 0:5)"), std::string::npos) << result.err;
    EXPECT_FALSE(person.was_opened());
}

}  // namespace
