// Starting tcpdump. It rotates its files itself; the launcher reaps it. No state.
#include "sa/sa-handle/tcpdump.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "sa/main/codes.h"
#include "sa/main/log.h"
#include "sa/main/subproc.h"
#include "sa/main/text.h"

static const char kInstalled[] = "/system/xbin/tcpdump";
static const char kProvided[] = "/data/local/tmp/tcpdump";
static const char kProvider[] = "/system/lib/libexport_tcpdump.so";
static const char kProviderEntry[] = "export_tcpdump";
static const int kBaseSize = 128;
static const int kNameSize = 127;
static const int kNumberSize = 10;
static const mode_t kMode = 0644;
static const int kParamSize = 14;  // one more than the arguments, unlike the logcat starts
static const char kService[] = "start_zr_log_service";

typedef int (*export_tcpdump_fn)(const char *path);

static bool exists(const char *path) {
    return access(path, F_OK) == 0;
}

// Has the provider library put a program at `path`. Whether it did is for the caller to see.
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
    if (exists(kInstalled)) {
        return kInstalled;
    }
    if (!exists(kProvided)) {
        createTcpdump(kProvided);
    }
    return exists(kProvided) ? kProvided : nullptr;
}

// tcpdump appends the file's number to the base name; the first file is made here, for its owner and mode.
static void prepare_first_file(const char *base) {
    char name_a[kNameSize];
    sa_format(name_a, sizeof(name_a), "%s%d", base, 0);
    if (!exists(name_a)) {
        const int fd = open(name_a, O_WRONLY | O_CREAT | O_CLOEXEC, kMode);
        sa_log_as(kService, "IPDATA open(%s) fd[%d]", name_a, fd);
        if (fd >= 0) {
            close(fd);
        }
    }
    if (chown(name_a, SA_AID_SHELL, SA_AID_LOG) != 0) {
        sa_log_as(kService, "IPDATA chown(%s) error[%d-%s]", name_a, errno, pub_util_error_text(errno));
    }
    if (chmod(name_a, kMode) != 0) {
        sa_log_as(kService, "IPDATA chmod(%s) error[%d-%s]", name_a, errno, pub_util_error_text(errno));
    }
}

// Kilobytes as in the property to millions of bytes as tcpdump counts.
static int size_argument(int32_t file_size) {
    return file_size <= 999 ? 1 : file_size / 1000 + 1;
}

static int start_child(const char *program, char *base_ptr, const struct log_svc_rec *rec_ptr) {
    char size_a[kNumberSize];
    char count_a[kNumberSize];
    snprintf(size_a, sizeof(size_a), "%d", size_argument(rec_ptr->file_size_val));
    snprintf(count_a, sizeof(count_a), "%d", rec_ptr->file_num_val);
    sa_log_platform("%s command[tcpdump -p -v -s 0 -i any -w %s -C %d -W %d]", kService, base_ptr,
                    size_argument(rec_ptr->file_size_val), rec_ptr->file_num_val);
    sa_log_file_as(kService, "IPDATA command[tcpdump -p -v -s 0 -i any -w %s -C %d -W %d]", base_ptr,
                   size_argument(rec_ptr->file_size_val), rec_ptr->file_num_val);

    char name_a[] = "tcpdump";
    char promiscuous_a[] = "-p";
    char verbose_a[] = "-v";
    char snap_a[] = "-s";
    char whole_a[] = "0";
    char interface_a[] = "-i";
    char any_a[] = "any";
    char write_a[] = "-w";
    char size_option_a[] = "-C";
    char count_option_a[] = "-W";
    char *const argv[] = {name_a,  promiscuous_a, verbose_a,     snap_a, whole_a,        interface_a, any_a,
                          write_a, base_ptr,      size_option_a, size_a, count_option_a, count_a,     nullptr};
    return sa_create_subproc_thread(program, argv, kParamSize);
}

long start_ipdata_service(struct log_svc_rec *rec_ptr) {
    if (rec_ptr->file_num_val == 0 || rec_ptr->file_size_val == 0) {
        rec_ptr->svc_pid = 0;
        sa_log_as(kService, "need no ipdata");
        return 0;
    }
    const char *program = find_tcpdump();
    if (program == nullptr) {
        sa_log_as(kService, "no tcpdump exit");
        return SA_ERR_SYSTEM;
    }
    sa_log_as(kService, "tcpdump[%s]", program);
    char base_a[kBaseSize];
    sa_format(base_a, sizeof(base_a), "%s/ipdata.pcap", g_log_path_a);
    prepare_first_file(base_a);
    const int pid = start_child(program, base_a, rec_ptr);
    sa_log_as(kService, "svc_pid[%d]", pid);
    if (pid <= 0) {
        rec_ptr->svc_pid = 0;
        sa_log_as(kService, "create IPDATA subprocess failed");
        return SA_ERR_COMMAND;
    }
    rec_ptr->svc_pid = pid;
    return 0;
}
