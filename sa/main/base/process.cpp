// Process lookup through /proc, afresh at every call. No state; any thread.
#include "sa/main/base/process.h"

#include <ctype.h>
#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "sa/main/base/codes.h"
#include "sa/main/base/log.h"
#include "sa/main/base/text.h"

static const int kTextSize = 512;

// Reads the first argument of a process: "/system/bin/zr-elog\0-x\0" gives /system/bin/zr-elog, and a rewritten
// "zr-elog: idle" gives zr-elog:. Kernel threads have none. Returns false when the process cannot be read (any more).
static bool read_first_argument(int32_t pid, char *text_ptr) {
    char path_a[kTextSize];
    sa_format(path_a, sizeof(path_a), "/proc/%d/cmdline", pid);
    const int fd = open(path_a, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const ssize_t length = read(fd, text_ptr, kTextSize - 1);
    close(fd);
    if (length < 0) {
        return false;
    }
    text_ptr[length] = '\0';
    text_ptr[strcspn(text_ptr, " ")] = '\0';
    return true;
}

// Goes on to the next process that matches; returns its id and leaves its first argument in `text_ptr`, or 0 at the end.
static int32_t next_match(DIR *proc_ptr, const char *name, char *text_ptr) {
    struct dirent *entry_ptr;
    while ((entry_ptr = readdir(proc_ptr)) != nullptr) {
        if (isdigit(static_cast<unsigned char>(entry_ptr->d_name[0])) == 0) {
            continue;
        }
        const int32_t pid = atoi(entry_ptr->d_name);
        if (pid >= 1 && read_first_argument(pid, text_ptr) && strstr(text_ptr, name) != nullptr) {
            return pid;
        }
    }
    return 0;
}

long sa_util_get_pid(const char *name, int32_t *pid_ptr) {
    sa_log_entry_both();
    if (name == nullptr || name[0] == '\0' || pid_ptr == nullptr) {
        sa_log("invalid parameter");
        return SA_ERR_FAIL;
    }
    sa_log("process_name[%s]", name);
    *pid_ptr = 0;
    DIR *proc_ptr = opendir("/proc");
    if (proc_ptr == nullptr) {
        sa_log("cannot open /proc");
        return SA_ERR_FAIL;
    }
    char text_a[kTextSize];
    const int32_t pid = next_match(proc_ptr, name, text_a);
    if (pid != 0) {
        sa_log("find pid[%d] buffer[%s]", pid, text_a);
        *pid_ptr = pid;
    }
    closedir(proc_ptr);
    return 0;
}

long sa_util_get_pids(const char *name, int32_t *pids_ptr, int32_t length, int32_t *count_ptr) {
    sa_log_entry_both();
    if (name == nullptr || name[0] == '\0' || pids_ptr == nullptr || length < 2 || count_ptr == nullptr) {
        sa_log("invalid parameter");
        return SA_ERR_FAIL;
    }
    sa_log("process_name[%s] pids_length[%d]", name, length);
    DIR *proc_ptr = opendir("/proc");
    if (proc_ptr == nullptr) {
        sa_log("cannot open /proc");
        return SA_ERR_FAIL;
    }
    char text_a[kTextSize];
    int32_t count = 0;
    int32_t pid;
    pids_ptr[0] = 0;
    while (count < length - 1 && (pid = next_match(proc_ptr, name, text_a)) != 0) {
        pids_ptr[count++] = pid;
        sa_log("find pid[%d] count[%d]", pid, count);
    }
    pids_ptr[count] = 0;
    *count_ptr = count;
    sa_log("found_count[%d]", count);
    closedir(proc_ptr);
    return 0;
}

long util_is_process_running(const char *name, int32_t *is_running_ptr, int32_t *pid_ptr) {
    sa_log_entry_both();
    if (name == nullptr || name[0] == '\0' || is_running_ptr == nullptr || pid_ptr == nullptr) {
        sa_log("invalid parameter");
        return SA_ERR_PARAM;
    }
    *is_running_ptr = 0;
    *pid_ptr = 0;
    const long ret_val = sa_util_get_pid(name, pid_ptr);
    sa_log("ret_val[%ld] pid[%d]", ret_val, *pid_ptr);
    *is_running_ptr = ret_val == 0 && *pid_ptr >= 1 ? 1 : 0;
    sa_log("is_running[%d] pid[%d]", *is_running_ptr, *pid_ptr);
    return 0;
}
