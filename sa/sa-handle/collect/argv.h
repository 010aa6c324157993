// Argument vectors of the collectors' programs.
#ifndef SA_SA_HANDLE_COLLECT_ARGV_H
#define SA_SA_HANDLE_COLLECT_ARGV_H

#include <stddef.h>

enum { SA_ARGV_SLOTS = 21, SA_ARGV_SLOT_SIZE = 128 };

/** An argument vector and the texts that it points to. Its address must not change while it is in use. */
struct sa_argv {
    int num;                                        // arguments
    size_t limit;                                   // bytes of a slot that are used, the NUL included
    char text_a[SA_ARGV_SLOTS][SA_ARGV_SLOT_SIZE];  // the arguments
    char *vector_a[SA_ARGV_SLOTS + 1];              // null-terminated
};

/** Empties a vector whose arguments are cut at limit - 1 characters; limit is at most SA_ARGV_SLOT_SIZE. */
void sa_argv_clear(struct sa_argv *argv_ptr, size_t limit);

/** Adds an argument, or, behind the 21st, nothing. */
void sa_argv_add(struct sa_argv *argv_ptr, const char *text);

/** Adds an option and its value. */
void sa_argv_add_pair(struct sa_argv *argv_ptr, const char *option, const char *value);

#endif
