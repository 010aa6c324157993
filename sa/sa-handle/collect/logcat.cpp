// Starting logcat children. They rotate their files themselves; the launcher reaps them. No state.
#include "sa/sa-handle/collect/logcat.h"

#include <stdio.h>
#include <string.h>

#include "sa/main/base/codes.h"
#include "sa/main/base/files.h"
#include "sa/main/base/log.h"
#include "sa/main/base/subproc.h"
#include "sa/main/base/text.h"

static const char kProgram[] = "/system/bin/logcat";
static const size_t kArgumentSize = 40;  // an argument is cut at 39 characters
static const int kCommandLineSize = 255;

// The arguments of one type, after those that all types share; null entries are left out.
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

long make_logcat_svc_argv_ex(const struct log_svc_rec *rec_ptr, struct sa_argv *argv_ptr) {
    sa_log_entry();
    sa_argv_clear(argv_ptr, kArgumentSize);
    const struct logcat_kind *kind_ptr = find_kind(rec_ptr->type);
    if (kind_ptr == nullptr) {
        sa_log("Invalid Log Type, TypeID=%s", rec_ptr->type);
        return SA_ERR_COMMAND;
    }
    char file_a[LOG_PATH_SIZE];
    sa_format(file_a, sizeof(file_a), "%s%s", g_log_path_a, kind_ptr->file);

    sa_argv_add(argv_ptr, kProgram);
    sa_argv_add_pair(argv_ptr, "-r", rec_ptr->file_size);
    sa_argv_add_pair(argv_ptr, "-v", "threadtime");
    sa_argv_add_pair(argv_ptr, "-v", "usec");
    sa_argv_add_pair(argv_ptr, "-v", "printable");
    sa_argv_add_pair(argv_ptr, "-n", rec_ptr->file_num);
    if (kind_ptr->buffer != nullptr) {
        sa_argv_add_pair(argv_ptr, "-b", kind_ptr->buffer);
    }
    sa_argv_add_pair(argv_ptr, "-f", file_a);
    if (kind_ptr->filter != nullptr) {
        sa_argv_add_pair(argv_ptr, "-s", kind_ptr->filter);
    }
    return 0;
}

// All arguments in one line, each followed by a blank.
static void join(const struct sa_argv *argv_ptr, char *line_ptr, size_t size) {
    size_t used = 0;
    line_ptr[0] = '\0';
    for (int index = 0; index < argv_ptr->num && used < size - 1; index++) {
        used += static_cast<size_t>(snprintf(line_ptr + used, size - used, "%s ", argv_ptr->vector_a[index]));
    }
}

long start_logcat_service_ex(struct log_svc_rec *rec_ptr) {
    struct sa_argv argv;
    char line_a[kCommandLineSize];
    sa_log_entry();
    if (rec_ptr == nullptr) {
        sa_log("Invalid parameter.");
        return SA_ERR_COMMAND;
    }
    sa_log("path[%s] type[%s] file_num_val[%ld] file_size_val[%ld]", kProgram, rec_ptr->type,
           static_cast<long>(rec_ptr->file_num_val), static_cast<long>(rec_ptr->file_size_val));
    if (!sa_exists(kProgram)) {
        sa_log_platform("%s File \"%s\" is not exist.", __func__, kProgram);
        sa_log_file("access path[%s] errno[%d-%s]", kProgram, errno, pub_util_error_text(errno));
        return SA_ERR_COMMAND;
    }
    if (rec_ptr->file_num_val == 0 || rec_ptr->file_size_val == 0) {
        sa_log("need no logcat");
        return 0;
    }
    const long ret_val = make_logcat_svc_argv_ex(rec_ptr, &argv);
    join(&argv, line_a, sizeof(line_a));
    sa_log_as("make_logcat_svc_argv_ex", "cmdline[%s]", line_a);
    sa_log("make_logcat_svc_argv_ex[%ld] svc_argv_num[%d]", ret_val, argv.num);
    if (ret_val != 0) {
        sa_log("Make logcat service args failed.");
        return SA_ERR_COMMAND;
    }
    const int pid = sa_create_subproc_thread(kProgram, argv.vector_a, argv.num);
    sa_log("sa_create_subproc_thread[%d]", pid);
    if (pid <= 0) {
        sa_log("create subprocess failed.");
        return SA_ERR_COMMAND;
    }
    rec_ptr->svc_pid = pid;
    return 0;
}
