// The configuration file, whatever it holds.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "pub/cfg/cfg.h"
#include "sa/sa-cfg/sa_cfg.h"
#include "tests/fuzz/intercept.h"

static void split_alone(const uint8_t *data, size_t size) {
    char *line = static_cast<char *>(malloc(size + 1));  // of its exact size: a look in front or behind is noticed
    memcpy(line, data, size);
    line[size] = '\0';
    char *key = nullptr;
    char *value = nullptr;
    if (pub_cfg_get_param_and_value(line, &key, &value) == 0 &&
        (key < line || value <= key || value > line + size || strlen(value) > size)) {
        abort();
    }
    free(line);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const intercept_scope intercepted;
    FILE *stream = fopen("/system/etc/zr-qel-sa.cfg", "w");
    if (stream == nullptr) {
        abort();
    }
    fwrite(data, 1, size, stream);
    fclose(stream);
    if (sa_cfg_init() != 0 || memchr(g_sa_cfg.tty_cmd_a, '\0', sizeof(g_sa_cfg.tty_cmd_a)) == nullptr) {
        abort();
    }
    split_alone(data, size);
    return 0;
}
