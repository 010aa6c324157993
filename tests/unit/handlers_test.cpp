// The command handlers called directly, with arguments that the dispatcher never passes.
#include "sa/sa-handle/command/handlers.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "tests/unit/log_lines.h"

using lines = std::vector<std::string>;

struct named_handler {
    const char *name;
    sa_cmd_handler call;
};

#define HANDLER(name) \
    { #name, name }

static const named_handler kHandlers[] = {
    HANDLER(handle_sa_start_service_set), HANDLER(handle_sa_stop_service_set),
    HANDLER(handle_sa_query_service_set), HANDLER(handle_sa_auto_start_service_set),
    HANDLER(handle_sa_save_log_set),      HANDLER(handle_sa_system_set),
    HANDLER(handle_sa_kernel_log_set),    HANDLER(handle_sa_kernel_log_read),
    HANDLER(handle_sa_dmesg_log_set),     HANDLER(handle_sa_dmesg_log_read),
    HANDLER(handle_sa_packets_log_set),   HANDLER(handle_sa_delete_log_set),
};

class Handlers : public LogLinesTest {
  protected:
    void SetUp() override {
        LogLinesTest::SetUp();
        memset(&req, 0, sizeof(req));
        memset(&rsp, 0, sizeof(rsp));
        req.len = 1;
        ASSERT_EQ(pipe2(channel, O_CLOEXEC | O_NONBLOCK), 0);
    }
    void TearDown() override {
        close(channel[0]);
        close(channel[1]);
    }
    // All that has been answered since the last call.
    std::string answer() {
        char bytes[256];
        const ssize_t count = read(channel[0], bytes, sizeof(bytes));
        return count > 0 ? std::string(bytes, static_cast<size_t>(count)) : "";
    }
    // A call that must be refused with these five tests in the log, and that nobody hears of.
    void expect_refused(const named_handler &handler, int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr,
                        const char *arg, const char *tests) {
        SCOPED_TRACE(std::string(handler.name) + ": " + tests);
        forget();
        errno = 0;
        EXPECT_EQ(handler.call(fd, req_ptr, rsp_ptr, arg), -101);
        EXPECT_EQ(platform(), (lines{std::string(handler.name) + "()",
                                     std::string("FILE-sa/sa-handle, LINE-*, FUNC-") + handler.name +
                                         "(), error_code=-101, errno=0",
                                     tests}));
        EXPECT_EQ(file(), lines{});
        EXPECT_EQ(answer(), "");
    }

    struct sa_msg_st req;
    struct sa_msg_st rsp;
    int channel[2] = {-1, -1};
};

TEST_F(Handlers, RefuseUnusableArgumentsWithoutAnAnswer) {
    for (const named_handler &handler : kHandlers) {
        expect_refused(handler, 0, &req, &rsp, "1", "1, 0, 0, 0, 0");
        expect_refused(handler, -1, &req, &rsp, "1", "1, 0, 0, 0, 0");
        expect_refused(handler, channel[1], &req, nullptr, "1", "0, 0, 0, 1, 0");
        expect_refused(handler, channel[1], &req, &rsp, nullptr, "0, 0, 0, 0, 1");
        req.len = 0;
        expect_refused(handler, channel[1], &req, &rsp, "1", "0, 0, 1, 0, 0");
        expect_refused(handler, -1, &req, nullptr, nullptr, "1, 0, 1, 1, 1");
        req.len = 1;
        EXPECT_EQ(handler.call(channel[1], nullptr, &rsp, "1"), -101);
        EXPECT_EQ(answer(), "");
    }
}

// No request can hold so much; the bound is the handler's own.
TEST_F(Handlers, SystemRefusesAnArgumentOf200Characters) {
    std::string arg = "\"echo ran >> /data/ran\"";
    arg.resize(199, ' ');
    EXPECT_EQ(handle_sa_system_set(channel[1], &req, &rsp, arg.c_str()), 0);
    EXPECT_EQ(answer(), "\r\nOK\r\n");
    EXPECT_EQ(read_file("/data/ran"), "ran\n");
    forget();
    arg += ' ';
    EXPECT_EQ(handle_sa_system_set(channel[1], &req, &rsp, arg.c_str()), 0);
    EXPECT_EQ(answer(), "\r\nERROR: -1\r\n");
    EXPECT_EQ(read_file("/data/ran"), "ran\n");
    EXPECT_EQ(file(), (lines{"handle_sa_system_set req[" + arg + "]", "handle_sa_system_set cmd[] ret_val[-100]"}));
}

// Sending counts as done, whatever becomes of the bytes; only then is the request let go.
TEST_F(Handlers, CountAnAnswerThatCannotBeWrittenAsSent) {
    for (const named_handler &handler : kHandlers) {
        if (strstr(handler.name, "save_log") == nullptr && strstr(handler.name, "delete_log") == nullptr) {
            EXPECT_EQ(handler.call(channel[0], &req, &rsp, "what"), 0) << handler.name;
        }
    }
    EXPECT_EQ(answer(), "");
}
