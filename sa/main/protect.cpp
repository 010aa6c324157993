// Low-space protection. No state: the reserve is the directory's content.
#include "sa/main/protect.h"

#include <dirent.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "sa/main/base/log.h"
#include "sa/main/base/text.h"

static const char kReserve[] = "/data/.protect/";
static const int kPathSize = 256;
static const uint64_t kLowSize = 0x300000;  // 3 MiB

static bool has_room(void) {
    struct statfs buffer;
    if (statfs("/data", &buffer) != 0) {
        sa_log_platform("sa protect_data stat /data caught errno:%d err:%s\n", errno, pub_util_error_text(errno));
        return true;
    }
    sa_log_platform("buffer.bavail:%ld buffer.f_bsize:%ld low_size:%d\n", static_cast<long>(buffer.f_bavail),
                    static_cast<long>(buffer.f_bsize), static_cast<int>(kLowSize));
    return static_cast<uint64_t>(buffer.f_bsize) * static_cast<uint64_t>(buffer.f_bavail) >= kLowSize;
}

static void remove_last(const char *name) {
    if (name[0] == '.') {
        sa_log_platform("!!!!!!error, no file can be delete.");
        return;
    }
    char path_a[kPathSize];
    sa_format(path_a, sizeof(path_a), "%s%s", kReserve, name);
    sa_log_platform("scan line %s\n", path_a);
    if (unlink(path_a) != 0) {
        sa_log_platform("sa protect_data rm %s caught errno:%d err:%s\n", path_a, errno, pub_util_error_text(errno));
    }
}

void protect_data(void) {
    sa_log_entry();
    if (has_room()) {
        return;
    }
    struct dirent **list_ptr = nullptr;
    int count = scandir(kReserve, &list_ptr, nullptr, alphasort);
    if (count < 0) {
        sa_log_platform("scandir() %d-%s\n", errno, pub_util_error_text(errno));
        return;
    }
    if (count > 0) {
        remove_last(list_ptr[--count]->d_name);
        free(list_ptr[count]);
    }
    while (count > 0) {
        sa_log_platform("ignore %s\n", list_ptr[--count]->d_name);
        free(list_ptr[count]);
    }
    free(list_ptr);
}
