// What the log daemon and the programs that use it share: socket paths, the record layout, names of buffers and
// priorities. All numbers are little-endian, as on every machine that runs a handset.
#ifndef HANDSET_LOGD_WIRE_H
#define HANDSET_LOGD_WIRE_H

#include <stddef.h>
#include <stdint.h>

#define LOG_WRITE_SOCKET "/dev/socket/logdw"  // datagrams, one a record
// A connection gets one byte whenever the log journal has grown, and ends with the daemon.
#define LOG_READ_SOCKET "/dev/socket/logdr"

static const size_t kLogPayloadMax = 4068;  // bytes of one record, without its header

// In front of each record. The kernel adds the sender's pid and uid.
struct __attribute__((packed)) log_record_header {
    uint8_t buffer;
    uint16_t tid;  // its low 16 bits
    uint32_t sec;
    uint32_t nsec;
};
static_assert(sizeof(log_record_header) == 11);

static const unsigned kLogBufferCount = 8;

// Types of the value of an events record. The platform has more.
enum log_event_type {
    LOG_EVENT_INT = 0,     // 4 bytes
    LOG_EVENT_STRING = 2,  // length in 4 bytes, then that many bytes, no NUL
};

// Name of a buffer below kLogBufferCount.
const char *log_buffer_name(unsigned buffer);
// Number of a buffer, -1 for an unknown name.
int log_buffer_number(const char *name);
// The letter of a priority, '?' for an unknown number.
char log_priority_letter(int priority);
// The priority of a letter in either case, 0 for an unknown one.
int log_priority_number(char letter);

#endif
