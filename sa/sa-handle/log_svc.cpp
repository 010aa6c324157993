// Collector settings: property, table, directory, space. Owners of the state are named in the header.
#include "sa/sa-handle/log_svc.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cutils/properties.h>

#include "sa/main/codes.h"
#include "sa/main/log.h"
#include "sa/main/text.h"

static const char kProperty[] = "persist.sys.install.zr.log";
static const char kDefault[] = "/data/local/log,I1,3,5120,I2,5,8192,I3,5,20480,I4,5,5120,I5,5,5120,I6,5,5120";
static_assert(sizeof(kDefault) <= PROPERTY_VALUE_MAX, "the default is a property value itself");

static const uint32_t kSpaceThreshold = 256000;  // KB
static const uint32_t kSpacePercent = 5;

struct log_svc_rec g_zr_log_svc[LOG_SVC_COUNT];
char g_log_path_a[LOG_PATH_SIZE] = "/data/local/log";

// ---- property ----

// Copies a token that must not be cut: half a path or half a type would collect into the wrong place.
static void copy_whole(char *field_ptr, size_t size, const char *token) {
    const size_t length = strlen(token);
    if (length >= size) {
        abort();
    }
    memcpy(field_ptr, token, length + 1);
}

// Takes a count or a size: the number from the whole token (0 when it is none), the text as far as it fits.
static void take_number(char *text_ptr, size_t size, int32_t *value_ptr, const char *token) {
    const long value = strtol(token, nullptr, 10);
    *value_ptr = value > INT32_MAX ? INT32_MAX : value < INT32_MIN ? INT32_MIN : static_cast<int32_t>(value);
    sa_copy_cut(text_ptr, size, token);
}

static const char *next_token(char **rest_pptr) {
    return strtok_r(nullptr, ",", rest_pptr);
}

// Fills the record of one position from the next three tokens. Returns whether they were there.
static bool parse_record(int index, char **rest_pptr) {
    struct log_svc_rec *rec_ptr = &g_zr_log_svc[index];
    const char *token = next_token(rest_pptr);
    if (token == nullptr) {
        sa_log_platform("Get Log Type Failed. LogTypeID=I%d", index + 1);
        return false;
    }
    copy_whole(rec_ptr->type, sizeof(rec_ptr->type), token);
    rec_ptr->type_id = index + 1;

    token = next_token(rest_pptr);
    if (token == nullptr) {
        sa_log_platform("Get Log File Num Failed. LogTypeID=I%d", index + 1);
        return false;
    }
    take_number(rec_ptr->file_num, sizeof(rec_ptr->file_num), &rec_ptr->file_num_val, token);

    token = next_token(rest_pptr);
    if (token == nullptr) {
        sa_log_platform("Get Log File Size Failed. LogTypeID=I%d", index + 1);
        return false;
    }
    take_number(rec_ptr->file_size, sizeof(rec_ptr->file_size), &rec_ptr->file_size_val, token);
    return true;
}

static void log_record(const char *function, int index) {
    const struct log_svc_rec *rec_ptr = &g_zr_log_svc[index];
    const long type_id = rec_ptr->type_id;
    const long num = rec_ptr->file_num_val;
    const long size = rec_ptr->file_size_val;
    sa_log_platform(
        "%s g_zr_log_svc[%d]: type[%s] type_id[%ld] file_num[%s] file_num_val[%ld] file_size[%s] file_size_val[%ld]",
        function, index, rec_ptr->type, type_id, rec_ptr->file_num, num, rec_ptr->file_size, size);
    sa_log_file_as(function,
                   "svc[%d] type[%s] type_id[%ld] file_num[%s] file_num_val[%ld] file_size[%s] file_size_val[%ld]",
                   index, rec_ptr->type, type_id, rec_ptr->file_num, num, rec_ptr->file_size, size);
}

static long parse_tokens(const char *function, char *value_ptr) {
    char *rest_ptr = nullptr;
    const char *path = strtok_r(value_ptr, ",", &rest_ptr);
    if (path == nullptr) {
        sa_log_platform("Log path is null!!!");
        return SA_ERR_COMMAND;
    }
    copy_whole(g_log_path_a, sizeof(g_log_path_a), path);
    for (int index = 0; index < LOG_SVC_COUNT; index++) {
        if (!parse_record(index, &rest_ptr)) {
            return SA_ERR_COMMAND;
        }
        log_record(function, index);
    }
    return 0;
}

long parse_zr_log_config(const char *value) {
    sa_log_entry();
    char value_a[1024];  // a property holds 91 characters; tokens are cut off in this copy
    sa_format(value_a, sizeof(value_a), "%s", value);
    const long ret_val = parse_tokens(__func__, value_a);
    if (ret_val != 0) {
        sa_log_platform("Parse zr log config failed");
    }
    return ret_val;
}

long get_zr_log_config(void) {
    sa_log_entry();
    char value_a[PROPERTY_VALUE_MAX];
    if (property_get(kProperty, value_a, kDefault) == 0) {
        sa_log_platform("Get property[%s] failed", kProperty);
        return SA_ERR_COMMAND;
    }
    sa_log("zr_log_config_value=[%s]", value_a);
    return parse_zr_log_config(value_a);
}

// ---- directory ----

long check_zr_log_path(const char *log_path) {
    sa_log_entry();
    if (log_path == nullptr) {
        sa_log_platform("Invalid param.");
        return SA_ERR_COMMAND;
    }
    sa_log("log_path=[%s]", log_path);
    if (access(log_path, F_OK) == 0) {
        sa_log_platform("ZR log path \"%s\" exist.", log_path);
        return 0;
    }
    sa_log_platform("ZR log path \"%s\" not exist, now create.", log_path);
    if (mkdir(log_path, 0771) != 0) {
        sa_log_failed_call("mkdir", SA_ERR_FAIL);
        return SA_ERR_COMMAND;
    }
    if (chown(log_path, SA_AID_SHELL, SA_AID_SHELL) != 0) {
        sa_log_failed_call("chown", SA_ERR_FAIL);
        return SA_ERR_COMMAND;
    }
    // Fixed and relative, whatever the path: the agent's working directory is "/".
    if (system("chmod 771 data/local/log") != 0) {
        sa_log_platform("chmod 771 %s failed, errno(%d)", log_path, errno);
    }
    sa_log_platform("ZR log path \"%s\" setup.", log_path);
    return 0;
}

// ---- space ----

struct data_space {
    uint32_t total;  // KB
    uint32_t used;
    uint32_t available;
};

static long sa_get_data_space_info(struct data_space *space_ptr) {
    sa_log_entry();
    struct statfs buffer;
    memset(space_ptr, 0, sizeof(*space_ptr));
    const int result = statfs("/data", &buffer);
    if (result != 0) {
        sa_log_failed_call("statfs", SA_ERR_FAIL);
    } else {
        const uint64_t block = static_cast<uint64_t>(buffer.f_bsize);
        space_ptr->total = static_cast<uint32_t>(buffer.f_blocks * block / 1024);
        space_ptr->used = static_cast<uint32_t>((buffer.f_blocks - buffer.f_bavail) * block / 1024);
        space_ptr->available = static_cast<uint32_t>(buffer.f_bavail * block / 1024);
    }
    sa_log_platform("data space, total[%ldKB], used[%ldKB], available[%ldKB].", static_cast<long>(space_ptr->total),
                    static_cast<long>(space_ptr->used), static_cast<long>(space_ptr->available));
    return result == 0 ? 0 : SA_ERR_COMMAND;
}

long sa_is_can_start_log_service(void) {
    sa_log_entry();
    struct data_space space;
    if (sa_get_data_space_info(&space) != 0) {
        return SA_ERR_COMMAND;
    }
    const uint64_t share = static_cast<uint64_t>(space.total) * kSpacePercent / 100;
    const uint64_t threshold = share < kSpaceThreshold ? share : kSpaceThreshold;
    if (space.available < threshold) {
        sa_log_platform("Low space, threshold:%ldKB, current available space of data is: %ldKB",
                        static_cast<long>(threshold), static_cast<long>(space.available));
        return SA_ERR_COMMAND;
    }
    return 0;
}
