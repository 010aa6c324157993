// For tests of what a sanitizer itself changes: memory in use, stacks, the number of threads.
#ifndef TESTS_SUPPORT_SANITIZED_H
#define TESTS_SUPPORT_SANITIZED_H

// Whether the agent in the handset was built with sanitizers.
bool is_sanitized();

#endif
