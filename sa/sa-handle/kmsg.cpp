// The kernel-message reader.
//
// A reader owns its two descriptors, and through the worker registry they are closed however it ends: it is stopped by
// SIGUSR1 at any moment. Generations shift once, when a reader starts; within one life the file wraps at its limit and
// is overwritten from its beginning, the older tail left in place. State: none but m_sa_handle.m_read_kernel_log_tid.
#include "sa/sa-handle/kmsg.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "sa/main/codes.h"
#include "sa/main/local_time.h"
#include "sa/main/log.h"
#include "sa/main/text.h"
#include "sa/sa-handle/shell.h"
#include "sa/sa-handle/state.h"

static const char kKernelMessages[] = "/proc/kmsg";
static const int kNameSize = 99;
static const int kBufferSize = 100;
static const mode_t kMode = 0644;
static const int kMaxGenerations = 1000;  // kept at most: the property may hold any number
static const char kService[] = "start_zr_log_service";
static const char kLoop[] = "read_kernel_log_loop";
static const char kShift[] = "update_zr_log_file";

static const struct log_svc_rec *const m_rec_ptr = &g_zr_log_svc[LOG_SVC_KMSG - 1];

static void compose_path(char *path_ptr) {
    sa_format(path_ptr, LOG_PATH_SIZE, "%s/kmsg.log", g_log_path_a);
}

// ---- generations ----

static void remove_file(const char *path) {
    if (remove(path) != 0) {
        sa_log_failed_call_as(kShift, "remove", SA_ERR_FAIL);
    }
}

static void shift_generations(const char *path, int32_t file_num) {
    char old_a[kNameSize];
    char new_a[kNameSize];
    // One below the least count is no 32-bit number.
    const int64_t oldest = (file_num < kMaxGenerations ? static_cast<int64_t>(file_num) : kMaxGenerations) - 1;
    sa_format(old_a, sizeof(old_a), "%s.%ld", path, static_cast<long>(oldest));
    sa_log_as(kShift, "log_file_old[%s]", old_a);
    remove_file(old_a);
    for (int64_t step = oldest; step >= 2; step--) {
        const int generation = static_cast<int>(step);
        sa_format(old_a, sizeof(old_a), "%s.%d", path, generation - 1);
        sa_format(new_a, sizeof(new_a), "%s.%d", path, generation);
        sa_log_as(kShift, "[%d] log_file_old[%s] log_file_new[%s]", generation, old_a, new_a);
        if (rename(old_a, new_a) != 0) {
            sa_log_failed_call_as(kShift, "rename", SA_ERR_FAIL);
        }
    }
    sa_format(new_a, sizeof(new_a), "%s.1", path);
    rename(path, new_a);
}

// A negative count is a large one in the comparison, and yet shifts no generation but the live file.
static void update_zr_log_file(const char *path, int32_t file_num, int32_t file_size) {
    sa_log_entry();
    sa_log("log_file_org[%s] file_num_val[%lu] file_size_val[%lu]", path,
           static_cast<unsigned long>(static_cast<uint32_t>(file_num)),
           static_cast<unsigned long>(static_cast<uint32_t>(file_size)));
    if (static_cast<uint32_t>(file_num) < 2) {
        remove_file(path);
        return;
    }
    shift_generations(path, file_num);
}

// ---- files ----

static int open_output(const char *path) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, kMode);
    sa_log_as(kLoop, "fd_w[%d]", fd);
    return fd;
}

static void hand_over_output(const char *path) {
    if (chown(path, SA_AID_SHELL, SA_AID_LOG) != 0) {
        sa_log_as(kLoop, "chown(%s) error[%d-%s]", path, errno, pub_util_error_text(errno));
    }
    if (chmod(path, kMode) != 0) {
        sa_log_as(kLoop, "chmod(%s) error[%d-%s]", path, errno, pub_util_error_text(errno));
    }
}

static void log_unopened(const char *step, const char *path) {
    sa_log_as(kLoop, "%s(%s) errno[%d-%s]", step, path, errno, pub_util_error_text(errno));
}

// Opens the stream and, twice, the output; between the two its owner and mode are set. Descriptor 0 counts as a failure.
// Returns whether both are open; on failure none but a refused 0 is.
static bool open_files(const char *path, int *fd_r_ptr, int *fd_w_ptr) {
    *fd_r_ptr = open(kKernelMessages, O_RDONLY | O_CLOEXEC);
    sa_log_as(kLoop, "fd_r[%d]", *fd_r_ptr);
    if (*fd_r_ptr < 1) {
        log_unopened("open", kKernelMessages);
        return false;
    }
    *fd_w_ptr = open_output(path);
    if (*fd_w_ptr < 1) {
        const int error = errno;
        close(*fd_r_ptr);
        errno = error;
        log_unopened("open", path);
        return false;
    }
    close(*fd_w_ptr);
    hand_over_output(path);
    *fd_w_ptr = open_output(path);
    if (*fd_w_ptr < 1) {
        const int error = errno;
        close(*fd_r_ptr);
        errno = error;
        log_unopened("reopen", path);
        return false;
    }
    return true;
}

// ---- copying ----

// The first line of a new file; it does not count against the limit.
static void write_time_stamp(int fd_w) {
    char buf_a[kBufferSize];
    struct sa_local_time_st local;
    sa_local_time(time(nullptr), &local);
    const int length = snprintf(buf_a, sizeof(buf_a), "[%04d-%02d-%02d %02d:%02d:%02d]\n", local.year, local.month,
                                local.day, local.hour, local.minute, local.second);
    (void)!write(fd_w, buf_a, static_cast<size_t>(length));
    sa_log_as(kLoop, "buf_a[%s]", buf_a);
}

// Writes what was read and returns the new byte count; beyond the limit the file starts over in place.
static uint32_t copy_piece(int fd_w, const char *buf_ptr, int read_len, uint32_t count, uint32_t limit) {
    const int write_len = static_cast<int>(write(fd_w, buf_ptr, static_cast<size_t>(read_len)));
    if (write_len < 0) {
        sa_log_as(kLoop, "write errno[%d-%s]", errno, pub_util_error_text(errno));
        return count;
    }
    count += static_cast<uint32_t>(write_len);
    if (count > limit) {
        if (lseek(fd_w, 0, SEEK_SET) < 0) {
            sa_log_as(kLoop, "lseek errno[%d-%s]", errno, pub_util_error_text(errno));
        }
        count = 0;
    }
    if (write_len != read_len) {
        sa_log_platform("WARNING !");
        sa_log_platform("%s read_len[%d] != write_len[%d]", kLoop, read_len, write_len);
        sa_log_file_as(kLoop, "warning read_len[%d] != write_len[%d]", read_len, write_len);
    }
    return count;
}

// Copies bytes, not lines, until the stream fails.
static void copy_stream(int fd_r, int fd_w) {
    char buf_a[kBufferSize];
    uint32_t count = 0;
    const uint32_t limit = static_cast<uint32_t>(m_rec_ptr->file_size_val) * 1024U;
    while (true) {
        const int read_len = static_cast<int>(read(fd_r, buf_a, sizeof(buf_a) - 1));
        if (read_len > 0) {
            count = copy_piece(fd_w, buf_a, read_len, count, limit);
        } else if (read_len < 0) {
            const int error = errno;
            sa_log_as(kLoop, "read errno[%d-%s]", error, pub_util_error_text(error));
            if (error != EAGAIN && error != EINTR) {
                return;
            }
        }
    }
}

static void *read_kernel_log_loop(void *arg) {
    char path_a[LOG_PATH_SIZE];
    int fd_r = -1;
    int fd_w = -1;
    sa_log_entry();
    sa_log_file("param[%p]", arg);
    compose_path(path_a);
    update_zr_log_file(path_a, m_rec_ptr->file_num_val, m_rec_ptr->file_size_val);
    sa_log("log_path[%s]", path_a);
    if (!open_files(path_a, &fd_r, &fd_w)) {
        return nullptr;
    }
    pub_util_own_descriptors(fd_r, fd_w);  // closed at this thread's end, be it here or in the stop signal's handler
    pub_util_accept_stop();
    write_time_stamp(fd_w);
    copy_stream(fd_r, fd_w);
    sa_log_platform("exit thread");
    return nullptr;
}

// ---- start ----

int start_kernel_reader(void) {
    return pub_util_create_thread(&m_sa_handle.m_read_kernel_log_tid, read_kernel_log_loop, nullptr);
}

long start_kmsg_service(struct log_svc_rec *rec_ptr) {
    if (rec_ptr->file_num_val == 0 || rec_ptr->file_size_val == 0) {
        sa_run_unchecked("echo 3 3 1 3 > /proc/sys/kernel/printk");
        sa_log_as(kService, "echo 3 3 1 3 > /proc/sys/kernel/printk\n");
        return 0;
    }
    const long ret_val = start_kernel_reader();
    sa_log_platform("%s m_read_kernel_log_tid[%lu] ret_val[%ld]", kService, m_sa_handle.m_read_kernel_log_tid, ret_val);
    sa_log_file_as(kService, "KMSG m_read_kernel_log_tid[%lu] ret_val[%ld]", m_sa_handle.m_read_kernel_log_tid,
                   ret_val);
    if (ret_val != 0) {
        sa_log_platform("cannot create kernel log thread.");
        return SA_ERR_COMMAND;
    }
    rec_ptr->mthread_id = m_sa_handle.m_read_kernel_log_tid;
    sa_run_unchecked("echo 7 4 1 7 > /proc/sys/kernel/printk");
    return 0;
}
