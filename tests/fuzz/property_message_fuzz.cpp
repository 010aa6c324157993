// Messages to the property service of the handset's init. The first byte of the input says how a client sends the rest:
// bits 0 to 6 how many bytes at once (0: all), bit 7 whether it then waits for the service to lose its patience or ends
// the connection. State: what the service has asked of init's loop.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "handset/init/init.h"
#include "handset/platform/property_area.h"

static std::map<int, std::function<void(uint32_t)>> m_watched;
static std::function<void()> m_timer;  // of the only client
static property_area *m_area;

// ---- init's other rooms

bool loop_watch(int fd, uint32_t, std::function<void(uint32_t)> ready) {
    m_watched[fd] = std::move(ready);
    return true;
}

void loop_forget(int fd) {
    m_watched.erase(fd);
}

int loop_after(int, std::function<void()> due) {
    m_timer = std::move(due);
    return 1;
}

void loop_cancel(int) {
    m_timer = nullptr;
}

void journal(const std::vector<std::string> &) {}

void actions_property_set(const std::string &, const std::string &) {}

uint32_t service_control(const std::string &verb, const std::string &) {
    return verb == "start" ? PROPERTY_OK : PROPERTY_CONTROL;
}

// ---- the client

// The handset's own init has served until now; this process takes its place at the socket and at the area.
static int open_service() {
    static const char area[] = "/dev/__properties__";
    unlink("/dev/socket/property_service");
    unlink(area);
    if (!properties_open() || !property_socket_open()) {
        abort();
    }
    const int fd = open(area, O_RDWR | O_CLOEXEC);
    m_area =
        static_cast<property_area *>(mmap(nullptr, sizeof(property_area), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    close(fd);
    return m_watched.begin()->first;
}

// Calls what waits for `fd`; it may forget itself meanwhile.
static void wake(int fd) {
    const auto ready = m_watched[fd];
    ready(1);
}

static bool is_served(int served) {
    return m_watched.count(served) != 0;
}

// Returns the client's end, and in `served` the service's.
static int connect_to(int listener, int *served) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/dev/socket/property_service");
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) != 0) {
        abort();
    }
    wake(listener);
    if (m_watched.size() != 2) {
        abort();
    }
    *served = m_watched.begin()->first != listener ? m_watched.begin()->first : m_watched.rbegin()->first;
    return fd;
}

static void send_pieces(int fd, int served, const uint8_t *data, size_t size, size_t piece) {
    char byte;
    for (size_t at = 0; at < size && is_served(served); at += piece) {
        if (send(fd, data + at, std::min(piece, size - at), MSG_NOSIGNAL) < 0) {
            abort();
        }
        while (is_served(served) && recv(served, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0) {
            wake(served);
        }
    }
}

static void end(int fd, int served, bool waits) {
    if (is_served(served) && waits) {
        const auto due = m_timer;
        due();
    } else if (is_served(served)) {
        shutdown(fd, SHUT_WR);
        wake(served);
    }
}

// The client got a code or nothing (a reset, when the service had enough before the message ended), and nothing of it
// stays behind.
static void check_end(int fd, int served) {
    uint32_t code[2];
    const ssize_t got = recv(fd, code, sizeof code, MSG_DONTWAIT);
    const bool is_answered = got == 0 || got == sizeof code[0] || (got == -1 && errno == ECONNRESET);
    if (!is_answered || is_served(served) || m_timer != nullptr || fcntl(served, F_GETFD) != -1) {
        abort();
    }
}

static void check_area() {
    for (uint32_t i = 0; i < m_area->count; i++) {
        const property_slot &slot = m_area->slots[i];
        if (strnlen(slot.name, sizeof slot.name) == sizeof slot.name || slot.length >= sizeof slot.value ||
            strlen(slot.value) != slot.length || slot.serial % 2 != 0 || property_value(slot.name) != slot.value) {
            abort();
        }
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const int listener = open_service();
    if (size < 2) {
        return 0;
    }
    memset(m_area->slots, 0, m_area->count * sizeof(property_slot));
    m_area->count = 0;
    property_store("ro.known", "1");
    int served = -1;
    const int fd = connect_to(listener, &served);
    send_pieces(fd, served, data + 1, size - 1, data[0] % 128 == 0 ? size : data[0] % 128);
    end(fd, served, data[0] >= 128);
    check_end(fd, served);
    check_area();
    close(fd);
    return 0;
}
