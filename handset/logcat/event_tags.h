// Names of binary records, from the platform's list of them.
#ifndef HANDSET_LOGCAT_EVENT_TAGS_H
#define HANDSET_LOGCAT_EVENT_TAGS_H

#include <stdint.h>

#include <string>
#include <unordered_map>

using event_tags = std::unordered_map<uint32_t, std::string>;

// Reads lines such as "1006 liblog (dropped|1)"; anything else is passed over. A missing file gives an empty list.
event_tags event_tags_read(const char *path);
// The name of a number; "[number]" when it has none.
std::string event_tags_name(const event_tags &tags, uint32_t number);

#endif
