// Argument vectors. No state.
#include "sa/sa-handle/collect/argv.h"

#include <string.h>

#include "sa/main/base/text.h"

void sa_argv_clear(struct sa_argv *argv_ptr, size_t limit) {
    memset(argv_ptr, 0, sizeof(*argv_ptr));
    argv_ptr->limit = limit;
}

void sa_argv_add(struct sa_argv *argv_ptr, const char *text) {
    if (argv_ptr->num >= SA_ARGV_SLOTS) {
        return;
    }
    char *slot_ptr = argv_ptr->text_a[argv_ptr->num];
    sa_copy_cut(slot_ptr, argv_ptr->limit, text);
    argv_ptr->vector_a[argv_ptr->num++] = slot_ptr;
}

void sa_argv_add_pair(struct sa_argv *argv_ptr, const char *option, const char *value) {
    sa_argv_add(argv_ptr, option);
    sa_argv_add(argv_ptr, value);
}
