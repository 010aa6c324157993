// Shared parts of the desk handset's tests. No state.
#include "fixture.h"

#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/support/lack.h"

static const bool m_skipping = skip_what_lacks();

handset::handset(const desk_options &options) : h(desk_boot(options)) {}

handset::~handset() {
    desk_end(h);
}

desk_options handset::no_agent() {
    desk_options options;
    options.agent = false;
    return options;
}

int property_connect(desk *h) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, desk_host_path(h, "/dev/socket/property_service").c_str(), sizeof(addr.sun_path) - 1);
    if (fd >= 0 && connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

std::string property_exchange(desk *h, const std::string &bytes, bool half_close) {
    int fd = property_connect(h);
    if (fd < 0) {
        return "no connection";
    }
    send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (half_close) {
        shutdown(fd, SHUT_WR);
    }
    std::string answer;
    char buf[256];
    for (ssize_t got; (got = recv(fd, buf, sizeof(buf), 0)) > 0;) {
        answer.append(buf, static_cast<size_t>(got));
    }
    close(fd);
    return answer;
}

static std::string number_bytes(uint32_t value) {
    return std::string(reinterpret_cast<const char *>(&value), sizeof(value));
}

std::string property_request_bytes(const std::string &name, const std::string &value, uint32_t command) {
    return number_bytes(command) + number_bytes(static_cast<uint32_t>(name.size())) + name +
           number_bytes(static_cast<uint32_t>(value.size())) + value;
}

int property_reply(desk *h, const std::string &name, const std::string &value) {
    std::string answer = property_exchange(h, property_request_bytes(name, value));
    int32_t code = -1;
    if (answer.size() == sizeof(code)) {
        memcpy(&code, answer.data(), sizeof(code));
    }
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
