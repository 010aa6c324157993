// Stands in for another service of the platform: runs under its name until a signal ends it. No state.
// Called as `dummy_service NAME` it executes /system/bin/NAME, which is the same program. It ignores SIGTERM when the
// property desk.service.NAME.ignore_term is 1.
#include <cutils/properties.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int run_as(const char *name) {
    char path[128];
    snprintf(path, sizeof(path), "/system/bin/%s", name);
    char *const arguments[] = {path, nullptr};
    execv(path, arguments);
    return 127;
}

int main(int argc, char **argv) {
    const char *slash = strrchr(argv[0], '/');
    const char *name = slash != nullptr ? slash + 1 : argv[0];
    if (argc == 2 && strcmp(name, "dummy_service") == 0) {
        return run_as(argv[1]);
    }
    char property[128];
    char ignores[PROPERTY_VALUE_MAX];
    snprintf(property, sizeof(property), "desk.service.%s.ignore_term", name);
    property_get(property, ignores, "0");
    if (atoi(ignores) != 0) {
        signal(SIGTERM, SIG_IGN);
    }
    for (;;) {
        pause();
    }
}
