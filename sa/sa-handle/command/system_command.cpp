// +SYSTEM: a shell command line of the host's choosing, with the agent's privileges. No state.
#include <string.h>

#include "sa/main/base/codes.h"
#include "sa/main/base/log.h"
#include "sa/sa-handle/command/arguments.h"
#include "sa/sa-handle/command/handlers.h"
#include "sa/sa-handle/command/response.h"
#include "sa/sa-handle/command/shell.h"

static const size_t kArgumentLimit = 200;

static long run_command(const char *arg, char *command_ptr, size_t size) {
    if (strlen(arg) >= kArgumentLimit || sa_take_quoted(arg, command_ptr, size) == nullptr) {
        return SA_ERR_COMMAND;
    }
    const long ret_val = do_sys_command(command_ptr);
    sa_log_platform("command \"%s\": %ld", command_ptr, ret_val);
    return ret_val == 0 ? 0 : SA_ERR_COMMAND;
}

long handle_sa_system_set(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg) {
    sa_log_entry();
    if (sa_is_bad_call(fd, req_ptr, rsp_ptr, arg)) {
        return SA_ERR_PARAM;
    }
    sa_log_file("req[%s]", arg);
    char command_a[SA_COMMAND_SIZE] = "";
    const long ret_val = run_command(arg, command_a, sizeof(command_a));
    sa_log_file("cmd[%s] ret_val[%ld]", command_a, ret_val);
    return send_rsp_outcome(fd, rsp_ptr, ret_val);
}
