// The log directory and the free-space test. No state.
#include "sa/sa-handle/collect/log_directory.h"

#include <errno.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "sa/main/base/codes.h"
#include "sa/main/base/files.h"
#include "sa/main/base/log.h"
#include "sa/main/base/system.h"

static const uint32_t kSpaceThreshold = 256000;  // KB
static const uint32_t kSpacePercent = 5;

long check_zr_log_path(const char *log_path) {
    sa_log_entry();
    if (log_path == nullptr) {
        sa_log_platform("Invalid param.");
        return SA_ERR_COMMAND;
    }
    sa_log("log_path=[%s]", log_path);
    if (sa_exists(log_path)) {
        sa_log_platform("ZR log path \"%s\" exist.", log_path);
        return 0;
    }
    sa_log_platform("ZR log path \"%s\" not exist, now create.", log_path);
    if (mkdir(log_path, 0771) != 0) {
        sa_log_failed_call("mkdir", SA_ERR_FAIL);
        return SA_ERR_COMMAND;
    }
    if (chown(log_path, SA_AID_SHELL, SA_AID_SHELL) != 0) {
        sa_log_failed_call("chown", SA_ERR_FAIL);
        return SA_ERR_COMMAND;
    }
    // Fixed and relative, whatever the path: the agent's working directory is "/".
    if (sa_system("chmod 771 data/local/log") != 0) {
        sa_log_platform("chmod 771 %s failed, errno(%d)", log_path, errno);
    }
    sa_log_platform("ZR log path \"%s\" setup.", log_path);
    return 0;
}

// ---- space ----

struct data_space {
    uint32_t total;  // KB
    uint32_t used;
    uint32_t available;
};

static long sa_get_data_space_info(struct data_space *space_ptr) {
    sa_log_entry();
    struct statfs buffer;
    memset(space_ptr, 0, sizeof(*space_ptr));
    const int result = statfs("/data", &buffer);
    if (result != 0) {
        sa_log_failed_call("statfs", SA_ERR_FAIL);
    } else {
        const uint64_t block = static_cast<uint64_t>(buffer.f_bsize);
        space_ptr->total = static_cast<uint32_t>(buffer.f_blocks * block / 1024);
        space_ptr->used = static_cast<uint32_t>((buffer.f_blocks - buffer.f_bavail) * block / 1024);
        space_ptr->available = static_cast<uint32_t>(buffer.f_bavail * block / 1024);
    }
    sa_log_platform("data space, total[%ldKB], used[%ldKB], available[%ldKB].", static_cast<long>(space_ptr->total),
                    static_cast<long>(space_ptr->used), static_cast<long>(space_ptr->available));
    return result == 0 ? 0 : SA_ERR_COMMAND;
}

long sa_is_can_start_log_service(void) {
    sa_log_entry();
    struct data_space space;
    if (sa_get_data_space_info(&space) != 0) {
        return SA_ERR_COMMAND;
    }
    const uint64_t share = static_cast<uint64_t>(space.total) * kSpacePercent / 100;
    const uint64_t threshold = share < kSpaceThreshold ? share : kSpaceThreshold;
    if (space.available < threshold) {
        sa_log_platform("Low space, threshold:%ldKB, current available space of data is: %ldKB",
                        static_cast<long>(threshold), static_cast<long>(space.available));
        return SA_ERR_COMMAND;
    }
    return 0;
}
