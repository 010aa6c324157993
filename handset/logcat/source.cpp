// Follows the log journal. State: in the caller's log_source.
#include "handset/logcat/source.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "handset/common/journal.h"
#include "handset/common/paths.h"
#include "handset/logd/wire.h"

static const off_t kStoredMax = 2 << 20;  // bytes of the journal that count as stored

// False for a line of another buffer, and for an incomplete line: the first one that is read, or a killed daemon's last.
static bool parse_line(const std::string &line, unsigned buffers, log_entry *out) {
    const std::vector<std::string> fields = text_split(line, '\t');
    const int buffer = fields.size() == 9 ? log_buffer_number(fields[2].c_str()) : -1;
    if (buffer < 0 || (buffers >> buffer & 1) == 0) {
        return false;
    }
    char *end;
    out->sec = static_cast<uint32_t>(strtoul(fields[1].c_str(), &end, 10));
    out->nsec = *end == '.' ? static_cast<uint32_t>(strtoul(end + 1, nullptr, 10)) : 0;
    out->buffer = static_cast<unsigned>(buffer);
    out->pid = atoi(fields[3].c_str());
    out->tid = atoi(fields[4].c_str());
    out->letter = fields[6][0];
    out->tag = journal_unescape(fields[7]);
    out->text = journal_unescape(fields[8]);
    return true;
}

// Connects before the journal's size is taken, so that no growth goes unnoticed.
bool source_open(const logcat_options &options, uint64_t after_ns, log_source *out) {
    out->is_dump = options.is_dump;
    out->buffers = options.buffers;
    out->after_ns = after_ns;
    out->socket = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, LOG_READ_SOCKET);
    if (out->socket < 0 || connect(out->socket, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) != 0) {
        return false;
    }
    out->journal = open(LOG_JOURNAL, O_RDONLY | O_CLOEXEC);
    if (out->journal < 0) {
        return false;
    }
    out->stored = lseek(out->journal, 0, SEEK_END);
    out->offset = lseek(out->journal, out->stored > kStoredMax ? out->stored - kStoredMax : 0, SEEK_SET);
    return true;
}

// Waits until the daemon has written more. 1: it has, 0: it has ended, -1: an error.
static int wait_for_more(const log_source *from) {
    char news[16];
    ssize_t got;
    do {
        got = recv(from->socket, news, sizeof(news), 0);
    } while (got < 0 && errno == EINTR);
    return got > 0 ? 1 : got < 0 && errno != ECONNRESET ? -1 : 0;
}

// Appends the next part of the journal to the rest. 1: done, 0: no more entries, -1: an error.
static int read_more(log_source *from) {
    static char buf[65536];
    for (;;) {
        const ssize_t got = read(from->journal, buf, sizeof(buf));
        if (got > 0) {
            from->rest.erase(0, from->used);
            from->used = 0;
            from->rest.append(buf, static_cast<size_t>(got));
            return 1;
        }
        if (got < 0) {
            return -1;
        }
        const int result = from->is_dump ? 0 : wait_for_more(from);
        if (result <= 0) {
            return result;
        }
    }
}

source_result source_next(log_source *from, log_entry *out) {
    for (;;) {
        const size_t newline = from->rest.find('\n', from->used);
        if (newline == std::string::npos) {
            const int result = read_more(from);
            if (result <= 0) {
                return result == 0 ? SOURCE_END : SOURCE_ERROR;
            }
            continue;
        }
        const bool is_stored = from->offset < from->stored;
        const std::string line = from->rest.substr(from->used, newline - from->used);
        from->used = newline + 1;
        from->offset += static_cast<off_t>(line.size() + 1);
        const bool is_entry = parse_line(line, from->buffers, out);
        if (is_entry && (!is_stored || out->sec * UINT64_C(1000000000) + out->nsec > from->after_ns)) {
            return SOURCE_ENTRY;
        }
    }
}
