// Boots and ends handsets. /data is a file system in a mount namespace that the handle keeps open, so that it outlives a
// boot. A boot is the program bwrap with the handset's init in it. State: in the handle.
#include <errno.h>
#include <fcntl.h>
#include <linux/close_range.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "handset/common/paths.h"
#include "handset/desk/handle.h"

static const std::string kImage = DESK_IMAGE;  // the tree of /system
static const int kBootMs = 60000;

// ---- /data

// An existing directory to mount over in a private namespace; the image must not be below it.
static std::string mount_point_for_data() {
    for (const char *path : {"/media", "/srv", "/opt", "/mnt", "/home", "/root", "/var"}) {
        std::string below = std::string(path) + "/";
        struct stat st;
        if (lstat(path, &st) == 0 && S_ISDIR(st.st_mode) && kImage.compare(0, below.size(), below) != 0) {
            return path;
        }
    }
    return "";
}

// In a forked child: makes the namespace and waits until the parent has opened it.
[[noreturn]] static void hold_data(const char *mount_point, const char *mount_options, int ready, int go) {
    char byte = 0;
    bool made = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                mount("tmpfs", mount_point, "tmpfs", MS_NOSUID | MS_NODEV, mount_options) == 0;
    byte = made ? 1 : 0;
    if (write(ready, &byte, 1) == 1 && read(go, &byte, 1) < 0) {
        _exit(1);
    }
    _exit(0);
}

static bool make_data(desk *h) {
    std::string mount_options = "mode=0771,uid=1000,gid=1000,size=" + std::to_string(h->options.data_size);
    int ready[2];
    int go[2];
    if (pipe2(ready, O_CLOEXEC) != 0) {
        return desk_fail_errno("pipe");
    }
    if (pipe2(go, O_CLOEXEC) != 0) {
        close(ready[0]);
        close(ready[1]);
        return desk_fail_errno("pipe");
    }
    pid_t pid = fork();
    if (pid == 0) {
        close(go[1]);
        hold_data(h->data_mount.c_str(), mount_options.c_str(), ready[1], go[0]);
    }
    close(ready[1]);
    close(go[0]);
    char byte = 0;
    bool made = pid > 0 && read(ready[0], &byte, 1) == 1 && byte == 1;
    if (made) {
        h->data_ns = open(("/proc/" + std::to_string(pid) + "/ns/mnt").c_str(), O_RDONLY | O_CLOEXEC);
    }
    close(ready[0]);
    close(go[1]);
    if (pid > 0) {
        waitpid(pid, nullptr, 0);
    }
    return h->data_ns >= 0 || desk_fail("no file system for /data could be made");
}

// ---- the sandbox's arguments

static void add_host_libraries(std::vector<std::string> *args) {
    for (const char *path : {"/lib", "/lib32", "/lib64", "/libx32"}) {
        char target[256];
        ssize_t length = readlink(path, target, sizeof(target) - 1);
        if (length > 0) {
            target[length] = '\0';
            args->insert(args->end(), {"--symlink", target, path});
        } else if (access(path, F_OK) == 0) {
            args->insert(args->end(), {"--ro-bind", path, path});
        }
    }
}

// All capabilities of root but those that no namespace confines: modules, clock, ports, power.
static void add_sandbox(std::vector<std::string> *args, const std::string &image, const std::string &data) {
    args->insert(args->end(), {"bwrap",      "--unshare-pid", "--unshare-ipc",  "--unshare-uts",     "--unshare-net",
                               "--hostname", "localhost",     "--as-pid-1",     "--die-with-parent", "--cap-add",
                               "ALL",        "--cap-drop",    "CAP_SYS_MODULE", "--cap-drop",        "CAP_SYS_TIME",
                               "--cap-drop", "CAP_SYS_RAWIO", "--cap-drop",     "CAP_SYS_BOOT",      "--ro-bind",
                               "/usr",       "/usr"});
    add_host_libraries(args);
    args->insert(args->end(), {"--ro-bind-try", "/etc/ld.so.cache", "/etc/ld.so.cache", "--ro-bind", image, "/image",
                               "--bind", data, "/data", "--proc", "/proc", "--", "/image/bin/init"});
}

// The options for init. What an earlier boot with the same options has saved is not set again.
static boot_options options_for_init(const desk *h) {
    boot_options o = h->options;
    o.environment = reports_environment();
    if (!h->options.timezone.empty()) {
        o.environment.push_back("TZ=" + h->options.timezone);
    }
    o.environment.insert(o.environment.end(), h->options.environment.begin(), h->options.environment.end());
    const auto is_saved = [h](const std::pair<std::string, std::string> &property) {
        return h->same_data && property.first.compare(0, 8, "persist.") == 0;
    };
    o.properties.erase(std::remove_if(o.properties.begin(), o.properties.end(), is_saved), o.properties.end());
    return o;
}

static std::vector<std::string> boot_arguments(const desk *h, int init_fd, int kmsg) {
    std::vector<std::string> args;
    if (h->register_fd >= 0) {
        args = {"init", "image=" + kImage, "register=" + std::to_string(h->register_fd),
                h->kept_data ? "keep_data=1" : "keep_data=0"};
    } else {
        add_sandbox(&args, kImage, h->data_mount);
    }
    args.insert(args.end(), {"booter=" + std::to_string(init_fd), "kmsg=" + std::to_string(kmsg)});
    const std::vector<std::string> options = boot_options_arguments(options_for_init(h));
    args.insert(args.end(), options.begin(), options.end());
    return args;
}

// ---- start and end of the processes

static char *const kEnvironment[] = {const_cast<char *>("PATH=/usr/bin:/bin:/usr/local/bin"), nullptr};

// The handset inherits no descriptor of the caller but standard error and `passed`.
static void close_others(std::initializer_list<int> passed) {
    int null = open("/dev/null", O_RDWR);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (null < 0 || dup2(null, 0) < 0 || dup2(null, 1) < 0 || chdir("/") != 0 ||
        close_range(3, ~0u, CLOSE_RANGE_CLOEXEC) != 0) {
        _exit(126);
    }
    for (int fd : passed) {
        if (fd >= 0) {
            fcntl(fd, F_SETFD, 0);
        }
    }
}

[[noreturn]] static void become_sandbox(int data_ns, int init_fd, int kmsg, char *const *argv) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (setns(data_ns, CLONE_NEWNS) != 0) {
        _exit(126);
    }
    close_others({init_fd, kmsg});
    execvpe("bwrap", argv, kEnvironment);
    _exit(127);
}

// In place init removes files at the end, so neither the death of this process nor an interrupt key may kill it. The end
// of its socket ends it.
[[noreturn]] static void become_init(int init_fd, int register_fd, char *const *argv) {
    setsid();
    close_others({init_fd, register_fd});
    execve((kImage + "/bin/init").c_str(), argv, kEnvironment);
    _exit(127);
}

static bool start_sandbox(desk *h) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        return desk_fail_errno("socketpair");
    }
    int on = 1;
    setsockopt(ends[0], SOL_SOCKET, SO_PASSCRED, &on, sizeof(on));  // for the pid of init, which sends first
    int kmsg =
        h->options.kmsg_machine && h->register_fd < 0 ? open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC) : -1;
    std::vector<std::string> args = boot_arguments(h, ends[1], kmsg);
    std::vector<char *> argv;
    for (std::string &arg : args) {
        argv.push_back(&arg[0]);
    }
    argv.push_back(nullptr);
    h->sandbox = fork();
    if (h->sandbox == 0 && h->register_fd >= 0) {
        become_init(ends[1], h->register_fd, argv.data());
    }
    if (h->sandbox == 0) {
        become_sandbox(h->data_ns, ends[1], kmsg, argv.data());
    }
    close(ends[1]);
    if (kmsg >= 0) {
        close(kmsg);
    }
    h->init_fd = ends[0];
    return h->sandbox > 0 || desk_fail_errno("fork");
}

// bwrap ends when the handset's first process has ended, and that ends after all others. In place there is no bwrap; init
// removes its files and ends when its socket is closed.
static void stop_sandbox(desk *h) {
    if (h->init > 0 && !h->attached && h->register_fd < 0) {
        kill(h->init, SIGKILL);
    }
    if (h->init_fd >= 0) {
        close(h->init_fd);
    }
    if (h->root >= 0) {
        close(h->root);
    }
    if (h->sandbox > 0) {
        if (h->init <= 0 && h->register_fd < 0) {
            kill(h->sandbox, SIGKILL);
        }
        while (waitpid(h->sandbox, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    reports_close(h);
    h->init_fd = h->root = -1;
    h->sandbox = h->init = -1;
    h->log.clear();
    h->log_offset = 0;
    h->log_rest.clear();
}

static bool expect(desk *h, const std::string &word, int64_t end, pid_t *sender) {
    int64_t left = end - desk_now_ms();
    std::string said = control_receive(h->init_fd, left > 0 ? static_cast<int>(left) : 0, sender);
    if (said == word) {
        return true;
    }
    return desk_fail(said.empty() ? "the handset did not boot (is bubblewrap installed?): " + desk_error() : said);
}

// Whether an earlier boot with the same options has created or removed it already.
static bool is_done(const desk *h, const std::string &path) {
    return h->same_data && path.compare(0, 6, "/data/") == 0;
}

static bool put_file(desk *h, const desk_file &file) {
    if (!file.host_source.empty()) {
        return desk_bring(h, file.host_source, file.path, file.mode, file.uid, file.gid);
    }
    return desk_remove(h, file.path) && desk_write_file(h, file.path, file.text, file.mode, file.uid, file.gid);
}

static bool put_files(desk *h) {
    for (const desk_file &file : h->options.files) {
        if (is_done(h, file.path)) {
            continue;
        }
        size_t slash = file.path.rfind('/');
        if (slash != std::string::npos && slash > 0 && !desk_make_dir(h, file.path.substr(0, slash))) {
            return false;
        }
        if (!put_file(h, file)) {
            return false;
        }
    }
    for (const std::string &path : h->options.absent) {
        if (!is_done(h, path) && !desk_remove(h, path)) {
            return false;
        }
    }
    return h->options.prepare == nullptr || h->options.prepare(h) || desk_fail("prepare has failed: " + desk_error());
}

static bool boot(desk *h) {
    int64_t end = desk_now_ms() + kBootMs;
    if (!start_sandbox(h)) {
        return false;
    }
    pid_t init = -1;
    if (!expect(h, "ready", end, &init)) {
        return false;
    }
    h->init = init;
    h->root = open(desk_host_path(h, "/").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (h->root < 0) {
        return desk_fail_errno("the handset's root");
    }
    if (!reports_open(h) || !put_files(h)) {
        return false;
    }
    return send(h->init_fd, "go", 2, MSG_NOSIGNAL) == 2 && expect(h, "up", end, nullptr);
}

// ---- public

// What a handset needs before its first boot: in place the lock, else /data.
static bool prepare_first_boot(desk *h) {
    if (desk_in_place()) {
        in_place_hide_name();
        h->register_fd = in_place_lock(kBootMs);
        return h->register_fd >= 0;
    }
    h->data_mount = mount_point_for_data();
    if (h->data_mount.empty()) {
        return desk_fail("no directory to mount over");
    }
    return make_data(h);
}

desk *desk_boot(const desk_options &options) {
    if (geteuid() != 0) {
        desk_fail("handsets need root");
        return nullptr;
    }
    if (desk_in_place() && !in_place_allows(options)) {
        return nullptr;
    }
    desk *h = new desk;
    h->options = options;
    if (prepare_first_boot(h) && boot(h)) {
        return h;
    }
    std::string reason = desk_error();
    desk_end(h);
    desk_fail(reason);
    return nullptr;
}

desk *desk_attach(pid_t init) {
    desk *h = new desk;
    h->attached = true;
    h->init = init;
    h->root = open(desk_host_path(h, "/").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (h->root >= 0 && desk_exists(h, CONTROL_SOCKET)) {
        return h;
    }
    desk_fail("process " + std::to_string(init) + " is no handset's init");
    desk_end(h);
    return nullptr;
}

void desk_end(desk *h) {
    if (h == nullptr) {
        return;
    }
    stop_sandbox(h);
    if (h->data_ns >= 0) {
        close(h->data_ns);
    }
    if (h->register_fd >= 0) {
        in_place_unlock(h->register_fd);
    }
    delete h;
}

bool desk_reboot(desk *h, bool keep, const desk_options *options) {
    if (h->attached) {
        return desk_fail("only the program that booted it can reboot it");
    }
    if (options != nullptr && h->register_fd >= 0 && !in_place_allows(*options)) {
        return false;
    }
    if (keep && h->register_fd >= 0) {
        send(h->init_fd, "keep", 4, MSG_NOSIGNAL);
    }
    stop_sandbox(h);
    if (options != nullptr) {
        h->options = *options;
    }
    h->same_data = keep && options == nullptr;
    h->kept_data = keep;
    if (!keep && h->register_fd < 0) {
        close(h->data_ns);
        h->data_ns = -1;
        if (!make_data(h)) {
            return false;
        }
    }
    return boot(h);
}
