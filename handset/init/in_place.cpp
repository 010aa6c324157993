// A handset in place: where a container refuses new namespaces and mounts, the handset's directories are created in the
// container's own root file system and removed at the end. Nothing that existed before is changed: the boot fails when a
// path of the handset exists already, or when the kernel log or console level cannot be protected.
// State: the register, a file that lists the directories that a handset has created. The program that boots holds its
// lock. It remains when init is killed, so that the next handset can remove the directories. By then others may have
// replaced them, so only a directory with the listed inode and birth time is removed.
#include <errno.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <linux/landlock.h>
#include <linux/openat2.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "handset/init/init.h"

static bool m_has_created = false;  // this process has, and must remove
static std::string m_register;      // content of the file

// Created here, empty.
static const char *const kDirectories[] = {"/system", "/data", "/storage", "/desk", "/dev/socket", DESK_DIR};

// Created later, by init and by the agent.
static const char *const kFiles[] = {
    "/sdcard", "/dev/__properties__", "/dev/ttyCMD0", "/dev/ttysa1", "/tmp/zr-qel-sa.pid",
};

// ---- the register

// A directory's line in the register. An inode number can be reused, so the birth time is part of it. The device number
// is not, since it changes when the container is restarted.
static std::string line_of(const std::string &path) {
    struct statx st;
    if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_TYPE | STATX_INO | STATX_BTIME, &st) != 0 ||
        !S_ISDIR(st.stx_mode)) {
        return "";
    }
    return text_format("%s %llu %lld.%09u\n", path.c_str(), static_cast<unsigned long long>(st.stx_ino),
                       static_cast<long long>(st.stx_btime.tv_sec), st.stx_btime.tv_nsec);
}

static bool is_registered(const std::string &directory) {
    std::string line = line_of(directory);
    return !line.empty() && m_register.find("\n" + line) != std::string::npos;
}

static void register_read() {
    char buf[1024];
    ssize_t got = pread(options().register_fd, buf, sizeof(buf), 0);
    m_register.assign(buf, got > 0 ? static_cast<size_t>(got) : 0);
}

static bool register_write(const std::string &text) {
    m_register = text;
    int fd = options().register_fd;
    return ftruncate(fd, 0) == 0 && pwrite(fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
}

static void register_drop() {
    unlink(IN_PLACE_REGISTER);
    register_write("");  // a waiting booter sees that its open file has no name any more, and opens it again
}

// Whether the file has changed since the register was written, as all files of the handset have.
static bool is_younger(const struct stat &st) {
    struct stat own;
    if (fstat(options().register_fd, &own) != 0) {
        return false;
    }
    return st.st_ctim.tv_sec != own.st_mtim.tv_sec ? st.st_ctim.tv_sec > own.st_mtim.tv_sec
                                                   : st.st_ctim.tv_nsec >= own.st_mtim.tv_nsec;
}

// ---- removal and creation

// Never crosses a mount point: a file system mounted below stays, and with it the directories above.
static void remove_entry(int parent, const std::string &name) {
    if (unlinkat(parent, name.c_str(), 0) == 0) {
        return;
    }
    struct open_how how = {};
    how.flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    how.resolve = RESOLVE_NO_XDEV;
    int fd = static_cast<int>(syscall(SYS_openat2, parent, name.c_str(), &how, sizeof(how)));
    if (fd < 0) {
        return;
    }
    for (const std::string &child : text_names("/proc/self/fd/" + std::to_string(fd))) {
        remove_entry(fd, child);
    }
    close(fd);
    unlinkat(parent, name.c_str(), AT_REMOVEDIR);
}

static void remove_directory(const std::string &path) {
    size_t slash = path.rfind('/');
    int parent = open(path.substr(0, slash + 1).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (parent >= 0) {
        remove_entry(parent, path.substr(slash + 1));
        close(parent);
    }
}

// Removes a file or an empty directory.
static void remove_file(const std::string &path) {
    struct stat st;
    if (lstat(path.c_str(), &st) == 0 && is_younger(st)) {
        remove(path.c_str());
    }
}

// The agent's configuration names the links to its terminals. Once the agent has ended their targets do not exist.
static void remove_terminal_links() {
    for (const std::string &name : text_names("/dev")) {
        std::string path = "/dev/" + name;
        char target[64] = "";
        if (readlink(path.c_str(), target, sizeof(target) - 1) > 0 && text_starts(target, "/dev/pts/") &&
            access(path.c_str(), F_OK) != 0) {
            remove_file(path);
        }
    }
}

static bool is_kept(const char *directory, bool keep_data) {
    return keep_data && strcmp(directory, "/data") == 0 && is_registered(directory);
}

static void remove_all(bool keep_data) {
    remove_terminal_links();
    for (const char *file : kFiles) {
        remove_file(file);
    }
    for (const char *directory : kDirectories) {
        if (is_registered(directory) && !is_kept(directory, keep_data)) {
            remove_directory(directory);
        }
    }
}

// Whether a process has the same root directory as this one, and the environment of a handset's programs.
static bool is_leftover(const std::string &process) {
    struct stat here;
    struct stat there;
    std::string environment;
    if (stat("/", &here) != 0 || stat((process + "/root").c_str(), &there) != 0 || here.st_dev != there.st_dev ||
        here.st_ino != there.st_ino || !text_read_file(process + "/environ", &environment)) {
        return false;
    }
    const std::string end(1, '\0');
    environment.insert(0, end);
    return environment.find(end + "ANDROID_ROOT=/system" + end) != std::string::npos &&
           environment.find(end + "LD_LIBRARY_PATH=/system/lib" + end) != std::string::npos;
}

// Kills programs of a handset whose init was killed. Without CAP_SYS_PTRACE only its own user can read a process's files.
static void kill_leftovers() {
    for (const std::string &name : text_names("/proc")) {
        struct stat st;
        pid_t pid = atoi(name.c_str());
        if (pid <= 0 || pid == getpid() || stat(("/proc/" + name).c_str(), &st) != 0) {
            continue;
        }
        setfsgid(st.st_gid);
        setfsuid(st.st_uid);
        bool leftover = is_leftover("/proc/" + name);
        setfsuid(0);
        setfsgid(0);
        if (leftover) {
            kill(pid, SIGKILL);
        }
    }
    prctl(PR_SET_DUMPABLE, 1, 0, 0, 0);  // cleared by the change of user; the booter reads this process's files
}

// The first path of the handset that exists and is not a handset's; "": none.
static std::string find_foreign(bool keep_data) {
    struct stat st;
    for (const char *directory : kDirectories) {
        if (lstat(directory, &st) == 0 && !is_kept(directory, keep_data)) {
            return directory;
        }
    }
    for (const char *file : kFiles) {
        if (lstat(file, &st) == 0) {
            return file;
        }
    }
    return "";
}

// Registers each directory at once, since init may be killed at any time.
static std::string create_directories(bool keep_data) {
    std::string kept = is_kept("/data", keep_data) ? line_of("/data") : "";
    m_has_created =
        register_write("Directories of a desk handset. Its end removes them and some files in /dev.\n" + kept);
    if (!m_has_created) {
        return std::string(IN_PLACE_REGISTER ": ") + strerror(errno);
    }
    for (const char *directory : kDirectories) {
        if (is_kept(directory, keep_data)) {
            continue;
        }
        if (mkdir(directory, 0700) != 0 || !register_write(m_register + line_of(directory))) {
            return std::string(directory) + ": " + strerror(errno);
        }
    }
    return "";
}

std::string in_place_create() {
    bool keep_data = options().keep_data;
    register_read();
    if (!m_register.empty()) {
        kill_leftovers();
        remove_all(keep_data);
    }
    std::string foreign = find_foreign(keep_data);
    if (foreign.empty()) {
        return create_directories(keep_data);
    }
    if (!is_kept("/data", keep_data)) {
        register_drop();
    }
    return foreign + " exists and does not belong to a handset: a handset in place needs this path";
}

void in_place_remove(bool keep_data) {
    if (!m_has_created) {
        return;
    }
    remove_all(keep_data);
    if (!keep_data) {
        register_drop();
    }
}

// ---- protection of the machine

// Drops the rights to read the kernel log, to mount, and to set the clock.
static bool drop_rights() {
    struct __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    struct __user_cap_data_struct rights[2];
    if (syscall(SYS_capget, &header, rights) != 0) {
        return false;
    }
    for (const int right : {CAP_SYSLOG, CAP_SYS_ADMIN, CAP_SYS_MODULE, CAP_SYS_TIME, CAP_SYS_RAWIO, CAP_SYS_BOOT}) {
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

// Denies writing to files below /proc and /sys. Renaming between directories stays allowed.
static bool protect_settings() {
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

std::string in_place_protect() {
    if (!drop_rights()) {
        return "a handset in place could consume the machine's kernel log here: it cannot drop that right";
    }
    if (access("/proc/sys/kernel/printk", W_OK) == 0 && !protect_settings()) {
        return "a handset in place would change the machine's console level here: "
               "/proc/sys is writable, and the kernel has no Landlock that could lock it (Linux 5.19 has)";
    }
    return "";
}
