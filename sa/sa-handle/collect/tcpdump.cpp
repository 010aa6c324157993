// Starting tcpdump. It rotates its files itself; the launcher reaps it. No state.
#include "sa/sa-handle/collect/tcpdump.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "sa/main/base/codes.h"
#include "sa/main/base/files.h"
#include "sa/main/base/log.h"
#include "sa/main/base/subproc.h"
#include "sa/main/base/text.h"
#include "sa/sa-handle/collect/argv.h"

static const char kInstalled[] = "/system/xbin/tcpdump";
static const char kProvided[] = "/data/local/tmp/tcpdump";
static const char kProvider[] = "/system/lib/libexport_tcpdump.so";
static const char kProviderEntry[] = "export_tcpdump";
static const int kBaseSize = 128;
static const int kNameSize = 127;
static const int kNumberSize = 10;
static const mode_t kMode = 0644;
static const int kParamSize = 14;                       // one more than the arguments, unlike the logcat starts
static const char kLogName[] = "start_zr_log_service";  // this is its packet branch

typedef int (*export_tcpdump_fn)(const char *path);

// Asks the provider library to install a program at `path`. The caller tests whether it has.
static int createTcpdump(const char *path) {
    sa_log_entry();
    void *library = dlopen(kProvider, RTLD_NOW);
    if (library == nullptr) {
        sa_log_failed_call("dlopen", SA_ERR_FAIL);
        return -1;
    }
    void *entry = dlsym(library, kProviderEntry);
    if (entry == nullptr) {
        sa_log_failed_call("dlsym", SA_ERR_FAIL);
        dlclose(library);
        return -1;
    }
    const int result = reinterpret_cast<export_tcpdump_fn>(entry)(path);
    dlclose(library);
    return result;
}

// The program to run, or null.
static const char *find_tcpdump(void) {
    if (sa_exists(kInstalled)) {
        return kInstalled;
    }
    if (!sa_exists(kProvided)) {
        createTcpdump(kProvided);
    }
    return sa_exists(kProvided) ? kProvided : nullptr;
}

// tcpdump appends the file's number to the base name; the first file is made here, for its owner and mode.
static void prepare_first_file(const char *base) {
    char name_a[kNameSize];
    sa_format(name_a, sizeof(name_a), "%s%d", base, 0);
    if (!sa_exists(name_a)) {
        const int fd = open(name_a, O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, kMode);
        sa_log_as(kLogName, "IPDATA open(%s) fd[%d]", name_a, fd);
        if (fd >= 0) {
            close(fd);
        }
    }
    if (chown(name_a, SA_AID_SHELL, SA_AID_LOG) != 0) {
        sa_log_as(kLogName, "IPDATA chown(%s) error[%d-%s]", name_a, errno, pub_util_error_text(errno));
    }
    if (chmod(name_a, kMode) != 0) {
        sa_log_as(kLogName, "IPDATA chmod(%s) error[%d-%s]", name_a, errno, pub_util_error_text(errno));
    }
}

static int start_child(const char *program, const char *base, const struct log_svc_rec *rec_ptr) {
    // The property counts thousands of bytes, tcpdump millions.
    const int size = rec_ptr->file_size_val <= 999 ? 1 : rec_ptr->file_size_val / 1000 + 1;
    const int count = rec_ptr->file_num_val;
    char size_a[kNumberSize];
    char count_a[kNumberSize];
    sa_format(size_a, sizeof(size_a), "%d", size);
    sa_format(count_a, sizeof(count_a), "%d", count);
    sa_log_platform("%s command[tcpdump -p -v -s 0 -i any -w %s -C %d -W %d]", kLogName, base, size, count);
    sa_log_file_as(kLogName, "IPDATA command[tcpdump -p -v -s 0 -i any -w %s -C %d -W %d]", base, size, count);

    struct sa_argv argv;
    sa_argv_clear(&argv, SA_ARGV_SLOT_SIZE);
    sa_argv_add(&argv, "tcpdump");
    sa_argv_add(&argv, "-p");
    sa_argv_add(&argv, "-v");
    sa_argv_add_pair(&argv, "-s", "0");
    sa_argv_add_pair(&argv, "-i", "any");
    sa_argv_add_pair(&argv, "-w", base);
    sa_argv_add_pair(&argv, "-C", size_a);
    sa_argv_add_pair(&argv, "-W", count_a);
    return sa_create_subproc_thread(program, argv.vector_a, kParamSize);
}

long start_ipdata_service(struct log_svc_rec *rec_ptr) {
    if (rec_ptr->file_num_val == 0 || rec_ptr->file_size_val == 0) {
        rec_ptr->svc_pid = 0;
        sa_log_as(kLogName, "need no ipdata");
        return 0;
    }
    const char *program = find_tcpdump();
    if (program == nullptr) {
        sa_log_as(kLogName, "no tcpdump exit");
        return SA_ERR_SYSTEM;
    }
    sa_log_as(kLogName, "tcpdump[%s]", program);
    char base_a[kBaseSize];
    sa_format(base_a, sizeof(base_a), "%s/ipdata.pcap", g_log_path_a);
    prepare_first_file(base_a);
    const int pid = start_child(program, base_a, rec_ptr);
    sa_log_as(kLogName, "svc_pid[%d]", pid);
    if (pid <= 0) {
        rec_ptr->svc_pid = 0;
        sa_log_as(kLogName, "create IPDATA subprocess failed");
        return SA_ERR_COMMAND;
    }
    rec_ptr->svc_pid = pid;
    return 0;
}
