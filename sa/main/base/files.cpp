// Existence and generations. No state.
#include "sa/main/base/files.h"

#include <stdio.h>
#include <unistd.h>

#include "sa/main/base/text.h"

static const int kNameSize = 59;

bool sa_exists(const char *path) {
    return access(path, F_OK) == 0;
}

void sa_shift_generations(const char *path, int count) {
    char old_a[kNameSize];
    char new_a[kNameSize];
    sa_format(new_a, sizeof(new_a), "%s.%d", path, count);
    remove(new_a);
    for (int generation = count; generation >= 2; generation--) {
        sa_format(old_a, sizeof(old_a), "%s.%d", path, generation - 1);
        sa_format(new_a, sizeof(new_a), "%s.%d", path, generation);
        rename(old_a, new_a);
    }
    sa_format(new_a, sizeof(new_a), "%s.1", path);
    rename(path, new_a);
}
