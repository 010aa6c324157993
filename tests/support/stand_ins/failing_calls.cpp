// Preloaded into the agent (LD_PRELOAD): calls of the C library that fail as long as a file of theirs exists in
// /dev/.desk/fail, each with the error number that the file holds; statfs tells of the file system that it describes.
// State: the library's own calls. The files are looked at on each call.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/vfs.h>
#include <unistd.h>

// Content of a call's file; false when it does not exist. Keeps errno.
static bool read_file(const char *call, char *text, size_t size) {
    const int saved_errno = errno;
    char path[64];
    snprintf(path, sizeof(path), "/dev/.desk/fail/%s", call);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        const ssize_t length = read(fd, text, size - 1);
        text[length > 0 ? length : 0] = '\0';
        close(fd);
    }
    errno = saved_errno;
    return fd >= 0;
}

// The error number that a call is to fail with, 0 for none. "1 /path" makes it fail for that path alone.
static int failure(const char *call, const char *path = "") {
    char text[128];
    if (!read_file(call, text, sizeof(text))) {
        return 0;
    }
    const char *only = strchr(text, ' ');
    return only == nullptr || strcmp(only + 1, path) == 0 ? atoi(text) : 0;
}

// Whether a call is to fail; errno tells how.
static bool fails(const char *call, const char *path = "") {
    const int error = failure(call, path);
    if (error != 0) {
        errno = error;
    }
    return error != 0;
}

// Found before anything of the program runs: a child between fork and exec must not look symbols up.
template <typename function>
static function *find(function *, const char *name) {
    return reinterpret_cast<function *>(dlsym(RTLD_NEXT, name));
}
static const auto real_pthread_create = find(pthread_create, "pthread_create");
static const auto real_fork = find(fork, "fork");
static const auto real_chown = find(chown, "chown");
static const auto real_chmod = find(chmod, "chmod");
static const auto real_setgid = find(setgid, "setgid");
static const auto real_setuid = find(setuid, "setuid");
static const auto real_socket = find(socket, "socket");
static const auto real_statfs = find(statfs, "statfs64");  // its name in a build with 64-bit file offsets

extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*routine)(void *),
                              void *arg) noexcept {
    const int error = failure("pthread_create");
    return error != 0 ? error : real_pthread_create(thread, attr, routine, arg);
}

extern "C" pid_t fork() noexcept {
    return fails("fork") ? -1 : real_fork();
}

extern "C" int chown(const char *path, uid_t owner, gid_t group) noexcept {
    return fails("chown", path) ? -1 : real_chown(path, owner, group);
}

extern "C" int chmod(const char *path, mode_t mode) noexcept {
    return fails("chmod", path) ? -1 : real_chmod(path, mode);
}

extern "C" int setgid(gid_t group) noexcept {
    return fails("setgid") ? -1 : real_setgid(group);
}

extern "C" int setuid(uid_t user) noexcept {
    return fails("setuid") ? -1 : real_setuid(user);
}

extern "C" int socket(int domain, int type, int protocol) noexcept {
    return fails("socket") ? -1 : real_socket(domain, type, protocol);
}

// The file: an error number alone, or "blocks bavail bsize".
extern "C" int statfs(const char *path, struct statfs *buffer) noexcept {
    char text[96];
    unsigned long long blocks = 0;
    unsigned long long available = 0;
    long size = 0;
    if (!read_file("statfs", text, sizeof(text))) {
        return real_statfs(path, buffer);
    }
    if (sscanf(text, "%llu %llu %ld", &blocks, &available, &size) != 3) {
        errno = atoi(text);
        return -1;
    }
    memset(buffer, 0, sizeof(*buffer));
    buffer->f_blocks = static_cast<decltype(buffer->f_blocks)>(blocks);
    buffer->f_bfree = static_cast<decltype(buffer->f_bfree)>(available + 7);  // the reserve of root
    buffer->f_bavail = static_cast<decltype(buffer->f_bavail)>(available);
    buffer->f_bsize = static_cast<decltype(buffer->f_bsize)>(size);
    return 0;
}
