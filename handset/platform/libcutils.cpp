// System properties for programs of a handset: a read maps the property area, a set is a request to init.
// State: the mapping, made at the first read and kept. It is published by one atomic store, so that threads, forked
// children and signal handlers can read properties.
#include <cutils/properties.h>
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include "handset/platform/property_area.h"

static const uint32_t kSetCommand = 0x00020001;

static const property_area *m_area = nullptr;  // written by the first read of the process

// Maps the area; null when it does not exist (outside of a handset, or before init has created it).
static const property_area *map_area() {
    const property_area *area = __atomic_load_n(&m_area, __ATOMIC_ACQUIRE);
    if (area != nullptr) {
        return area;
    }
    area = property_area_map(open(PROPERTY_AREA_PATH, O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (area == nullptr) {
        return nullptr;
    }
    // Two threads may both map the area at their first read. Neither mapping is ever removed.
    __atomic_store_n(&m_area, area, __ATOMIC_RELEASE);
    return area;
}

int property_get(const char *key, char *value, const char *default_value) {
    const property_area *area = map_area();
    const property_slot *slot = area != nullptr ? property_area_find(area, key) : nullptr;
    size_t length = slot != nullptr ? property_slot_read(slot, value, PROPERTY_VALUE_MAX) : 0;
    if (length > 0) {
        return static_cast<int>(length);
    }
    if (default_value == nullptr) {
        value[0] = '\0';
        return 0;
    }
    length = strnlen(default_value, PROPERTY_VALUE_MAX - 1);
    memcpy(value, default_value, length);
    value[length] = '\0';
    return static_cast<int>(length);
}

static int connect_init() {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, "/dev/socket/property_service");
    int rc;
    do {
        rc = connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr));
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

static bool send_parts(int fd, const struct iovec *parts, int count, size_t total) {
    ssize_t sent;
    do {
        sent = writev(fd, parts, count);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(total);
}

static int receive_reply(int fd) {
    uint32_t reply = 0;
    ssize_t got;
    do {
        got = recv(fd, &reply, sizeof(reply), MSG_WAITALL);
    } while (got < 0 && errno == EINTR);
    return got == static_cast<ssize_t>(sizeof(reply)) && reply == 0 ? 0 : -1;
}

static int request_set(const char *key, const char *value) {
    int fd = connect_init();
    if (fd < 0) {
        return -1;
    }
    uint32_t command = kSetCommand;
    uint32_t key_length = static_cast<uint32_t>(strlen(key));
    uint32_t value_length = static_cast<uint32_t>(strlen(value));
    struct iovec parts[] = {{&command, sizeof(command)},
                            {&key_length, sizeof(key_length)},
                            {const_cast<char *>(key), key_length},
                            {&value_length, sizeof(value_length)},
                            {const_cast<char *>(value), value_length}};
    size_t total = sizeof(command) + 2 * sizeof(uint32_t) + key_length + value_length;
    int rc = send_parts(fd, parts, 5, total) ? receive_reply(fd) : -1;
    close(fd);
    return rc;
}

int property_set(const char *key, const char *value) {
    if (key == nullptr) {
        return -1;
    }
    if (value == nullptr) {
        value = "";
    }
    if (strlen(value) >= PROPERTY_VALUE_MAX && strncmp(key, "ro.", 3) != 0) {
        return -1;
    }
    return request_set(key, value);
}
