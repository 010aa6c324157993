// Paths and sizes that the programs of a handset, the desk library and the tests share.
#ifndef HANDSET_COMMON_PATHS_H
#define HANDSET_COMMON_PATHS_H

#define DESK_DIR "/dev/.desk"  // the handset's own files, which no device has
#define CONTROL_SOCKET DESK_DIR "/control"
#define INIT_JOURNAL DESK_DIR "/init.journal"
#define LOG_JOURNAL DESK_DIR "/log.journal"

// Register of a handset in place: locked while that handset exists, not empty while its files exist.
#define IN_PLACE_REGISTER "/.desk-handset"

enum { CONTROL_PACKET = 65536 };  // bytes of the longest request on CONTROL_SOCKET

#endif
