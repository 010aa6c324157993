// The reading end of the log daemon.
#ifndef HANDSET_LOGCAT_SOURCE_H
#define HANDSET_LOGCAT_SOURCE_H

#include <string>

#include "handset/logcat/options.h"
#include "handset/logd/wire.h"

// Connects and asks for the entries that `options` want, those already stored only if later than `after`
// ("S.NNNNNNNNN", "" for all). Returns the descriptor, or -1 with errno.
int source_open(const logcat_options &options, const std::string &after);

enum source_result { SOURCE_ENTRY, SOURCE_END, SOURCE_BAD_LENGTH, SOURCE_ERROR };
// Waits for the next entry. SOURCE_ERROR leaves errno.
source_result source_next(int fd, log_answer *out);

#endif
