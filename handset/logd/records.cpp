// Lets in what has the shape of a record. No state.
#include "handset/logd/records.h"

#include <string.h>

#include <utility>

static constexpr unsigned kKernelBuffer = 7;  // filled by the kernel, never by a program

static void accept_record(const raw_head &head, const char *bytes, std::vector<log_entry> *entries) {
    log_record_header from;
    if (head.length <= sizeof from || !head.has_sender) {
        return;
    }
    memcpy(&from, bytes, sizeof from);
    if (from.buffer >= kLogBufferCount || from.buffer == kKernelBuffer) {
        return;
    }
    log_entry entry;
    entry.payload.assign(bytes + sizeof from, head.length - sizeof from);
    entry.header.length = static_cast<uint16_t>(entry.payload.size());
    entry.header.header_size = sizeof entry.header;
    entry.header.pid = head.sender.pid;
    entry.header.uid = head.sender.uid;
    entry.header.tid = from.tid;
    entry.header.sec = from.sec;
    entry.header.nsec = from.nsec;
    entry.header.buffer = from.buffer;
    entries->push_back(std::move(entry));
}

std::vector<log_entry> records_accept(const std::string &batch) {
    std::vector<log_entry> entries;
    raw_head head;
    for (size_t at = 0; at < batch.size(); at += sizeof head + head.length) {
        memcpy(&head, batch.data() + at, sizeof head);
        accept_record(head, batch.data() + at + sizeof head, &entries);
    }
    return entries;
}
