// The rings of the log daemon: one a buffer, bounded in bytes, oldest entries leave first. Every call is safe from any
// thread.
#ifndef HANDSET_LOGD_STORE_H
#define HANDSET_LOGD_STORE_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "handset/logd/wire.h"

struct log_entry {
    uint64_t sequence = 0;  // over all buffers, in the order of arrival, from 1
    log_answer_header header = {};
    std::string payload;
};

// Which entries a reader gets.
struct log_query {
    unsigned buffers = 0;    // bit N: buffer N
    bool all_users = false;  // else only entries of `uid`
    uid_t uid = 0;
    pid_t pid = 0;          // 0: of all processes
    uint64_t after_ns = 0;  // of what is stored, only entries later than this time stamp; later ones are not held to it
    uint64_t stored_until = 0;  // the sequence number up to which `after_ns` counts
};

// Bytes of payload and header that each ring may hold.
void store_set_limit(size_t bytes);
// Goes on numbering after `sequence`, the last number of a daemon before this one. Before the first entry only.
void store_continue(uint64_t sequence);
// Numbers the entries and adds them to their rings (header.buffer is valid), dropping old ones.
void store_add(std::vector<log_entry> *entries);
// Sequence number of the newest entry, 0 when there was none.
uint64_t store_newest();
// Copies the first entry that `query` wants whose number is at least `from`; false when there is none.
bool store_next(const log_query &query, uint64_t from, log_entry *out);
// The number from which `count` entries that `query` wants are left.
uint64_t store_tail(const log_query &query, size_t count);

#endif
