// Requests from the host, through the dispatcher and all handlers.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "sa/main/base/log.h"
#include "sa/sa-handle/command/command.h"
#include "tests/fuzz/intercept.h"

// Whatever a host sends, the shell gets a whole line inside its buffer.
static void check_line(const char *command) {
    if (strlen(command) >= 256) {
        abort();
    }
}

// +DELETE_LOG makes the log's directory. The lines of a few seconds would fill /data, and then the handlers find no room
// for what they write.
static void limit_log(void) {
    static unsigned count;
    if (++count % 1024 == 0) {
        unlink(SA_LOG_FILE);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const intercept_scope intercepted;
    static const int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    struct sa_msg_st req = {};
    struct sa_msg_st rsp = {};
    intercept_shell = check_line;
    req.len = static_cast<uint16_t>(size < sizeof(req.data) - 1 ? size : sizeof(req.data) - 1);
    memcpy(req.data, data, req.len);
    const struct sa_msg_st before = req;
    const long result = handle_sa_cmd_req(fd, &req, &rsp);
    // Every request but an empty one is answered, and none is changed.
    if (result != (before.len == 0 ? -101 : 0) || memcmp(&before, &req, sizeof(req)) != 0) {
        abort();
    }
    if (before.len != 0 && (rsp.len == 0 || rsp.len != strlen(rsp.data))) {
        abort();
    }
    limit_log();
    return 0;
}
