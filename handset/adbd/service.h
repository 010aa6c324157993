// What a PC may ask of the daemon: a device file, a command, the file service.
#ifndef HANDSET_ADBD_SERVICE_H
#define HANDSET_ADBD_SERVICE_H

#include <sys/types.h>

#include <string>

// What a started service is reached by. The descriptors belong to whoever started it.
struct adb_service {
    int in = -1;   // what the PC sends is written here
    int out = -1;  // standard output, or the device; may be the same descriptor as `in`
    int err = -1;  // standard error of a command with packets, else -1
    pid_t pid = -1;
    bool has_packets = false;  // shell_v2: the data are packets, and an exit status ends them
    bool has_terminal = false;
};

// Starts the service of this name ("dev:/dev/ttyCMD0"). Descriptors are non-blocking. Result: false when there is no
// such service or it cannot be started.
bool service_start(const std::string &name, adb_service *service);

// Serves file requests ("sync:") on a connected socket until the client quits, blocking. In sync.cpp.
void sync_serve(int fd);

#endif
