// setprop: sets one property through init. No state.
#include <cutils/properties.h>
#include <stdio.h>

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: setprop NAME VALUE\n\nSets an Android system property.\n");
        return 1;
    }
    if (property_set(argv[1], argv[2]) != 0) {
        fprintf(stderr, "Failed to set property '%s' to '%s'.\nSee dmesg for error reason.\n", argv[1], argv[2]);
        return 1;
    }
    return 0;
}
