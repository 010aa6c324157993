// Reader of the list of event names. No state.
#include "handset/logcat/event_tags.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void take_line(const char *line, event_tags *tags) {
    char *end;
    errno = 0;
    const unsigned long long number = strtoull(line, &end, 10);
    if (end == line || errno != 0 || number > UINT32_MAX || (*end != ' ' && *end != '\t')) {
        return;
    }
    const char *name = end + strspn(end, " \t");
    const size_t length = strcspn(name, " \t\r\n");
    if (length != 0) {
        tags->emplace(static_cast<uint32_t>(number), std::string(name, length));
    }
}

event_tags event_tags_read(const char *path) {
    event_tags tags;
    FILE *file = fopen(path, "re");
    if (file == nullptr) {
        return tags;
    }
    char *line = nullptr;
    size_t size = 0;
    while (getline(&line, &size, file) != -1) {
        take_line(line, &tags);
    }
    free(line);
    fclose(file);
    return tags;
}

std::string event_tags_name(const event_tags &tags, uint32_t number) {
    const auto found = tags.find(number);
    return found != tags.end() ? found->second : "[" + std::to_string(number) + "]";
}
