// start and stop: request the start or stop of services from init. One program with two names. No state.
#include <cutils/properties.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

int main(int argc, char **argv) {
    const char *slash = strrchr(argv[0], '/');
    const char *name = slash != nullptr ? slash + 1 : argv[0];
    if (getuid() != 0) {
        fprintf(stderr, "Must be root\n");
        return 1;
    }
    if (argc < 2) {
        fprintf(stderr, "usage: %s SERVICE...\n", name);
        return 1;
    }
    const char *control = strcmp(name, "stop") == 0 ? "ctl.stop" : "ctl.start";
    int failures = 0;
    for (int i = 1; i < argc; i++) {
        if (property_set(control, argv[i]) != 0) {
            fprintf(stderr, "Unable to %s service '%s'\n", name, argv[i]);
            failures++;
        }
    }
    return failures == 0 ? 0 : 1;
}
