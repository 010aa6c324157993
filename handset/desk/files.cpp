// Files of a handset, opened from outside relative to its root directory. No state.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <stdio.h>
#include <string.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "handset/desk/handle.h"

// In place only files of the handset may be written.
static bool may_open(const std::string &path, int flags) {
    if (!desk_in_place()) {
        return true;
    }
    if (path.compare(0, 10, "/proc/sys/") == 0 || path == "/proc/kmsg") {
        return in_place_missing("settings and messages of the kernel of its own");
    }
    return (flags & (O_CREAT | O_TRUNC | O_APPEND)) == 0 || in_place_owns(path);
}

int desk_open(desk *h, const std::string &path, int flags, mode_t mode) {
    if (!may_open(path, flags)) {
        errno = EPERM;
        return -1;
    }
    struct open_how how = {};
    how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
    how.mode = (flags & O_CREAT) != 0 ? mode : 0;
    how.resolve = RESOLVE_IN_ROOT;
    for (int tries = 0;; tries++) {
        int fd = static_cast<int>(syscall(SYS_openat2, h->root, path.c_str(), &how, sizeof(how)));
        if (fd >= 0 || errno != EAGAIN || tries > 100) {  // EAGAIN: a directory of the path was renamed meanwhile
            return fd;
        }
    }
}

bool read_all(int fd, std::string *text) {
    char buf[65536];
    ssize_t got;
    while ((got = read(fd, buf, sizeof(buf))) > 0) {
        text->append(buf, static_cast<size_t>(got));
    }
    return got == 0;
}

bool desk_read_file(desk *h, const std::string &path, std::string *text) {
    int fd = desk_open(h, path, O_RDONLY);
    if (fd < 0) {
        return desk_fail_errno(path);
    }
    text->clear();
    const bool got = read_all(fd, text) || desk_fail_errno(path);
    close(fd);
    return got;
}

std::string desk_file_text(desk *h, const std::string &path) {
    std::string text;
    return desk_read_file(h, path, &text) ? text : "";
}

static bool write_all(int fd, const std::string &text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t put = write(fd, text.data() + done, text.size() - done);
        if (put <= 0) {
            return false;
        }
        done += static_cast<size_t>(put);
    }
    return true;
}

bool desk_write_file(desk *h, const std::string &path, const std::string &text, mode_t mode, uid_t uid, gid_t gid) {
    bool existed = desk_exists(h, path);
    int fd = desk_open(h, path, O_WRONLY | O_CREAT | O_TRUNC, mode);
    if (fd < 0) {
        return desk_fail_errno(path);
    }
    bool written = write_all(fd, text) && (existed || (fchown(fd, uid, gid) == 0 && fchmod(fd, mode) == 0));
    written = written || desk_fail_errno(path);
    close(fd);
    return written;
}

bool desk_append_file(desk *h, const std::string &path, const std::string &text) {
    int fd = desk_open(h, path, O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd < 0) {
        return desk_fail_errno(path);
    }
    bool written = write_all(fd, text) || desk_fail_errno(path);
    close(fd);
    return written;
}

bool desk_bring(desk *h, const std::string &host_source, const std::string &path, mode_t mode, uid_t uid, gid_t gid) {
    const int in = open(host_source.c_str(), O_RDONLY | O_CLOEXEC);
    std::string text;
    struct stat st;
    const bool is_read = in >= 0 && fstat(in, &st) == 0 && read_all(in, &text);
    const bool is_brought = is_read || desk_fail_errno(host_source);
    if (in >= 0) {
        close(in);
    }
    return is_brought && desk_remove(h, path) && desk_write_file(h, path, text, mode | (st.st_mode & 0111), uid, gid);
}

static bool stat_with(desk *h, const std::string &path, int flags, struct stat *st) {
    int fd = desk_open(h, path, O_PATH | flags);
    if (fd < 0) {
        return desk_fail_errno(path);
    }
    bool got = fstat(fd, st) == 0 || desk_fail_errno(path);
    close(fd);
    return got;
}

bool desk_stat(desk *h, const std::string &path, struct stat *st) {
    return stat_with(h, path, 0, st);
}

bool desk_lstat(desk *h, const std::string &path, struct stat *st) {
    return stat_with(h, path, O_NOFOLLOW, st);
}

bool desk_exists(desk *h, const std::string &path) {
    struct stat st;
    return desk_lstat(h, path, &st);
}

std::string desk_link_target(desk *h, const std::string &path) {
    int fd = desk_open(h, path, O_PATH | O_NOFOLLOW);
    if (fd < 0) {
        return "";
    }
    char target[4096];
    ssize_t length = readlinkat(fd, "", target, sizeof(target));
    close(fd);
    return length > 0 ? std::string(target, static_cast<size_t>(length)) : "";
}

std::string desk_owner(desk *h, const std::string &path) {
    struct stat st;
    if (!desk_stat(h, path, &st)) {
        return "";
    }
    char text[64];
    snprintf(text, sizeof(text), "%04o %u:%u", static_cast<unsigned>(st.st_mode & 07777),
             static_cast<unsigned>(st.st_uid), static_cast<unsigned>(st.st_gid));
    return text;
}

std::vector<std::string> names_in(int fd) {
    std::vector<std::string> names;
    DIR *dir = fdopendir(fd);
    if (dir == nullptr) {
        close(fd);
        return names;
    }
    for (struct dirent *entry; (entry = readdir(dir)) != nullptr;) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> desk_list(desk *h, const std::string &path) {
    int fd = desk_open(h, path, O_RDONLY | O_DIRECTORY);
    return fd < 0 ? std::vector<std::string>() : names_in(fd);
}

// Opens the parent directory; `name` becomes the last part of the path.
static int open_parent(desk *h, const std::string &path, std::string *name) {
    size_t slash = path.rfind('/');
    *name = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string parent = slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash);
    return desk_open(h, parent, O_PATH | O_DIRECTORY);
}

static bool make_one_dir(desk *h, const std::string &path) {
    std::string name;
    int parent = open_parent(h, path, &name);
    if (parent < 0) {
        return false;
    }
    bool made = mkdirat(parent, name.c_str(), 0755) == 0 || errno == EEXIST;
    close(parent);
    return made;
}

bool desk_make_dir(desk *h, const std::string &path, mode_t mode, uid_t uid, gid_t gid) {
    if (desk_exists(h, path)) {
        return true;
    }
    if (desk_in_place() && !in_place_owns(path)) {
        return false;
    }
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        if (!make_one_dir(h, path.substr(0, slash))) {
            return desk_fail_errno(path);
        }
    }
    if (!make_one_dir(h, path)) {
        return desk_fail_errno(path);
    }
    int fd = desk_open(h, path, O_RDONLY | O_DIRECTORY);
    bool set = fd >= 0 && fchown(fd, uid, gid) == 0 && fchmod(fd, mode) == 0;
    set = set || desk_fail_errno(path);
    if (fd >= 0) {
        close(fd);
    }
    return set;
}

static bool remove_at(int parent, const std::string &name) {
    if (unlinkat(parent, name.c_str(), 0) == 0 || errno == ENOENT) {
        return true;
    }
    if (errno != EISDIR) {
        return false;
    }
    int fd = openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    int listing = dup(fd);
    for (const std::string &child : names_in(listing)) {
        remove_at(fd, child);
    }
    close(fd);
    return unlinkat(parent, name.c_str(), AT_REMOVEDIR) == 0;
}

bool desk_remove(desk *h, const std::string &path) {
    if (desk_in_place() && !in_place_owns(path)) {
        return false;
    }
    std::string name;
    int parent = open_parent(h, path, &name);
    if (parent < 0) {
        return errno == ENOENT || desk_fail_errno(path);
    }
    bool removed = remove_at(parent, name) || desk_fail_errno(path);
    close(parent);
    return removed;
}

bool desk_fill_data(desk *h, uint64_t available) {
    if (desk_in_place()) {
        return in_place_missing("file systems of a chosen size");
    }
    if (!desk_remove(h, "/data/.fill")) {
        return false;
    }
    int fd = desk_open(h, "/data/.fill", O_WRONLY | O_CREAT, 0600);
    struct statfs fs;
    if (fd < 0 || fstatfs(fd, &fs) != 0) {
        return desk_fail_errno("/data/.fill");
    }
    uint64_t now = static_cast<uint64_t>(fs.f_bavail) * static_cast<uint64_t>(fs.f_bsize);
    bool filled = now >= available;
    if (!filled) {
        desk_fail("less is free already");
    } else if (now > available) {
        filled = fallocate(fd, 0, 0, static_cast<off_t>(now - available)) == 0 || desk_fail_errno("/data/.fill");
    }
    close(fd);
    return filled;
}

int desk_open_tty(desk *h, const std::string &path, int limit_ms, int flags) {
    int fd = -1;
    desk_until(
        [&] {
            fd = desk_open(h, path, O_RDWR | O_NOCTTY | flags);
            return fd >= 0;
        },
        limit_ms);
    if (fd < 0) {
        desk_fail_errno(path);
    }
    return fd;
}

bool desk_wait_path(desk *h, const std::string &path, bool present, int limit_ms) {
    return desk_until([&] { return desk_exists(h, path) == present; }, limit_ms);
}

bool desk_wait_text(desk *h, const std::string &path, const std::string &part, int limit_ms) {
    return desk_until([&] { return desk_file_text(h, path).find(part) != std::string::npos; }, limit_ms);
}

bool desk_wait_gone(desk *h, pid_t pid, int limit_ms) {
    return desk_wait_path(h, "/proc/" + std::to_string(pid), false, limit_ms);
}
