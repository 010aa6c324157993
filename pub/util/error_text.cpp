// Error numbers to texts, without the locale machinery behind glibc's strerror.
#include "pub/util/error_text.h"

#include <string.h>

const char *pub_util_error_text(int error_number) {
#if defined(__GLIBC__)
    // strerror goes through gettext here: a lock and perhaps the heap. This is the same table without them.
    const char *text = strerrordesc_np(error_number);
    return text != nullptr ? text : "Unknown error";
#else
    // The device's C library looks its table up directly; only unknown numbers are formatted, into a thread's own buffer.
    return strerror(error_number);
#endif
}
