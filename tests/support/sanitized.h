// For tests of what a sanitizer itself changes: memory in use, stacks, the number of threads.
#ifndef TESTS_SUPPORT_SANITIZED_H
#define TESTS_SUPPORT_SANITIZED_H

// Whether the agent in the handset was built with sanitizers.
bool is_sanitized();
// Threads that a sanitizer adds to every process: one of the thread sanitizer's own.
int sanitizer_threads();

#endif
