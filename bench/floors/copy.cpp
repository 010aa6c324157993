// Floor of the kernel-message reader: copies pieces of 99 bytes from standard input to standard output, in a process with a
// second thread, as the agent does. No state.
#include <pthread.h>
#include <unistd.h>

#include "bench/floors/floors.h"

static void *copy(void *) {
    char piece[99];
    ssize_t count;
    while ((count = read(STDIN_FILENO, piece, sizeof(piece))) > 0) {
        (void)!write(STDOUT_FILENO, piece, static_cast<size_t>(count));
    }
    return nullptr;
}

int floor_copy(void) {
    pthread_t thread;
    return pthread_create(&thread, nullptr, copy, nullptr) == 0 ? pthread_join(thread, nullptr) : 1;
}
