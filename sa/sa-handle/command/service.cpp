// +START_SERVICE, +STOP_SERVICE, +QUERY_SERVICE: platform services by name. A service runs when a process of its name
// does; init starts it, SIGTERM stops it. No state between requests.
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <cutils/properties.h>

#include "sa/main/base/codes.h"
#include "sa/main/base/log.h"
#include "sa/main/base/process.h"
#include "sa/main/base/system.h"
#include "sa/main/base/text.h"
#include "sa/sa-handle/command/arguments.h"
#include "sa/sa-handle/command/handlers.h"
#include "sa/sa-handle/command/response.h"
#include "sa/sa-handle/command/shell.h"

static const int kNameSize = 40;
static const int kCommandSize = 99;
static const int kStartPolls = 8;
static const int kStopPolls = 10;
static const int kElogAttempts = 5;
static const unsigned kPollPause = 1;        // s, before each look
static const useconds_t kElogPause = 50000;  // µs, after a failed attempt
static const char kElogProperty[] = "ril.zr.elog.state";

static bool contains(const char *name, const char *part) {
    return strstr(name, part) != nullptr;
}

// The five log agents belong to the test service; the results are ignored.
static void control_log_agents(const char *action) {
    char command_a[kCommandSize];
    for (int agent = 1; agent <= 5; agent++) {
        sa_format(command_a, sizeof(command_a), "setprop ctl.%s zr-qel-mla%d", action, agent);
        sa_system(command_a);
    }
}

// The event logger is started by a property instead of ctl.start. Returns the result of the last attempt.
static long start_elog(void) {
    long ret_val = 0;
    for (int attempt = 0; attempt < kElogAttempts; attempt++) {
        ret_val = property_set(kElogProperty, "1");
        if (ret_val == 0) {
            sa_log_platform("property_set:ril.zr.elog.state successfully");
            break;
        }
        sa_log_platform("property_set:ril.zr.elog.state faild");
        usleep(kElogPause);
    }
    return ret_val;
}

// Looks once a second until the service runs, or no longer runs. Returns the index of the look that found it so, or -1.
static int poll_service(const char *log_name, const char *name, int32_t wanted, int polls, int32_t *pid_ptr) {
    for (int attempt = 0; attempt < polls; attempt++) {
        int32_t is_run = 0;
        sleep(kPollPause);
        util_is_process_running(name, &is_run, pid_ptr);
        sa_log_file_as(log_name, "is_run[%d]", is_run);
        if (is_run == wanted) {
            return attempt;
        }
    }
    return -1;
}

static long start_service(const char *log_name, const char *name) {
    int32_t is_run = 0;
    int32_t pid = 0;
    util_is_process_running(name, &is_run, &pid);
    sa_log_file_as(log_name, "is_run[%d]", is_run);
    if (is_run != 0) {
        return 0;
    }
    if (contains(name, "zr-auto-test") || contains(name, "zr-qel-mla")) {
        control_log_agents("start");
    }
    char command_a[kCommandSize] = "";
    const bool is_elog = strcmp(name, "zr-elog") == 0;
    const long ret_val = is_elog ? start_elog() : sa_start_init_service(name, command_a, sizeof(command_a));
    sa_log_file_as(log_name, "ret_val[%ld]", ret_val);
    if (ret_val != 0) {
        sa_log_error_as(log_name, SA_ERR_SYSTEM);
        sa_log_platform("error to exec: %s", command_a);
        return SA_ERR_FAIL;
    }
    const int attempt = poll_service(log_name, name, 1, kStartPolls, &pid);
    if (attempt < 0) {
        sa_log_as(log_name, "\"%s\" is not running finally", name);
        return SA_ERR_FAIL;
    }
    sa_log_as(log_name, "%d \"%s\" is running: %d", attempt, name, pid);
    return 0;
}

// Unlike a start, a stop of one of the log agents leaves the other four alone; that is intended.
static long stop_service(const char *log_name, const char *name) {
    int32_t is_run = 0;
    int32_t pid = 0;
    util_is_process_running(name, &is_run, &pid);
    sa_log_file_as(log_name, "is_run[%d] pid[%d]", is_run, pid);
    if (is_run == 0) {
        return 0;
    }
    if (contains(name, "zr-auto-test")) {
        control_log_agents("stop");
    }
    const long ret_val = kill(pid, SIGTERM);
    if (ret_val != 0) {
        sa_log_error_as(log_name, SA_ERR_SYSTEM);
        sa_log_platform("error to exec: kill(%d, SIGTERM), ret_val=%ld, errno=%d", pid, ret_val, errno);
        sa_log_file_as(log_name, "ret_val[%ld]", static_cast<long>(SA_ERR_COMMAND));
        return SA_ERR_FAIL;
    }
    sa_log_file_as(log_name, "ret_val[%ld]", ret_val);
    const int attempt = poll_service(log_name, name, 0, kStopPolls, &pid);
    if (attempt < 0) {
        sa_log_as(log_name, "\"%s\" is still running finally", name);
        return SA_ERR_FAIL;
    }
    sa_log_as(log_name, "%d \"%s\" is not running", attempt, name);
    return 0;
}

static void change_service(const char *log_name, int32_t fd, struct sa_msg_st *rsp_ptr, const char *arg,
                           long (*step)(const char *log_name, const char *name)) {
    sa_log_file_as(log_name, "req[%s]", arg);
    char name_a[kNameSize];
    long sa_err = SA_ERR_FAIL;
    if (sa_take_quoted(arg, name_a, sizeof(name_a)) != nullptr) {
        sa_err = step(log_name, name_a);
    }
    sa_log_as(log_name, "\"%s\" sa_err: %ld", name_a, sa_err);
    send_rsp_outcome(fd, rsp_ptr, sa_err);
    sa_log_file_as(log_name, "service[%s] sa_err[%ld]", name_a, sa_err);
}

// ---- the commands ----

long handle_sa_query_service_set(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg) {
    sa_log_entry();
    if (sa_is_bad_call(fd, req_ptr, rsp_ptr, arg)) {
        return SA_ERR_PARAM;
    }
    sa_log_file("req[%s]", arg);
    char name_a[kNameSize];
    int32_t is_run = 0;
    int32_t pid = 0;
    long sa_err = SA_ERR_FAIL;
    if (sa_take_quoted(arg, name_a, sizeof(name_a)) != nullptr) {
        util_is_process_running(name_a, &is_run, &pid);
        sa_log_file("is_run[%d]", is_run);
        send_rsp_value(fd, rsp_ptr, "QUERY_SERVICE", is_run);
        sa_err = 0;
    }
    if (sa_err != 0) {
        send_rsp_err(fd, rsp_ptr, SA_ERR_FAIL);
    }
    sa_log_file("service[%s] sa_err[%ld]", name_a, sa_err);
    return 0;
}

long handle_sa_start_service_set(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg) {
    sa_log_entry();
    if (sa_is_bad_call(fd, req_ptr, rsp_ptr, arg)) {
        return SA_ERR_PARAM;
    }
    change_service(__func__, fd, rsp_ptr, arg, start_service);
    return 0;
}

long handle_sa_stop_service_set(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg) {
    sa_log_entry();
    if (sa_is_bad_call(fd, req_ptr, rsp_ptr, arg)) {
        return SA_ERR_PARAM;
    }
    change_service(__func__, fd, rsp_ptr, arg, stop_service);
    return 0;
}
