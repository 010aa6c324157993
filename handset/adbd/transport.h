// Messages between an adb server and the daemon: six little-endian words and the data.
#ifndef HANDSET_ADBD_TRANSPORT_H
#define HANDSET_ADBD_TRANSPORT_H

#include <stdint.h>

#include <string>

constexpr uint32_t ADB_CNXN = 0x4e584e43;
constexpr uint32_t ADB_OPEN = 0x4e45504f;
constexpr uint32_t ADB_OKAY = 0x59414b4f;
constexpr uint32_t ADB_CLSE = 0x45534c43;
constexpr uint32_t ADB_WRTE = 0x45545257;
constexpr uint32_t ADB_VERSION = 0x01000001;  // from this version on nobody checks the sum of the data
constexpr uint32_t ADB_DATA_MAX = 1024 * 1024;

struct adb_message {
    uint32_t command;
    uint32_t arg0;
    uint32_t arg1;
    std::string data;
};

// Reads one message, blocking. Result: false when the connection has ended or what came is no message.
bool message_read(int fd, adb_message *message);

// Writes one message, blocking. Result: false when the connection has ended.
bool message_write(int fd, uint32_t command, uint32_t arg0, uint32_t arg1, const std::string &data = "");

// Reads or writes exactly `size` bytes, blocking. Result: false at the end of the connection.
bool read_exactly(int fd, void *data, size_t size);
bool write_exactly(int fd, const void *data, size_t size);

#endif
