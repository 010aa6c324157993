// The streams of one connection. One loop waits for the server and for all services. A stream has one message in
// flight each way: what the server sends is acknowledged when the service has taken all of it, and the next output is
// read when the server has acknowledged the last one. Owns the table of streams and what they have started.
#include "stream.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <vector>

#include "service.h"
#include "transport.h"

// Packets of a command with shell_v2: one byte of kind, four of length.
enum packet_kind : char {
    PACKET_IN = 0,
    PACKET_OUT = 1,
    PACKET_ERR = 2,
    PACKET_EXIT = 3,
    PACKET_CLOSE_IN = 4,
    PACKET_SIZE = 5
};
static constexpr size_t PACKET_HEAD = 5;

struct stream {
    uint32_t remote = 0;  // the server's number
    adb_service service;
    int end = -1;            // of service.pid: readable when it has ended
    std::string packets;     // of the client, not yet complete
    std::string to_service;  // of the client, not yet written
    bool is_acked = true;    // the server has taken what we sent last
    bool is_ack_due = false;
    bool is_in_closed = false;
    bool is_over = false;  // all has been sent; to be closed once it is acknowledged
};

static int m_socket = -1;
static uint32_t m_data_max = ADB_DATA_MAX;
static uint32_t m_last_id = 0;
static std::map<uint32_t, stream> m_streams;  // by our number
static std::vector<pid_t> m_abandoned;        // children whose clients have gone

static void close_one(int *fd) {
    if (*fd >= 0) {
        close(*fd);
    }
    *fd = -1;
}

static void close_in(stream *s) {
    s->is_in_closed = true;
    s->to_service.clear();
    if (s->service.in == s->service.out) {
        s->service.in = -1;  // the terminal is still read
    }
    close_one(&s->service.in);
}

static void close_out(stream *s) {
    if (s->service.in == s->service.out) {
        s->service.in = -1;
    }
    close_one(&s->service.out);
}

// Releases all that a stream holds. A child that still runs sees its streams close.
static void release(stream *s) {
    close_out(s);
    close_one(&s->service.in);
    close_one(&s->service.err);
    close_one(&s->end);
    if (s->service.pid > 0) {
        m_abandoned.push_back(s->service.pid);
    }
}

static void reap_abandoned() {
    for (size_t i = 0; i < m_abandoned.size();) {
        if (waitpid(m_abandoned[i], nullptr, WNOHANG) != 0) {
            m_abandoned.erase(m_abandoned.begin() + static_cast<std::ptrdiff_t>(i));
        } else {
            i++;
        }
    }
}

// ---- from the server

static void open_stream(const adb_message &message) {
    stream s;
    s.remote = message.arg0;
    std::string name = message.data.c_str();  // without the NUL at its end
    if (!service_start(name, &s.service)) {
        release(&s);
        message_write(m_socket, ADB_CLSE, 0, s.remote);
        return;
    }
    if (s.service.pid > 0) {
        s.end = static_cast<int>(syscall(SYS_pidfd_open, s.service.pid, 0));
    }
    const uint32_t id = ++m_last_id;
    message_write(m_socket, ADB_OKAY, id, s.remote);
    m_streams[id] = s;
}

static void take_packet(stream *s, char kind, const std::string &data) {
    if (kind == PACKET_IN) {
        s->to_service += data;
    } else if (kind == PACKET_CLOSE_IN) {
        s->is_in_closed = true;  // closed once all of it has been written
    } else if (kind == PACKET_SIZE) {
        unsigned rows = 0;
        unsigned columns = 0;
        if (sscanf(data.c_str(), "%ux%u", &rows, &columns) == 2) {
            struct winsize size = {};
            size.ws_row = static_cast<unsigned short>(rows);
            size.ws_col = static_cast<unsigned short>(columns);
            ioctl(s->service.out, TIOCSWINSZ, &size);
        }
    }
}

static void take_data(stream *s, const std::string &data) {
    s->is_ack_due = true;
    if (!s->service.has_packets) {
        s->to_service += data;
        return;
    }
    s->packets += data;
    uint32_t length = 0;
    while (s->packets.size() >= PACKET_HEAD) {
        memcpy(&length, s->packets.data() + 1, sizeof(length));
        if (s->packets.size() - PACKET_HEAD < length) {
            break;
        }
        take_packet(s, s->packets[0], s->packets.substr(PACKET_HEAD, length));
        s->packets.erase(0, PACKET_HEAD + length);
    }
}

// Result: false when the connection is to end.
static bool take_message(const adb_message &message) {
    if (message.command == ADB_CNXN) {
        m_data_max = message.arg1 < ADB_DATA_MAX ? message.arg1 : ADB_DATA_MAX;
        return message_write(m_socket, ADB_CNXN, ADB_VERSION, ADB_DATA_MAX,
                             "device::ro.product.name=desk;ro.product.model=Desk_handset;ro.product.device=desk;"
                             "features=shell_v2,stat_v2");
    }
    if (message.command == ADB_OPEN) {
        open_stream(message);
        return true;
    }
    auto found = m_streams.find(message.arg1);
    if (found == m_streams.end()) {
        return true;  // closed meanwhile
    }
    if (message.command == ADB_OKAY) {
        found->second.is_acked = true;
    } else if (message.command == ADB_WRTE) {
        take_data(&found->second, message.data);
    } else if (message.command == ADB_CLSE) {
        release(&found->second);
        m_streams.erase(found);
    }
    return true;
}

// ---- to the services

static void write_service(uint32_t id, stream *s) {
    if (s->service.in >= 0 && !s->to_service.empty()) {
        ssize_t done = write(s->service.in, s->to_service.data(), s->to_service.size());
        if (done > 0) {
            s->to_service.erase(0, static_cast<size_t>(done));
        } else if (done < 0 && errno != EAGAIN && errno != EINTR) {
            close_in(s);
        }
    }
    if (!s->to_service.empty() && s->service.in >= 0) {
        return;
    }
    if (s->is_in_closed && s->service.in >= 0) {
        close_in(s);
    }
    s->to_service.clear();
    if (s->is_ack_due) {
        s->is_ack_due = false;
        message_write(m_socket, ADB_OKAY, id, s->remote);
    }
}

// ---- from the services

static std::string packet(char kind, const std::string &data) {
    const uint32_t length = static_cast<uint32_t>(data.size());
    std::string text(1, kind);
    text.append(reinterpret_cast<const char *>(&length), sizeof(length));
    return text + data;
}

// Reads all that is there, up to what one message takes. Result: false at the end.
static bool read_all(int fd, std::string *data) {
    static char buf[ADB_DATA_MAX];  // in no string: one would be cleared for every few bytes of a terminal
    const size_t most = m_data_max - PACKET_HEAD;
    size_t len = 0;
    ssize_t got = 0;
    while (len < most && (got = read(fd, buf + len, most - len)) > 0) {
        len += static_cast<size_t>(got);
    }
    data->assign(buf, len);
    return len > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR));
}

static void send_data(uint32_t id, stream *s, const std::string &data) {
    s->is_acked = false;
    message_write(m_socket, ADB_WRTE, id, s->remote, data);
}

// Reads one of the two outputs of a service and sends it.
static void pass_output(uint32_t id, stream *s, bool is_err) {
    std::string data;
    int fd = is_err ? s->service.err : s->service.out;
    if (!read_all(fd, &data)) {
        if (is_err) {
            close_one(&s->service.err);
        } else {
            close_out(s);
        }
    } else if (!data.empty()) {
        send_data(id, s, s->service.has_packets ? packet(is_err ? PACKET_ERR : PACKET_OUT, data) : data);
    }
}

// The outputs have ended: what remains is the exit status, which needs the child's end.
static void finish(uint32_t id, stream *s) {
    if (s->service.has_packets) {
        int raw = 0;
        if (waitpid(s->service.pid, &raw, WNOHANG) == 0) {
            return;
        }
        s->service.pid = -1;
        const int status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
        send_data(id, s, packet(PACKET_EXIT, std::string(1, static_cast<char>(status))));
    }
    s->is_over = true;
}

// ---- the loop

static bool has_output(const stream &s) {
    return s.service.out >= 0 || s.service.err >= 0;
}

struct watched {
    uint32_t id;
    enum { IN, OUT, ERR, END } what;
};

static void watch(std::vector<struct pollfd> *set, std::vector<watched> *who) {
    set->assign(1, {m_socket, POLLIN, 0});
    who->assign(1, {0, watched::END});
    auto add = [&](int fd, short events, watched one) {
        if (fd >= 0) {
            set->push_back({fd, events, 0});
            who->push_back(one);
        }
    };
    for (auto &entry : m_streams) {
        stream &s = entry.second;
        if (!s.to_service.empty()) {
            add(s.service.in, POLLOUT, {entry.first, watched::IN});
        }
        if (s.is_acked) {
            add(s.service.out, POLLIN, {entry.first, watched::OUT});
            add(s.service.err, POLLIN, {entry.first, watched::ERR});
        }
        if (!has_output(s) && s.service.has_packets && !s.is_over) {
            add(s.end, POLLIN, {entry.first, watched::END});
        }
    }
}

static void serve(const watched &one) {
    auto found = m_streams.find(one.id);
    if (found == m_streams.end()) {
        return;
    }
    stream *s = &found->second;
    if (one.what == watched::IN) {
        write_service(one.id, s);
    } else if (s->is_acked && one.what == watched::OUT && s->service.out >= 0) {
        pass_output(one.id, s, false);
    } else if (s->is_acked && one.what == watched::ERR && s->service.err >= 0) {
        pass_output(one.id, s, true);
    }
}

// Whatever a stream's state asks for now: writing, acknowledging, telling the end.
static void settle_streams() {
    for (auto entry = m_streams.begin(); entry != m_streams.end();) {
        stream *s = &entry->second;
        if (s->is_ack_due) {
            write_service(entry->first, s);
        }
        if (!has_output(*s) && s->is_acked && !s->is_over) {
            finish(entry->first, s);
        }
        if (s->is_over && s->is_acked) {
            message_write(m_socket, ADB_CLSE, entry->first, s->remote);
            release(s);
            entry = m_streams.erase(entry);
        } else {
            ++entry;
        }
    }
}

void serve_connection(int fd) {
    m_socket = fd;
    signal(SIGPIPE, SIG_IGN);
    std::vector<struct pollfd> set;
    std::vector<watched> who;
    bool is_connected = true;
    while (is_connected) {
        watch(&set, &who);
        if (poll(set.data(), set.size(), m_abandoned.empty() ? -1 : 1000) < 0 && errno != EINTR) {
            break;
        }
        for (size_t i = 1; i < set.size(); i++) {
            if (set[i].revents != 0) {
                serve(who[i]);
            }
        }
        if (set[0].revents != 0) {
            adb_message message;
            is_connected = message_read(fd, &message) && take_message(message);
        }
        settle_streams();
        reap_abandoned();
    }
    for (auto &entry : m_streams) {
        release(&entry.second);
    }
}
