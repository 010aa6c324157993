// Starting logcat children. They rotate their files themselves; the launcher reaps them. No state.
#include "sa/sa-handle/logcat.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "sa/main/codes.h"
#include "sa/main/log.h"
#include "sa/main/subproc.h"
#include "sa/main/text.h"

static const char kProgram[] = "/system/bin/logcat";
static const int kCommandLineSize = 255;

// What a type adds to the arguments that all share; null entries are left out.
struct logcat_kind {
    const char *type;
    const char *buffer;  // -b
    const char *file;    // -f, under the log directory
    const char *filter;  // -s, behind the file
};

static const struct logcat_kind kKinds[] = {
    {"I4", nullptr, "/logcat.log", nullptr},
    {"I5", "events", "/logcat-events.log", nullptr},
    {"I6", "radio", "/logcat-radio.log", nullptr},
    {"I1", nullptr, "/emsd.log", "EMSD:V"},
};

static const struct logcat_kind *find_kind(const char *type) {
    for (const struct logcat_kind &kind : kKinds) {
        if (strcmp(type, kind.type) == 0) {
            return &kind;
        }
    }
    return nullptr;
}

static void add(struct logcat_argv *argv_ptr, int *num_ptr, const char *text) {
    char *slot_ptr = argv_ptr->text_a[*num_ptr];
    sa_copy_cut(slot_ptr, LOGCAT_ARG_SIZE, text);
    argv_ptr->vector_a[*num_ptr] = slot_ptr;
    (*num_ptr)++;
}

static void add_pair(struct logcat_argv *argv_ptr, int *num_ptr, const char *option, const char *value) {
    add(argv_ptr, num_ptr, option);
    add(argv_ptr, num_ptr, value);
}

long make_logcat_svc_argv_ex(const struct log_svc_rec *rec_ptr, struct logcat_argv *argv_ptr, int *num_ptr) {
    sa_log_entry();
    memset(argv_ptr, 0, sizeof(*argv_ptr));
    *num_ptr = 0;
    const struct logcat_kind *kind_ptr = find_kind(rec_ptr->type);
    if (kind_ptr == nullptr) {
        sa_log("Invalid Log Type, TypeID=%s", rec_ptr->type);
        return SA_ERR_COMMAND;
    }
    char file_a[LOG_PATH_SIZE];
    sa_format(file_a, sizeof(file_a), "%s%s", g_log_path_a, kind_ptr->file);

    add(argv_ptr, num_ptr, kProgram);
    add_pair(argv_ptr, num_ptr, "-r", rec_ptr->file_size);
    add_pair(argv_ptr, num_ptr, "-v", "threadtime");
    add_pair(argv_ptr, num_ptr, "-v", "usec");
    add_pair(argv_ptr, num_ptr, "-v", "printable");
    add_pair(argv_ptr, num_ptr, "-n", rec_ptr->file_num);
    if (kind_ptr->buffer != nullptr) {
        add_pair(argv_ptr, num_ptr, "-b", kind_ptr->buffer);
    }
    add_pair(argv_ptr, num_ptr, "-f", file_a);
    if (kind_ptr->filter != nullptr) {
        add_pair(argv_ptr, num_ptr, "-s", kind_ptr->filter);
    }
    return 0;
}

// All arguments in one line, each followed by a blank.
static void join(const struct logcat_argv *argv_ptr, int num, char *line_ptr, size_t size) {
    size_t used = 0;
    line_ptr[0] = '\0';
    for (int index = 0; index < num && used < size - 1; index++) {
        used += static_cast<size_t>(snprintf(line_ptr + used, size - used, "%s ", argv_ptr->vector_a[index]));
    }
}

static bool is_installed(const char *function) {
    if (access(kProgram, F_OK) == 0) {
        return true;
    }
    sa_log_platform("%s File \"%s\" is not exist.", function, kProgram);
    sa_log_file_as(function, "access path[%s] errno[%d-%s]", kProgram, errno, pub_util_error_text(errno));
    return false;
}

static long start_child(const char *function, struct log_svc_rec *rec_ptr) {
    struct logcat_argv argv;
    char line_a[kCommandLineSize];
    int num = 0;
    const long ret_val = make_logcat_svc_argv_ex(rec_ptr, &argv, &num);
    join(&argv, num, line_a, sizeof(line_a));
    sa_log_as("make_logcat_svc_argv_ex", "cmdline[%s]", line_a);
    sa_log_as(function, "make_logcat_svc_argv_ex[%ld] svc_argv_num[%d]", ret_val, num);
    if (ret_val != 0) {
        sa_log_as(function, "Make logcat service args failed.");
        return SA_ERR_COMMAND;
    }
    const int pid = sa_create_subproc_thread(kProgram, argv.vector_a, num);
    sa_log_as(function, "sa_create_subproc_thread[%d]", pid);
    if (pid <= 0) {
        sa_log_as(function, "create subprocess failed.");
        return SA_ERR_COMMAND;
    }
    rec_ptr->svc_pid = pid;
    return 0;
}

long start_logcat_service_ex(struct log_svc_rec *rec_ptr) {
    sa_log_entry();
    if (rec_ptr == nullptr) {
        sa_log("Invalid parameter.");
        return SA_ERR_COMMAND;
    }
    sa_log("path[%s] type[%s] file_num_val[%ld] file_size_val[%ld]", kProgram, rec_ptr->type,
           static_cast<long>(rec_ptr->file_num_val), static_cast<long>(rec_ptr->file_size_val));
    if (!is_installed(__func__)) {
        return SA_ERR_COMMAND;
    }
    if (rec_ptr->file_num_val == 0 || rec_ptr->file_size_val == 0) {
        sa_log("need no logcat");
        return 0;
    }
    return start_child(__func__, rec_ptr);
}
