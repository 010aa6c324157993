// sa-host: the host side of the agent's command channel and remote shell. Owns nothing but the start of one
// sub-command.

#include <fcntl.h>
#include <unistd.h>
#include <string>
#include <vector>

#include "command.h"
#include "message.h"

namespace {

// A descriptor opened later must not become one of the three streams by accident.
bool fill_streams() {
    int fd;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    return fd >= 0 && close(fd) == 0;
}

}  // namespace

int main(int argc, char **argv) {
    std::vector<std::string> words(argv + (argc > 0 ? 1 : 0), argv + argc);
    if (!fill_streams()) {
        return HOST_REFUSED;
    }
    return print_finish(command_line(words));
}
