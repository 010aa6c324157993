// What the log daemon shares with those who write to it and those who read from it: socket paths, record layouts,
// names of buffers and priorities. All numbers are little-endian, as every machine that a handset runs on is.
#ifndef HANDSET_LOGD_WIRE_H
#define HANDSET_LOGD_WIRE_H

#include <stddef.h>
#include <stdint.h>

static constexpr char kLogWriteSocket[] = "/dev/socket/logdw";  // datagrams, one a record
static constexpr char kLogReadSocket[] = "/dev/socket/logdr";   // seqpacket: one request, then an answer a record

static constexpr size_t kLogPayloadMax = 4068;  // of one record, all but the header

// In front of a record on the way in. Who sent it (pid, uid) comes from the kernel.
struct __attribute__((packed)) log_record_header {
    uint8_t buffer;
    uint16_t tid;  // the low half of it
    uint32_t sec;
    uint32_t nsec;
};
static_assert(sizeof(log_record_header) == 11);

// In front of a record on the way out.
struct log_answer_header {
    uint16_t length;  // of the payload that follows
    uint16_t header_size;
    int32_t pid;
    uint32_t tid;
    uint32_t sec;
    uint32_t nsec;
    uint32_t buffer;
    uint32_t uid;
};
static_assert(sizeof(log_answer_header) == 28);

// A record read back, its payload with room for a closing NUL.
struct log_answer {
    log_answer_header header;
    unsigned char payload[kLogPayloadMax + 1];
};

static constexpr unsigned kLogBufferCount = 8;

// Name of a buffer, null for a number that is none.
const char *log_buffer_name(unsigned buffer);
// Number of a buffer, -1 for an unknown name.
int log_buffer_number(const char *name);
// Whether the buffer holds binary records (a number and typed values) instead of priority, tag and text.
bool log_buffer_is_binary(unsigned buffer);
// The letter that stands for a priority, '?' for a number that has none.
char log_priority_letter(int priority);

// The pieces of a payload. Pointers go into the payload (binary: `values`), nothing is copied.
struct log_text {
    int priority;
    const char *tag;
    size_t tag_length;
    const char *text;  // ends at its first NUL
    size_t text_length;
};
// Takes a text payload apart; false when it has no priority, tag and NUL.
bool log_split_text(const unsigned char *payload, size_t length, log_text *out);

struct log_event {
    uint32_t number;
    const unsigned char *values;
    size_t values_length;
};
// Takes a binary payload apart; false when it is too short to hold a number.
bool log_split_event(const unsigned char *payload, size_t length, log_event *out);

#endif
