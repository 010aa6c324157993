#pragma once
// One stream of bytes from the handset into a file of this machine, checked by size and checksum, and continued where an
// earlier run was broken off.

#include <cstdint>
#include <string>
#include <vector>

#include "options.h"

// Size and checksum of a stream, as `cksum` tells them on both sides.
struct stream_sum {
    unsigned long long crc = 0;
    unsigned long long size = 0;
};

struct transfer {
    std::string title;          // what a person calls it
    std::string check;          // shell condition on the handset, false where there is nothing to transfer
    std::string absent;         // the sentence for that
    std::string command;        // prints the stream on the handset
    bool may_be_empty = false;  // else an empty stream means that the command does not work there
    std::string part;           // path of the stream so far; what it was when begun is in part + ".sum"
    int fd = -1;                // of part; holds the lock that keeps a second sa-host away
    stream_sum whole;
    unsigned long long done = 0;   // bytes in part
    unsigned long long begun = 0;  // of these, from an earlier run
    int64_t start_ms = 0;
    int64_t shown_ms = 0;
};

// Brings the stream into job->part and checks it. Result: a host_status, with failures said; on HOST_OK job->fd is open at
// the complete stream. To be followed by transfer_end in any case.
int transfer_receive(const host_options &options, transfer *job);

// Closes the part; with `is_taken` its bytes are no longer needed and are removed.
void transfer_end(transfer *job, bool is_taken);

// Shows `done` of job->whole.size bytes as progress, a few times a second.
void transfer_progress(transfer *job);

// Computes the sum of a local file from its beginning. Result: whether it could be computed; if not, it has been said.
bool transfer_sum(int fd, stream_sum *sum);

bool stream_sum_is_same(const stream_sum &a, const stream_sum &b);

// Runs a program of this machine with `in_fd` as its input and collects its output. Result: its exit status, or -1.
int run_local(const std::vector<const char *> &words, int in_fd, std::string *out);
