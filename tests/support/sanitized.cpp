// No state.
#include "tests/support/sanitized.h"

bool is_sanitized() {
    return SANITIZED;
}
