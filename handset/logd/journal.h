// A file with every accepted entry, one line each, for tests and people:
//   <number> TAB <sec.nsec> TAB <buffer> TAB <pid> TAB <tid> TAB <uid> TAB <priority letter> TAB <tag> TAB <text>
// In tag and text \n \t \r \\ stand for themselves and \xNN for other control bytes. A binary entry has its number as
// the tag and its values as the text.
#ifndef HANDSET_LOGD_JOURNAL_H
#define HANDSET_LOGD_JOURNAL_H

#include <string>
#include <vector>

#include "handset/logd/store.h"

// Opens the journal (directory made if missing, an earlier journal continued). `last` becomes the number of the last
// entry in it, 0 if none. Without a journal the daemon works all the same: false then, and errno.
bool journal_open(uint64_t *last);
// Appends numbered entries. One thread only.
void journal_write(const std::vector<log_entry> &entries);
// The line of an entry, newline included.
std::string journal_line(const log_entry &entry);

#endif
