// Collector settings: the property and the table. Owners of the state are named in the header.
#include "sa/sa-handle/collect/log_svc.h"

#include <stdlib.h>
#include <string.h>

#include <cutils/properties.h>

#include "sa/main/base/codes.h"
#include "sa/main/base/log.h"
#include "sa/main/base/text.h"

static const char kProperty[] = "persist.sys.install.zr.log";
static const char kDefault[] = "/data/local/log,I1,3,5120,I2,5,8192,I3,5,20480,I4,5,5120,I5,5,5120,I6,5,5120";
static_assert(sizeof(kDefault) <= PROPERTY_VALUE_MAX, "the default is a property value itself");

struct log_svc_rec g_zr_log_svc[LOG_SVC_COUNT];
char g_log_path_a[LOG_PATH_SIZE] = "/data/local/log";

// ---- property ----

// Copies a token that must not be cut: half a path or half a type would select the wrong directory or buffer.
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
    const int32_t cut = value > INT32_MAX ? INT32_MAX : value < INT32_MIN ? INT32_MIN : static_cast<int32_t>(value);
    __atomic_store_n(value_ptr, cut, __ATOMIC_RELAXED);  // a kernel-message reader that starts may read it now
    sa_copy_cut(text_ptr, size, token);
}

static const char *next_token(char **rest_pptr) {
    return strtok_r(nullptr, ",", rest_pptr);
}

// Whether no token is left. Some C libraries give a null rest at the end.
static bool is_at_end(const char *rest) {
    return rest == nullptr || rest[strspn(rest, ",")] == '\0';
}

// A position that an older property does not know. Its record may have had a triple at the last reading.
static void switch_off(int index) {
    struct log_svc_rec *rec_ptr = &g_zr_log_svc[index];
    rec_ptr->type_id = index + 1;
    rec_ptr->file_num_val = 0;
    rec_ptr->file_size_val = 0;
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

long parse_zr_log_config(const char *value) {
    sa_log_entry();
    char value_a[1024];  // a property holds 91 characters; tokens are cut off in this copy
    char *rest_ptr = nullptr;
    sa_copy_cut(value_a, sizeof(value_a), value);
    const char *path = strtok_r(value_a, ",", &rest_ptr);
    if (path == nullptr) {
        sa_log_platform("Log path is null!!!");
        sa_log_platform("Parse zr log config failed");
        return SA_ERR_COMMAND;
    }
    copy_whole(g_log_path_a, sizeof(g_log_path_a), path);
    for (int index = 0; index < LOG_SVC_COUNT; index++) {
        if (index >= LOG_SVC_REQUIRED && is_at_end(rest_ptr)) {
            switch_off(index);
            continue;
        }
        if (!parse_record(index, &rest_ptr)) {
            sa_log_platform("Parse zr log config failed");
            return SA_ERR_COMMAND;
        }
        const struct log_svc_rec *rec_ptr = &g_zr_log_svc[index];
        const long type_id = rec_ptr->type_id;
        const long num = rec_ptr->file_num_val;
        const long size = rec_ptr->file_size_val;
        sa_log_platform(
            "%s g_zr_log_svc[%d]: type[%s] type_id[%ld] file_num[%s] file_num_val[%ld] file_size[%s] "
            "file_size_val[%ld]",
            __func__, index, rec_ptr->type, type_id, rec_ptr->file_num, num, rec_ptr->file_size, size);
        sa_log_file("svc[%d] type[%s] type_id[%ld] file_num[%s] file_num_val[%ld] file_size[%s] file_size_val[%ld]",
                    index, rec_ptr->type, type_id, rec_ptr->file_num, num, rec_ptr->file_size, size);
    }
    return 0;
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
