// mount: changes nothing. Appends a line with its arguments, separated by tabs, to DESK_DIR/mount.calls. No state.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "handset/common/paths.h"

int main(int argc, char **argv) {
    std::string line;
    for (int i = 1; i < argc; i++) {
        line += line.empty() ? "" : "\t";
        line += argv[i];
    }
    line += '\n';
    int fd = open(DESK_DIR "/mount.calls", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (fd < 0) {
        return 1;
    }
    fchmod(fd, 0666);  // callers have several users and umasks; only the first one may change the mode
    return write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size()) ? 0 : 1;
}
