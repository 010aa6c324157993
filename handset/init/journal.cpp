// The journal of what init did, for tests and for people. State: its descriptor.
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "init.h"

static int m_journal = -1;

bool journal_open() {
    m_journal = open(DESK_DIR "/init.journal", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    return m_journal >= 0;
}

static void append_escaped(std::string *line, const std::string &field) {
    for (char c : field) {
        switch (c) {
            case '\t': *line += "\\t"; break;
            case '\n': *line += "\\n"; break;
            case '\\': *line += "\\\\"; break;
            default: *line += c;
        }
    }
}

void journal(const std::vector<std::string> &fields) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    std::string line = text_format("%lld.%09ld", static_cast<long long>(now.tv_sec), now.tv_nsec);
    for (const std::string &field : fields) {
        line += '\t';
        append_escaped(&line, field);
    }
    line += '\n';
    // One write a line: a reader never sees half of one.
    if (write(m_journal, line.data(), line.size()) < 0) {
        fprintf(stderr, "init: the journal cannot be written\n");
    }
}
