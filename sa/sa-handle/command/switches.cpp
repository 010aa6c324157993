// +KERNEL_LOG and +DMESG_LOG: the switches, what a change does, their read forms, and the settings file.
// The switches are fields of m_sa_handle; they are 0 when the agent starts.
#include <fcntl.h>
#include <unistd.h>

#include "sa/main/base/codes.h"
#include "sa/main/base/files.h"
#include "sa/main/base/log.h"
#include "sa/main/base/system.h"
#include "sa/sa-handle/collect/kmsg.h"
#include "sa/sa-handle/command/arguments.h"
#include "sa/sa-handle/command/handlers.h"
#include "sa/sa-handle/command/response.h"

static const char kSettings[] = "/data/zr-qel-sa.set";
static const char kSnapshot[] = "/data/log/SystemLog/dmesg.log";
static const int kSnapshotGenerations = 3;

// A switch of m_sa_handle and what follows when it changes.
struct log_switch {
    uint8_t *value_ptr;
    void (*apply)(uint8_t value);
};

// ---- the settings file: kernel, dmesg and packet switch as raw bytes 0 or 1 with a blank between them ----

static const char *yes_or_no(uint8_t is_on) {
    return is_on != 0 ? "Yes" : "No";
}

// For readers outside the agent, which never reads the file itself. An unopenable file is deliberately no failure.
static long write_setting(void) {
    sa_log_entry();
    // Without waiting, so that a pipe in its place cannot block the agent.
    const int fd = open(kSettings, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0666);
    if (fd < 0) {
        sa_log_failed_call("open", SA_ERR_FAIL);
        return 0;
    }
    const uint8_t line_a[] = {m_sa_handle.m_is_kernel_log, ' ', m_sa_handle.m_is_dmesg_log, ' ',
                              m_sa_handle.m_is_packets_capture};
    long ret_val = 0;
    if (write(fd, line_a, sizeof(line_a)) < 1) {
        sa_log_failed_call("fscanf", SA_ERR_COMMAND);  // a fixed label, kept on purpose
        ret_val = SA_ERR_COMMAND;
    } else {
        sa_log_platform("kernel log: %s", yes_or_no(m_sa_handle.m_is_kernel_log));
        sa_log_platform("dmesg log: %s", yes_or_no(m_sa_handle.m_is_dmesg_log));
        sa_log_platform("packets capture: %s", yes_or_no(m_sa_handle.m_is_packets_capture));
    }
    close(fd);
    return ret_val;
}

// ---- what a change does ----

// Off stops only the newest reader, whoever started it; an older one continues.
static void apply_kernel_log(uint8_t value) {
    if (value != 0) {
        (void)start_kernel_reader();  // a failure is not reported, by design
    } else {
        pub_util_kill_thread(&m_read_kernel_log_tid);
    }
}

// Off stops and deletes nothing: the switch only records the choice.
static void apply_dmesg_log(uint8_t value) {
    if (value != 0) {
        sa_shift_generations(kSnapshot, kSnapshotGenerations);
        sa_system("dmesg > /data/log/SystemLog/dmesg.log &");
    }
}

// ---- the commands ----

// Sets a switch. A value that it already has changes nothing, not even the settings file.
static long change_switch(const char *log_name, const char *arg, const struct log_switch *switch_ptr) {
    uint8_t value = 0;
    if (!sa_take_switch(arg, &value)) {
        sa_log_error_as(log_name, SA_ERR_SYSTEM);
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
