// Messages between an adb server and the daemon. No state.
#include "transport.h"

#include <errno.h>
#include <sys/uio.h>
#include <unistd.h>

// As on the wire; this machine and the wire are both little-endian.
struct adb_header {
    uint32_t command;
    uint32_t arg0;
    uint32_t arg1;
    uint32_t length;
    uint32_t sum;
    uint32_t magic;
};
static_assert(sizeof(adb_header) == 24, "six words");

bool read_exactly(int fd, void *data, size_t size) {
    char *at = static_cast<char *>(data);
    while (size > 0) {
        ssize_t got = read(fd, at, size);
        if (got == 0 || (got < 0 && errno != EINTR)) {
            return false;
        }
        at += got > 0 ? got : 0;
        size -= got > 0 ? static_cast<size_t>(got) : 0;
    }
    return true;
}

bool write_exactly(int fd, const void *data, size_t size) {
    const char *at = static_cast<const char *>(data);
    while (size > 0) {
        ssize_t done = write(fd, at, size);
        if (done < 0 && errno != EINTR) {
            return false;
        }
        at += done > 0 ? done : 0;
        size -= done > 0 ? static_cast<size_t>(done) : 0;
    }
    return true;
}

bool message_read(int fd, adb_message *message) {
    adb_header header;
    if (!read_exactly(fd, &header, sizeof(header)) || header.magic != ~header.command || header.length > ADB_DATA_MAX) {
        return false;
    }
    message->command = header.command;
    message->arg0 = header.arg0;
    message->arg1 = header.arg1;
    message->data.resize(header.length);
    return read_exactly(fd, &message->data[0], header.length);
}

bool message_write(int fd, uint32_t command, uint32_t arg0, uint32_t arg1, const std::string &data) {
    // Servers of the old version check the sum, and the handshake is made before the versions are known.
    uint32_t sum = 0;
    if (command == ADB_CNXN) {
        for (char byte : data) {
            sum += static_cast<unsigned char>(byte);
        }
    }
    adb_header header = {command, arg0, arg1, static_cast<uint32_t>(data.size()), sum, ~command};
    return write_exactly(fd, &header, sizeof(header)) && write_exactly(fd, data.data(), data.size());
}
