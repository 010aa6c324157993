// +DELETE_LOG: stops the collectors, deletes what they wrote and starts them again. No state.
#include "sa/main/base/codes.h"
#include "sa/main/base/log.h"
#include "sa/main/base/system.h"
#include "sa/main/base/text.h"
#include "sa/sa-handle/collect/log_directory.h"
#include "sa/sa-handle/collect/log_start.h"
#include "sa/sa-handle/command/arguments.h"
#include "sa/sa-handle/command/handlers.h"
#include "sa/sa-handle/command/response.h"
#include "sa/sa-handle/command/shell.h"

// Always this directory: the one that the property names for the collectors is not consulted, by design.
static const char kLogDirectory[] = "/data/local/log";

struct delete_row {
    const char *directory;
    const char *pattern;
};

static const struct delete_row kRows[] = {
    {kLogDirectory, "kmsg.log*"},           {kLogDirectory, "ipdata.pcap*"},      {kLogDirectory, "logcat.log*"},
    {kLogDirectory, "logcat-events.log*"},  {kLogDirectory, "logcat-radio.log*"}, {"/data/local", "log-modem*.tgz"},
    {kLogDirectory, "zr-poweron-log.log*"},
};

static long util_delete_ex(const char *src_dir) {
    char command_a[SA_COMMAND_SIZE] = "";
    sa_log_entry();
    sa_log_file("log_path[%s]", src_dir);
    sa_log("src_dir[%s]", src_dir);
    for (const struct delete_row &row : kRows) {
        sa_format(command_a, sizeof(command_a) - 1, "busybox rm -r %s/%s", row.directory, row.pattern);
        const int ret = sa_system(command_a);
        sa_log("delete file[%s/%s] ret[%d]", row.directory, row.pattern, ret);
    }
    return 0;  // failed deletions are only logged; collection starts again in every case
}

// Does not wait for the stopped collectors: one may still be closing a file while the file is deleted.
static long sa_log_delete_log(void) {
    sa_log_entry();
    sa_kill_all_child_service_ex();
    const long deleted = util_delete_ex(kLogDirectory);
    sa_log_platform("%s util_delete_ex[%s] ret_val[%ld]", __func__, kLogDirectory, deleted);
    sa_log_file("util_delete_ex ret_val[%ld]", deleted);
    if (sa_is_can_start_log_service() != 0) {
        sa_log("sa_is_can_start_log_service error");
        return SA_ERR_NO_SPACE;
    }
    const long ret_val = start_log_service();
    sa_log_file("start_log_service ret_val[%ld]", ret_val);
    return ret_val;
}

long handle_sa_delete_log_set(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg) {
    sa_log_entry();
    if (sa_is_bad_call(fd, req_ptr, rsp_ptr, arg)) {
        return SA_ERR_PARAM;
    }
    sa_log_file("req[%s]", arg);
    const long ret_val = sa_log_delete_log();
    sa_log_platform("%s sa_log_delete_log ret_val[%ld]", __func__, ret_val);
    sa_log_file("ret_val[%ld]", ret_val);
    return send_rsp_outcome(fd, rsp_ptr, ret_val);
}
