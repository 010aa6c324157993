// A handset in place: where a container refuses new namespaces and mounts, the handset's directories are made in the
// container's own root, beside its /usr, and removed again at the end. Nothing that was there before is touched: a place
// that exists and is no handset's ends the boot, and so does a kernel log or console level that could not be protected.
// State: the register, a file that says that what stands in the places is a handset's. It is locked by the program that
// boots, outlives an init that was killed, and lets the next one clear up.
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <linux/capability.h>
#include <linux/landlock.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "control.h"
#include "init.h"

static bool m_owned = false;

static const char *const m_places[] = {
    "/system",
    "/data",
    "/storage",
    "/sdcard",
    "/desk",
    "/dev/socket",
    DESK_DIR,
    "/dev/__properties__",
    "/dev/ttyCMD0",
    "/dev/ttysa1",
    "/tmp/zr-qel-sa.pid",
};

bool place_used() {
    return options().register_fd >= 0;
}

// ---- the register and the places

static bool is_registered() {
    struct stat st;
    return fstat(options().register_fd, &st) == 0 && st.st_size > 0;
}

static int remove_entry(const char *path, const struct stat *, int, struct FTW *) {
    return remove(path);
}

// The agent publishes terminals under names of its configuration's choice. With it gone they lead nowhere.
static void remove_published() {
    for (const std::string &name : text_names("/dev")) {
        std::string path = "/dev/" + name;
        char target[64] = "";
        if (readlink(path.c_str(), target, sizeof(target) - 1) > 0 && text_starts(target, "/dev/pts/") &&
            access(path.c_str(), F_OK) != 0) {
            unlink(path.c_str());
        }
    }
}

static void remove_places(bool keep_data) {
    remove_published();
    for (const char *place : m_places) {
        if (!keep_data || strcmp(place, "/data") != 0) {
            nftw(place, remove_entry, 16, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
        }
    }
}

// Programs of a handset whose init was killed.
static void kill_strays() {
    for (const std::string &name : text_names("/proc")) {
        char program[64] = "";
        if (readlink(("/proc/" + name + "/exe").c_str(), program, sizeof(program) - 1) > 0 &&
            text_starts(program, "/system/")) {
            kill(atoi(name.c_str()), SIGKILL);
        }
    }
}

std::string place_claim() {
    if (is_registered()) {
        kill_strays();
        remove_places(options().keep_data);
    }
    for (const char *place : m_places) {
        struct stat st;
        if (lstat(place, &st) == 0 && !(options().keep_data && strcmp(place, "/data") == 0)) {
            return std::string(place) + " exists here and is not a handset's: a handset in place needs it for itself";
        }
    }
    static const char text[] = "A desk handset's: /system, /data, /storage and some of /dev. Its end removes them.\n";
    m_owned = pwrite(options().register_fd, text, sizeof(text) - 1, 0) > 0;
    return m_owned ? "" : std::string("the register of the handset: ") + strerror(errno);
}

void place_leave(bool keep_data) {
    if (!m_owned) {
        return;
    }
    remove_places(keep_data);
    if (!keep_data) {
        unlink(PLACE_REGISTER);
        if (ftruncate(options().register_fd, 0) != 0) {
            m_owned = false;  // a booter that has it open already finds no name to it and starts over
        }
    }
}

// ---- what is the machine's stays out of reach

// Nothing started from here on reads the kernel's log away from its owner, mounts, or sets the clock.
static bool give_up_rights() {
    struct __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    struct __user_cap_data_struct rights[2];
    if (syscall(SYS_capget, &header, rights) != 0) {
        return false;
    }
    for (unsigned right : {CAP_SYSLOG, CAP_SYS_ADMIN, CAP_SYS_MODULE, CAP_SYS_TIME, CAP_SYS_RAWIO, CAP_SYS_BOOT}) {
        if (prctl(PR_CAPBSET_READ, right, 0, 0, 0) == 1 && prctl(PR_CAPBSET_DROP, right, 0, 0, 0) != 0) {
            return false;
        }
        struct __user_cap_data_struct *set = &rights[right / 32];
        set->effective &= ~(1u << right % 32);
        set->permitted &= ~(1u << right % 32);
        set->inheritable &= ~(1u << right % 32);
    }
    return syscall(SYS_capset, &header, rights) == 0;
}

static bool allow(int ruleset, const char *path, uint64_t access) {
    struct landlock_path_beneath_attr rule = {};
    rule.allowed_access = access;
    rule.parent_fd = open(path, O_PATH | O_CLOEXEC);
    bool allowed =
        rule.parent_fd >= 0 && syscall(SYS_landlock_add_rule, ruleset, LANDLOCK_RULE_PATH_BENEATH, &rule, 0) == 0;
    close(rule.parent_fd);
    return allowed;
}

// Files may be written everywhere but in /proc and /sys, and renamed from anywhere to anywhere.
static bool lock_settings() {
    struct landlock_ruleset_attr attributes = {};
    attributes.handled_access_fs = LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_REFER;
    int ruleset = static_cast<int>(syscall(SYS_landlock_create_ruleset, &attributes, sizeof(attributes), 0));
    bool locked = ruleset >= 0 && allow(ruleset, "/", LANDLOCK_ACCESS_FS_REFER);
    for (const std::string &name : text_names("/")) {
        struct stat st;
        std::string path = "/" + name;
        if (locked && name != "proc" && name != "sys" && lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
            locked = allow(ruleset, path.c_str(), attributes.handled_access_fs);
        }
    }
    locked =
        locked && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && syscall(SYS_landlock_restrict_self, ruleset, 0) == 0;
    close(ruleset);
    return locked;
}

std::string place_protect() {
    if (!give_up_rights()) {
        return "a handset in place could read the machine's kernel log away here, for it cannot give up that right";
    }
    if (access("/proc/sys/kernel/printk", W_OK) == 0 && !lock_settings()) {
        return "a handset in place would change the machine's console level here: "
               "/proc/sys is writable, and the kernel has no Landlock to lock it";
    }
    return "";
}
