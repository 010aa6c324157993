// The property store: the shared area, the rules for names and values, and the files of persist.* properties, one a
// property below /data/property. State: the area, whose only writer is this process, the callback for changes, and
// whether persist.* properties are saved yet.
#include "handset/platform/property_area.h"

#include <ctype.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

#include "handset/common/utf8.h"
#include "handset/init/init.h"

static const std::string kSavedDir = "/data/property/";

static property_area *m_area = nullptr;
static std::function<void(const std::string &, const std::string &)> m_changed;
static bool m_is_saving = false;

bool properties_open(std::function<void(const std::string &name, const std::string &value)> changed) {
    m_changed = std::move(changed);
    int fd = open(PROPERTY_AREA_PATH, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0444);
    if (fd < 0 || ftruncate(fd, sizeof(property_area)) != 0) {
        return false;
    }
    void *memory = mmap(nullptr, sizeof(property_area), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (memory == MAP_FAILED) {
        return false;
    }
    m_area = static_cast<property_area *>(memory);
    return true;
}

static const property_slot *find(const std::string &name) {
    return property_area_find(m_area, name.c_str());
}

std::string property_value(const std::string &name) {
    const property_slot *slot = find(name);
    return slot != nullptr ? std::string(slot->value, slot->length) : "";
}

static property_slot *new_slot(const std::string &name) {
    uint32_t count = m_area->count;
    if (count >= PROPERTY_SLOTS) {
        return nullptr;
    }
    property_slot *slot = &m_area->slots[count];
    memcpy(slot->name, name.c_str(), name.size() + 1);
    __atomic_store_n(&m_area->count, count + 1, __ATOMIC_RELEASE);
    return slot;
}

static bool store(const std::string &name, const std::string &value) {
    if (name.size() >= PROPERTY_NAME_SIZE || value.size() >= PROPERTY_VALUE_SIZE) {
        return false;
    }
    auto *slot = const_cast<property_slot *>(find(name));
    if (slot == nullptr) {
        slot = new_slot(name);
    }
    if (slot == nullptr) {
        return false;
    }
    uint32_t serial = slot->serial;
    __atomic_store_n(&slot->serial, serial + 1, __ATOMIC_RELAXED);
    __atomic_thread_fence(__ATOMIC_RELEASE);
    memcpy(slot->value, value.c_str(), value.size() + 1);
    slot->length = static_cast<uint32_t>(value.size());
    __atomic_store_n(&slot->serial, serial + 2, __ATOMIC_RELEASE);
    journal({"prop", name, value});
    return true;
}

bool property_store(const std::string &name, const std::string &value) {
    const bool is_stored = store(name, value);
    if (is_stored) {
        m_changed(name, value);
    }
    return is_stored;
}

static bool is_legal_name(const std::string &name) {
    if (name.empty() || name.size() >= PROPERTY_NAME_SIZE || name.front() == '.' || name.back() == '.') {
        return false;
    }
    for (size_t i = 0; i < name.size(); i++) {
        char c = name[i];
        if (c == '.' && name[i - 1] == '.') {
            return false;
        }
        if (isalnum(static_cast<unsigned char>(c)) == 0 && (c == '\0' || strchr(".-@:_", c) == nullptr)) {
            return false;
        }
    }
    return true;
}

static bool is_legal_value(const std::string &name, const std::string &value) {
    if (value.size() >= PROPERTY_VALUE_SIZE || (value.size() >= PROPERTY_VALUE_MAX && !text_starts(name, "ro."))) {
        return false;
    }
    for (size_t i = 0, step; i < value.size(); i += step) {
        step = value[i] == '\0' ? 0 : utf8_length(value, i);
        if (step == 0) {
            return false;
        }
    }
    return true;
}

property_reply property_check(const std::string &name, const std::string &value) {
    if (!is_legal_name(name)) {
        return PROPERTY_NAME;
    }
    return is_legal_value(name, value) ? PROPERTY_OK : PROPERTY_VALUE;
}

// Writes a temporary file and renames it, so that a power loss leaves the old value or the new one.
static bool save(const std::string &name, const std::string &value) {
    std::string temporary = kSavedDir + ".temp." + name;
    int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        return false;
    }
    bool saved = write(fd, value.data(), value.size()) == static_cast<ssize_t>(value.size()) && fsync(fd) == 0;
    close(fd);
    saved = saved && rename(temporary.c_str(), (kSavedDir + name).c_str()) == 0;
    if (!saved) {
        unlink(temporary.c_str());
    }
    return saved;
}

void properties_load_saved() {
    m_is_saving = true;
    for (const std::string &name : text_names(kSavedDir)) {
        std::string value;
        if (text_starts(name, "persist.") && text_read_file(kSavedDir + name, &value) &&
            property_check(name, value) == PROPERTY_OK) {
            property_store(name, value);
        }
    }
}

property_reply property_set_checked(const std::string &name, const std::string &value) {
    const property_reply reply = property_check(name, value);
    if (reply != PROPERTY_OK) {
        return reply;
    }
    if (text_starts(name, "ro.") && find(name) != nullptr) {
        return PROPERTY_READ_ONLY;
    }
    if (!store(name, value)) {
        return PROPERTY_FAILED;
    }
    // On a full /data the next boot has the old value; the set itself succeeds.
    if (m_is_saving && text_starts(name, "persist.") && !save(name, value)) {
        journal({"unsaved", name});
    }
    m_changed(name, value);
    return PROPERTY_OK;
}
