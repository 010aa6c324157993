// The commands and how a request finds its own. A new command is one row here, one handler and its test.
#include "sa/sa-handle/command/command.h"

#include <string.h>
#include <strings.h>

#include "sa/main/base/codes.h"
#include "sa/main/base/log.h"
#include "sa/sa-handle/command/response.h"

// Compared by prefix: a longer name must not stand behind a shorter one that it begins with.
#define COMMAND(name) name, sizeof(name) - 1

// clang-format off
const struct sa_cmd_row m_sa_cmd_table[] = {
    //                              set                               read                       test
    {COMMAND("+START_SERVICE"),      handle_sa_start_service_set,      nullptr,                   nullptr},
    {COMMAND("+STOP_SERVICE"),       handle_sa_stop_service_set,       nullptr,                   nullptr},
    {COMMAND("+QUERY_SERVICE"),      handle_sa_query_service_set,      nullptr,                   nullptr},
    {COMMAND("+AUTO_START_SERVICE"), handle_sa_auto_start_service_set, nullptr,                   nullptr},
    {COMMAND("+SAVE_LOG"),           handle_sa_save_log_set,           nullptr,                   nullptr},
    {COMMAND("+SYSTEM"),             handle_sa_system_set,             nullptr,                   nullptr},
    {COMMAND("+KERNEL_LOG"),         handle_sa_kernel_log_set,         handle_sa_kernel_log_read, nullptr},
    {COMMAND("+DMESG_LOG"),          handle_sa_dmesg_log_set,          handle_sa_dmesg_log_read,  nullptr},
    {COMMAND("+DATA_PACKETS_LOG"),   handle_sa_packets_log_set,        nullptr,                   nullptr},
    {COMMAND("+DELETE_LOG"),         handle_sa_delete_log_set,         nullptr,                   nullptr},
    {nullptr, 0,                     nullptr,                          nullptr,                   nullptr},
};
// clang-format on

static const char *skip_blanks(const char *text) {
    return text + strspn(text, " ");
}

static bool is_attention(const char *text) {
    return strstr(text, "AT\r") != nullptr || strstr(text, "at\r") != nullptr;
}

// Where the command begins, behind the agent's prefix; null without one.
static const char *find_command(const char *text) {
    const char *prefix = strstr(text, "SA");
    return prefix != nullptr ? skip_blanks(prefix + 2) : nullptr;
}

// Whether a carriage return ends the command; one inside double quotes does not.
static bool is_terminated(const char *command) {
    for (const char *at = command; *at != '\0'; at++) {
        if (*at == '\r') {
            return true;
        }
        if (*at == '"') {
            at = strchr(at + 1, '"');
            if (at == nullptr) {
                return false;
            }
        }
    }
    return false;
}

static const struct sa_cmd_row *find_row(const char *command) {
    for (const struct sa_cmd_row *row_ptr = m_sa_cmd_table; row_ptr->name != nullptr; row_ptr++) {
        if (strncasecmp(command, row_ptr->name, row_ptr->name_len) == 0) {
            return row_ptr;
        }
    }
    return nullptr;
}

// Chooses the handler by the character behind the name and moves *arg_pptr from there to the argument text.
static sa_cmd_handler choose_handler(const struct sa_cmd_row *row_ptr, const char **arg_pptr) {
    const char *form = skip_blanks(*arg_pptr);
    *arg_pptr = form;
    if (form[0] == '?') {
        return row_ptr->read_handler;
    }
    if (form[0] != '=') {
        return row_ptr->set_handler;
    }
    if (form[1] == '?') {
        return row_ptr->test_handler;
    }
    *arg_pptr = skip_blanks(form + 1);
    return row_ptr->set_handler;
}

// The handler that a request asks for, with its argument text; null for whatever the agent does not know.
static sa_cmd_handler find_handler(const char *text, const char **arg_pptr) {
    const char *command = find_command(text);
    if (command == nullptr || !is_terminated(command)) {
        return nullptr;
    }
    const struct sa_cmd_row *row_ptr = find_row(command);
    if (row_ptr == nullptr) {
        return nullptr;
    }
    *arg_pptr = command + row_ptr->name_len;
    return choose_handler(row_ptr, arg_pptr);
}

long handle_sa_cmd_req(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr) {
    sa_log_entry();
    const bool is_empty = req_ptr == nullptr || req_ptr->len == 0;
    if (fd < 1 || is_empty || rsp_ptr == nullptr) {
        sa_log_error(SA_ERR_PARAM);
        sa_log_platform("%d, %d, %d, %d", fd < 1 ? 1 : 0, req_ptr == nullptr ? 1 : 0, is_empty ? 1 : 0,
                        rsp_ptr == nullptr ? 1 : 0);
        return SA_ERR_PARAM;
    }
    sa_log_file("req[%s]", req_ptr->data);

    if (is_attention(req_ptr->data)) {
        const long ret_val = send_rsp_ok(fd, rsp_ptr);
        sa_log_file("AT ret_val[%ld]", ret_val);
        return ret_val;
    }
    const char *arg = nullptr;
    const sa_cmd_handler handler = find_handler(req_ptr->data, &arg);
    if (handler == nullptr) {
        return send_rsp_err(fd, rsp_ptr, SA_ERR_FAIL);
    }
    const long ret_val = handler(fd, req_ptr, rsp_ptr, arg);
    sa_log_file("SA ret_val[%ld]", ret_val);
    return ret_val;
}
