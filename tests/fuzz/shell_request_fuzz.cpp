// Requests on the remote-shell listener: the first byte says how many reads there are, the rest is what they return.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "sa/main/listener.h"
#include "tests/fuzz/intercept.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const intercept_scope intercepted;
    static const int first_own_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (size < 1) {
        return 0;
    }
    intercept_reads = data[0] % 8;
    intercept_bytes = data + 1;
    intercept_size = size - 1;
    if (sigsetjmp(intercept_end, 1) == 0) {
        sa_listener_loop();
        if (intercept_reads >= 0) {
            abort();  // it ends when the reads do, and not before
        }
    } else if (memmem(data, size, "host:kill", 9) == nullptr) {
        abort();  // nobody has asked it to end the agent
    }
    intercept_bytes = nullptr;
    // The kill request ends a process, and its descriptors with it; here the process goes on.
    syscall(SYS_close_range, static_cast<unsigned>(first_own_fd) + 1, ~0U, 0U);
    return 0;
}
