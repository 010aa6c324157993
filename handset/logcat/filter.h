// Which entries are printed: a lowest priority for each named tag and one for all others.
#ifndef HANDSET_LOGCAT_FILTER_H
#define HANDSET_LOGCAT_FILTER_H

#include <string>
#include <utility>
#include <vector>

struct log_filter {
    int others = 2;                                 // all but "unknown" and "default"
    std::vector<std::pair<std::string, int>> tags;  // the last one of a tag counts
};

// Adds the filters of a text, TAG[:PRIORITY] or *:PRIORITY, separated by blanks or commas. Only the first letter of a
// priority counts. Without one a tag is printed whole and "*" from D on. False when there is no tag before a colon, or
// no such priority.
bool log_filter_add(const char *text, log_filter *filter);
// Whether an entry of this tag and priority is printed. Tags are compared whole.
bool log_filter_passes(const log_filter &filter, const std::string &tag, int priority);

#endif
