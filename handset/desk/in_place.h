// Handsets in place: for containers that refuse new namespaces and mounts. All handsets of a process are booted so when
// its environment says DESK_IN_PLACE=1. Such a handset's /system, /data, /storage and parts of /dev stand in the
// container's own root, its processes among the container's, its inner and outer pids are the same, and there is one at a
// time. It has no kernel messages and console level, no card that can be pulled, no file systems of a chosen size and no
// network of its own: what asks for one of these fails.
#ifndef HANDSET_DESK_IN_PLACE_H
#define HANDSET_DESK_IN_PLACE_H

#include <string>

bool desk_in_place();
// Before such a call fails, `call` is told what is missing. It may throw.
void desk_on_lack(void (*call)(const std::string &what));

#endif
