// The way out of the log daemon: readers, what they asked for and what they have got so far.
#ifndef HANDSET_LOGD_READERS_H
#define HANDSET_LOGD_READERS_H

#include "handset/logd/store.h"

// Makes /dev/socket/logdr (seqpacket, 0666). Returns the listening descriptor, or -1 with errno.
int readers_open();
// Serves readers for ever on the calling thread; `news` is an eventfd that is raised when entries have arrived.
void readers_run(int listener, int news);

// A reader's request: "stream" (stays connected) or "dumpAndClose", then any of " lids=0,3" (default all), " tail=N",
// " start=S.NNNNNNNNN" (entries later than that), " pid=P".
struct log_request {
    bool is_dump = false;
    bool has_tail = false;
    size_t tail = 0;
    log_query query;
};
// False when the text is no request.
bool readers_parse(const char *text, log_request *out);

#endif
