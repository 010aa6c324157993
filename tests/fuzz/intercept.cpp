// Stand-ins for calls with effects outside the process. State: what the running target asked for.
#include "tests/fuzz/intercept.h"

#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>

static thread_local bool intercept_is_on;
const uint8_t *intercept_bytes;
size_t intercept_size;
int intercept_reads;
sigjmp_buf intercept_end;
void (*intercept_shell)(const char *command);

intercept_scope::intercept_scope() {
    intercept_is_on = true;
}

intercept_scope::~intercept_scope() {
    intercept_is_on = false;
}

extern "C" {

int __real_system(const char *command);
pid_t __real_fork(void);
int __real_kill(pid_t pid, int signo);
int __real_usleep(useconds_t pause);
unsigned __real_sleep(unsigned pause);
int __real_pthread_create(pthread_t *id, const pthread_attr_t *attr, void *(*routine)(void *), void *arg);
__attribute__((noreturn)) void __real__exit(int status);
ssize_t __real_read(int fd, void *buffer, size_t size);

int __wrap_system(const char *command) {
    if (!intercept_is_on) {
        return __real_system(command);
    }
    if (intercept_shell != nullptr) {
        intercept_shell(command);
    }
    return strlen(command) % 2 == 0 ? 0 : 256;  // both outcomes occur
}

pid_t __wrap_fork(void) {
    errno = EAGAIN;
    return intercept_is_on ? -1 : __real_fork();
}

int __wrap_kill(pid_t pid, int signo) {
    return intercept_is_on ? 0 : __real_kill(pid, signo);
}

int __wrap_usleep(useconds_t pause) {
    return intercept_is_on ? 0 : __real_usleep(pause);
}

unsigned __wrap_sleep(unsigned pause) {
    return intercept_is_on ? 0 : __real_sleep(pause);
}

int __wrap_property_set(const char *, const char *value) {
    return value[0] == '1' ? 0 : -1;
}

int __wrap_pthread_create(pthread_t *id, const pthread_attr_t *attr, void *(*routine)(void *), void *arg) {
    return intercept_is_on ? EAGAIN : __real_pthread_create(id, attr, routine, arg);
}

__attribute__((noreturn)) void __wrap__exit(int status) {
    if (!intercept_is_on) {
        __real__exit(status);
    }
    siglongjmp(intercept_end, 1);
}

ssize_t __wrap_read(int fd, void *buffer, size_t size) {
    if (!intercept_is_on || intercept_bytes == nullptr) {
        return __real_read(fd, buffer, size);
    }
    if (intercept_reads-- <= 0) {
        errno = EBADF;
        return -1;
    }
    const size_t count = size < intercept_size ? size : intercept_size;
    memcpy(buffer, intercept_bytes, count);
    intercept_bytes += count;
    intercept_size -= count;
    return static_cast<ssize_t>(count);
}
}
