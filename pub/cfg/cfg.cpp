// Lines of a configuration file and their halves. No state.
#include "pub/cfg/cfg.h"

#include <string.h>

#include "pub/pub_codes.h"
#include "pub/util/pub_log.h"

int32_t pub_cfg_get_line(FILE *stream_ptr, char *line_ptr, int32_t size, int32_t *length_ptr, int32_t *is_eof_ptr) {
    pub_log_entry();
    if (stream_ptr == nullptr || line_ptr == nullptr || length_ptr == nullptr || is_eof_ptr == nullptr) {
        pub_log_error(PUB_ERR_PARAM);
        return PUB_ERR_PARAM;
    }
    *length_ptr = 0;
    *is_eof_ptr = 0;
    memset(line_ptr, 0, static_cast<size_t>(size));
    // What opens but cannot be read (a directory) never reports its end: an error ends it as well.
    if (feof(stream_ptr) != 0 || ferror(stream_ptr) != 0) {
        *is_eof_ptr = 1;
        return 0;
    }
    (void)!fgets(line_ptr, size - 1, stream_ptr);
    *length_ptr = static_cast<int32_t>(strlen(line_ptr));
    return 0;
}

// Ends the key before the "=" and before the spaces in front of it. A key never reaches back behind the line's start.
static void cut_key(char *line_ptr, char *equals_ptr) {
    char *end_ptr = equals_ptr;
    while (end_ptr > line_ptr && end_ptr[-1] == ' ') {
        end_ptr--;
    }
    *equals_ptr = '\0';
    memset(end_ptr, 0, static_cast<size_t>(equals_ptr - end_ptr));
}

static void cut_value(char *value_ptr) {
    size_t length = strlen(value_ptr);
    while (length > 0 && strchr(" \r\n", value_ptr[length - 1]) != nullptr) {
        value_ptr[--length] = '\0';
    }
}

int32_t pub_cfg_get_param_and_value(char *line_ptr, char **param_pptr, char **value_pptr) {
    pub_log_entry();
    if (line_ptr == nullptr || param_pptr == nullptr || value_pptr == nullptr) {
        pub_log_error(PUB_ERR_PARAM);
        return PUB_ERR_PARAM;
    }
    char *key_ptr = line_ptr + strspn(line_ptr, " ");
    if (*key_ptr == '#') {
        return PUB_ERR_NO_PAIR;
    }
    char *equals_ptr = strchr(key_ptr, '=');
    if (equals_ptr == nullptr) {
        return PUB_ERR_NO_PAIR;
    }
    char *value_ptr = equals_ptr + 1 + strspn(equals_ptr + 1, " ");
    cut_key(key_ptr, equals_ptr);
    cut_value(value_ptr);
    *param_pptr = key_ptr;
    *value_pptr = value_ptr;
    return 0;
}
