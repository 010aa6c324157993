// Writing the settings file: kernel, dmesg and packet switch as raw bytes 0 or 1 with a blank between them. No state.
#include "sa/sa-handle/settings.h"

#include <fcntl.h>
#include <unistd.h>

#include "sa/main/codes.h"
#include "sa/main/log.h"
#include "sa/sa-handle/state.h"

static const char kPath[] = "/data/zr-qel-sa.set";

static const char *yes_or_no(uint8_t is_on) {
    return is_on != 0 ? "Yes" : "No";
}

static long write_switches(int fd) {
    const uint8_t line_a[] = {m_sa_handle.m_is_kernel_log, ' ', m_sa_handle.m_is_dmesg_log, ' ',
                              m_sa_handle.m_is_packets_capture};
    if (write(fd, line_a, sizeof(line_a)) < 1) {
        sa_log_failed_call_as("write_setting", "fscanf", SA_ERR_COMMAND);  // the label readers of the log know
        return SA_ERR_COMMAND;
    }
    sa_log_platform("kernel log: %s", yes_or_no(m_sa_handle.m_is_kernel_log));
    sa_log_platform("dmesg log: %s", yes_or_no(m_sa_handle.m_is_dmesg_log));
    sa_log_platform("packets capture: %s", yes_or_no(m_sa_handle.m_is_packets_capture));
    return 0;
}

long write_setting(void) {
    sa_log_entry();
    const int fd = open(kPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
        sa_log_failed_call("open", SA_ERR_FAIL);
        return 0;
    }
    const long ret_val = write_switches(fd);
    close(fd);
    return ret_val;
}
