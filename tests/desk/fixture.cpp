// Shared parts of the desk handset's tests. No state.
#include "tests/desk/fixture.h"

#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/support/skip.h"

static const bool m_skipping = skip_unsupported();

handset::handset(const desk_options &options) : h(desk_boot(options)) {}

handset::~handset() {
    desk_end(h);
}

desk_options handset::no_agent() {
    desk_options options;
    options.agent = false;
    return options;
}

static std::string number_bytes(size_t value) {
    const auto number = static_cast<uint32_t>(value);
    return std::string(reinterpret_cast<const char *>(&number), sizeof(number));
}

int property_reply(desk *h, const std::string &name, const std::string &value) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, desk_host_path(h, "/dev/socket/property_service").c_str(), sizeof(addr.sun_path) - 1);
    const std::string bytes =
        number_bytes(0x00020001) + number_bytes(name.size()) + name + number_bytes(value.size()) + value;
    int32_t code = -1;
    if (connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) == 0 &&
        send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0 && recv(fd, &code, sizeof(code), 0) != sizeof(code)) {
        code = -1;
    }
    close(fd);
    return code;
}

desk_file rc_file(const std::string &text) {
    desk_file file;
    file.path = "/system/etc/init/test.rc";
    file.text = text;
    return file;
}

std::string states_of(desk *h, const std::string &service) {
    std::string states;
    for (const desk_event &event : desk_events(h, "svc")) {
        if (event.fields[0] == service) {
            states += (states.empty() ? "" : " ") + event.fields[1];
        }
    }
    return states;
}
