// Preloaded into the agent: writes down, in /dev/.desk/ended, what runs when the agent ends: an exit handler and a
// destructor. State: whether the process is the agent; its children inherit it until they execute a program.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static bool m_is_agent = false;

static void note(const char *text) {
    const int fd = m_is_agent ? open("/dev/.desk/ended", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644) : -1;
    if (fd >= 0) {
        (void)!write(fd, text, strlen(text));
        close(fd);
    }
}

static void handle_exit() {
    note("exit handler\n");
}

__attribute__((constructor)) static void load() {
    m_is_agent = strcmp(program_invocation_short_name, "zr-qel-sa") == 0;
    atexit(handle_exit);
}

__attribute__((destructor)) static void unload() {
    note("destructor\n");
}
