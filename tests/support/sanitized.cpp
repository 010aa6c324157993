// What the build says. No state.
#include "tests/support/sanitized.h"

bool is_sanitized() {
    return SANITIZED;
}

int sanitizer_threads() {
    return THREAD_SANITIZER;
}
