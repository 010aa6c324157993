// The order in which collectors start, and how all of them are stopped. No state but the table of log_svc.
#include "sa/sa-handle/log_start.h"

#include <errno.h>
#include <signal.h>
#include <sys/wait.h>

#include "sa/main/codes.h"
#include "sa/main/log.h"
#include "sa/sa-handle/kmsg.h"
#include "sa/sa-handle/logcat.h"
#include "sa/sa-handle/tcpdump.h"

struct start_step {
    int position;
    long (*start)(struct log_svc_rec *rec_ptr);
};

// Deliberate order. Position 1 is not started.
static const struct start_step kStartOrder[] = {
    {LOG_SVC_IPDATA, start_zr_log_service},   {LOG_SVC_EVENTS, start_logcat_service_ex},
    {LOG_SVC_RADIO, start_logcat_service_ex}, {LOG_SVC_MAIN, start_logcat_service_ex},
    {LOG_SVC_KMSG, start_zr_log_service},
};

// ---- start ----

long start_zr_log_service(struct log_svc_rec *rec_ptr) {
    sa_log_entry();
    if (rec_ptr == nullptr) {
        sa_log_platform("Invalid param.");
        return SA_ERR_COMMAND;
    }
    if (rec_ptr->type_id != LOG_SVC_IPDATA && rec_ptr->type_id != LOG_SVC_KMSG) {
        return 0;
    }
    sa_log("type_id[%ld] file_num_val[%ld] file_size_val[%ld]", static_cast<long>(rec_ptr->type_id),
           static_cast<long>(rec_ptr->file_num_val), static_cast<long>(rec_ptr->file_size_val));
    return rec_ptr->type_id == LOG_SVC_IPDATA ? start_ipdata_service(rec_ptr) : start_kmsg_service(rec_ptr);
}

static long start_collectors(void) {
    long result = 0;
    for (const struct start_step &step : kStartOrder) {
        result |= step.start(&g_zr_log_svc[step.position - 1]);
    }
    return result;
}

int32_t start_log_service(void) {
    sa_log_entry();
    if (get_zr_log_config() != 0) {
        sa_log_platform("Get log config failed!!!");
        sa_log_error(SA_ERR_COMMAND);
        return SA_ERR_COMMAND;
    }
    if (check_zr_log_path(g_log_path_a) != 0) {
        sa_log("check_zr_log_path errno[%d-%s]", errno, pub_util_error_text(errno));
        return SA_ERR_COMMAND;
    }
    const long result = start_collectors();
    if (result == 0) {
        sa_log("All Log Service Start Success.");
    } else {
        sa_log("Not All Log Service Start Success.");
    }
    return static_cast<int32_t>(result);
}

// ---- stop ----

static void stop_thread(const char *function, const struct log_svc_rec *rec_ptr) {
    const int result = pub_util_signal_thread(rec_ptr->mthread_id, SIGUSR1);
    sa_log_platform("%s pthread_kill(%lu)=%d", function, rec_ptr->mthread_id, result);
    sa_log_file_as(function, "KMSG pthread_kill[%lu] ret_val[%d]", rec_ptr->mthread_id, result);
    if (result != 0) {
        sa_log_as(function, "kill thread [%s] failed, mthread_id[%lu], errno[%s]", rec_ptr->type, rec_ptr->mthread_id,
                  pub_util_error_text(result));
    }
}

// Kills a child that has not been reaped yet. The id of a reaped one may have gone to a process that is none of ours:
// such a one gets the answer that the kernel gives for an unused id.
static int kill_child(int32_t pid) {
    siginfo_t info;
    if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 && errno == ECHILD) {
        errno = ESRCH;
        return -1;
    }
    return kill(pid, SIGKILL);
}

static void log_unkilled(const char *function, const struct log_svc_rec *rec_ptr) {
    sa_log_as(function, "kill process [%s] failed, svc_pid[%d], errno[%s]", rec_ptr->type, rec_ptr->svc_pid,
              pub_util_error_text(errno));
}

static void stop_ipdata(const char *function, const struct log_svc_rec *rec_ptr) {
    const int result = kill_child(rec_ptr->svc_pid);
    sa_log_platform("%s kill[%d]", function, result);
    sa_log_file_as(function, "IPDATA kill[%d] ret_val[%d]", rec_ptr->svc_pid, result);
    if (result != 0) {
        log_unkilled(function, rec_ptr);
    }
}

static void stop_logcat(const char *function, const struct log_svc_rec *rec_ptr) {
    const int result = kill_child(rec_ptr->svc_pid);
    sa_log_platform("%s kill(%d)=%d", function, rec_ptr->svc_pid, result);
    sa_log_file_as(function, "LOGCAT kill[%d] ret_val[%d]", rec_ptr->svc_pid, result);
    if (result != 0) {
        log_unkilled(function, rec_ptr);
    }
}

void sa_kill_all_child_service_ex(void) {
    sa_log_entry();
    for (const struct log_svc_rec &rec : g_zr_log_svc) {
        sa_log("log_type[%s], svc_pid[%d], mthread_id[%lu]", rec.type, rec.svc_pid, rec.mthread_id);
        if (rec.mthread_id != 0) {
            stop_thread(__func__, &rec);
        }
        if (rec.svc_pid == 0) {
            continue;
        }
        if (rec.type_id == LOG_SVC_IPDATA) {
            stop_ipdata(__func__, &rec);
        } else if (rec.type_id >= LOG_SVC_MAIN && rec.type_id <= LOG_SVC_RADIO) {
            stop_logcat(__func__, &rec);
        }
    }
}
