// Panic records: minidump, console, threads. Consumed at each start. No state.
#include "sa/sa-handle/panic.h"

#include <stdio.h>
#include <unistd.h>

#include "sa/main/log.h"
#include "sa/main/text.h"
#include "sa/sa-handle/shell.h"

static const char *const kSets[] = {"apanic_minidump", "apanic_console", "apanic_threads"};
static const char kSource[] = "/data/dontpanic";
static const char kSaved[] = "/data/log/SystemLog";
static const int kGenerations = 3;
static const int kPathSize = 64;
static const char kCaller[] = "sa_handle_init";  // this is its step, and reported as such

static bool exists(const char *directory, const char *name) {
    char path_a[kPathSize];
    sa_format(path_a, sizeof(path_a), "%s/%s", directory, name);
    return access(path_a, F_OK) == 0;
}

static void saved_name(const char *name, int generation, char *path_ptr) {
    if (generation == 0) {
        sa_format(path_ptr, kPathSize, "%s/%s", kSaved, name);
    } else {
        sa_format(path_ptr, kPathSize, "%s/%s.%d", kSaved, name, generation);
    }
}

static void shift_generations(const char *name) {
    char old_a[kPathSize];
    char new_a[kPathSize];
    saved_name(name, kGenerations, new_a);
    remove(new_a);
    for (int generation = kGenerations - 1; generation >= 0; generation--) {
        saved_name(name, generation, old_a);
        saved_name(name, generation + 1, new_a);
        rename(old_a, new_a);
    }
}

static void save_set(const char *name) {
    char text_a[SA_COMMAND_SIZE];
    shift_generations(name);
    sa_format(text_a, sizeof(text_a), "cp %s/%s %s", kSource, name, kSaved);
    sa_call_system(kCaller, __LINE__, text_a);
    if (exists(kSaved, name)) {
        sa_format(text_a, sizeof(text_a), "date >> %s/%s", kSaved, name);
        sa_call_system(kCaller, __LINE__, text_a);
    }
    sa_format(text_a, sizeof(text_a), "%s/%s", kSource, name);
    remove(text_a);
}

void sa_save_panic_records(void) {
    bool is_any = false;
    for (const char *name : kSets) {
        is_any = is_any || exists(kSource, name);
    }
    if (!is_any) {
        return;
    }
    for (const char *name : kSets) {  // all three, whether or not a set's own source is there
        save_set(name);
    }
}
