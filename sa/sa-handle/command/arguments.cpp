// Arguments of handlers. No state.
#include "sa/sa-handle/command/arguments.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "sa/main/base/codes.h"
#include "sa/main/base/log.h"

bool sa_is_bad_call_of(const char *log_name, int line, int32_t fd, const struct sa_msg_st *req_ptr,
                       const struct sa_msg_st *rsp_ptr, const char *arg) {
    const bool is_closed = fd < 1;
    const bool is_empty = req_ptr == nullptr || req_ptr->len == 0;
    if (!is_closed && !is_empty && rsp_ptr != nullptr && arg != nullptr) {
        return false;
    }
    sa_log_report(SA_SOURCE, line, log_name, SA_ERR_PARAM);
    sa_log_platform("%d, %d, %d, %d, %d", is_closed ? 1 : 0, req_ptr == nullptr ? 1 : 0, is_empty ? 1 : 0,
                    rsp_ptr == nullptr ? 1 : 0, arg == nullptr ? 1 : 0);
    return true;
}

const char *sa_take_quoted(const char *arg, char *text_ptr, size_t size) {
    text_ptr[0] = '\0';
    if (arg[0] != '"') {
        return nullptr;
    }
    const char *begin = arg + 1;
    size_t length = strcspn(begin, "\"");
    if (length == 0) {
        return nullptr;
    }
    if (length > size - 1) {
        length = size - 1;
    }
    memcpy(text_ptr, begin, length);
    text_ptr[length] = '\0';
    return begin + length;
}

bool sa_take_number(const char *arg, int32_t *value_ptr) {
    char *end = nullptr;
    errno = 0;
    const long value = strtol(arg, &end, 10);
    if (end == arg || errno == ERANGE || value < INT32_MIN || value > INT32_MAX) {
        return false;
    }
    *value_ptr = static_cast<int32_t>(value);
    return true;
}

bool sa_take_switch(const char *arg, uint8_t *value_ptr) {
    int32_t value = 0;
    if (!sa_take_number(arg, &value) || value < 0 || value > 1) {
        return false;
    }
    *value_ptr = static_cast<uint8_t>(value);
    return true;
}
