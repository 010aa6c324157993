// The dispatcher: the handler and argument text for each request, and the answer if there is no handler. At link time the
// handlers are replaced by functions that record their calls.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <iterator>

#include "sa/sa-handle/command/command.h"
#include "tests/unit/log_lines.h"

typedef std::vector<std::string> lines;

struct handler_call {
    std::string handler;
    int32_t fd;
    struct sa_msg_st *req_ptr;
    struct sa_msg_st *rsp_ptr;
    std::string arg;
};

static std::vector<handler_call> m_calls;
static long m_result = 0;

// A C++ function's symbol tells its name's length and its parameters; the linker looks for the replacement under that.
#define REPLACE(length, name)                                                                               \
    long note_##name(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr,                      \
                     const char *arg) __asm__("__wrap__Z" #length "handle_sa_" #name "iP9sa_msg_stS0_PKc"); \
    long note_##name(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg) {   \
        m_calls.push_back({#name, fd, req_ptr, rsp_ptr, arg});                                              \
        return m_result;                                                                                    \
    }

REPLACE(27, start_service_set)
REPLACE(26, stop_service_set)
REPLACE(27, query_service_set)
REPLACE(32, auto_start_service_set)
REPLACE(22, save_log_set)
REPLACE(20, system_set)
REPLACE(24, kernel_log_set)
REPLACE(25, kernel_log_read)
REPLACE(23, dmesg_log_set)
REPLACE(24, dmesg_log_read)
REPLACE(25, packets_log_set)
REPLACE(24, delete_log_set)

class Dispatcher : public LogLinesTest {
  protected:
    void SetUp() override {
        LogLinesTest::SetUp();
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
        host = ends[0];
        fd = ends[1];
        m_calls.clear();
        m_result = 0;
        errno = 0;
    }
    void TearDown() override {
        close(fd);
        close(host);
    }

    long dispatch(const std::string &request) {
        memset(&req, 0, sizeof(req));
        memcpy(req.data, request.data(), request.size());
        req.len = static_cast<uint16_t>(request.size());
        return handle_sa_cmd_req(fd, &req, &rsp);
    }
    std::string answer() {
        char bytes[512];
        const ssize_t count = read(host, bytes, sizeof(bytes));
        return count < 0 ? "" : std::string(bytes, static_cast<size_t>(count));
    }
    void expect_call(const std::string &request, const std::string &handler, const std::string &arg) {
        m_calls.clear();
        EXPECT_EQ(dispatch(request), 0) << request;
        ASSERT_EQ(m_calls.size(), 1u) << request;
        EXPECT_EQ(m_calls[0].handler, handler) << request;
        EXPECT_EQ(m_calls[0].arg, arg) << request;
        EXPECT_EQ(answer(), "") << request;
    }
    void expect_unknown(const std::string &request) {
        m_calls.clear();
        EXPECT_EQ(dispatch(request), 0) << request;
        EXPECT_TRUE(m_calls.empty()) << request;
        EXPECT_EQ(answer(), "\r\nERROR: -1\r\n") << request;
    }
    void expect_attention(const std::string &request) {
        m_calls.clear();
        EXPECT_EQ(dispatch(request), 0) << request;
        EXPECT_TRUE(m_calls.empty()) << request;
        EXPECT_EQ(answer(), "\r\nOK\r\n") << request;
    }

    int fd = -1;
    int host = -1;
    struct sa_msg_st req;
    struct sa_msg_st rsp;
};

struct row {
    const char *name;
    const char *set_handler;
    const char *read_handler;  // null: none
};

static const row kRows[] = {
    {"+START_SERVICE", "start_service_set", nullptr},
    {"+STOP_SERVICE", "stop_service_set", nullptr},
    {"+QUERY_SERVICE", "query_service_set", nullptr},
    {"+AUTO_START_SERVICE", "auto_start_service_set", nullptr},
    {"+SAVE_LOG", "save_log_set", nullptr},
    {"+SYSTEM", "system_set", nullptr},
    {"+KERNEL_LOG", "kernel_log_set", "kernel_log_read"},
    {"+DMESG_LOG", "dmesg_log_set", "dmesg_log_read"},
    {"+DATA_PACKETS_LOG", "packets_log_set", nullptr},
    {"+DELETE_LOG", "delete_log_set", nullptr},
};

TEST_F(Dispatcher, TableHasTheTenCommandsInOrder) {
    size_t index = 0;
    for (; m_sa_cmd_table[index].name != nullptr; index++) {
        ASSERT_LT(index, std::size(kRows));
        EXPECT_STREQ(m_sa_cmd_table[index].name, kRows[index].name);
        EXPECT_EQ(m_sa_cmd_table[index].name_len, strlen(kRows[index].name));
        EXPECT_EQ(m_sa_cmd_table[index].test_handler, nullptr);
    }
    EXPECT_EQ(index, 10u);
    EXPECT_EQ(m_sa_cmd_table[index].name_len, 0u);
}

TEST_F(Dispatcher, EveryCommandReachesItsHandlerInEachForm) {
    for (const row &one : kRows) {
        const std::string name = one.name;
        expect_call("AT SA" + name + "=1\r", one.set_handler, "1\r");
        expect_call("AT SA" + name + "\r", one.set_handler, "\r");
        if (one.read_handler != nullptr) {
            expect_call("AT SA" + name + "?\r", one.read_handler, "?\r");
        } else {
            expect_unknown("AT SA" + name + "?\r");
        }
        expect_unknown("AT SA" + name + "=?\r");
    }
}

TEST_F(Dispatcher, HandlersGetTheCallersRecords) {
    dispatch("SA+SAVE_LOG\r");
    ASSERT_EQ(m_calls.size(), 1u);
    EXPECT_EQ(m_calls[0].fd, fd);
    EXPECT_EQ(m_calls[0].req_ptr, &req);
    EXPECT_EQ(m_calls[0].rsp_ptr, &rsp);
}

TEST_F(Dispatcher, ResultIsTheHandlers) {
    m_result = -101;
    EXPECT_EQ(dispatch("SA+SAVE_LOG\r"), -101);
    EXPECT_EQ(answer(), "") << "the dispatcher answers nothing of its own";
    EXPECT_EQ(file(), (lines{"handle_sa_cmd_req req[SA+SAVE_LOG\r]", "handle_sa_cmd_req SA ret_val[-101]"}));
    EXPECT_EQ(platform(), lines{"handle_sa_cmd_req()"});
}

// ---- attention ----

TEST_F(Dispatcher, AttentionIsAnswered) {
    expect_attention("AT\r");
    expect_attention("at\r");
    expect_attention("noise AT\rmore");
}

TEST_F(Dispatcher, AttentionGoesBeforeEverything) {
    expect_attention("SA+SYSTEM=\"echo AT\r\"\r");
    expect_attention("SA+START_SERVICE=\"chat\r\"\r");
}

TEST_F(Dispatcher, AttentionInMixedCaseOrUnendedIsUnknown) {
    expect_unknown("At\r");
    expect_unknown("aT\r");
    expect_unknown("AT");
    expect_unknown("AT\n");
    expect_unknown("AT \r");
}

TEST_F(Dispatcher, AttentionLeavesItsTrail) {
    dispatch("AT\r");
    EXPECT_EQ(file(), (lines{"handle_sa_cmd_req req[AT\r]", "handle_sa_cmd_req AT ret_val[0]"}));
    EXPECT_EQ(platform(), (lines{"handle_sa_cmd_req()", "send_rsp_ok()", "send_rsp()", "send ==> \r\nOK\r\n"}));
}

// ---- prefix, name and form ----

TEST_F(Dispatcher, WhateverStandsInFrontOfThePrefixIsFree) {
    expect_call("SA+SYSTEM=x\r", "system_set", "x\r");
    expect_call("ATSA+SYSTEM=x\r", "system_set", "x\r");
    expect_call("AT SA   +SYSTEM=x\r", "system_set", "x\r");
    expect_call("\r\n\"SA+SYSTEM=x\r", "system_set", "x\r");
}

TEST_F(Dispatcher, TheFirstPrefixCounts) {
    expect_unknown("USA SA+SYSTEM=x\r");
    expect_call("SA+SYSTEM=SA+SAVE_LOG\r", "system_set", "SA+SAVE_LOG\r");
}

TEST_F(Dispatcher, ThePrefixIsInUpperCaseAndTheNameInAny) {
    expect_unknown("AT sa+SYSTEM=x\r");
    expect_unknown("AT Sa+SYSTEM=x\r");
    expect_call("AT SA+kernel_log?\r", "kernel_log_read", "?\r");
    expect_call("AT SA+Kernel_Log=1\r", "kernel_log_set", "1\r");
}

TEST_F(Dispatcher, WhatIsNoCommandIsUnknown) {
    expect_unknown("SA\r");
    expect_unknown("SA+\r");
    expect_unknown("SASYSTEM=x\r");
    expect_unknown("SA+SYSTE=x\r");
    expect_unknown("SA +\tSYSTEM=x\r");
    expect_unknown("SA\t+SYSTEM=x\r");
    expect_unknown("AT+SYSTEM=x\r");
    expect_unknown("\r");
}

TEST_F(Dispatcher, LettersBehindTheNameBelongToTheArgument) {
    expect_call("SA+SYSTEMX=1\r", "system_set", "X=1\r");
    expect_call("SA+START_SERVICES\r", "start_service_set", "S\r");
    expect_call("SA+KERNEL_LOG1?\r", "kernel_log_set", "1?\r");
}

TEST_F(Dispatcher, BlanksAroundTheFormAreSkipped) {
    expect_call("SA+SYSTEM   =   x \r", "system_set", "x \r");
    expect_call("SA+KERNEL_LOG  ?\r", "kernel_log_read", "?\r");
    expect_call("SA+SAVE_LOG  \r", "save_log_set", "\r");
    expect_unknown("SA+KERNEL_LOG  =?\r");
    expect_call("SA+KERNEL_LOG= ?\r", "kernel_log_set", "?\r");
    expect_call("SA+KERNEL_LOG==1\r", "kernel_log_set", "=1\r");
    expect_call("SA+SYSTEM=\r", "system_set", "\r");
}

// ---- terminator ----

TEST_F(Dispatcher, ACommandNeedsItsTerminator) {
    expect_unknown("SA+SYSTEM=x");
    expect_unknown("SA+SYSTEM=x\n");
    expect_unknown("\rSA+SYSTEM=x");
    expect_unknown("SA+SYSTEM");
}

TEST_F(Dispatcher, ATerminatorInsideQuotesIsNone) {
    expect_unknown("SA+START_SERVICE=\"a\rb\"");
    expect_unknown("SA+START_SERVICE=\"a\r");
    expect_unknown("SA+START_SERVICE=\"a\" \"b\r");
    expect_call("SA+START_SERVICE=\"a\rb\"\r", "start_service_set", "\"a\rb\"\r");
    expect_call("SA+SYSTEM=\"a\"\r\"", "system_set", "\"a\"\r\"");
}

TEST_F(Dispatcher, TheTextIsNotCutAtItsTerminator) {
    expect_call("SA+SYSTEM=a\rb\rc", "system_set", "a\rb\rc");
}

TEST_F(Dispatcher, TheTextEndsAtItsFirstNul) {
    expect_unknown(std::string("SA+SYSTEM=a\0\r", 13));
    expect_call(std::string("SA+SYSTEM=a\r\0b\r", 15), "system_set", "a\r");
}

TEST_F(Dispatcher, ARequestMayFillTheRecord) {
    const std::string start = "SA+SYSTEM=";
    const std::string rest = std::string(199 - start.size() - 1, 'x') + "\r";
    expect_call(start + rest, "system_set", rest);
}

// ---- unusable calls ----

TEST_F(Dispatcher, UnusableArgumentsAreNotAnswered) {
    const std::string report = "FILE-sa/sa-handle, LINE-*, FUNC-handle_sa_cmd_req(), error_code=-101, errno=0";
    dispatch("AT\r");
    answer();
    forget();
    errno = 0;
    EXPECT_EQ(handle_sa_cmd_req(0, &req, &rsp), -101);
    EXPECT_EQ(handle_sa_cmd_req(fd, &req, nullptr), -101);
    EXPECT_EQ(handle_sa_cmd_req(-1, &req, &rsp), -101);
    req.len = 0;
    EXPECT_EQ(handle_sa_cmd_req(fd, &req, &rsp), -101);
    EXPECT_EQ(platform(),
              (lines{"handle_sa_cmd_req()", report, "1, 0, 0, 0", "handle_sa_cmd_req()", report, "0, 0, 0, 1",
                     "handle_sa_cmd_req()", report, "1, 0, 0, 0", "handle_sa_cmd_req()", report, "0, 0, 1, 0"}));
    EXPECT_EQ(handle_sa_cmd_req(fd, nullptr, &rsp), -101);
    EXPECT_EQ(file(), lines{});
    EXPECT_EQ(answer(), "");
    EXPECT_TRUE(m_calls.empty());
}

TEST_F(Dispatcher, AnAnswerThatCannotBeSentCountsAsSent) {
    close(host);
    host = open("/dev/null", O_RDONLY);  // nobody's end
    const int unwritable = open("/dev/null", O_RDONLY);
    memcpy(req.data, "what\r", 6);
    req.len = 5;
    EXPECT_EQ(handle_sa_cmd_req(unwritable, &req, &rsp), 0);
    close(unwritable);
}
