// The collectors' property. A path or a type too long for its field ends the agent by design; those are kept away.
#include <stdlib.h>
#include <string.h>

#include "sa/sa-handle/collect/log_svc.h"
#include "sa/sa-handle/collect/logcat.h"
#include "tests/fuzz/intercept.h"

static bool is_cut_by_design(const char *text) {
    char copy[92];
    strcpy(copy, text);
    char *rest = nullptr;
    int index = 0;
    for (char *token = strtok_r(copy, ",", &rest); token != nullptr; token = strtok_r(nullptr, ",", &rest), index++) {
        if (index % 3 == 1 && index < 19 && strlen(token) > 3) {
            return true;
        }
    }
    return false;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const intercept_scope intercepted;
    char text[92] = "";
    memcpy(text, data, size < sizeof(text) - 1 ? size : sizeof(text) - 1);
    if (is_cut_by_design(text)) {
        return 0;
    }
    parse_zr_log_config(text);
    for (const struct log_svc_rec &rec : g_zr_log_svc) {
        struct sa_argv argv;
        if (memchr(rec.file_num, '\0', sizeof(rec.file_num)) == nullptr ||
            memchr(rec.file_size, '\0', sizeof(rec.file_size)) == nullptr ||
            (make_logcat_svc_argv_ex(&rec, &argv) == 0) != (argv.num > 0)) {
            abort();
        }
    }
    return 0;
}
