// What the files of the command line tool share.
#ifndef HANDSET_DESK_HANDSET_H
#define HANDSET_DESK_HANDSET_H

#include "handset/desk/desk.h"

// One call of `handset`.
struct handset_call {
    std::string verb;  // "run", "boot", "shell", "enter"
    desk_options options;
    std::vector<std::string> program;  // run: what stands behind "--"
    std::string state;                 // host directory that keeps /data between boots, "": none
    int entered = 0;                   // enter: init's pid
    bool detach = false;               // boot: come back once it is up, and leave it running
    std::string pid_file;              // boot: holds the pid of init while the handset is up, "": none
    int adb_port = 0;                  // boot, shell: TCP port of this machine for its adb daemon, 0: none
    int uid = 0;
    int gid = 0;
};

// Reads the command line. Returns -1 to go on, else the status to end with (help or a mistake, already told).
int handset_parse(int argc, char **argv, handset_call *call);

// Runs a shell, or `argv`, on a terminal of the handset that is connected to this process' own; returns its status.
int handset_shell(desk *h, const std::vector<std::string> &argv);

#endif
