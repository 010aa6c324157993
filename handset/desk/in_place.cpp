// Handsets in place: what they have not got, and that there is one at a time. Their making and removal are init's (see
// handset/init/place.cpp). State: whether this process has one, who wants to be told of what is missing.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "../init/control.h"
#include "handle.h"

static bool m_locked = false;
static void (*m_on_lack)(const std::string &) = nullptr;

bool desk_in_place() {
    const char *wanted = getenv("DESK_IN_PLACE");
    return wanted != nullptr && strcmp(wanted, "1") == 0;
}

void desk_on_lack(void (*call)(const std::string &what)) {
    m_on_lack = call;
}

bool desk_lacks(const std::string &what) {
    if (m_on_lack != nullptr) {
        m_on_lack(what);
    }
    return desk_fail("a handset in place has no " + what);
}

static bool starts(const std::string &path, const std::string &start) {
    return path.compare(0, start.size(), start) == 0;
}

// The machine's terminals have names like the handset's, which are links.
static bool is_device(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISCHR(st.st_mode);
}

// No name that leads upwards is the handset's, at its end neither: /data/.. is the machine's root.
bool in_place_owns(const std::string &path) {
    std::string closed = path + "/";
    bool plain = closed.find("/../") == std::string::npos && closed.find("/./") == std::string::npos;
    for (const char *own : {"/system/", "/data/", "/storage/", "/desk/", "/dev/socket/", "/dev/.desk/", "/dev/tty"}) {
        if (plain && starts(path, own) && !is_device(path)) {
            return true;
        }
    }
    return desk_lacks("files of its own outside of its directories (" + path + ")");
}

bool in_place_allows(const desk_options &options) {
    const desk_options plain;
    if (options.data_size != plain.data_size || options.card_size != plain.card_size) {
        return desk_lacks("file systems of a chosen size");
    }
    if (options.printk != plain.printk) {
        return desk_lacks("console level of its own");
    }
    if (!options.link.empty()) {
        return desk_lacks("network of its own");
    }
    if (!options.tmp) {
        return desk_lacks("/tmp of its own");
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

// The file may have been removed, with the handset before, after it was opened.
static bool is_current(int fd) {
    struct stat here;
    struct stat there;
    return fstat(fd, &here) == 0 && stat(PLACE_REGISTER, &there) == 0 && here.st_ino == there.st_ino;
}

int in_place_lock(int limit_ms) {
    if (m_locked) {
        desk_lacks("second handset beside it");
        return -1;
    }
    int fd = -1;
    bool locked = desk_until(
        [&fd] {
            fd = open(PLACE_REGISTER, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
            if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0 && is_current(fd)) {
                return true;
            }
            close(fd);
            return false;
        },
        limit_ms);
    if (!locked) {
        desk_fail(std::string(PLACE_REGISTER) + " cannot be locked: another handset runs in place");
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
