// The kernel-message reader.
//
// A reader owns its two descriptors. The worker registry closes them however the reader ends: SIGUSR1 stops it at any
// moment, since it never waits with that signal blocked. Files are opened without waiting (a pipe without a writer or a
// reader would wait for one), and a stream that has had no writer yet is waited for in poll. Generations shift once, when a
// reader starts; within one life the file wraps at its limit and is overwritten from its beginning, the older tail left in
// place. State: m_read_kernel_log_tid.
#include "sa/sa-handle/collect/kmsg.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "pub/util/signal_mask.h"
#include "sa/main/base/codes.h"
#include "sa/main/base/local_time.h"
#include "sa/main/base/log.h"
#include "sa/main/base/system.h"
#include "sa/main/base/text.h"

static const char kKernelMessages[] = "/proc/kmsg";
static const int kNameSize = 99;
static const int kBufferSize = 100;
static const mode_t kMode = 0644;
static const int64_t kMaxRenames = 100000;  // in one start; the property may hold any number
static const char kLogName[] = "read_kernel_log_loop";

struct pub_thread_id m_read_kernel_log_tid = {0, 0};

static const struct log_svc_rec *const m_rec_ptr = &g_zr_log_svc[LOG_SVC_KMSG - 1];

// ---- generations ----

// A negative count is a large one in the comparison; it removes the generation below it and shifts the live file alone.
static void update_zr_log_file(const char *path, int32_t file_num, int32_t file_size) {
    sa_log_entry();
    sa_log("log_file_org[%s] file_num_val[%lu] file_size_val[%lu]", path,
           static_cast<unsigned long>(static_cast<uint32_t>(file_num)),
           static_cast<unsigned long>(static_cast<uint32_t>(file_size)));
    if (static_cast<uint32_t>(file_num) < 2) {
        if (remove(path) != 0) {
            sa_log_failed_call("remove", SA_ERR_FAIL);
        }
        return;
    }
    char old_a[kNameSize];
    char new_a[kNameSize];
    const int64_t oldest = static_cast<int64_t>(file_num) - 1;  // INT32_MIN - 1 needs 64 bits
    sa_format(old_a, sizeof(old_a), "%s.%ld", path, static_cast<long>(oldest));
    sa_log("log_file_old[%s]", old_a);
    if (remove(old_a) != 0) {
        sa_log_failed_call("remove", SA_ERR_FAIL);
    }
    for (int64_t step = oldest < kMaxRenames + 1 ? oldest : kMaxRenames + 1; step >= 2; step--) {
        const int generation = static_cast<int>(step);
        sa_format(old_a, sizeof(old_a), "%s.%d", path, generation - 1);
        sa_format(new_a, sizeof(new_a), "%s.%d", path, generation);
        sa_log("[%d] log_file_old[%s] log_file_new[%s]", generation, old_a, new_a);
        if (rename(old_a, new_a) != 0) {
            sa_log_failed_call("rename", SA_ERR_FAIL);
        }
    }
    sa_format(new_a, sizeof(new_a), "%s.1", path);
    rename(path, new_a);
}

// ---- files ----

// Opens without waiting; reads and writes of the descriptor wait as usual. Returns it, or -1.
static int open_at_once(const char *path, int flags) {
    const int fd = open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, kMode);
    if (fd >= 0) {
        fcntl(fd, F_SETFL, flags & O_ACCMODE);  // it cannot fail for these flags
    }
    return fd;
}

static int open_output(const char *path) {
    const int fd = open_at_once(path, O_WRONLY | O_CREAT);
    sa_log_as(kLogName, "fd_w[%d]", fd);
    return fd;
}

// Opens the stream and, twice, the output; in between it sets the output's owner and mode. Descriptor 0 counts as a failure.
// Returns whether both are open; after a failure neither is, except a refused 0.
static bool open_files(const char *path, int *fd_r_ptr, int *fd_w_ptr) {
    const char *step = "open";
    int error = 0;
    *fd_r_ptr = open_at_once(kKernelMessages, O_RDONLY);
    sa_log_as(kLogName, "fd_r[%d]", *fd_r_ptr);
    if (*fd_r_ptr < 1) {
        sa_log_as(kLogName, "open(%s) errno[%d-%s]", kKernelMessages, errno, pub_util_error_text(errno));
        return false;
    }
    *fd_w_ptr = open_output(path);
    if (*fd_w_ptr < 1) {
        goto failed;
    }
    close(*fd_w_ptr);
    if (chown(path, SA_AID_SHELL, SA_AID_LOG) != 0) {
        sa_log_as(kLogName, "chown(%s) error[%d-%s]", path, errno, pub_util_error_text(errno));
    }
    if (chmod(path, kMode) != 0) {
        sa_log_as(kLogName, "chmod(%s) error[%d-%s]", path, errno, pub_util_error_text(errno));
    }
    step = "reopen";
    *fd_w_ptr = open_output(path);
    if (*fd_w_ptr < 1) {
        goto failed;
    }
    return true;

failed:
    error = errno;
    close(*fd_r_ptr);
    sa_log_as(kLogName, "%s(%s) errno[%d-%s]", step, path, error, pub_util_error_text(error));
    return false;
}

// Opens both and registers them with the worker registry. Signals are blocked meanwhile: a stop must not leak a descriptor.
static bool take_files(const char *path, int *fd_r_ptr, int *fd_w_ptr) {
    sigset_t mask;
    pub_util_block_signals(&mask);
    const bool is_open = open_files(path, fd_r_ptr, fd_w_ptr);
    if (is_open) {
        pub_util_own_descriptors(*fd_r_ptr, *fd_w_ptr);
    }
    pub_util_restore_signals(&mask);
    return is_open;
}

// ---- copying ----

// The first line of a new file; it does not count against the limit.
static void write_time_stamp(int fd_w) {
    char buf_a[kBufferSize];
    struct sa_local_time_st local;
    sa_local_time(time(nullptr), &local);
    sa_format(buf_a, sizeof(buf_a), "[%04d-%02d-%02d %02d:%02d:%02d]\n", local.year, local.month, local.day, local.hour,
              local.minute, local.second);
    (void)!write(fd_w, buf_a, strlen(buf_a));
    sa_log_as(kLogName, "buf_a[%s]", buf_a);
}

// A pipe that has had no writer yet reads as empty at once. Waits for the first writer instead of spinning.
static void wait_for_writer(int fd_r) {
    struct pollfd stream = {fd_r, POLLIN, 0};
    poll(&stream, 1, -1);
}

// Writes what was read and returns the new byte count; beyond the limit the file starts over in place.
static uint32_t copy_piece(int fd_w, const char *buf_ptr, int read_len, uint32_t count, uint32_t limit) {
    const int write_len = static_cast<int>(write(fd_w, buf_ptr, static_cast<size_t>(read_len)));
    if (write_len < 0) {
        sa_log_as(kLogName, "write errno[%d-%s]", errno, pub_util_error_text(errno));
        return count;
    }
    count += static_cast<uint32_t>(write_len);
    if (count > limit) {
        if (lseek(fd_w, 0, SEEK_SET) < 0) {
            sa_log_as(kLogName, "lseek errno[%d-%s]", errno, pub_util_error_text(errno));
        }
        count = 0;
    }
    if (write_len != read_len) {
        sa_log_platform("WARNING !");
        sa_log_platform("%s read_len[%d] != write_len[%d]", kLogName, read_len, write_len);
        sa_log_file_as(kLogName, "warning read_len[%d] != write_len[%d]", read_len, write_len);
    }
    return count;
}

static void *read_kernel_log_loop(void *arg) {
    char path_a[LOG_PATH_SIZE];
    char buf_a[kBufferSize];
    uint32_t count = 0;
    int fd_r = -1;
    int fd_w = -1;
    // Read once: +DELETE_LOG may fill the record again while this thread starts.
    const int32_t file_num = __atomic_load_n(&m_rec_ptr->file_num_val, __ATOMIC_RELAXED);
    const int32_t file_size = __atomic_load_n(&m_rec_ptr->file_size_val, __ATOMIC_RELAXED);
    const uint32_t limit = static_cast<uint32_t>(file_size) * 1024U;
    pub_util_accept_stop();
    sa_log_entry();
    sa_log_file("param[%p]", arg);
    sa_format(path_a, sizeof(path_a), "%s/kmsg.log", g_log_path_a);
    update_zr_log_file(path_a, file_num, file_size);
    sa_log("log_path[%s]", path_a);
    if (!take_files(path_a, &fd_r, &fd_w)) {
        return nullptr;
    }
    write_time_stamp(fd_w);
    while (true) {  // copies bytes, not lines, until the stream fails
        const int read_len = static_cast<int>(read(fd_r, buf_a, sizeof(buf_a) - 1));
        if (read_len > 0) {
            count = copy_piece(fd_w, buf_a, read_len, count, limit);
        } else if (read_len == 0) {
            wait_for_writer(fd_r);
        } else {
            const int error = errno;
            sa_log("read errno[%d-%s]", error, pub_util_error_text(error));
            if (error != EAGAIN && error != EINTR) {
                break;
            }
        }
    }
    pub_util_close_owned();
    sa_log_platform("exit thread");
    return nullptr;
}

// ---- start ----

int start_kernel_reader(void) {
    return pub_util_create_thread(&m_read_kernel_log_tid, read_kernel_log_loop, nullptr);
}

long start_kmsg_service(struct log_svc_rec *rec_ptr) {
    static const char kBranchLogName[] = "start_zr_log_service";  // this is its kernel branch
    if (rec_ptr->file_num_val == 0 || rec_ptr->file_size_val == 0) {
        sa_system("echo 3 3 1 3 > /proc/sys/kernel/printk");
        sa_log_as(kBranchLogName, "echo 3 3 1 3 > /proc/sys/kernel/printk\n");
        return 0;
    }
    const long ret_val = start_kernel_reader();
    const unsigned long thread = m_read_kernel_log_tid.thread;
    sa_log_platform("%s m_read_kernel_log_tid[%lu] ret_val[%ld]", kBranchLogName, thread, ret_val);
    sa_log_file_as(kBranchLogName, "KMSG m_read_kernel_log_tid[%lu] ret_val[%ld]", thread, ret_val);
    if (ret_val != 0) {
        sa_log_platform("cannot create kernel log thread.");
        return SA_ERR_COMMAND;
    }
    rec_ptr->mthread_id = m_read_kernel_log_tid;
    sa_system("echo 7 4 1 7 > /proc/sys/kernel/printk");
    return 0;
}
