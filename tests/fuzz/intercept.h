// What fuzz targets put in place of effects outside the process: shell, children, signals, pauses, init.
// The linker redirects the calls (--wrap); the code under test is the agent's own, unchanged.
#ifndef TESTS_FUZZ_INTERCEPT_H
#define TESTS_FUZZ_INTERCEPT_H

#include <setjmp.h>
#include <stddef.h>
#include <stdint.h>

// The calls of this thread are redirected while one of these lives; the fuzzer's own are not. Every target declares one
// for its run.
struct intercept_scope {
    intercept_scope();
    ~intercept_scope();
};

// Bytes that the next read calls return, piece by piece, and then -1 with EBADF; null: reads are real.
extern const uint8_t *intercept_bytes;
extern size_t intercept_size;
extern int intercept_reads;  // how many reads are still served from the bytes
// Where the intercepted end of the process returns to.
extern sigjmp_buf intercept_end;
// How often the shell was asked; a target may look whether what was asked is sane.
extern void (*intercept_shell)(const char *command);

#endif
