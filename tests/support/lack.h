// Tests and handsets in place: a test that asks its handset for what there is only with namespaces is skipped, and says
// what that was.
#ifndef TESTS_SUPPORT_LACK_H
#define TESTS_SUPPORT_LACK_H

#include <string>

// To be called before the first boot. Returns true.
bool skip_what_lacks();
// Ends the test, skipped, when handsets are booted in place, which lack `what`.
void skip_in_place(const std::string &what);

#endif
