// The auto-start list's image on disk, whatever a power loss or somebody else left there.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "sa/sa-handle/command/auto_start.h"
#include "tests/fuzz/intercept.h"

// A started name comes from one whole slot.
static void check_name(const char *command) {
    if (strncmp(command, "setprop ctl.start ", 18) != 0 || strlen(command + 18) > 40) {
        abort();
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const intercept_scope intercepted;
    mkdir("/data/zr-qel-sa", 0770);
    const int fd = open("/data/zr-qel-sa/auto-start.lst", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) {
        abort();
    }
    close(fd);
    intercept_shell = check_name;
    auto_start_service_list_read();
    auto_start_service_list_run();
    return 0;
}
