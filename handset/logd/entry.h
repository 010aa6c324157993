// Records of the log as lines of the log journal.
#ifndef HANDSET_LOGD_ENTRY_H
#define HANDSET_LOGD_ENTRY_H

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

#include <string>

// Appends the line of a record: number, sec.nsec, buffer, pid, tid, uid, priority letter, tag, text. The tag of a binary
// record is its number, the text its values. Appends nothing for a record without payload, or with the number of no
// buffer or of the kernel's.
void entry_append_line(const char *record, size_t length, const struct ucred &sender, uint64_t number,
                       std::string *lines);

#endif
