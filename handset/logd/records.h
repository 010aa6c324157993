// Records as senders put them into the socket, and which of them become entries.
#ifndef HANDSET_LOGD_RECORDS_H
#define HANDSET_LOGD_RECORDS_H

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "handset/logd/store.h"
#include "handset/logd/wire.h"

struct raw_head {
    uint32_t length;  // of the datagram that follows
    bool has_sender;
    struct ucred sender;
};

struct raw_record {
    raw_head head;
    char bytes[sizeof(log_record_header) + kLogPayloadMax];
};
static_assert(offsetof(raw_record, bytes) == sizeof(raw_head), "a record is appended in one piece");

// The entries of a batch: whole raw records, one behind the other, each as long as its head says. Left out is what is
// a mere header, for no buffer or for the kernel's, or of unknown origin.
std::vector<log_entry> records_accept(const std::string &batch);

#endif
