// The journal of init's work, for tests and for people. State: its descriptor.
#include "handset/common/journal.h"

#include <fcntl.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include "handset/init/init.h"

static int m_journal = -1;

bool journal_open() {
    m_journal = open(INIT_JOURNAL, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    return m_journal >= 0;
}

void journal(const std::vector<std::string> &fields) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    std::string line = text_format("%lld.%09ld", static_cast<long long>(now.tv_sec), now.tv_nsec);
    for (const std::string &field : fields) {
        line += '\t';
        journal_append_field(field, &line);
    }
    line += '\n';
    // One write a line, so that a reader never sees half of one.
    if (write(m_journal, line.data(), line.size()) < 0) {
        fprintf(stderr, "init: the journal cannot be written\n");
    }
}
