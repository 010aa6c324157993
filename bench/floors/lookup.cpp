// Floor of a process lookup: opens, reads and closes the command line of every process. No state.
#include <ctype.h>
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "bench/floors/floors.h"

static bool matches(const char *process, const char *name) {
    char path[64];
    char text[512];
    snprintf(path, sizeof(path), "/proc/%s/cmdline", process);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const ssize_t length = read(fd, text, sizeof(text) - 1);
    close(fd);
    text[length > 0 ? length : 0] = '\0';
    return strstr(text, name) != nullptr;
}

int floor_lookup(const char *name) {
    floor_line("[11-21 10:00:00.000]sa_util_get_pid \n");
    floor_line("[11-21 10:00:00.000]sa_util_get_pid process_name[zr-no-such]\n");
    int pid = 0;
    DIR *processes = opendir("/proc");
    struct dirent *entry;
    while (pid == 0 && (entry = readdir(processes)) != nullptr) {
        if (isdigit(static_cast<unsigned char>(entry->d_name[0])) != 0 && matches(entry->d_name, name)) {
            pid = atoi(entry->d_name);
        }
    }
    if (pid != 0) {
        floor_line("[11-21 10:00:00.000]sa_util_get_pid find pid[12345] buffer[zr-bench-last]\n");
    }
    closedir(processes);
    return pid;
}
