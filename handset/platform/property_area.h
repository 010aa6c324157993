// The property area: shared memory from which every process of a handset reads properties. init is its only writer, other
// processes map it read-only. The layout is the same for 32- and 64-bit code.
#ifndef HANDSET_PROPERTY_AREA_H
#define HANDSET_PROPERTY_AREA_H

#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

enum {
    PROPERTY_SLOTS = 1024,
    PROPERTY_NAME_SIZE = 256,    // with the NUL; a device has no limit
    PROPERTY_VALUE_SIZE = 1024,  // with the NUL; only ro.* values may use more than PROPERTY_VALUE_MAX of it
};

// One property. `serial` is odd while init writes the value and grows by two with each change.
struct property_slot {
    uint32_t serial;
    uint32_t length;
    char name[PROPERTY_NAME_SIZE];
    char value[PROPERTY_VALUE_SIZE];
};

// Slots are filled in order and never freed; a slot is complete before `count` includes it.
struct property_area {
    uint32_t count;
    struct property_slot slots[PROPERTY_SLOTS];
};

#define PROPERTY_AREA_PATH "/dev/__properties__"

// Maps the area for reading and closes `fd`, which may be -1; null on failure.
static inline const struct property_area *property_area_map(int fd) {
    struct stat st;
    void *memory = MAP_FAILED;
    if (fd >= 0 && fstat(fd, &st) == 0 && st.st_size >= static_cast<off_t>(sizeof(struct property_area))) {
        memory = mmap(nullptr, sizeof(struct property_area), PROT_READ, MAP_SHARED, fd, 0);
    }
    if (fd >= 0) {
        close(fd);
    }
    return memory == MAP_FAILED ? nullptr : static_cast<const struct property_area *>(memory);
}

// The slot of `name`, or null.
static inline const struct property_slot *property_area_find(const struct property_area *area, const char *name) {
    uint32_t count = __atomic_load_n(&area->count, __ATOMIC_ACQUIRE);
    for (uint32_t i = 0; i < count && i < PROPERTY_SLOTS; i++) {
        if (strcmp(area->slots[i].name, name) == 0) {
            return &area->slots[i];
        }
    }
    return nullptr;
}

// Copies the value, cut to `size` - 1 bytes and ended by a NUL; returns its length after the cut. A value that changes
// meanwhile is read again: what comes back was the value at one instant.
static inline size_t property_slot_read(const struct property_slot *slot, char *value, size_t size) {
    for (;;) {
        uint32_t before = __atomic_load_n(&slot->serial, __ATOMIC_ACQUIRE);
        if ((before & 1) != 0) {
            continue;
        }
        size_t length = slot->length;
        if (length > size - 1) {
            length = size - 1;
        }
        memcpy(value, slot->value, length);
        value[length] = '\0';
        __atomic_thread_fence(__ATOMIC_ACQUIRE);
        if (__atomic_load_n(&slot->serial, __ATOMIC_RELAXED) == before) {
            return length;
        }
    }
}

#endif
