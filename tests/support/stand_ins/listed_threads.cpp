// Preloaded into the agent: pthread_create and pthread_kill that share the lock of a list of threads, as some C libraries
// have it. Each creation appends "blocked" or "open" to /dev/.desk/creations: whether the caller has blocked every signal
// that the agent handles. While /dev/.desk/reset exists a creation sends its own thread SIGUSR2 and removes the file.
// State: the lock.
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

static const int kHandled[] = {SIGINT, SIGTERM, SIGSEGV, SIGBUS, SIGUSR1, SIGUSR2};

static pthread_mutex_t m_list_lock = PTHREAD_MUTEX_INITIALIZER;

template <typename function>
static function *find(function *, const char *name) {
    return reinterpret_cast<function *>(dlsym(RTLD_NEXT, name));
}
static const auto real_pthread_create = find(pthread_create, "pthread_create");
static const auto real_pthread_kill = find(pthread_kill, "pthread_kill");

static void note_mask() {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    bool is_blocked = true;
    for (const int signo : kHandled) {
        is_blocked = is_blocked && sigismember(&mask, signo) == 1;
    }
    const char *text = is_blocked ? "blocked\n" : "open\n";
    const int fd = open("/dev/.desk/creations", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd >= 0) {
        (void)!write(fd, text, strlen(text));
        close(fd);
    }
}

extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*routine)(void *),
                              void *arg) noexcept {
    note_mask();
    pthread_mutex_lock(&m_list_lock);
    if (unlink("/dev/.desk/reset") == 0) {
        syscall(SYS_tgkill, getpid(), syscall(SYS_gettid), SIGUSR2);
    }
    const int result = real_pthread_create(thread, attr, routine, arg);
    pthread_mutex_unlock(&m_list_lock);
    return result;
}

extern "C" int pthread_kill(pthread_t thread, int signo) noexcept {
    pthread_mutex_lock(&m_list_lock);
    const int result = real_pthread_kill(thread, signo);
    pthread_mutex_unlock(&m_list_lock);
    return result;
}
