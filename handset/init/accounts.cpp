// The platform's users and groups, for rc files and for /etc/passwd and /etc/group. No state.
#include <ctype.h>
#include <stdlib.h>

#include "handset/init/init.h"

struct account {
    const char *name;
    unsigned id;
};

static const account kAccounts[] = {
    {"root", 0},    {"daemon", 1},     {"bin", 2},          {"system", 1000},   {"radio", 1001},     {"log", 1007},
    {"adb", 1011},  {"wifi", 1010},    {"sdcard_rw", 1015}, {"logd", 1036},     {"shell", 2000},     {"cache", 2001},
    {"inet", 3003}, {"net_raw", 3004}, {"net_admin", 3005}, {"readproc", 3009}, {"everybody", 9997}, {"nobody", 9999},
};

unsigned account_id(const std::string &name, unsigned fallback) {
    if (!name.empty() && isdigit(static_cast<unsigned char>(name[0]))) {
        return static_cast<unsigned>(strtoul(name.c_str(), nullptr, 10));
    }
    for (const account &row : kAccounts) {
        if (name == row.name) {
            return row.id;
        }
    }
    return fallback;
}

bool accounts_write() {
    std::string passwd;
    std::string group;
    for (const account &row : kAccounts) {
        passwd += text_format("%s:x:%u:%u::/:/system/bin/sh\n", row.name, row.id, row.id);
        group += text_format("%s:x:%u:\n", row.name, row.id);
    }
    // Debian's tcpdump changes to this user, the platform's runs as root.
    passwd += "tcpdump:x:0:0::/:/system/bin/sh\n";
    group += "tcpdump:x:0:\n";
    return text_write_file("/etc/passwd", passwd, 0644) && text_write_file("/etc/group", group, 0644) &&
           text_write_file("/etc/nsswitch.conf", "passwd: files\ngroup: files\nhosts: files\n", 0644) &&
           text_write_file("/etc/hosts", "127.0.0.1 localhost\n::1 localhost\n", 0644);
}
