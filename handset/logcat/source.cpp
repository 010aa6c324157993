// Connection to the log daemon. State: the socket, which the caller owns.
#include "handset/logcat/source.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static std::string request_text(const logcat_options &options, const std::string &after) {
    std::string text = options.is_dump ? "dumpAndClose" : "stream";
    const char *separator = " lids=";
    for (unsigned i = 0; i < kLogBufferCount; i++) {
        if ((options.buffers >> i & 1) != 0) {
            text += separator + std::to_string(i);
            separator = ",";
        }
    }
    if (options.has_tail) {
        text += " tail=" + std::to_string(options.tail);
    }
    if (!after.empty()) {
        text += " start=" + after;
    }
    return text;
}

int source_open(const logcat_options &options, const std::string &after) {
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        return -1;
    }
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, kLogReadSocket);
    const std::string request = request_text(options, after);
    if (connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) == 0 &&
        send(fd, request.data(), request.size(), MSG_NOSIGNAL) >= 0) {
        return fd;
    }
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

source_result source_next(int fd, log_answer *out) {
    ssize_t length;
    do {
        length = recv(fd, out, sizeof out->header + kLogPayloadMax, 0);
    } while (length == -1 && errno == EINTR);
    if (length == -1) {
        return errno == ECONNRESET ? SOURCE_END : SOURCE_ERROR;
    }
    if (length == 0) {
        return SOURCE_END;
    }
    const auto size = static_cast<size_t>(length);
    if (size < sizeof out->header || out->header.header_size != sizeof out->header ||
        out->header.length != size - sizeof out->header) {
        return SOURCE_BAD_LENGTH;
    }
    out->payload[out->header.length] = '\0';
    return SOURCE_ENTRY;
}
