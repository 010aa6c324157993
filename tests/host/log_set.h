// Log sets made by tests of `sa-host view`.
#ifndef TESTS_HOST_LOG_SET_H
#define TESTS_HOST_LOG_SET_H

#include "tests/host/support.h"

// Writes a file into a directory, which is made with its parents.
void set_write(const std::string &dir, const std::string &name, const std::string &text);

// Makes dir/name with everything that save-log leaves and nothing in its collectors' files. Result: its path.
std::string set_make(const temporary_dir &dir, const std::string &name = "2026_01_02_03_04_05");

// A capture with a UDP packet of no data, from port 1000, for each time ("seconds.microseconds" of UTC).
std::string set_capture(const std::vector<std::pair<unsigned, unsigned>> &times);

#endif
