// getprop: prints one property, or all of them sorted. No state.
#include <cutils/properties.h>
#include <fcntl.h>
#include <stdio.h>

#include <algorithm>
#include <string>
#include <vector>

#include "handset/platform/property_area.h"

static int print_all() {
    const property_area *area = property_area_map(open(PROPERTY_AREA_PATH, O_RDONLY | O_CLOEXEC));
    if (area == nullptr) {
        fprintf(stderr, "getprop: no properties\n");
        return 1;
    }
    std::vector<std::string> lines;
    const uint32_t count = __atomic_load_n(&area->count, __ATOMIC_ACQUIRE);
    for (uint32_t i = 0; i < count && i < PROPERTY_SLOTS; i++) {
        char value[PROPERTY_VALUE_SIZE];
        property_slot_read(&area->slots[i], value, sizeof(value));
        lines.push_back("[" + std::string(area->slots[i].name) + "]: [" + value + "]");
    }
    std::sort(lines.begin(), lines.end());
    for (const std::string &line : lines) {
        puts(line.c_str());
    }
    return 0;
}

int main(int argc, char **argv) {
    if (argc > 3) {
        fprintf(stderr, "usage: getprop [NAME [DEFAULT]]\n");
        return 255;
    }
    if (argc == 1) {
        return print_all();
    }
    char value[PROPERTY_VALUE_MAX];
    property_get(argv[1], value, argc == 3 ? argv[2] : "");
    puts(value);
    return 0;
}
