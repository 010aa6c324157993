// +KERNEL_LOG and +DMESG_LOG: the switches, what switching does, and their read forms.
// The switches themselves live in m_sa_handle; they start at 0 with the agent.
#include <stdio.h>
#include <unistd.h>

#include "sa/main/codes.h"
#include "sa/main/log.h"
#include "sa/main/text.h"
#include "sa/sa-handle/arguments.h"
#include "sa/sa-handle/handlers.h"
#include "sa/sa-handle/kmsg.h"
#include "sa/sa-handle/response.h"
#include "sa/sa-handle/settings.h"
#include "sa/sa-handle/shell.h"

static const char kSnapshot[] = "/data/log/SystemLog/dmesg.log";
static const int kSnapshotGenerations = 3;

// A switch of m_sa_handle and what follows when it changes.
struct log_switch {
    uint8_t *value_ptr;
    void (*apply)(uint8_t value);
};

// Off ends the newest reader alone: an older one that the collector started goes on.
static void apply_kernel_log(uint8_t value) {
    if (value != 0) {
        (void)!start_kernel_reader();  // whether the thread came to life shows in the log
    } else {
        pub_util_kill_thread(&m_sa_handle.m_read_kernel_log_tid);
    }
}

static void shift_snapshots(void) {
    char old_a[64];
    char new_a[64];
    sa_format(new_a, sizeof(new_a), "%s.%d", kSnapshot, kSnapshotGenerations);
    remove(new_a);
    for (int generation = kSnapshotGenerations - 1; generation >= 1; generation--) {
        sa_format(old_a, sizeof(old_a), "%s.%d", kSnapshot, generation);
        sa_format(new_a, sizeof(new_a), "%s.%d", kSnapshot, generation + 1);
        rename(old_a, new_a);
    }
    sa_format(new_a, sizeof(new_a), "%s.%d", kSnapshot, 1);
    rename(kSnapshot, new_a);
}

// Off stops and deletes nothing: the switch only records the choice.
static void apply_dmesg_log(uint8_t value) {
    if (value != 0) {
        shift_snapshots();
        sa_run_unchecked("dmesg > /data/log/SystemLog/dmesg.log &");
    }
}

// Sets a switch. A value that it has already changes nothing, not even the settings file.
static long change_switch(const char *function, const char *arg, const struct log_switch *switch_ptr) {
    uint8_t value = 0;
    if (!sa_take_switch(arg, &value)) {
        sa_log_error_as(function, SA_ERR_SYSTEM);
        sa_log_platform("error to sscanf(\"%s\")", arg);
        return SA_ERR_FAIL;
    }
    if (value == *switch_ptr->value_ptr) {
        return 0;
    }
    *switch_ptr->value_ptr = value;
    switch_ptr->apply(value);
    return write_setting();
}

long handle_sa_kernel_log_set(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg) {
    sa_log_entry();
    if (sa_is_bad_call(fd, req_ptr, rsp_ptr, arg)) {
        return SA_ERR_PARAM;
    }
    const struct log_switch kernel_log = {&m_sa_handle.m_is_kernel_log, apply_kernel_log};
    return send_rsp_outcome(fd, rsp_ptr, change_switch(__func__, arg, &kernel_log));
}

long handle_sa_kernel_log_read(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg) {
    sa_log_entry();
    if (sa_is_bad_call(fd, req_ptr, rsp_ptr, arg)) {
        return SA_ERR_PARAM;
    }
    return send_rsp_value(fd, rsp_ptr, "KERNEL_LOG", m_sa_handle.m_is_kernel_log);
}

long handle_sa_dmesg_log_set(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg) {
    sa_log_entry();
    if (sa_is_bad_call(fd, req_ptr, rsp_ptr, arg)) {
        return SA_ERR_PARAM;
    }
    const struct log_switch dmesg_log = {&m_sa_handle.m_is_dmesg_log, apply_dmesg_log};
    return send_rsp_outcome(fd, rsp_ptr, change_switch(__func__, arg, &dmesg_log));
}

long handle_sa_dmesg_log_read(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr, const char *arg) {
    sa_log_entry();
    if (sa_is_bad_call(fd, req_ptr, rsp_ptr, arg)) {
        return SA_ERR_PARAM;
    }
    return send_rsp_value(fd, rsp_ptr, "DMESG_LOG", m_sa_handle.m_is_dmesg_log);
}
