// sa-host: the host side of the agent's command channel and remote shell. Owns nothing but the start of one
// sub-command.

#include <fcntl.h>
#include <unistd.h>
#include <string>
#include <vector>

#include "command.h"
#include "message.h"
#include "options.h"

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
    host_options options;
    size_t at = 0;
    bool is_help = false;
    if (!fill_streams() || !options_read(words, &at, &options, &is_help)) {
        return HOST_REFUSED;
    }
    if (is_help) {
        command_help();
        return HOST_OK;
    }
    if (at == words.size()) {
        say("Give a sub-command, for example: sa-host send AT. See sa-host --help.");
        return HOST_REFUSED;
    }
    words.erase(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(at));
    return command_run(options, words);
}
