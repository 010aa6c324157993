// The log daemon of a handset: takes records from every process, keeps the newest of each buffer and gives them to
// readers. Threads: one that empties the socket at once, one that stores entries and writes the journal, and the first
// one, which serves readers. A service of init; ends only by a signal.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/eventfd.h>

#include "handset/logd/intake.h"
#include "handset/logd/journal.h"
#include "handset/logd/readers.h"

static int give_up(const char *what) {
    fprintf(stderr, "logd: %s: %s\n", what, strerror(errno));
    return 1;
}

int main() {
    const int news = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (news == -1) {
        return give_up("eventfd");
    }
    uint64_t last = 0;
    if (!journal_open(&last)) {
        give_up("no journal");  // the log itself works without
    }
    store_continue(last);
    // Readers first: who finds the way in finds the way out as well.
    const int listener = readers_open();
    if (listener == -1) {
        return give_up(kLogReadSocket);
    }
    const int intake = intake_open();
    if (intake == -1) {
        return give_up(kLogWriteSocket);
    }
    intake_start(intake, news);
    readers_run(listener, news);
}
