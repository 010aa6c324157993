#pragma once
// The saved log sets on the handset's card.

#include <cstdint>
#include <string>
#include <vector>

#include "options.h"

constexpr char SETS_DIRECTORY[] = "/storage/real_sd/logs";

// How far a set has come.
enum set_state {
    SET_COMPLETE,
    SET_BEING_SAVED,
    SET_INCOMPLETE  // the save was broken off
};

struct log_set {
    std::string name;  // "2026_01_31_23_59_59", the handset's local time
    uint64_t bytes = 0;
    set_state state = SET_INCOMPLETE;
};

// Reads the sets on the card, oldest first. Result: a host_status, with failures said.
int sets_list(const host_options &options, std::vector<log_set> *sets);

// The sub-command `sets`: prints them, as JSON with options.is_json. Result: a host_status, with failures said.
int sets_show(const host_options &options);

// Lets the packet collector write into its file what it and the kernel have buffered, which takes a second: a save copies
// the file as it is. Does nothing where no packets are captured. A handset that cannot be asked is said, and no failure.
void sets_flush_packets(const host_options &options);
