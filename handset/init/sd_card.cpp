// The removable SD card: a file system of its own, which can be unmounted and mounted again with its content.
// State: whether its file system exists; it stays mounted at kHiddenMount while the handset runs.
#include <errno.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "handset/init/init.h"

static const char kHiddenMount[] = DESK_DIR "/sd_card";
static const char kMount[] = "/storage/real_sd";

static bool m_is_made = false;

// In place the card is a plain directory, which cannot be unmounted.
static int make_directory() {
    bool made = mkdir(kMount, 0775) == 0 && chmod(kMount, 0775) == 0 && chown(kMount, 1000, 1015) == 0;
    return made ? 0 : errno;
}

static bool make_file_system() {
    if (m_is_made) {
        return true;
    }
    std::string size =
        text_format("mode=0775,uid=1000,gid=1015,size=%llu", static_cast<unsigned long long>(options().sd_card_size));
    mkdir(kHiddenMount, 0700);
    m_is_made = mount("tmpfs", kHiddenMount, "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, size.c_str()) == 0;
    return m_is_made;
}

// The mount point exists only while the card is mounted, so that nothing is written below it by mistake.
int sd_card_set(bool present) {
    bool mounted = access(kMount, F_OK) == 0;
    if (present == mounted) {
        return 0;
    }
    if (is_in_place()) {
        return present ? make_directory() : ENOTSUP;
    }
    if (!present) {
        return umount2(kMount, MNT_DETACH) == 0 && rmdir(kMount) == 0 ? 0 : errno;
    }
    if (!make_file_system() || mkdir(kMount, 0755) != 0) {
        return errno;
    }
    return mount(kHiddenMount, kMount, nullptr, MS_BIND, nullptr) == 0 ? 0 : errno;
}
