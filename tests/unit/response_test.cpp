// Answers on the channel: their bytes, one write for each, and failed or short writes.
#include "sa/sa-handle/command/response.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/unit/faults.h"
#include "tests/unit/log_lines.h"

typedef std::vector<std::string> lines;

static const char kReport[] = "FILE-sa/sa-handle, LINE-*, FUNC-";

class Response : public LogLinesTest {
  protected:
    void SetUp() override {
        LogLinesTest::SetUp();
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends), 0);  // keeps writes apart
        fd = ends[0];
        host = ends[1];
        memset(&rsp, 'x', sizeof(rsp));
        errno = 0;
    }
    void TearDown() override {
        shorten_writes(-1, 0);
        close(fd);
        close(host);
    }
    // What one write has brought.
    std::string received() {
        char bytes[512];
        const ssize_t count = read(host, bytes, sizeof(bytes));
        return count < 0 ? "nothing" : std::string(bytes, static_cast<size_t>(count));
    }
    void fill(const std::string &text) {
        memset(&rsp, 0, sizeof(rsp));
        memcpy(rsp.data, text.data(), text.size());
        rsp.len = static_cast<uint16_t>(text.size());
    }
    void expect_rest_is_zero() {
        for (size_t at = rsp.len; at < sizeof(rsp.data); at++) {
            ASSERT_EQ(rsp.data[at], '\0') << at;
        }
    }

    int fd = -1;
    int host = -1;
    struct sa_msg_st rsp;
};

TEST_F(Response, OfSuccess) {
    EXPECT_EQ(send_rsp_ok(fd, &rsp), 0);
    EXPECT_EQ(received(), "\r\nOK\r\n");
    EXPECT_EQ(received(), "nothing") << "one write";
    EXPECT_EQ(rsp.len, 6);
    expect_rest_is_zero();
    EXPECT_EQ(platform(), (lines{"send_rsp_ok()", "send_rsp()", "send ==> \r\nOK\r\n"}));
    EXPECT_EQ(file(), lines{});
}

TEST_F(Response, OfFailure) {
    EXPECT_EQ(send_rsp_err(fd, &rsp, -1), 0);
    EXPECT_EQ(received(), "\r\nERROR: -1\r\n");
    EXPECT_EQ(received(), "nothing");
    expect_rest_is_zero();
    EXPECT_EQ(platform(), (lines{"send_rsp_err()", "send_rsp()", "send ==> \r\nERROR: -1\r\n"}));
    send_rsp_err(fd, &rsp, -118);
    EXPECT_EQ(received(), "\r\nERROR: -118\r\n");
    send_rsp_err(fd, &rsp, INT32_MIN);
    EXPECT_EQ(received(), "\r\nERROR: -2147483648\r\n");
}

TEST_F(Response, OfAResultIsOneWriteWithItsOk) {
    EXPECT_EQ(send_rsp_value(fd, &rsp, "QUERY_SERVICE", 1), 0);
    EXPECT_EQ(received(), "\r\nQUERY_SERVICE: 1\r\n\r\nOK\r\n");
    EXPECT_EQ(received(), "nothing");
    send_rsp_value(fd, &rsp, "DMESG_LOG", 0);
    EXPECT_EQ(received(), "\r\nDMESG_LOG: 0\r\n\r\nOK\r\n");
}

TEST_F(Response, OfAnOutcomeKnowsOneErrorOnly) {
    EXPECT_EQ(send_rsp_outcome(fd, &rsp, 0), 0);
    EXPECT_EQ(received(), "\r\nOK\r\n");
    EXPECT_EQ(send_rsp_outcome(fd, &rsp, -100), 0);
    EXPECT_EQ(received(), "\r\nERROR: -1\r\n");
}

TEST_F(Response, SendsAsManyBytesAsItsLengthSays) {
    fill(std::string("ab\0cd", 5));
    EXPECT_EQ(send_rsp(fd, &rsp), 0);
    EXPECT_EQ(received(), std::string("ab\0cd", 5));
    EXPECT_EQ(platform(), (lines{"send_rsp()", "send ==> ab"}));
    fill(std::string(199, 'z'));
    EXPECT_EQ(send_rsp(fd, &rsp), 0);
    EXPECT_EQ(received(), std::string(199, 'z'));
}

TEST_F(Response, ThatCannotBeWrittenCountsAsSent) {
    const int unwritable = open("/dev/null", O_RDONLY);
    EXPECT_EQ(send_rsp_ok(unwritable, &rsp), 0);
    EXPECT_EQ(platform(),
              (lines{"send_rsp_ok()", "send_rsp()", "send ==> \r\nOK\r\n", "sys call: write() failed! errno = 9",
                     std::string(kReport) + "send_rsp(), error_code=-1, errno=9"}));
    close(unwritable);
}

TEST_F(Response, ThatIsWrittenInPartCountsAsSentAndIsNotRepeated) {
    shorten_writes(fd, 4);
    EXPECT_EQ(send_rsp_ok(fd, &rsp), 0);
    shorten_writes(-1, 0);
    EXPECT_EQ(received(), "\r\nOK");
    EXPECT_EQ(received(), "nothing");
    EXPECT_EQ(platform(), (lines{"send_rsp_ok()", "send_rsp()", "send ==> \r\nOK\r\n",
                                 std::string(kReport) + "send_rsp(), error_code=-118, errno=0",
                                 "write not completed: to write(6) != written(4)"}));
}

TEST_F(Response, WithoutADescriptorIsRefused) {
    EXPECT_EQ(send_rsp_ok(0, &rsp), -101);
    EXPECT_EQ(send_rsp_err(-1, &rsp, -1), -101);
    fill("x");
    EXPECT_EQ(send_rsp(0, &rsp), -101);
    EXPECT_EQ(platform(),
              (lines{"send_rsp_ok()", std::string(kReport) + "send_rsp_ok(), error_code=-101, errno=0", "1, 0",
                     "send_rsp_err()", std::string(kReport) + "send_rsp_err(), error_code=-101, errno=0", "1, 0",
                     "send_rsp()", std::string(kReport) + "send_rsp(), error_code=-101, errno=0", "1, 0, 0"}));
}

TEST_F(Response, WithoutARecordIsRefused) {
    EXPECT_EQ(send_rsp_ok(fd, nullptr), -101);
    EXPECT_EQ(send_rsp_err(fd, nullptr, -1), -101);
    EXPECT_EQ(platform(),
              (lines{"send_rsp_ok()", std::string(kReport) + "send_rsp_ok(), error_code=-101, errno=0", "0, 1",
                     "send_rsp_err()", std::string(kReport) + "send_rsp_err(), error_code=-101, errno=0", "0, 1"}));
    EXPECT_EQ(send_rsp(fd, nullptr), -101);
    EXPECT_EQ(received(), "nothing");
}

TEST_F(Response, OfNoBytesIsRefused) {
    fill("");
    EXPECT_EQ(send_rsp(fd, &rsp), -101);
    EXPECT_EQ(received(), "nothing");
    EXPECT_EQ(platform(),
              (lines{"send_rsp()", std::string(kReport) + "send_rsp(), error_code=-101, errno=0", "0, 0, 1"}));
}
