// The order in which collectors start, and how each of them is stopped. No state but the table of log_svc.
#include "sa/sa-handle/collect/log_start.h"

#include <errno.h>
#include <signal.h>
#include <sys/wait.h>

#include "sa/main/base/codes.h"
#include "sa/main/base/log.h"
#include "sa/sa-handle/collect/kmsg.h"
#include "sa/sa-handle/collect/log_directory.h"
#include "sa/sa-handle/collect/logcat.h"
#include "sa/sa-handle/collect/tcpdump.h"

// One collector. The rows stand in the order of the starts, which is deliberate. Position 1 is not started.
struct collector {
    int position;
    long (*start)(struct log_svc_rec *rec_ptr);
    void (*log_kill)(const char *log_name, const struct log_svc_rec *rec_ptr, int result);  // null: it has no child
};

// ---- the collectors ----

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

static void log_ipdata_kill(const char *log_name, const struct log_svc_rec *rec_ptr, int result) {
    sa_log_platform("%s kill[%d]", log_name, result);
    sa_log_file_as(log_name, "IPDATA kill[%d] ret_val[%d]", rec_ptr->svc_pid, result);
}

static void log_logcat_kill(const char *log_name, const struct log_svc_rec *rec_ptr, int result) {
    sa_log_platform("%s kill(%d)=%d", log_name, rec_ptr->svc_pid, result);
    sa_log_file_as(log_name, "LOGCAT kill[%d] ret_val[%d]", rec_ptr->svc_pid, result);
}

static const struct collector kCollectors[] = {
    {LOG_SVC_IPDATA, start_zr_log_service, log_ipdata_kill},
    {LOG_SVC_EVENTS, start_logcat_service_ex, log_logcat_kill},
    {LOG_SVC_RADIO, start_logcat_service_ex, log_logcat_kill},
    {LOG_SVC_MAIN, start_logcat_service_ex, log_logcat_kill},
    {LOG_SVC_KMSG, start_zr_log_service, nullptr},
};

// ---- start ----

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
    long result = 0;
    for (const struct collector &collector : kCollectors) {
        result |= collector.start(&g_zr_log_svc[collector.position - 1]);
    }
    if (result == 0) {
        sa_log("All Log Service Start Success.");
    } else {
        sa_log("Not All Log Service Start Success.");
    }
    return static_cast<int32_t>(result);
}

// ---- stop ----

// Kills a child that has not been reaped yet. The id of a reaped one may belong to another process by now: it gets the
// answer that the kernel gives for an unused id. (Only an id that is reused between the two calls would be hit.)
static int kill_child(pid_t pid) {
    siginfo_t info;
    if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 && errno == ECHILD) {
        errno = ESRCH;
        return -1;
    }
    return kill(pid, SIGKILL);
}

// The row that says how the child of a record is stopped, or null.
static const struct collector *find_child_collector(int32_t type_id) {
    for (const struct collector &collector : kCollectors) {
        if (collector.position == type_id && collector.log_kill != nullptr) {
            return &collector;
        }
    }
    return nullptr;
}

void sa_kill_all_child_service_ex(void) {
    sa_log_entry();
    for (const struct log_svc_rec &rec : g_zr_log_svc) {
        const unsigned long thread = rec.mthread_id.thread;
        sa_log("log_type[%s], svc_pid[%d], mthread_id[%lu]", rec.type, rec.svc_pid, thread);
        if (rec.mthread_id.serial != 0) {
            const int result = pub_util_signal_thread(rec.mthread_id, SIGUSR1);
            sa_log_platform("%s pthread_kill(%lu)=%d", __func__, thread, result);
            sa_log_file("KMSG pthread_kill[%lu] ret_val[%d]", thread, result);
            if (result != 0) {
                sa_log("kill thread [%s] failed, mthread_id[%lu], errno[%s]", rec.type, thread,
                       pub_util_error_text(result));
            }
        }
        const struct collector *collector_ptr = find_child_collector(rec.type_id);
        if (collector_ptr == nullptr || rec.svc_pid == 0) {
            continue;
        }
        const int result = kill_child(rec.svc_pid);
        collector_ptr->log_kill(__func__, &rec, result);
        if (result != 0) {
            sa_log("kill process [%s] failed, svc_pid[%d], errno[%s]", rec.type, rec.svc_pid,
                   pub_util_error_text(errno));
        }
    }
}
