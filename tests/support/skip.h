// With handsets in place, skips tests that need what only namespaces provide. The test prints what is missing.
#ifndef TESTS_SUPPORT_SKIP_H
#define TESTS_SUPPORT_SKIP_H

#include <string>

// Installs the check; call it before the first boot. Returns true.
bool skip_unsupported();
// Skips the test if handsets are booted in place, which do not have `what`.
void skip_in_place(const std::string &what);

#endif
