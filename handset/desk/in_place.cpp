// Handsets in place: what they do not have, and the lock that allows one at a time. init creates and removes their files
// (handset/init/in_place.cpp). State: whether this process has one, and the callback for what is missing.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "handset/common/paths.h"
#include "handset/desk/handle.h"

static bool m_locked = false;
static void (*m_on_missing)(const std::string &) = nullptr;

bool desk_in_place() {
    const char *wanted = getenv("DESK_IN_PLACE");
    return wanted != nullptr && strcmp(wanted, "1") == 0;
}

void desk_on_missing(void (*call)(const std::string &what)) {
    m_on_missing = call;
}

bool in_place_missing(const std::string &what) {
    if (m_on_missing != nullptr) {
        m_on_missing(what);
    }
    return desk_fail("a handset in place has no " + what);
}

static bool starts(const std::string &path, const std::string &start) {
    return path.compare(0, start.size(), start) == 0;
}

// The machine's terminals have names like the handset's, but those are links.
static bool is_device(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISCHR(st.st_mode);
}

// A path with ".." or "." is refused, also at its end: /data/.. is the machine's root.
bool in_place_owns(const std::string &path) {
    std::string closed = path + "/";
    bool plain = closed.find("/../") == std::string::npos && closed.find("/./") == std::string::npos;
    for (const char *own : {"/system/", "/data/", "/storage/", "/desk/", "/dev/socket/", "/dev/.desk/", "/dev/tty"}) {
        if (plain && starts(path, own) && !is_device(path)) {
            return true;
        }
    }
    return in_place_missing("files outside of its directories (" + path + ")");
}

bool in_place_allows(const desk_options &options) {
    const desk_options plain;
    if (options.data_size != plain.data_size || options.sd_card_size != plain.sd_card_size) {
        return in_place_missing("file systems of a chosen size");
    }
    if (!options.tmp) {
        return in_place_missing("/tmp of its own");
    }
    for (const desk_file &file : options.files) {
        if (!in_place_owns(file.path)) {
            return false;
        }
    }
    for (const std::string &path : options.absent) {
        if (!in_place_owns(path)) {
            return false;
        }
    }
    return true;
}

// False when an earlier handset has removed the file since it was opened.
static bool is_current(int fd) {
    struct stat here;
    struct stat there;
    return fstat(fd, &here) == 0 && stat(IN_PLACE_REGISTER, &there) == 0 && here.st_ino == there.st_ino;
}

int in_place_lock(int limit_ms) {
    if (m_locked) {
        in_place_missing("second handset at the same time");
        return -1;
    }
    int fd = -1;
    bool locked = desk_until(
        [&fd] {
            fd = open(IN_PLACE_REGISTER, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
            if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0 && is_current(fd)) {
                return true;
            }
            close(fd);
            return false;
        },
        limit_ms);
    if (!locked) {
        desk_fail(std::string(IN_PLACE_REGISTER) + " cannot be locked: another handset runs in place");
    }
    m_locked = locked;
    return locked ? fd : -1;
}

void in_place_unlock(int fd) {
    close(fd);
    m_locked = false;
}

void in_place_hide_name() {
    static const char name[] = "zr-qel-sa";
    for (char *at = program_invocation_name; (at = strstr(at, name)) != nullptr;) {
        memset(at, '-', sizeof(name) - 1);
    }
}
