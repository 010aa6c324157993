// Stands in for another service of the platform: runs under its name until a signal ends it. No state.
// Called as `dummy_service NAME` it waits and then executes /system/bin/NAME, which is the same program. Properties:
// desk.service.NAME.delay (seconds before the exec), desk.service.NAME.ignore_term (1: SIGTERM is ignored).
#include <cutils/properties.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static void get_setting(const char *name, const char *what, char *value) {
    char property[128];
    snprintf(property, sizeof(property), "desk.service.%s.%s", name, what);
    property_get(property, value, "0");
}

static int run_as(const char *name) {
    char delay[PROPERTY_VALUE_MAX];
    get_setting(name, "delay", delay);
    usleep(static_cast<useconds_t>(atof(delay) * 1e6));
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
    char ignores[PROPERTY_VALUE_MAX];
    get_setting(name, "ignore_term", ignores);
    if (atoi(ignores) != 0) {
        signal(SIGTERM, SIG_IGN);
    }
    for (;;) {
        pause();
    }
}
