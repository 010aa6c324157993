// A provider library that hangs: in its "constructor", its "entry" or its "destructor", as long as the file
// /dev/.desk/hang names that place. It notes each place where it hangs. No state.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

static const useconds_t kPause = 10000;  // µs

static bool must_hang(const char *place) {
    char text[64] = "";
    const int fd = open("/dev/.desk/hang", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const ssize_t length = read(fd, text, sizeof(text) - 1);
    close(fd);
    return length > 0 && strstr(text, place) != nullptr;
}

static void note(const char *place) {
    const int fd = open("/dev/.desk/hanging", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd >= 0) {
        (void)!write(fd, place, strlen(place));
        close(fd);
    }
}

static void hang(const char *place) {
    if (must_hang(place)) {
        note(place);
    }
    while (must_hang(place)) {
        usleep(kPause);
    }
}

__attribute__((constructor)) static void begin() {
    hang("constructor");
}

__attribute__((destructor)) static void end() {
    hang("destructor");
}

extern "C" int export_tcpdump(const char *) {
    hang("entry");
    return 0;
}
