// What processes put into their command lines, as the lookup by name reads it.
#include <stdlib.h>
#include <string.h>

#include "sa/main/base/process.h"
#include "tests/fuzz/intercept.h"

static const size_t kReadSize = 511;  // of each command line no more is looked at

// What the lookup must say of one command line: its first argument ends at a NUL or a blank.
static bool is_match(const uint8_t *data, size_t size) {
    size_t length = 0;
    while (length < size && length < kReadSize && data[length] != '\0' && data[length] != ' ') {
        length++;
    }
    return memmem(data, length, "zr", 2) != nullptr;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const intercept_scope intercepted;
    int32_t pids[3] = {};
    int32_t count = -1;
    intercept_bytes = data;
    intercept_size = size;
    intercept_reads = 2;
    const long result = sa_util_get_pids("zr", pids, 3, &count);
    intercept_bytes = nullptr;
    int32_t expected = is_match(data, size) ? 1 : 0;
    if (size > kReadSize && is_match(data + kReadSize, size - kReadSize)) {
        expected++;
    }
    if (result != 0 || count != expected || pids[count] != 0) {
        abort();
    }
    return 0;
}
