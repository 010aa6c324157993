// Makes the root file system of a handset in the empty root of the sandbox, or in place beside the files of a container.
// Runs once, before any other program. No state.
#include <errno.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>

#include "handset/init/init.h"

static std::string failed(const std::string &what) {
    return what + ": " + strerror(errno);
}

// A directory with exactly this mode and owner, whether it existed or not.
static bool make_dir(const char *path, mode_t mode, uid_t uid, gid_t gid) {
    if (mkdir(path, mode) != 0 && errno != EEXIST) {
        return false;
    }
    return chmod(path, mode) == 0 && chown(path, uid, gid) == 0;
}

static bool bind_file(const char *source, const char *target) {
    return mount(source, target, nullptr, MS_BIND, nullptr) == 0;
}

// Binds the path over itself, read-only, since its content is the machine's.
static bool protect(const char *path) {
    if (access(path, F_OK) != 0) {
        return true;
    }
    return mount(path, path, nullptr, MS_BIND | MS_REC, nullptr) == 0 &&
           mount(nullptr, path, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC,
                 nullptr) == 0;
}

struct node_row {
    const char *path;
    unsigned major_number;
    unsigned minor_number;
    mode_t mode;
};

static const node_row kNodes[] = {
    {"/dev/null", 1, 3, 0666},    {"/dev/zero", 1, 5, 0666}, {"/dev/full", 1, 7, 0666}, {"/dev/random", 1, 8, 0666},
    {"/dev/urandom", 1, 9, 0666}, {"/dev/tty", 5, 0, 0666},  {"/dev/ptmx", 5, 2, 0666},
};

static std::string make_dev() {
    if (!make_dir("/dev", 0755, 0, 0) || mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=0755") != 0) {
        return failed("/dev");
    }
    for (const node_row &row : kNodes) {
        if (mknod(row.path, S_IFCHR | row.mode, makedev(row.major_number, row.minor_number)) != 0) {
            return failed(row.path);
        }
    }
    // Without options, as the platform mounts it: slaves start with mode 0600.
    if (!make_dir("/dev/pts", 0755, 0, 0) ||
        mount("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC, nullptr) != 0) {
        return failed("/dev/pts");
    }
    if (!make_dir("/dev/socket", 0755, 0, 0) || !make_dir(DESK_DIR, 0755, 0, 0)) {
        return failed(DESK_DIR);
    }
    return symlink("/proc/self/fd", "/dev/fd") == 0 ? "" : failed("/dev/fd");
}

// The kernel's messages and its console level are the machine's. Bind-mounts files of the handset over them.
static std::string bind_kernel_files() {
    if (mkfifo(KMSG_FIFO, 0440) != 0 || chown(KMSG_FIFO, 0, 1000) != 0 || !bind_file(KMSG_FIFO, "/proc/kmsg")) {
        return failed("/proc/kmsg");
    }
    if (!protect("/proc/sys") || !protect("/proc/sysrq-trigger") || !protect("/proc/irq") || !protect("/proc/bus")) {
        return failed("/proc/sys");
    }
    if (!text_write_file(DESK_DIR "/printk", "4\t4\t1\t7\n", 0644) ||
        !bind_file(DESK_DIR "/printk", "/proc/sys/kernel/printk")) {
        return failed("/proc/sys/kernel/printk");
    }
    return "";
}

static std::string make_proc() {
    unsigned long flags = MS_NOSUID | MS_NODEV | MS_NOEXEC;
    // The sandbox's /proc has read-only settings.
    umount2("/proc", MNT_DETACH);
    if (mount("proc", "/proc", "proc", flags, nullptr) != 0) {
        return failed("/proc");
    }
    // Length of the queue of log datagrams, as the platform's init sets it. It belongs to the network namespace.
    if (!text_write_file("/proc/sys/net/unix/max_dgram_qlen", "600\n", 0644)) {
        return failed("max_dgram_qlen");
    }
    if (!make_dir("/sys", 0555, 0, 0) || mount("sysfs", "/sys", "sysfs", flags | MS_RDONLY, nullptr) != 0) {
        return failed("/sys");
    }
    return "";
}

static std::string make_system() {
    std::error_code error;
    const auto how = std::filesystem::copy_options::recursive | std::filesystem::copy_options::copy_symlinks;
    if (!make_dir("/system", 0755, 0, 0)) {
        return failed("/system");
    }
    std::filesystem::copy(options().image, "/system", how, error);
    if (error) {
        return "/system: " + error.message();
    }
    if (!options().config && unlink("/system/etc/zr-qel-sa.cfg") != 0) {
        return failed("/system/etc/zr-qel-sa.cfg");
    }
    return "";
}

static std::string make_etc() {
    if (symlink("system/bin", "/bin") != 0 || !make_dir("/etc", 0755, 0, 0) || !accounts_write()) {
        return failed("/etc");
    }
    return "";
}

struct dir_row {
    const char *path;
    mode_t mode;
    uid_t uid;
    gid_t gid;
};

static const dir_row kDataDirs[] = {
    {"/data/local", 0751, 0, 0},        {"/data/local/tmp", 0771, 2000, 2000},  {"/data/property", 0700, 0, 0},
    {"/data/anr", 0775, 1000, 1000},    {"/data/tombstones", 0771, 1000, 1000}, {"/data/data", 0771, 1000, 1000},
    {"/data/dontpanic", 0750, 0, 1007},
};

static std::string make_data() {
    for (const dir_row &row : kDataDirs) {
        if (!make_dir(row.path, row.mode, row.uid, row.gid)) {
            return failed(row.path);
        }
    }
    // On a device the agent itself makes this directory. Most handsets have been booted before.
    if (options().log_dir && access("/data/local/log", F_OK) != 0 && !make_dir("/data/local/log", 0771, 2000, 2000)) {
        return failed("/data/local/log");
    }
    return "";
}

static std::string make_rest() {
    if (!make_dir("/storage", 0755, 0, 0) || symlink("storage/real_sd", "/sdcard") != 0) {
        return failed("/storage");
    }
    errno = options().sd_card ? sd_card_set(true) : 0;
    if (errno != 0) {
        return failed("/storage/real_sd");
    }
    if (options().tmp && !is_in_place() && !make_dir("/tmp", 01777, 0, 0)) {
        return failed("/tmp");
    }
    return "";
}

// In place there are /proc, /dev, /etc and /tmp already. Nobody reads the FIFO of kernel messages.
static std::string make_in_place_dirs() {
    if (!make_dir("/dev/socket", 0755, 0, 0) || !make_dir(DESK_DIR, 0755, 0, 0) || mkfifo(KMSG_FIFO, 0400) != 0) {
        return failed(DESK_DIR);
    }
    if (!make_dir("/desk", 0755, 0, 0) || !make_dir("/data", 0771, 1000, 1000)) {
        return failed("/data");
    }
    return "";
}

using make_step = std::string (*)();

std::string root_fs_make() {
    static const std::vector<make_step> own = {make_proc, make_dev,  bind_kernel_files, make_system,
                                               make_etc,  make_data, make_rest};
    static const std::vector<make_step> in_place = {in_place_create, make_in_place_dirs, make_system,
                                                    make_data,       make_rest,          in_place_protect};
    mode_t before = umask(0);
    std::string reason;
    for (make_step step : is_in_place() ? in_place : own) {
        reason = step();
        if (!reason.empty()) {
            break;
        }
    }
    umask(before);
    return reason;
}
