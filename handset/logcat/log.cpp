// log: writes an entry into a buffer of the log, by hand or in bulk. Unlike a program's own log calls it waits for the
// log daemon to take the entry and tells when there is none.
//   log [-b BUFFER] [-p PRIORITY] [-t TAG] [-n COUNT] TEXT...
//   log [-n COUNT] -e NUMBER [TYPE:VALUE]...     a record of the events buffer; several values make a list
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

#include "handset/logd/event_values.h"
#include "handset/logd/wire.h"

static constexpr char kUsage[] =
    "Usage: log [-b BUFFER] [-p PRIORITY] [-t TAG] [-n COUNT] TEXT...\n"
    "       log [-n COUNT] -e NUMBER [TYPE:VALUE]...\n"
    "With -n the entry is written COUNT times, its text followed by a blank and 1, 2 and so on.\n"
    "Buffers: main (the default), radio, system, crash. Priorities: V D I (the default) W E F.\n"
    "Types of the values of an event: i (32 bits), l (64 bits), f (floating point), s (text).\n";

struct request {
    unsigned buffer = 0;
    int priority = 4;
    std::string tag = "log";
    std::string text;   // of a text entry
    std::string event;  // payload of an event; empty: it is a text entry
    unsigned long count = 0;
};

static int usage() {
    fputs(kUsage, stderr);
    return 1;
}

static bool take_priority(const char *letter, int *out) {
    static const char letters[] = "??VDIWEF";
    const char *found = letter[0] != '\0' && letter[0] != '?' ? strchr(letters, letter[0]) : nullptr;
    *out = found != nullptr ? static_cast<int>(found - letters) : 0;
    return found != nullptr;
}

template <typename number>
static void append_raw(number value, std::string *out) {
    out->append(reinterpret_cast<const char *>(&value), sizeof value);
}

// "i:5" and the like
static bool append_value(const char *word, std::string *out) {
    if (word[0] == '\0' || word[1] != ':') {
        return false;
    }
    const char *value = word + 2;
    switch (word[0]) {
        case 'i':
            *out += static_cast<char>(LOG_EVENT_INT);
            append_raw(static_cast<int32_t>(strtol(value, nullptr, 0)), out);
            return true;
        case 'l':
            *out += static_cast<char>(LOG_EVENT_LONG);
            append_raw(static_cast<int64_t>(strtoll(value, nullptr, 0)), out);
            return true;
        case 'f':
            *out += static_cast<char>(LOG_EVENT_FLOAT);
            append_raw(strtof(value, nullptr), out);
            return true;
        case 's':
            *out += static_cast<char>(LOG_EVENT_STRING);
            append_raw(static_cast<uint32_t>(strlen(value)), out);
            *out += value;
            return true;
        default: return false;
    }
}

static bool take_values(int count, char **words, std::string *out) {
    if (count > 1) {
        *out += static_cast<char>(LOG_EVENT_LIST);
        *out += static_cast<char>(count);
    }
    for (int i = 0; i < count; i++) {
        if (!append_value(words[i], out)) {
            return false;
        }
    }
    return count < 256;
}

static bool take_options(int argc, char **argv, request *out) {
    int letter;
    while ((letter = getopt(argc, argv, "b:e:n:p:t:")) != -1) {
        const int buffer = letter == 'b' ? log_buffer_number(optarg) : 0;
        switch (letter) {
            case 'b': out->buffer = static_cast<unsigned>(buffer); break;
            case 'e':
                out->event.clear();
                append_raw(static_cast<uint32_t>(strtoul(optarg, nullptr, 0)), &out->event);
                break;
            case 'n': out->count = strtoul(optarg, nullptr, 10); break;
            case 'p':
                if (!take_priority(optarg, &out->priority)) {
                    return false;
                }
                break;
            case 't': out->tag = optarg; break;
            default: return false;
        }
        if (buffer < 0) {
            return false;
        }
    }
    return true;
}

static bool take_arguments(int argc, char **argv, request *out) {
    if (!take_options(argc, argv, out)) {
        return false;
    }
    if (!out->event.empty()) {
        out->buffer = static_cast<unsigned>(log_buffer_number("events"));
        return take_values(argc - optind, argv + optind, &out->event);
    }
    for (int i = optind; i < argc; i++) {
        out->text += (i == optind ? "" : " ") + std::string(argv[i]);
    }
    return optind < argc;
}

static int connect_daemon() {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, kLogWriteSocket);
    if (fd == -1 || connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) == -1) {
        return -1;
    }
    return fd;
}

static bool write_entry(int fd, const request &of, unsigned long number) {
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const log_record_header header = {static_cast<uint8_t>(of.buffer), static_cast<uint16_t>(syscall(SYS_gettid)),
                                      static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_nsec)};
    std::string payload = of.event;
    if (of.event.empty()) {
        payload += static_cast<char>(of.priority);
        payload.append(of.tag.c_str(), of.tag.size() + 1);
        payload += of.text + (of.count != 0 ? " " + std::to_string(number) : "");
        payload += '\0';
    }
    payload.resize(payload.size() < kLogPayloadMax ? payload.size() : kLogPayloadMax);
    const std::string record = std::string(reinterpret_cast<const char *>(&header), sizeof header) + payload;
    return send(fd, record.data(), record.size(), MSG_NOSIGNAL) >= 0;
}

int main(int argc, char **argv) {
    request wanted;
    if (!take_arguments(argc, argv, &wanted)) {
        return usage();
    }
    const int fd = connect_daemon();
    bool is_done = fd != -1;
    const unsigned long count = wanted.count != 0 ? wanted.count : 1;
    for (unsigned long i = 1; is_done && i <= count; i++) {
        is_done = write_entry(fd, wanted, i);
    }
    if (!is_done) {
        fprintf(stderr, "log: %s: %s\n", kLogWriteSocket, strerror(errno));
    }
    return is_done ? 0 : 1;
}
