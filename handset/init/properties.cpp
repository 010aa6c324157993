// The property store: the shared area, the rules for names and values, and the files of persist.* properties, one a
// property below /data/property. State: the area, whose only writer is this process, and whether saving has begun.
#include "../platform/property_area.h"

#include <ctype.h>
#include <cutils/properties.h>
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

#include "init.h"

#define SAVED_DIR "/data/property"

static property_area *m_area = nullptr;
static bool m_saving = false;

bool properties_open() {
    int fd = open("/dev/__properties__", O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0444);
    if (fd < 0 || ftruncate(fd, sizeof(property_area)) != 0) {
        return false;
    }
    void *memory = mmap(nullptr, sizeof(property_area), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (memory == MAP_FAILED) {
        return false;
    }
    m_area = static_cast<property_area *>(memory);
    m_area->magic = PROPERTY_AREA_MAGIC;
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

bool property_store(const std::string &name, const std::string &value) {
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

static bool legal_name(const std::string &name) {
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

// Length of the well-formed UTF-8 sequence at `text`, 0 when there is none.
static size_t utf8_length(const unsigned char *text, size_t left) {
    unsigned char c = text[0];
    if (c < 0x80) {
        return 1;
    }
    size_t length = c >= 0xC2 && c < 0xE0 ? 2 : c >= 0xE0 && c < 0xF0 ? 3 : c >= 0xF0 && c < 0xF5 ? 4 : 0;
    if (length == 0 || length > left) {
        return 0;
    }
    for (size_t i = 1; i < length; i++) {
        if ((text[i] & 0xC0) != 0x80) {
            return 0;
        }
    }
    // Over-long forms, surrogates and what lies beyond the last code point.
    bool bad = (c == 0xE0 && text[1] < 0xA0) || (c == 0xED && text[1] >= 0xA0) || (c == 0xF0 && text[1] < 0x90) ||
               (c == 0xF4 && text[1] >= 0x90);
    return bad ? 0 : length;
}

static bool legal_value(const std::string &name, const std::string &value) {
    if (value.size() >= PROPERTY_VALUE_SIZE || (value.size() >= PROPERTY_VALUE_MAX && !text_starts(name, "ro."))) {
        return false;
    }
    auto *bytes = reinterpret_cast<const unsigned char *>(value.data());
    for (size_t i = 0; i < value.size();) {
        size_t step = bytes[i] == 0 ? 0 : utf8_length(bytes + i, value.size() - i);
        if (step == 0) {
            return false;
        }
        i += step;
    }
    return true;
}

// Through a temporary file, so that a power loss leaves the old value or the new one.
static bool save(const std::string &name, const std::string &value) {
    std::string temporary = std::string(SAVED_DIR "/.temp.") + name;
    int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        return false;
    }
    bool saved = write(fd, value.data(), value.size()) == static_cast<ssize_t>(value.size()) && fsync(fd) == 0;
    close(fd);
    saved = saved && rename(temporary.c_str(), (std::string(SAVED_DIR "/") + name).c_str()) == 0;
    if (!saved) {
        unlink(temporary.c_str());
    }
    return saved;
}

void properties_load_saved() {
    m_saving = true;
    DIR *dir = opendir(SAVED_DIR);
    if (dir == nullptr) {
        return;
    }
    for (struct dirent *entry; (entry = readdir(dir)) != nullptr;) {
        std::string name = entry->d_name;
        std::string value;
        if (text_starts(name, "persist.") && text_read_file(std::string(SAVED_DIR "/") + name, &value) &&
            legal_name(name) && legal_value(name, value)) {
            property_store(name, value);
        }
    }
    closedir(dir);
}

static uint32_t refuse(const std::string &name, const std::string &value, uint32_t code, uid_t uid) {
    journal({"refused", name, value, text_format("0x%x", code), std::to_string(uid)});
    return code;
}

static uint32_t request_control(const std::string &name, const std::string &value, uid_t uid) {
    journal({"prop", name, value});
    uint32_t code = service_control(name.substr(4), value);
    if (code == PROPERTY_OK) {
        return PROPERTY_OK;
    }
    refuse(name, value, code, uid);
    return options().old_ctl ? static_cast<uint32_t>(PROPERTY_OK) : code;  // an old init answers before it looks
}

uint32_t property_request(const std::string &name, const std::string &value, uid_t uid) {
    if (!legal_name(name)) {
        return refuse(name, value, PROPERTY_NAME, uid);
    }
    if (!legal_value(name, value)) {
        return refuse(name, value, PROPERTY_VALUE, uid);
    }
    if (text_starts(name, "ctl.")) {
        return request_control(name, value, uid);
    }
    if (text_starts(name, "ro.") && find(name) != nullptr) {
        return refuse(name, value, PROPERTY_READ_ONLY, uid);
    }
    if (!property_store(name, value)) {
        return refuse(name, value, PROPERTY_FAILED, uid);
    }
    // A full /data loses the value at the next boot; the set itself has succeeded.
    if (m_saving && text_starts(name, "persist.") && !save(name, value)) {
        journal({"unsaved", name});
    }
    actions_property_set(name, value);
    return PROPERTY_OK;
}
