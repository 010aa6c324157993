// Error numbers to texts, without the locale machinery behind glibc's strerror. State: a buffer for each thread.
#include "pub/util/error_text.h"

#include <stdio.h>
#include <string.h>

const char *pub_util_error_text(int error_number) {
#if defined(__GLIBC__)
    // strerror goes through gettext here: a lock and perhaps the heap. This is the same table without them.
    const char *text = strerrordesc_np(error_number);
    if (text != nullptr) {
        return text;
    }
    static thread_local char m_unknown_a[32];
    snprintf(m_unknown_a, sizeof(m_unknown_a), "Unknown error %d", error_number);
    return m_unknown_a;
#else
    // The device's C library looks its table up directly; only unknown numbers are formatted, into a thread's own buffer.
    return strerror(error_number);
#endif
}
