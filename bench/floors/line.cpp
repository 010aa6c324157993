// Floor of a diagnostic line. State: the socket to the log daemon.
#include <fcntl.h>
#include <linux/sockios.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "bench/floors/floors.h"

static const int kHeaderSize = 12;  // buffer main, no thread, no time, and priority DEBUG

static int daemon_socket() {
    static int fd = -1;
    if (fd < 0) {
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, "/dev/socket/logdw");
        fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        (void)!connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address));
    }
    return fd;
}

void floor_platform_line(const char *text) {
    static const char kTag[] = "floor";
    char record[256] = {};
    record[kHeaderSize - 1] = 3;
    memcpy(record + kHeaderSize, kTag, sizeof(kTag));
    const size_t length = strlen(text) + 1;
    memcpy(record + kHeaderSize + sizeof(kTag), text, length);
    (void)!send(daemon_socket(), record, kHeaderSize + sizeof(kTag) + length, MSG_NOSIGNAL | MSG_DONTWAIT);
}

void floor_file_line(const char *text) {
    const int fd = open("/data/local/log/floor.log", O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    (void)!write(fd, text, strlen(text));
    close(fd);
}

void floor_line(const char *text) {
    floor_platform_line(text);
    floor_file_line(text);
}

void floor_await_daemon(void) {
    floor_platform_line("mark");
    int unread = 1;
    while (ioctl(daemon_socket(), SIOCOUTQ, &unread) == 0 && unread > 0) {
        const struct timespec pause = {0, 20000};
        nanosleep(&pause, nullptr);
    }
}
