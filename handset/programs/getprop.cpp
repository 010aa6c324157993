// getprop: prints one property, or all of them sorted. No state.
#include <cutils/properties.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "handset/platform/property_area.h"

static int print_all() {
    int fd = open("/dev/__properties__", O_RDONLY | O_CLOEXEC);
    void *memory = fd < 0 ? MAP_FAILED : mmap(nullptr, sizeof(property_area), PROT_READ, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        fprintf(stderr, "getprop: no properties\n");
        return 1;
    }
    auto *area = static_cast<const property_area *>(memory);
    std::vector<std::string> lines;
    uint32_t count = __atomic_load_n(&area->count, __ATOMIC_ACQUIRE);
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
