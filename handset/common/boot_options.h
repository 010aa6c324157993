// The options of a boot that the handset's init carries out: part of the desk library's options, passed to init as its
// argument vector.
#ifndef HANDSET_COMMON_BOOT_OPTIONS_H
#define HANDSET_COMMON_BOOT_OPTIONS_H

#include <stdint.h>

#include <string>
#include <utility>
#include <vector>

struct boot_options {
    bool agent = true;          // init starts the service zr-qel-sa at boot (false: it waits for ctl.start)
    bool log_dir = true;        // /data/local/log exists (0771, 2000:2000)
    bool sd_card = true;        // /storage/real_sd is mounted
    bool tmp = true;            // /tmp exists
    bool config = true;         // /system/etc/zr-qel-sa.cfg exists; its content is the repository's, or set by a file
    bool old_ctl = false;       // ctl.start and ctl.stop of an unknown service succeed (false: refused with 0x20)
    bool closed_stdin = false;  // services but logd start with descriptor 0 closed
    int restart_ms = 5000;      // shortest time between two starts of a crashing service
    int umask = 077;            // of services
    uint64_t sd_card_size = 64u << 20;  // bytes
    std::string output;                 // services but logd append stdout and stderr to this file instead of /dev/null
    std::vector<std::string> environment;  // NAME=VALUE added to that of services but logd, and of desk_run programs
    std::vector<std::pair<std::string, std::string>> properties;  // set before anything starts, in this order
};

// One "key=value" argument an option.
std::vector<std::string> boot_options_arguments(const boot_options &options);
// Takes one such argument; false when its key is unknown.
bool boot_options_take(const std::string &key, const std::string &value, boot_options *options);

#endif
