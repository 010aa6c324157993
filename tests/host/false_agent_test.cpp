// What sa-host makes of an agent that answers in pieces, late, wrongly or not at all, and the exact bytes it writes.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "tests/host/support.h"

namespace {

class FalseAgent : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(private_terminals());
        endpoint_publish(dir.path + "/channel", &channel);
        endpoint_publish(dir.path + "/listener", &listener);
    }
    void TearDown() override {
        endpoint_close(&channel);
        endpoint_close(&listener);
        endpoint_close(&connection);
    }
    words with_paths(const words &arguments) const {
        words all = {"--channel", channel.link, "--listener", listener.link};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return all;
    }
    void start(const words &arguments, bool has_input = false) {
        host_start(with_paths(arguments), has_input, &job);
    }
    // The agent's part up to the acknowledgement. Result: the request.
    std::string serve_request() {
        std::string request = endpoint_read(&listener);
        endpoint_publish(dir.path + "/connection", &connection);
        char path[64];
        EXPECT_EQ(ptsname_r(connection.master, path, sizeof(path)), 0);
        endpoint_write(&listener, path);
        EXPECT_GE(endpoint_read(&listener).size(), 1u);
        return request;
    }

    temporary_dir dir;
    false_endpoint channel, listener, connection;
    host_job job;
};

TEST_F(FalseAgent, AnAnswerMayComeByteByByte) {
    start({"kernel-log", "?"});
    EXPECT_EQ(endpoint_read(&channel), "AT SA+KERNEL_LOG?\r");
    for (char byte : std::string("\r\nKERNEL_LOG: 1\r\n\r\nOK\r\n")) {
        endpoint_write(&channel, std::string(1, byte));
    }
    EXPECT_EQ(host_finish(&job).out, "KERNEL_LOG: 1\n");
}

TEST_F(FalseAgent, OtherErrorCodesAreShownAsTheyAre) {
    start({"delete-log"});
    endpoint_read(&channel);
    endpoint_write(&channel, "\r\nERROR: -118\r\n");
    host_result result = host_finish(&job);
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("ERROR: -118"), std::string::npos) << result.err;
}

TEST_F(FalseAgent, HangUpInsteadOfAnAnswerIsStatusTwoAndNotSentAgain) {
    start({"system", "reboot"});
    EXPECT_EQ(endpoint_read(&channel), "AT SA+SYSTEM=\"reboot\"\r");
    endpoint_close(&channel);
    endpoint_close(&listener);
    endpoint_publish(dir.path + "/listener", &listener);
    false_endpoint again;
    endpoint_publish(dir.path + "/channel", &again);
    host_result result = host_finish(&job);
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("before it answered"), std::string::npos) << result.err;
    EXPECT_EQ(endpoint_read(&again, 0), "");
    endpoint_close(&again);
}

TEST_F(FalseAgent, HangUpWithoutASuccessorIsStatusTwo) {
    start({"system", "reboot"});
    EXPECT_EQ(endpoint_read(&channel), "AT SA+SYSTEM=\"reboot\"\r");
    endpoint_close(&channel, true);
    endpoint_close(&listener, true);
    host_result result = host_finish(&job);
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("before it answered"), std::string::npos) << result.err;
}

// An agent that lives on replaces its channel only when a client has left it. This client opened it after that, so its
// request was not read.
TEST_F(FalseAgent, ARequestThatOnlyAReplacedChannelGotIsSentAgain) {
    start({"send", "AT", "+KERNEL_LOG?"});
    ASSERT_TRUE(desk_until([&] {
        struct pollfd arrived = {channel.master, POLLIN, 0};
        return poll(&arrived, 1, 0) == 1 && (arrived.revents & POLLIN) != 0;
    }));
    for (int round = 0; round < 2; round++) {
        endpoint_close(&channel);
        endpoint_publish(dir.path + "/channel", &channel);
    }
    EXPECT_EQ(endpoint_read(&channel), "AT\r");
    endpoint_write(&channel, "\r\nOK\r\n");
    EXPECT_EQ(endpoint_read(&channel), "AT SA+KERNEL_LOG?\r");
    endpoint_write(&channel, "\r\nKERNEL_LOG: 0\r\n\r\nOK\r\n");
    host_result result = host_finish(&job);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "OK\nKERNEL_LOG: 0\n");
}

TEST_F(FalseAgent, SilenceIsATimeOut) {
    start({"--timeout", "1", "send", "AT"});
    host_result result = host_finish(&job);
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("No answer to \"AT\" within 1 s"), std::string::npos) << result.err;
}

TEST_F(FalseAgent, EndlessChatterIsNoAnswer) {
    start({"send", "AT"});
    endpoint_read(&channel);
    std::string chatter(3000, 'x');
    endpoint_write(&channel, chatter);
    endpoint_write(&channel, chatter);
    host_result result = host_finish(&job);
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("no answer of the agent"), std::string::npos) << result.err;
}

// A pseudo-terminal that a client has had is about to be replaced: requests to it would fall into the void.
TEST_F(FalseAgent, AUsedEndpointIsLeftAloneUntilItIsReplaced) {
    start({"send", "AT"});
    endpoint_read(&channel);
    endpoint_write(&channel, "\r\nOK\r\n");
    EXPECT_EQ(host_finish(&job).status, 0);
    host_job second;
    host_start(with_paths({"send", "at"}), false, &second);
    EXPECT_EQ(endpoint_read(&channel, 300), "");
    endpoint_close(&channel);
    endpoint_publish(dir.path + "/channel", &channel);
    EXPECT_EQ(endpoint_read(&channel), "at\r");
    endpoint_write(&channel, "\r\nOK\r\n");
    EXPECT_EQ(host_finish(&second).out, "OK\n");
}

TEST_F(FalseAgent, ALinkToAStrangersTerminalIsRefused) {
    char slave[64];
    ASSERT_EQ(ptsname_r(channel.master, slave, sizeof(slave)), 0);
    ASSERT_EQ(chown(slave, 0, 5), 0);
    host_result result = host_run(with_paths({"send", "AT"}));
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("not the agent's (owner 0:5)"), std::string::npos) << result.err;
    EXPECT_EQ(endpoint_read(&channel, 0), "");
    // Named by its own path it is what the person wants, whoever owns it.
    host_job job_by_path;
    host_start({"--channel", slave, "send", "AT"}, false, &job_by_path);
    EXPECT_EQ(endpoint_read(&channel), "AT\r");
    endpoint_write(&channel, "\r\nOK\r\n");
    EXPECT_EQ(host_finish(&job_by_path).out, "OK\n");
}

TEST_F(FalseAgent, ABareShellRequestIsTheCommandAndNothingElse) {
    start({"shell", "--no-status", "ls", "-l"});
    EXPECT_EQ(serve_request(), "shell:ls -l");
    endpoint_write(&connection, "total 0\n");
    ASSERT_TRUE(endpoint_wait_hangup(&listener));
    while (job.out_text.empty()) {
        char buf[64];
        ssize_t got = read(job.out, buf, sizeof(buf));
        job.out_text.append(buf, static_cast<size_t>(got > 0 ? got : 0));
    }
    endpoint_close(&connection);
    host_result result = host_finish(&job);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "total 0\n");
}

TEST_F(FalseAgent, ABareShellWithoutACommandGetsItsInputAndCtrlD) {
    start({"shell", "--no-status"}, true);
    EXPECT_EQ(write(job.in, "exit", 4), 4);
    close(job.in);
    job.in = -1;
    EXPECT_EQ(serve_request(), "shell:");
    std::string typed;
    ASSERT_TRUE(desk_until([&] {
        typed += endpoint_read(&connection, 50);
        return typed.find('\4') != std::string::npos;
    }));
    EXPECT_EQ(typed, "exit\n\4");
    endpoint_close(&connection);
    EXPECT_EQ(host_finish(&job).status, 0);
}

TEST_F(FalseAgent, TheListenerMayHangUpBeforeItHasAnnounced) {
    start({"shell", "--no-status", "true"});
    EXPECT_EQ(endpoint_read(&listener), "shell:true");
    endpoint_close(&listener);
    endpoint_publish(dir.path + "/listener", &listener);
    EXPECT_EQ(serve_request(), "shell:true");
    endpoint_close(&connection);
    EXPECT_EQ(host_finish(&job).status, 0);
}

// A hang-up just behind the acknowledgement may overtake it.
TEST_F(FalseAgent, TheListenerIsHeldUntilTheShellSpeaks) {
    start({"shell", "--no-status", "date"});
    EXPECT_EQ(serve_request(), "shell:date");
    EXPECT_FALSE(endpoint_wait_hangup(&listener, 50));
    endpoint_write(&connection, "now\n");
    EXPECT_TRUE(endpoint_wait_hangup(&listener));
    endpoint_close(&connection);
    EXPECT_EQ(host_finish(&job).status, 0);
}

TEST_F(FalseAgent, TheListenerIsNotHeldForASilentShellForLong) {
    start({"shell", "--no-status", "sleep 1000"});
    serve_request();
    EXPECT_TRUE(endpoint_wait_hangup(&listener));
    endpoint_close(&connection);
    EXPECT_EQ(host_finish(&job).status, 0);
}

TEST_F(FalseAgent, NoAnnouncementIsSaidInTime) {
    start({"--timeout", "1", "shell", "true"});
    host_result result = host_finish(&job);
    EXPECT_EQ(result.status, 255);
    EXPECT_NE(result.err.find("announced no connection"), std::string::npos) << result.err;
}

TEST_F(FalseAgent, AnAnnouncementThatIsNoPathIsRefused) {
    start({"shell", "true"});
    endpoint_read(&listener);
    endpoint_write(&listener, std::string(100, '/'));
    host_result result = host_finish(&job);
    EXPECT_EQ(result.status, 255);
    EXPECT_NE(result.err.find("is not the agent"), std::string::npos) << result.err;
}

TEST_F(FalseAgent, ACommandCutOffByItsConnectionHasNoStatus) {
    start({"shell", "true"});
    serve_request();
    endpoint_close(&connection);
    host_result result = host_finish(&job);
    EXPECT_EQ(result.status, 255);
    EXPECT_NE(result.err.find("without reporting its exit status"), std::string::npos) << result.err;
}

TEST_F(FalseAgent, KillIsTheWholeRequest) {
    start({"kill"});
    EXPECT_EQ(endpoint_read(&listener), "host:kill");
    endpoint_close(&listener, true);
    host_result result = host_finish(&job);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "The agent has ended.\n");
}

TEST_F(FalseAgent, AnAgentThatLivesOnWasNotKilled) {
    start({"--timeout", "1", "kill"});
    EXPECT_EQ(host_finish(&job).status, 2);
    endpoint_close(&listener);
    endpoint_publish(dir.path + "/listener", &listener);
    start({"kill"});
    endpoint_read(&listener);
    endpoint_write(&listener, "/dev/pts/0");
    EXPECT_EQ(host_finish(&job).status, 1);
}

}  // namespace
