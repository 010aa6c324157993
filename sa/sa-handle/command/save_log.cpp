// +SAVE_LOG: copies what the handset has collected, and a set of system dumps, into a new directory on the card. No state.
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "sa/main/base/codes.h"
#include "sa/main/base/files.h"
#include "sa/main/base/local_time.h"
#include "sa/main/base/log.h"
#include "sa/main/base/text.h"
#include "sa/sa-handle/command/arguments.h"
#include "sa/sa-handle/command/handlers.h"
#include "sa/sa-handle/command/response.h"
#include "sa/sa-handle/command/shell.h"

static const char kRoot[] = "/storage/real_sd/logs";
static const int kBufferSize = 255;
static const int kMkdirAttempts = 5;
static const useconds_t kMkdirPause = 50000;              // µs, after each failed attempt
static const char kLogName[] = "handle_sa_save_log_set";  // the steps log under the handler's name

// One line of the save, run in the table's order. The command line is `before`, the destination and `after`.
struct save_row {
    const char *before;
    const char *after;
    int number;               // 0: run once, checked; else: run with retries, its result logged under this number
    const char *source;       // what a numbered row copies, as its log line names it
    bool is_conditional;      // only when `source` exists
    const char *destination;  // subdirectory to make first, or null
};

static const char kTelephony[] = "/com.android.providers.telephony";

// The double blanks and the numbers are kept on purpose.
// clang-format off
static const struct save_row kRows[] = {
    {"cat /proc/driver/codec > ",        "/zr3360regs.log", 0, nullptr, false, nullptr},
    {"busybox cp /data/rec_dump.txt  ",      " -R",          0, nullptr, false, nullptr},
    {"busybox cp /data/play_out_dump.txt  ", " -R",          0, nullptr, false, nullptr},
    {"busybox cp /data/local/log ",          "/ -R",         3, "/data/local/log", false, nullptr},
    {"busybox cp /data/local/log-modem ",    "/ -R",         4, "/data/local/log-modem", true, nullptr},
    {"busybox cp /data/local/log-modem-1 ",  "/ -R",         5, "/data/local/log-modem-1", true, nullptr},
    {"busybox cp /data/local/log-modem-2 ",  "/ -R",         6, "/data/local/log-modem-2", true, nullptr},
    {"busybox cp /data/log ",                "/data-log -R", 7, "/data/log", true, nullptr},
    {"busybox cp /data/anr ",                " -R",          8, "/data/anr", true, nullptr},
    {"busybox cp /data/data/com.android.mms ", " -R",        9, "/data/data/com.android.mms", true, nullptr},
    {"busybox cp /data/data/com.android.providers.telephony ", "/com.android.providers.telephony -R",
                                                            10, "/data/data/com.android.providers.telephony", true, kTelephony},
    {"getprop > ",          "/getprop.log",   0, nullptr, false, nullptr},
    {"busybox ifconfig > ", "/ifconfig.log",  0, nullptr, false, nullptr},
    {"ls /tmp > ",          "/ls_tmp.log",    0, nullptr, false, nullptr},
    {"lsmod > ",            "/lsmod.log",     0, nullptr, false, nullptr},
    {"ps > ",               "/ps.log",        0, nullptr, false, nullptr},
    {"busybox route > ",    "/route.log",     0, nullptr, false, nullptr},
    {"bugreport > ",        "/bugreport.log", 0, nullptr, false, nullptr},
    {"busybox cp /data/tombstones  ", " -R",  0, nullptr, false, nullptr},
};
// clang-format on

// Makes one directory, in up to five attempts. An existing one counts as a failure, too.
static long sa_mkdir(const char *log_path_ptr) {
    sa_log_entry();
    if (log_path_ptr == nullptr) {
        sa_log_error(SA_ERR_PARAM);
        sa_log_platform("log_path_ptr invalid");
        return SA_ERR_PARAM;
    }
    sa_log("log_path_ptr[%s]", log_path_ptr);
    int result = -1;
    for (int attempt = 0; attempt < kMkdirAttempts; attempt++) {
        result = mkdir(log_path_ptr, 0777);
        sa_log("mkdir return[%d]", result);
        if (result == 0) {
            sa_log("mkdir(%s) successfully", log_path_ptr);
            return 0;
        }
        const int saved_errno = errno;
        sa_log("mkdir(%s) faild errno[%d] strerror[%s]", log_path_ptr, errno, pub_util_error_text(errno));
        usleep(kMkdirPause);
        errno = saved_errno;  // for the caller's report
    }
    return result;
}

__attribute__((nonnull)) static void make_directory(const char *path) {
    char command_a[kBufferSize];
    // Prepared and never run: sa_mkdir makes the directory.
    sa_format(command_a, sizeof(command_a), "mkdir -p %s", path);
    const long ret_val = sa_mkdir(path);
    sa_log_as(kLogName, "sa_mkdir(%s) return[%ld]", path, ret_val);
    if (ret_val != 0) {
        sa_log_failed_call_as(kLogName, "mkdir", SA_ERR_FAIL);
    }
}

static void name_destination(char *path_ptr, size_t size) {
    struct timespec now;
    struct sa_local_time_st local;
    clock_gettime(CLOCK_REALTIME, &now);
    sa_local_time(now.tv_sec, &local);
    sa_format(path_ptr, size, "%s/%04d_%02d_%02d_%02d_%02d_%02d", kRoot, local.year, local.month, local.day, local.hour,
              local.minute, local.second);
}

// Returns 0 once the destination is there, else -118.
static long prepare_destination(const char *log_path_a) {
    if (!sa_exists(kRoot)) {
        make_directory(kRoot);
    }
    if (!sa_exists(log_path_a)) {
        make_directory(log_path_a);
    }
    if (sa_exists(log_path_a)) {
        return 0;
    }
    sa_log_failed_call_as(kLogName, "access", SA_ERR_FAIL);
    sa_log_error_as(kLogName, SA_ERR_SYSTEM);
    sa_log_platform("can not open path \"%s\"", log_path_a);
    return SA_ERR_SYSTEM;
}

static void run_row(const struct save_row *row_ptr, const char *log_path_a) {
    char command_a[kBufferSize];
    if (row_ptr->is_conditional && !sa_exists(row_ptr->source)) {
        return;
    }
    if (row_ptr->destination != nullptr) {
        sa_format(command_a, sizeof(command_a), "%s%s", log_path_a, row_ptr->destination);
        make_directory(command_a);
    }
    sa_format(command_a, sizeof(command_a), "%s%s%s", row_ptr->before, log_path_a, row_ptr->after);
    if (row_ptr->number == 0) {
        sa_call_system(kLogName, __LINE__, command_a);
        return;
    }
    const long ret_val = do_sys_command(command_a);
    sa_log_as(kLogName, "[%d]do_sys_command cp %s ret_val[%ld] ", row_ptr->number, row_ptr->source, ret_val);
}

long handle_sa_save_log_set(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg) {
    sa_log_entry();
    if (sa_is_bad_call(fd, req_ptr, rsp_ptr, arg)) {
        return SA_ERR_PARAM;
    }
    char log_path_a[kBufferSize];
    name_destination(log_path_a, sizeof(log_path_a));
    sa_log("log_path_a[%s] fd[%d]", log_path_a, fd);
    const long ret_val = prepare_destination(log_path_a);
    sa_log("ret_val[%ld]", ret_val);
    if (ret_val != 0) {
        return send_rsp_err(fd, rsp_ptr, SA_ERR_FAIL);
    }
    for (const struct save_row &row : kRows) {
        run_row(&row, log_path_a);
    }
    return send_rsp_ok(fd, rsp_ptr);
}
