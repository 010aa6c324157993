// A sister service: does nothing but exist under its name until a signal ends it. No state.
// Called as `sister NAME` it waits and then becomes /system/bin/NAME; called by any other name it is that service.
// Properties shape it: desk.sister.NAME.delay (seconds before it becomes NAME), desk.sister.NAME.ignore_term (1).
#include <cutils/properties.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static void look_up(const char *name, const char *what, char *value) {
    char property[128];
    snprintf(property, sizeof(property), "desk.sister.%s.%s", name, what);
    property_get(property, value, "0");
}

static int become(const char *name) {
    char delay[PROPERTY_VALUE_MAX];
    look_up(name, "delay", delay);
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
    if (argc == 2 && strcmp(name, "sister") == 0) {
        return become(argv[1]);
    }
    char ignores[PROPERTY_VALUE_MAX];
    look_up(name, "ignore_term", ignores);
    if (atoi(ignores) != 0) {
        signal(SIGTERM, SIG_IGN);
    }
    for (;;) {
        pause();
    }
}
