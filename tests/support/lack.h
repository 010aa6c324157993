// Tests and handsets in place: a test that asks its handset for what there is only with namespaces is skipped, and says
// what that was.
#ifndef TESTS_SUPPORT_LACK_H
#define TESTS_SUPPORT_LACK_H

// To be called before the first boot. Returns true.
bool skip_what_lacks();

#endif
