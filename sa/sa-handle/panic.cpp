// Panic records: minidump, console, threads. Consumed at each start. No state.
#include "sa/sa-handle/panic.h"

#include <stdio.h>

#include "sa/main/base/files.h"
#include "sa/main/base/text.h"
#include "sa/sa-handle/command/shell.h"

static const char *const kSets[] = {"apanic_minidump", "apanic_console", "apanic_threads"};
static const char kSource[] = "/data/dontpanic";
static const char kSaved[] = "/data/log/SystemLog";
static const int kGenerations = 3;
static const int kPathSize = 64;
static const char kLogName[] = "sa_handle_init";  // this is its step

static void save_set(const char *name) {
    char source_a[kPathSize];
    char saved_a[kPathSize];
    char command_a[SA_COMMAND_SIZE];
    sa_format(source_a, sizeof(source_a), "%s/%s", kSource, name);
    sa_format(saved_a, sizeof(saved_a), "%s/%s", kSaved, name);
    sa_shift_generations(saved_a, kGenerations);
    sa_format(command_a, sizeof(command_a), "cp %s %s", source_a, kSaved);
    sa_call_system(kLogName, __LINE__, command_a);
    if (sa_exists(saved_a)) {
        sa_format(command_a, sizeof(command_a), "date >> %s", saved_a);
        sa_call_system(kLogName, __LINE__, command_a);
    }
    remove(source_a);
}

void sa_save_panic_records(void) {
    bool is_any = false;
    for (const char *name : kSets) {
        char source_a[kPathSize];
        sa_format(source_a, sizeof(source_a), "%s/%s", kSource, name);
        is_any = is_any || sa_exists(source_a);
    }
    if (!is_any) {
        return;
    }
    for (const char *name : kSets) {  // all three, whether or not a set's own source is there
        save_set(name);
    }
}
