// Booting and ending handsets. /data is held by a mount namespace of the handle's own, so that it outlives a boot; a
// boot is the sandbox program with our init in it; both end with the descriptors and processes that this file owns.
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

#include "../init/control.h"
#include "handle.h"

// ---- /data

// An existing directory to mount over in a private namespace; the image must not lie below it.
static std::string place_for_data(const std::string &image) {
    for (const char *place : {"/media", "/srv", "/opt", "/mnt", "/home", "/root", "/var"}) {
        std::string below = std::string(place) + "/";
        struct stat st;
        if (lstat(place, &st) == 0 && S_ISDIR(st.st_mode) && image.compare(0, below.size(), below) != 0) {
            return place;
        }
    }
    return "";
}

// In a forked child: makes the namespace and waits until the parent has it.
[[noreturn]] static void hold_data(const char *place, const char *mount_options, int ready, int go) {
    char byte = 0;
    bool made = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                mount("tmpfs", place, "tmpfs", MS_NOSUID | MS_NODEV, mount_options) == 0;
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
        hold_data(h->data_place.c_str(), mount_options.c_str(), ready[1], go[0]);
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

// All of root's rights but those that reach past every namespace: modules, clock, ports, power.
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

static std::string flag(const char *name, bool value) {
    return std::string(name) + (value ? "=1" : "=0");
}

static std::string number(const char *name, long long value) {
    return std::string(name) + "=" + std::to_string(value);
}

static void add_environment(std::vector<std::string> *args, const desk_options &o) {
    for (const std::string &variable : reports_environment()) {
        args->push_back("env=" + variable);
    }
    if (!o.timezone.empty()) {
        args->push_back("env=TZ=" + o.timezone);
    }
    for (const std::string &variable : o.environment) {
        args->push_back("env=" + variable);
    }
}

static std::string image_of(const desk_options &o) {
    return o.image.empty() ? DESK_IMAGE : o.image;
}

static std::vector<std::string> boot_arguments(const desk *h, int line, int kmsg) {
    const desk_options &o = h->options;
    std::vector<std::string> args;
    if (h->place >= 0) {
        args = {"init", "image=" + image_of(o), number("register", h->place), flag("keep_data", h->kept_data)};
    } else {
        add_sandbox(&args, image_of(o), h->data_place);
    }
    args.insert(args.end(),
                {number("line", line), number("kmsg", kmsg), flag("agent", o.agent), flag("log_dir", o.log_dir),
                 flag("card", o.card), number("card_size", static_cast<long long>(o.card_size)), flag("tmp", o.tmp),
                 flag("config", o.config), flag("old_ctl", o.old_ctl), number("protocol", o.property_protocol),
                 number("restart_ms", o.restart_ms), number("umask", o.umask), flag("closed_stdin", o.closed_stdin),
                 "output=" + o.output, "printk=" + o.printk, "link=" + o.link});
    add_environment(&args, o);
    for (const auto &preset : o.properties) {
        if (h->same_data && preset.first.compare(0, 8, "persist.") == 0) {
            continue;
        }
        args.push_back("prop=" + preset.first + "=" + preset.second);
    }
    return args;
}

// ---- start and end of the processes

static char *const m_environment[] = {const_cast<char *>("PATH=/usr/bin:/bin:/usr/local/bin"), nullptr};

// Nothing that our caller has open may appear in a handset but its standard error and what is named here.
static void take_streams(std::initializer_list<int> passed) {
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

[[noreturn]] static void become_sandbox(int data_ns, int line, int kmsg, char *const *argv) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (setns(data_ns, CLONE_NEWNS) != 0) {
        _exit(126);
    }
    take_streams({line, kmsg});
    execvpe("bwrap", argv, m_environment);
    _exit(127);
}

// Init has to clear up: neither our death nor an interrupt key may kill it. The end of the line tells it.
[[noreturn]] static void become_init(const std::string &image, int line, int place, char *const *argv) {
    setsid();
    take_streams({line, place});
    execve((image + "/bin/init").c_str(), argv, m_environment);
    _exit(127);
}

static bool start_sandbox(desk *h) {
    int line[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, line) != 0) {
        return desk_fail_errno("socketpair");
    }
    int on = 1;
    setsockopt(line[0], SOL_SOCKET, SO_PASSCRED, &on, sizeof(on));  // init's pid comes with its first word
    int kmsg = h->options.kmsg_machine && h->place < 0 ? open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC) : -1;
    std::vector<std::string> args = boot_arguments(h, line[1], kmsg);
    std::vector<char *> argv;
    for (std::string &arg : args) {
        argv.push_back(&arg[0]);
    }
    argv.push_back(nullptr);
    h->sandbox = fork();
    if (h->sandbox == 0 && h->place >= 0) {
        become_init(image_of(h->options), line[1], h->place, argv.data());
    }
    if (h->sandbox == 0) {
        become_sandbox(h->data_ns, line[1], kmsg, argv.data());
    }
    close(line[1]);
    if (kmsg >= 0) {
        close(kmsg);
    }
    h->line = line[0];
    return h->sandbox > 0 || desk_fail_errno("fork");
}

// The sandbox program ends when the handset's first process has ended, and that one ends after all others. In place there
// is no such program, and init ends by itself when its line ends: it has to clear up.
static void stop_sandbox(desk *h) {
    if (h->init > 0 && !h->attached && h->place < 0) {
        kill(h->init, SIGKILL);
    }
    if (h->line >= 0) {
        close(h->line);
    }
    if (h->root >= 0) {
        close(h->root);
    }
    if (h->sandbox > 0) {
        if (h->init <= 0 && h->place < 0) {
            kill(h->sandbox, SIGKILL);
        }
        while (waitpid(h->sandbox, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    reports_close(h);
    h->line = h->root = -1;
    h->sandbox = h->init = -1;
    h->log.clear();
    h->log_offset = 0;
    h->log_rest.clear();
}

static bool expect(desk *h, const std::string &word, int64_t end, pid_t *sender) {
    int64_t left = end - desk_now_ms();
    std::string said = control_receive(h->line, left > 0 ? static_cast<int>(left) : 0, sender);
    if (said == word) {
        return true;
    }
    return desk_fail(said.empty() ? "the handset did not boot (is bubblewrap installed?): " + desk_error() : said);
}

// What an earlier boot with the same options has put on /data lives there by itself.
static bool is_settled(const desk *h, const std::string &path) {
    return h->same_data && path.compare(0, 6, "/data/") == 0;
}

static bool put_file(desk *h, const desk_file &file) {
    desk_remove(h, file.path);
    if (file.host_source.empty()) {
        return desk_write_file(h, file.path, file.text, file.mode, file.uid, file.gid);
    }
    int fd = desk_bring(h, file.host_source, file.path, file.mode) ? desk_open(h, file.path, O_RDONLY) : -1;
    bool owned = fd >= 0 && fchown(fd, file.uid, file.gid) == 0;
    if (fd >= 0) {
        close(fd);
    }
    return owned;
}

static bool put_files(desk *h) {
    for (const desk_file &file : h->options.files) {
        if (is_settled(h, file.path)) {
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
        if (!is_settled(h, path) && !desk_remove(h, path)) {
            return false;
        }
    }
    return h->options.prepare == nullptr || h->options.prepare(h) || desk_fail("prepare refused: " + desk_error());
}

static bool boot(desk *h) {
    int64_t end = desk_now_ms() + h->options.boot_ms;
    if (!start_sandbox(h)) {
        return false;
    }
    pid_t init = -1;
    if (!expect(h, "staged", end, &init)) {
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
    return send(h->line, "go", 2, MSG_NOSIGNAL) == 2 && expect(h, "up", end, nullptr);
}

// ---- public

// What a handset needs before its first boot.
static bool make_room(desk *h) {
    if (desk_in_place()) {
        in_place_hide_name();
        h->place = in_place_lock(h->options.boot_ms);
        return h->place >= 0;
    }
    h->data_place = place_for_data(image_of(h->options));
    if (h->data_place.empty()) {
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
    if (make_room(h) && boot(h)) {
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
    if (h->place >= 0) {
        in_place_unlock(h->place);
    }
    delete h;
}

bool desk_reboot(desk *h, bool keep, const desk_options *options) {
    if (h->attached) {
        return desk_fail("only its booter can boot it again");
    }
    if (options != nullptr && h->place >= 0 && !in_place_allows(*options)) {
        return false;
    }
    if (keep && h->place >= 0) {
        send(h->line, "keep", 4, MSG_NOSIGNAL);
    }
    stop_sandbox(h);
    if (options != nullptr) {
        h->options = *options;
    }
    h->same_data = keep && options == nullptr;
    h->kept_data = keep;
    if (!keep && h->place < 0) {
        close(h->data_ns);
        h->data_ns = -1;
        if (!make_data(h)) {
            return false;
        }
    }
    return boot(h);
}

const desk_options &desk_booted_with(const desk *h) {
    return h->options;
}

pid_t desk_init_pid(const desk *h) {
    return h->init;
}

std::string desk_host_path(const desk *h, const std::string &path) {
    return "/proc/" + std::to_string(h->init) + "/root" + path;
}
