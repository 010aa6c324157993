// Handsets in place: for containers that refuse new namespaces and mounts. All handsets of a process are booted so when
// its environment has DESK_IN_PLACE=1. The /system, /data, /storage and parts of /dev of such a handset are in the
// container's own root file system, its processes are in the container's pid namespace, and only one can exist at a time.
// It has no kernel messages and console level, no removable SD card, no file systems of a chosen size and no network of
// its own: a call that needs one of these fails.
#ifndef HANDSET_DESK_IN_PLACE_H
#define HANDSET_DESK_IN_PLACE_H

#include <string>

bool desk_in_place();
// Sets a function that is called, with what is missing, before such a call fails. It may throw.
void desk_on_missing(void (*call)(const std::string &what));

#endif
