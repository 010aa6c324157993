// What processes put into their command lines, as the lookup by name reads it.
#include <stdlib.h>

#include "sa/main/process.h"
#include "tests/fuzz/intercept.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const intercept_scope intercepted;
    int32_t pids[3] = {};
    int32_t count = -1;
    intercept_bytes = data;
    intercept_size = size;
    intercept_reads = 2;
    const long result = sa_util_get_pids("zr", pids, 3, &count);
    intercept_bytes = nullptr;
    if (result != 0 || count < 0 || count > 2 || pids[count] != 0) {
        abort();
    }
    return 0;
}
