// First stage: turns the bare root that the sandbox gives into a handset's root file system, or adds one to the root of a
// container. Runs once, before anything else lives in the handset. Owns nothing afterwards.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "init.h"

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

// The path on its own place, read-only from now on: what lies there belongs to the machine.
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

static const node_row m_nodes[] = {
    {"/dev/null", 1, 3, 0666},    {"/dev/zero", 1, 5, 0666}, {"/dev/full", 1, 7, 0666}, {"/dev/random", 1, 8, 0666},
    {"/dev/urandom", 1, 9, 0666}, {"/dev/tty", 5, 0, 0666},  {"/dev/ptmx", 5, 2, 0666},
};

static std::string stage_dev() {
    if (!make_dir("/dev", 0755, 0, 0) || mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=0755") != 0) {
        return failed("/dev");
    }
    for (const node_row &row : m_nodes) {
        if (mknod(row.path, S_IFCHR | row.mode, makedev(row.major_number, row.minor_number)) != 0) {
            return failed(row.path);
        }
    }
    // Without options, as the platform's first stage mounts it: slaves start with mode 0600.
    if (!make_dir("/dev/pts", 0755, 0, 0) ||
        mount("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC, nullptr) != 0) {
        return failed("/dev/pts");
    }
    if (!make_dir("/dev/socket", 0755, 0, 0) || !make_dir(DESK_DIR, 0755, 0, 0)) {
        return failed(DESK_DIR);
    }
    return symlink("/proc/self/fd", "/dev/fd") == 0 ? "" : failed("/dev/fd");
}

// The kernel's own messages and its console level are the machine's: a handset gets its own in their place.
static std::string stage_proc_stands() {
    if (mkfifo(KMSG_FIFO, 0440) != 0 || chown(KMSG_FIFO, 0, 1000) != 0 || !bind_file(KMSG_FIFO, "/proc/kmsg")) {
        return failed("/proc/kmsg");
    }
    if (!protect("/proc/sys") || !protect("/proc/sysrq-trigger") || !protect("/proc/irq") || !protect("/proc/bus")) {
        return failed("/proc/sys");
    }
    if (!text_write_file(DESK_DIR "/printk", options().printk, 0644) ||
        !bind_file(DESK_DIR "/printk", "/proc/sys/kernel/printk")) {
        return failed("/proc/sys/kernel/printk");
    }
    return "";
}

static std::string stage_proc() {
    unsigned long flags = MS_NOSUID | MS_NODEV | MS_NOEXEC;
    // The sandbox's own, which serves the dynamic loader until here, lets nobody write its settings.
    umount2("/proc", MNT_DETACH);
    if (mount("proc", "/proc", "proc", flags, nullptr) != 0) {
        return failed("/proc");
    }
    // Belongs to this network namespace: as long a queue for log datagrams as the platform's init sets.
    if (!text_write_file("/proc/sys/net/unix/max_dgram_qlen", "600\n", 0644)) {
        return failed("max_dgram_qlen");
    }
    if (!make_dir("/sys", 0555, 0, 0) || mount("sysfs", "/sys", "sysfs", flags | MS_RDONLY, nullptr) != 0) {
        return failed("/sys");
    }
    return "";
}

static bool copy_file(const char *source, const char *target, const struct stat &st) {
    int in = open(source, O_RDONLY | O_CLOEXEC);
    int out = in < 0 ? -1 : open(target, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, st.st_mode & 0777);
    bool copied = in >= 0 && out >= 0;
    off_t left = st.st_size;
    while (copied && left > 0) {
        ssize_t moved = sendfile(out, in, nullptr, static_cast<size_t>(left));
        copied = moved > 0;
        left -= moved;
    }
    if (in >= 0) {
        close(in);
    }
    if (out >= 0) {
        close(out);
    }
    return copied;
}

static bool copy_tree(const std::string &source, const std::string &target);

static bool copy_entry(const std::string &source, const std::string &target) {
    struct stat st;
    if (lstat(source.c_str(), &st) != 0) {
        return false;
    }
    if (S_ISDIR(st.st_mode)) {
        return copy_tree(source, target);
    }
    if (S_ISLNK(st.st_mode)) {
        char link[512];
        ssize_t length = readlink(source.c_str(), link, sizeof(link) - 1);
        if (length < 0) {
            return false;
        }
        link[length] = '\0';
        return symlink(link, target.c_str()) == 0;
    }
    return copy_file(source.c_str(), target.c_str(), st);
}

static bool copy_tree(const std::string &source, const std::string &target) {
    DIR *dir = opendir(source.c_str());
    bool copied = dir != nullptr && make_dir(target.c_str(), 0755, 0, 0);
    for (struct dirent *entry; copied && (entry = readdir(dir)) != nullptr;) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") {
            copied = copy_entry(source + "/" + name, target + "/" + name);
        }
    }
    if (dir != nullptr) {
        closedir(dir);
    }
    return copied;
}

static std::string stage_system() {
    if (!copy_tree(options().image, "/system")) {
        return failed("/system");
    }
    if (!options().config && unlink("/system/etc/zr-qel-sa.cfg") != 0) {
        return failed("/system/etc/zr-qel-sa.cfg");
    }
    return "";
}

static std::string stage_etc() {
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

static const dir_row m_data_dirs[] = {
    {"/data/local", 0751, 0, 0},        {"/data/local/tmp", 0771, 2000, 2000},  {"/data/property", 0700, 0, 0},
    {"/data/anr", 0775, 1000, 1000},    {"/data/tombstones", 0771, 1000, 1000}, {"/data/data", 0771, 1000, 1000},
    {"/data/dontpanic", 0750, 0, 1007},
};

static std::string stage_data() {
    for (const dir_row &row : m_data_dirs) {
        if (!make_dir(row.path, row.mode, row.uid, row.gid)) {
            return failed(row.path);
        }
    }
    // Nobody but the agent makes this one on a device; here it is a matter of the handset's history.
    if (options().log_dir && access("/data/local/log", F_OK) != 0 && !make_dir("/data/local/log", 0771, 2000, 2000)) {
        return failed("/data/local/log");
    }
    return "";
}

static std::string stage_rest() {
    if (!make_dir("/storage", 0755, 0, 0) || symlink("storage/real_sd", "/sdcard") != 0) {
        return failed("/storage");
    }
    errno = options().card ? card_set(true) : 0;
    if (errno != 0) {
        return failed("/storage/real_sd");
    }
    if (options().tmp && !place_used() && !make_dir("/tmp", 01777, 0, 0)) {
        return failed("/tmp");
    }
    return "";
}

// What a handset in place adds to a root that has /proc, /dev, /etc and /tmp. Nobody reads its kernel messages.
static std::string stage_additions() {
    if (!make_dir("/dev/socket", 0755, 0, 0) || !make_dir(DESK_DIR, 0755, 0, 0) || mkfifo(KMSG_FIFO, 0400) != 0) {
        return failed(DESK_DIR);
    }
    if (!make_dir("/desk", 0755, 0, 0) || !make_dir("/data", 0771, 1000, 1000)) {
        return failed("/data");
    }
    return "";
}

using stage_step = std::string (*)();

std::string stage_run() {
    static const std::vector<stage_step> own = {stage_proc, stage_dev,  stage_proc_stands, stage_system,
                                                stage_etc,  stage_data, stage_rest};
    static const std::vector<stage_step> in_place = {place_claim, stage_additions, stage_system,
                                                     stage_data,  stage_rest,      place_protect};
    mode_t before = umask(0);
    std::string reason;
    for (stage_step step : place_used() ? in_place : own) {
        reason = step();
        if (!reason.empty()) {
            break;
        }
    }
    umask(before);
    return reason;
}
