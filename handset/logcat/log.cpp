// log: writes an entry into a buffer of the log. Unlike a program's log calls it waits until the daemon takes the entry, and
// fails when there is none. No state but getopt's own.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "handset/logd/wire.h"

static const char kUsage[] =
    "Usage: log [-b BUFFER] [-p PRIORITY] [-t TAG] [-n COUNT] TEXT...\n"
    "       log -e NUMBER TYPE:VALUE\n"
    "With -n the entry is written COUNT times, its text followed by a blank and 1, 2 and so on.\n"
    "Buffers: main (the default), radio, system, crash. Priorities: V D I (the default) W E F.\n"
    "-e writes into the buffer events. Types: i (32-bit number), s (text).\n";

struct request {
    int buffer = 0;
    int priority = 4;
    std::string tag = "log";
    std::string text;
    bool is_event = false;
    uint32_t event = 0;
    unsigned long count = 0;
};

template <typename number>
static std::string bytes_of(number value) {
    return std::string(reinterpret_cast<const char *>(&value), sizeof(value));
}

// The payload of an event with the value "i:5" or "s:text"; "" when it is wrong.
static std::string event_payload(uint32_t number, const std::string &value) {
    const std::string text = value.size() > 2 ? value.substr(2) : "";
    if (value.compare(0, 2, "i:") == 0) {
        const auto integer = static_cast<int32_t>(strtol(text.c_str(), nullptr, 0));
        return bytes_of(number) + static_cast<char>(LOG_EVENT_INT) + bytes_of(integer);
    }
    if (value.compare(0, 2, "s:") == 0) {
        return bytes_of(number) + static_cast<char>(LOG_EVENT_STRING) + bytes_of(static_cast<uint32_t>(text.size())) +
               text;
    }
    return "";
}

static std::string payload_of(const request &of, unsigned long number) {
    if (of.is_event) {
        return event_payload(of.event, of.text);
    }
    const std::string end = of.count != 0 ? " " + std::to_string(number) : "";
    return static_cast<char>(of.priority) + of.tag + '\0' + of.text + end + '\0';
}

static bool take_arguments(int argc, char **argv, request *out) {
    int letter;
    while ((letter = getopt(argc, argv, "b:e:n:p:t:")) != -1) {
        switch (letter) {
            case 'b': out->buffer = log_buffer_number(optarg); break;
            case 'e':
                out->is_event = true;
                out->event = static_cast<uint32_t>(strtoul(optarg, nullptr, 0));
                out->buffer = log_buffer_number("events");
                break;
            case 'n': out->count = strtoul(optarg, nullptr, 10); break;
            case 'p': out->priority = log_priority_number(optarg[0]); break;
            case 't': out->tag = optarg; break;
            default: return false;
        }
    }
    for (int i = optind; i < argc; i++) {
        out->text += (i == optind ? "" : " ") + std::string(argv[i]);
    }
    return optind < argc && out->buffer >= 0 && out->priority != 0 && !payload_of(*out, 0).empty();
}

static bool write_entry(int fd, const request &of, unsigned long number) {
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const log_record_header header = {static_cast<uint8_t>(of.buffer), static_cast<uint16_t>(syscall(SYS_gettid)),
                                      static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_nsec)};
    const std::string record = bytes_of(header) + payload_of(of, number).substr(0, kLogPayloadMax);
    return send(fd, record.data(), record.size(), MSG_NOSIGNAL) >= 0;
}

int main(int argc, char **argv) {
    request wanted;
    if (!take_arguments(argc, argv, &wanted)) {
        fputs(kUsage, stderr);
        return 1;
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, LOG_WRITE_SOCKET);
    bool is_written = connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) == 0;
    const unsigned long count = wanted.count != 0 ? wanted.count : 1;
    for (unsigned long i = 1; is_written && i <= count; i++) {
        is_written = write_entry(fd, wanted, i);
    }
    if (!is_written) {
        fprintf(stderr, "log: %s: %s\n", LOG_WRITE_SOCKET, strerror(errno));
    }
    return is_written ? 0 : 1;
}
