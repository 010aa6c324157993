// Rotation of the diagnostic file, at each start and whatever its size. Writes no file line itself.
#include "sa/main/log_rotate.h"

#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "sa/main/base/codes.h"
#include "sa/main/base/files.h"
#include "sa/main/base/log.h"
#include "sa/main/base/text.h"

static const int kGenerations = 5;
static const int kNameSize = 40;
static const mode_t kMode = 0644;

// Base name of the rotation; nothing changes it. The line writer keeps to its own fixed path.
char g_sa_log_path_a[kNameSize] = SA_LOG_FILE;

#define rotate_log(...) sa_log_platform("update_sa_logs " __VA_ARGS__)

static void generation_name(int generation, char *name_ptr) {
    sa_format(name_ptr, kNameSize, "%s.%d", g_sa_log_path_a, generation);
}

static void move_file(const char *from, const char *to) {
    if (rename(from, to) != 0) {
        rotate_log("rename errno[%d-%s]", errno, pub_util_error_text(errno));
    }
}

static void shift_generations(void) {
    char old_a[kNameSize];
    char new_a[kNameSize];
    generation_name(kGenerations, old_a);
    rotate_log("log_file_old[%s]", old_a);
    if (sa_exists(old_a) && remove(old_a) != 0) {
        rotate_log("remove errno[%d-%s]", errno, pub_util_error_text(errno));
    }
    for (int generation = kGenerations - 1; generation >= 1; generation--) {
        generation_name(generation, old_a);
        generation_name(generation + 1, new_a);
        if (sa_exists(old_a)) {
            rotate_log("[%d] log_file_old[%s] log_file_new[%s]", generation + 1, old_a, new_a);
            move_file(old_a, new_a);
        }
    }
    if (sa_exists(g_sa_log_path_a)) {
        generation_name(1, new_a);
        move_file(g_sa_log_path_a, new_a);
    }
}

static void make_live_file(void) {
    if (!sa_exists(g_sa_log_path_a)) {
        FILE *fp = fopen(g_sa_log_path_a, "ae");
        rotate_log("open(%s) fp[%p]", g_sa_log_path_a, static_cast<void *>(fp));
        if (fp != nullptr) {
            fclose(fp);
        }
    }
    if (chown(g_sa_log_path_a, SA_AID_SHELL, SA_AID_LOG) != 0) {
        rotate_log("chown error[%d-%s]", errno, pub_util_error_text(errno));
    }
    if (chmod(g_sa_log_path_a, kMode) != 0) {
        rotate_log("chmod error[%d-%s]", errno, pub_util_error_text(errno));
    }
}

void update_sa_logs(void) {
    sa_log_entry();
    shift_generations();
    make_live_file();
}
