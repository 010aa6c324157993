// Building and sending responses. No state.
#include "sa/sa-handle/command/response.h"

#include <string.h>
#include <unistd.h>

#include "sa/main/base/codes.h"
#include "sa/main/base/log.h"
#include "sa/main/base/text.h"

static const size_t kTextLimit = sizeof(sa_msg_st::data) - 1;

static void set_length(struct sa_msg_st *rsp_ptr) {
    rsp_ptr->len = static_cast<uint16_t>(strlen(rsp_ptr->data));
}

long send_rsp(int32_t fd, struct sa_msg_st *rsp_ptr) {
    sa_log_entry();
    const bool is_empty = rsp_ptr == nullptr || rsp_ptr->len == 0;
    if (fd < 1 || is_empty) {
        sa_log_error(SA_ERR_PARAM);
        sa_log_platform("%d, %d, %d", fd < 1 ? 1 : 0, rsp_ptr == nullptr ? 1 : 0, is_empty ? 1 : 0);
        return SA_ERR_PARAM;
    }
    sa_log_platform("send ==> %s", rsp_ptr->data);
    const int written = static_cast<int>(write(fd, rsp_ptr->data, rsp_ptr->len));
    if (written <= 0) {
        sa_log_failed_call("write", SA_ERR_FAIL);
    } else if (written < rsp_ptr->len) {
        sa_log_error(SA_ERR_SYSTEM);
        sa_log_platform("write not completed: to write(%d) != written(%d)", rsp_ptr->len, written);
    }
    return 0;
}

// The argument test of send_rsp_ok and send_rsp_err; logs under the caller's name.
static bool is_unusable(const char *log_name, int32_t fd, const struct sa_msg_st *rsp_ptr) {
    if (fd > 0 && rsp_ptr != nullptr) {
        return false;
    }
    sa_log_error_as(log_name, SA_ERR_PARAM);
    sa_log_platform("%d, %d", fd > 0 ? 0 : 1, rsp_ptr == nullptr ? 1 : 0);
    return true;
}

long send_rsp_ok(int32_t fd, struct sa_msg_st *rsp_ptr) {
    sa_log_entry();
    if (is_unusable(__func__, fd, rsp_ptr)) {
        return SA_ERR_PARAM;
    }
    memset(rsp_ptr, 0, sizeof(*rsp_ptr));
    sa_format(rsp_ptr->data, kTextLimit, "\r\nOK\r\n");
    set_length(rsp_ptr);
    return send_rsp(fd, rsp_ptr);
}

long send_rsp_err(int32_t fd, struct sa_msg_st *rsp_ptr, int32_t code) {
    sa_log_entry();
    if (is_unusable(__func__, fd, rsp_ptr)) {
        return SA_ERR_PARAM;
    }
    memset(rsp_ptr, 0, sizeof(*rsp_ptr));
    sa_format(rsp_ptr->data, kTextLimit, "\r\nERROR: %ld\r\n", static_cast<long>(code));
    set_length(rsp_ptr);
    return send_rsp(fd, rsp_ptr);
}

long send_rsp_value(int32_t fd, struct sa_msg_st *rsp_ptr, const char *name, int32_t value) {
    memset(rsp_ptr, 0, sizeof(*rsp_ptr));
    sa_format(rsp_ptr->data, kTextLimit, "\r\n%s: %d\r\n\r\nOK\r\n", name, value);
    set_length(rsp_ptr);
    return send_rsp(fd, rsp_ptr);
}

long send_rsp_outcome(int32_t fd, struct sa_msg_st *rsp_ptr, long outcome) {
    return outcome == 0 ? send_rsp_ok(fd, rsp_ptr) : send_rsp_err(fd, rsp_ptr, SA_ERR_FAIL);
}
