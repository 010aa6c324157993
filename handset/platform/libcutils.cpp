// System properties for programs of a handset: reading maps the property area, setting asks init over its socket.
// State: the mapping, made at the first read and kept; it is published by one atomic store, so threads, forked children and
// signal handlers may all read properties.
#include <cutils/properties.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include "property_area.h"

enum {
    SET_COMMAND_OLD = 1,
    SET_COMMAND = 0x00020001,
    OLD_REPLY_MS = 250,  // the old protocol has no reply: init hangs up when it is done, or never mind
};

static const property_area *m_area = nullptr;  // written once, by whichever thread reads first

// Maps the area; null while there is none (outside of a handset, or before init has made it).
static const property_area *map_area() {
    const property_area *area = __atomic_load_n(&m_area, __ATOMIC_ACQUIRE);
    if (area != nullptr) {
        return area;
    }
    int fd = open("/dev/__properties__", O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        return nullptr;
    }
    struct stat st;
    void *memory = MAP_FAILED;
    if (fstat(fd, &st) == 0 && st.st_size >= static_cast<off_t>(sizeof(property_area))) {
        memory = mmap(nullptr, sizeof(property_area), PROT_READ, MAP_SHARED, fd, 0);
    }
    close(fd);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    area = static_cast<const property_area *>(memory);
    if (area->magic != PROPERTY_AREA_MAGIC) {
        munmap(memory, sizeof(property_area));
        return nullptr;
    }
    // Two first readers may both map; the later store wins and the other mapping stays for its reader.
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

// One fixed record and no reply: the hang-up says that init is done, and after a while that counts as done too.
static int set_old(const char *key, const char *value) {
    if (strlen(key) >= PROPERTY_KEY_MAX) {
        return -1;
    }
    struct {
        uint32_t command;
        char name[PROPERTY_KEY_MAX];
        char value[PROPERTY_VALUE_MAX];
    } record;
    memset(&record, 0, sizeof(record));
    record.command = SET_COMMAND_OLD;
    memcpy(record.name, key, strlen(key));
    memcpy(record.value, value, strlen(value));
    int fd = connect_init();
    if (fd < 0) {
        return -1;
    }
    struct iovec part = {&record, sizeof(record)};
    bool sent = send_parts(fd, &part, 1, sizeof(record));
    if (sent) {
        struct pollfd hangup = {fd, 0, 0};
        poll(&hangup, 1, OLD_REPLY_MS);
    }
    close(fd);
    return sent ? 0 : -1;
}

static int receive_reply(int fd) {
    uint32_t reply = 0;
    ssize_t got;
    do {
        got = recv(fd, &reply, sizeof(reply), MSG_WAITALL);
    } while (got < 0 && errno == EINTR);
    return got == static_cast<ssize_t>(sizeof(reply)) && reply == 0 ? 0 : -1;
}

static int set_with_reply(const char *key, const char *value) {
    int fd = connect_init();
    if (fd < 0) {
        return -1;
    }
    uint32_t command = SET_COMMAND;
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
    char version[PROPERTY_VALUE_MAX];
    bool replies = property_get("ro.property_service.version", version, "1") > 0 && atoi(version) >= 2;
    bool may_be_long = replies && strncmp(key, "ro.", 3) == 0;
    if (strlen(value) >= PROPERTY_VALUE_MAX && !may_be_long) {
        return -1;
    }
    return replies ? set_with_reply(key, value) : set_old(key, value);
}
