// Properties, services, kernel messages and the SD card of a handset. No state.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "handset/desk/handle.h"
#include "handset/platform/property_area.h"

static const char kKernelMessages[] = "kernel messages of its own (/proc/kmsg is the machine's)";

std::string desk_property(desk *h, const std::string &name) {
    const property_area *area = property_area_map(desk_open(h, PROPERTY_AREA_PATH, O_RDONLY));
    if (area == nullptr) {
        return "";
    }
    const property_slot *slot = property_area_find(area, name.c_str());
    char value[PROPERTY_VALUE_SIZE] = "";
    if (slot != nullptr) {
        property_slot_read(slot, value, sizeof(value));
    }
    munmap(const_cast<property_area *>(area), sizeof(property_area));
    return value;
}

int desk_set_property(desk *h, const std::string &name, const std::string &value) {
    return control_number(control_ask(h, {"set", name, value}), "code", -1);
}

int desk_service_start(desk *h, const std::string &name) {
    return desk_set_property(h, "ctl.start", name);
}

int desk_service_stop(desk *h, const std::string &name) {
    return desk_set_property(h, "ctl.stop", name);
}

int desk_service_restart(desk *h, const std::string &name) {
    return desk_set_property(h, "ctl.restart", name);
}

std::string desk_service_state(desk *h, const std::string &name) {
    return desk_property(h, "init.svc." + name);
}

bool desk_wait_service(desk *h, const std::string &name, const std::string &state, int limit_ms) {
    return desk_until([&] { return desk_service_state(h, name) == state; }, limit_ms);
}

pid_t desk_service_pid(desk *h, const std::string &name) {
    return control_number(control_ask(h, {"service", name}), "pid", -1);
}

pid_t desk_agent_pid(desk *h) {
    return desk_service_pid(h, "zr-qel-sa");
}

bool desk_kmsg_feed(desk *h, const std::string &record) {
    if (desk_in_place()) {
        return in_place_missing(kKernelMessages);
    }
    return control_number(control_ask(h, {"kmsg", record}), "error", -1) == 0 || desk_fail("record not taken");
}

bool desk_kmsg_drained(desk *h, int limit_ms) {
    if (desk_in_place()) {
        return in_place_missing(kKernelMessages);
    }
    return control_number(control_ask(h, {"drained"}, limit_ms), "error", -1) == 0;
}

bool desk_set_sd_card(desk *h, bool present) {
    if (desk_in_place()) {
        return in_place_missing("SD card that can be removed");
    }
    const std::string answer = control_ask(h, {"sd_card", present ? "1" : "0"});
    return control_number(answer, "error", -1) == 0 || desk_fail("the SD card: " + answer);
}
