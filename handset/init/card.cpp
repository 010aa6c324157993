// The removable card: a file system of its own that can be pulled and put back with what is on it.
// State: whether its file system exists yet; it stays mounted out of sight for as long as the handset lives.
#include <errno.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "init.h"

#define CARD_HOME DESK_DIR "/card"
#define CARD_PLACE "/storage/real_sd"

static bool m_made = false;

// In place the card is a plain directory, and cannot be pulled.
static int make_fixed_card() {
    bool made = mkdir(CARD_PLACE, 0775) == 0 && chmod(CARD_PLACE, 0775) == 0 && chown(CARD_PLACE, 1000, 1015) == 0;
    return made ? 0 : errno;
}

static bool make_card() {
    if (m_made) {
        return true;
    }
    std::string size =
        text_format("mode=0775,uid=1000,gid=1015,size=%llu", static_cast<unsigned long long>(options().card_size));
    mkdir(CARD_HOME, 0700);
    m_made = mount("tmpfs", CARD_HOME, "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, size.c_str()) == 0;
    return m_made;
}

// The place exists only while the card is in: without it nothing can be made there by mistake.
int card_set(bool present) {
    bool mounted = access(CARD_PLACE, F_OK) == 0;
    if (present == mounted) {
        return 0;
    }
    if (place_used()) {
        return present ? make_fixed_card() : ENOTSUP;
    }
    if (!present) {
        return umount2(CARD_PLACE, MNT_DETACH) == 0 && rmdir(CARD_PLACE) == 0 ? 0 : errno;
    }
    if (!make_card() || mkdir(CARD_PLACE, 0755) != 0) {
        return errno;
    }
    return mount(CARD_HOME, CARD_PLACE, nullptr, MS_BIND, nullptr) == 0 ? 0 : errno;
}
