// The stages, in the order of an agent's life.
#include <signal.h>

#include "tests/faults/acts.h"
#include "tests/support/collectors.h"

static stage command_stage(const std::string &request, const std::vector<std::string> &before = {}) {
    stage s;
    s.name = request;
    s.who = COMMAND_THREAD;
    s.collectors = request == "+DELETE_LOG";
    s.before = before;
    s.act = [request](subject *subject) { return ask(subject, request); };
    return s;
}

static stage other_stage(const std::string &name, tracee who, bool collectors, std::string (*act)(subject *)) {
    stage s;
    s.name = name;
    s.who = who;
    s.collectors = collectors;
    s.act = act;
    return s;
}

static std::string come_up(subject *s) {
    return wait_up(s) ? "" : "does not come up";
}

// A panic record, a listed service.
static void give_work(desk_options *options) {
    desk_file record;
    record.path = "/data/dontpanic/apanic_console";
    record.text = "a record\n";
    options->files.push_back(record);
    desk_file list;
    list.path = "/data/zr-qel-sa/auto-start.lst";
    list.text = std::string("zr-qel-mla3") + std::string(389, '\0');
    options->files.push_back(list);
    options->prepare = [](desk *h) { return desk_make_dir(h, "/data/log/SystemLog"); };
}

// Less than 3 MiB of /data are free, and there is a file in reserve.
static void leave_no_room(desk_options *options) {
    options->prepare = [](desk *h) {
        return desk_make_dir(h, "/data/.protect") && desk_write_file(h, "/data/.protect/1", "reserve") &&
               desk_fill_data(h, 1 << 20);
    };
}

// The main thread waits in a shell command, between the command thread's birth and its own listener.
static void hold_main_thread(desk_options *options) {
    options->files.push_back(script("/system/bin/touch", "until [ -e /dev/.desk/go ]; do sleep 0.05; done\n"));
}

static void free_main_thread(subject *s) {
    desk_write_file(s->h, "/dev/.desk/go", "");
}

static void one_logcat(desk_options *options) {
    options->properties.push_back({kLogProperty, log_property({{5, "5,5120"}})});
}

static void add_starts(std::vector<stage> *all) {
    stage start = other_stage("start", FROM_EXEC, true, come_up);
    start.prepare = give_work;
    all->push_back(start);
    stage full = other_stage("start, /data nearly full", FROM_EXEC, true, come_up);
    full.prepare = leave_no_room;
    full.calls = {"statfs", "getdents64", "unlink"};
    all->push_back(full);
    stage without_directory = other_stage("start, no log directory", FROM_EXEC, true, come_up);
    without_directory.prepare = [](desk_options *options) { options->log_dir = false; };
    without_directory.calls = {"mkdir", "chown", "chmod"};
    all->push_back(without_directory);
    stage channel = other_stage("start, command thread", EVERYBODY_FROM_EXEC, false, first_opening);
    channel.prepare = hold_main_thread;
    channel.resume = free_main_thread;
    channel.paths = {"/dev/ptmx", "/dev/ttyCMD0"};
    all->push_back(channel);
}

static void add_commands(std::vector<stage> *all) {
    all->push_back(command_stage("AT"));
    all->push_back(command_stage("+QUERY_SERVICE=\"logd\""));
    // A look for a process is what +QUERY_SERVICE shows; here the rest.
    all->push_back(command_stage("+START_SERVICE=\"zr-elog\""));
    all->back().calls = {"socket", "connect", "sendmsg", "sendto", "recvfrom", "poll", "clock_nanosleep"};
    all->push_back(command_stage("+START_SERVICE=\"zr-qel-mla3\""));
    all->back().calls = {"mmap", "clone3", "wait4"};
    all->push_back(command_stage("+STOP_SERVICE=\"zr-elog\"", {"+START_SERVICE=\"zr-elog\""}));
    all->back().calls = {"kill", "clock_nanosleep"};
    all->push_back(command_stage("+AUTO_START_SERVICE=\"zr-elog\",1"));
    all->push_back(command_stage("+SYSTEM=\"true\""));
    all->push_back(command_stage("+KERNEL_LOG=1"));
    all->push_back(command_stage("+KERNEL_LOG=0", {"+KERNEL_LOG=1"}));
    all->push_back(command_stage("+KERNEL_LOG?"));
    all->push_back(command_stage("+DMESG_LOG=1"));
    all->push_back(command_stage("+DATA_PACKETS_LOG=1"));
    all->push_back(command_stage("+SAVE_LOG"));
    all->push_back(command_stage("+DELETE_LOG"));
    all->push_back(other_stage("the host leaves the command channel", COMMAND_THREAD, false, hang_up));
}

static void add_children(std::vector<stage> *all) {
    stage collectors = command_stage("+DELETE_LOG");
    collectors.name = "children of the collectors";
    collectors.who = EVERYBODY;
    collectors.calls = {"setsid", "setpgid", "setgid", "setuid", "dup2", "chdir", "execve"};
    all->push_back(collectors);
    stage shell = other_stage("child of the remote shell", EVERYBODY, false, remote_shell);
    shell.calls = {"setsid", "dup2", "execve"};
    all->push_back(shell);
    stage waiter = other_stage("a collector's child ends", WAITER, true, lose_logcat);
    waiter.prepare = one_logcat;
    all->push_back(waiter);
}

static void add_kernel_reader(std::vector<stage> *all) {
    stage begin = command_stage("+DELETE_LOG");
    begin.name = "the kernel-message reader starts";
    begin.who = EVERYBODY;
    begin.paths = {"kmsg"};
    begin.calls = {"openat", "rename", "unlink", "chown", "chmod", "lseek", "write"};
    all->push_back(begin);
    all->push_back(other_stage("a kernel message", KERNEL_READER, true, kernel_message));
}

static void add_ends(std::vector<stage> *all) {
    all->push_back(other_stage("remote shell", MAIN_THREAD, false, remote_shell));
    all->push_back(other_stage("the host leaves the listener", MAIN_THREAD, false, leave_listener));
    all->push_back(other_stage("host:kill", MAIN_THREAD, false, host_kill));
    all->push_back(other_stage("SIGTERM", MAIN_THREAD, true, [](subject *s) { return end_by(s, SIGTERM); }));
    all->push_back(other_stage("SIGUSR2", MAIN_THREAD, true, [](subject *s) { return end_by(s, SIGUSR2); }));
}

const std::vector<stage> &stages() {
    static const std::vector<stage> all = [] {
        std::vector<stage> list;
        add_starts(&list);
        add_commands(&list);
        add_children(&list);
        add_kernel_reader(&list);
        add_ends(&list);
        return list;
    }();
    return all;
}
