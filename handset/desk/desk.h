// The desk library: boots private handsets on a PC, reaches into them and takes them down. Used by the command line
// tool `handset` and by every test that needs a handset's paths, owners, properties, services or kernel messages. A
// handset lives in its own mount, pid, ipc, uts and network namespaces and dies with the process that booted it. Needs
// root. All waiting calls take a limit in milliseconds. Unless a text says otherwise a path is the handset's own
// ("/data/x"), a pid is the one that processes inside the handset see, and a failing call leaves a reason in
// desk_error().
#ifndef HANDSET_DESK_H
#define HANDSET_DESK_H

#include <stdint.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

struct desk;  // one handset: its boots, its /data, the way to its init

// A file put into the handset before its services start.
struct desk_file {
    std::string path;         // where it appears inside the handset; missing parent directories are made, root 0755
    std::string text;         // its content ...
    std::string host_source;  // ... or the host file that is copied there, when not empty
    mode_t mode = 0644;       // when copied from the host: the execute bits of the source are added
    uid_t uid = 0;
    gid_t gid = 0;
};

// How a handset comes up. The defaults are a first boot of a healthy device with the agent installed.
struct desk_options {
    std::string image;               // host directory with the tree of /system; empty: the one of this build
    bool agent = true;               // init starts the service zr-qel-sa at boot (false: it waits for ctl.start)
    uint64_t data_size = 64u << 20;  // bytes of /data, a multiple of 4096
    bool log_dir = true;             // /data/local/log exists (0771, 2000:2000)
    bool card = true;                // /storage/real_sd is mounted
    uint64_t card_size = 64u << 20;  // bytes of the card
    bool tmp = true;                 // /tmp exists
    bool config = true;  // /system/etc/zr-qel-sa.cfg exists; its content is the repository's, or else by `files`
    std::vector<std::pair<std::string, std::string>> properties;  // set before anything starts, in this order
    std::vector<desk_file> files;         // put in place before the services start (also over files of /system)
    std::vector<std::string> absent;      // paths removed (whole trees) before the services start
    std::function<bool(desk *)> prepare;  // called after `files` and `absent`, before the services; false ends the boot

    bool old_ctl = false;       // ctl.start/stop of an unknown service: true = success (old), false = refused with 0x20
    int property_protocol = 2;  // what ro.property_service.version tells clients: 1 (no reply) or 2
    int restart_ms = 5000;      // shortest time between two starts of a crashing service
    int umask = 077;            // of services
    bool closed_stdin = false;  // services start with descriptor 0 closed (logd excepted)
    std::string output;         // services append stdout and stderr to this file instead of /dev/null (logd excepted)
    std::vector<std::string>
        environment;                      // NAME=VALUE added to what services (logd excepted) and desk_run programs get
    std::string timezone;                 // TZ of the same; empty: unset, which is UTC
    bool kmsg_machine = false;            // feed a copy of the machine's own kernel log (read without consuming it)
    std::string printk = "4\t4\t1\t7\n";  // first content of /proc/sys/kernel/printk
    std::string link;     // "": loopback alone; "dummy": also desk0; "veth": also the pair desk0 - desk1
    int boot_ms = 60000;  // limit for the boot
};

// ---- life -----------------------------------------------------------------------------------------------------------

// Boots a handset. Returns once init has started all that starts at boot (the agent may still be initialising), or
// null. The handset ends with the calling thread: call it from a thread that outlives it. Release with desk_end.
desk *desk_boot(const desk_options &options);
// A handle for a handset that another process has booted, told by its init's pid as desk_init_pid gives it: all calls
// but desk_reboot work on it, desk_end lets go of it without ending it. Null when there is none.
desk *desk_attach(pid_t init);
// Kills all of it, waits until nothing is left and frees the handle (null is allowed).
void desk_end(desk *h);
// Takes the handset down as a loss of power does and boots it again; the handle stays. keep: /data survives, with the
// persist.* properties in it; else both are gone. options null: as at the last boot, except that with `keep` what those
// options put on /data (files, absent paths, persist.* presets) is not put there again. `data_size` counts only without
// `keep`. When it fails the handle can only be ended.
bool desk_reboot(desk *h, bool keep, const desk_options *options = nullptr);
// The reason of the last failed call of this thread.
const std::string &desk_error();
// The options of the last boot.
const desk_options &desk_booted_with(const desk *h);

// ---- names and numbers ----------------------------------------------------------------------------------------------

// The host's pid of the handset's init, for nsenter and the like.
pid_t desk_init_pid(const desk *h);
// A host path for `path`, below /proc/<pid>/root. A symbolic link in it with an absolute target leads out of the
// handset: use the file calls below for paths that may hold one.
std::string desk_host_path(const desk *h, const std::string &path);
// The host's pid of a process of the handset, or -1.
pid_t desk_host_pid(const desk *h, pid_t pid);

// ---- programs inside ------------------------------------------------------------------------------------------------

struct desk_program {
    std::vector<std::string> argv;         // argv[0]: path, or a name looked up in the handset's PATH
    std::vector<std::string> environment;  // NAME=VALUE added to init's
    uid_t uid = 0;
    gid_t gid = 0;
    int umask = 022;
    std::string cwd = "/";
    int fds[3] = {-1, -1, -1};  // host descriptors that become 0, 1, 2 (not closed here); -1: /dev/null
    bool terminal = false;      // a session of its own with fds[0] as its controlling terminal
};

struct desk_child {
    pid_t pid = -1;    // inside the handset
    int wait_fd = -1;  // readable when it has ended
};

struct desk_result {
    int status = -1;     // raw wait status, -1 when it could not be started or did not end in time (then it was killed)
    std::string output;  // its standard output
    std::string errors;  // its standard error
};

// Starts a program as a child of init; comes back when it runs. False when init could not fork. desk_wait must follow;
// a program that does not exist ends with status 127.
bool desk_start(desk *h, const desk_program &program, desk_child *child);
// Raw wait status of a started program, -1 when it still runs after the limit (wait again, or desk_kill it).
int desk_wait(desk *h, desk_child *child, int limit_ms);
// Runs a program to its end. `input` becomes its standard input.
desk_result desk_run(desk *h, const desk_program &program, const std::string &input = "", int limit_ms = 30000);
// The same for a root shell command line: mksh -c.
desk_result desk_shell(desk *h, const std::string &command, int limit_ms = 30000);
// Sends a signal to a process, or with a negative pid to a process group, of the handset.
bool desk_kill(desk *h, pid_t pid, int signal);
// Pids whose first argument contains `name`, ascending: what the agent's own lookup would find.
std::vector<pid_t> desk_pids(desk *h, const std::string &name);
// All arguments of a process; empty when it is gone.
std::vector<std::string> desk_arguments(desk *h, pid_t pid);

// ---- properties -----------------------------------------------------------------------------------------------------

// "" when unset.
std::string desk_property(desk *h, const std::string &name);
// Sets it with root's rights; returns the property service's reply code, 0 for success, -1 when init is gone.
int desk_set_property(desk *h, const std::string &name, const std::string &value);
bool desk_wait_property(desk *h, const std::string &name, const std::string &value, int limit_ms = 30000);

// ---- services -------------------------------------------------------------------------------------------------------

// Reply code of ctl.start, ctl.stop, ctl.restart.
int desk_service_start(desk *h, const std::string &name);
int desk_service_stop(desk *h, const std::string &name);
int desk_service_restart(desk *h, const std::string &name);
// init.svc.<name>: "running", "stopping", "stopped", "restarting", or "" when it never started.
std::string desk_service_state(desk *h, const std::string &name);
bool desk_wait_service(desk *h, const std::string &name, const std::string &state, int limit_ms = 30000);
// Pid of the service's first process, -1 when it does not run.
pid_t desk_service_pid(desk *h, const std::string &name);
// The same for zr-qel-sa.
pid_t desk_agent_pid(desk *h);

// ---- kernel messages ------------------------------------------------------------------------------------------------

// Queues one record, as it stands (end it with a newline; at most 4096 bytes), for the readers of /proc/kmsg. A record
// is offered when the one before it has been read to its end.
bool desk_kmsg_feed(desk *h, const std::string &record);
// Waits until all queued records have been read.
bool desk_kmsg_drained(desk *h, int limit_ms = 30000);

// ---- card and terminals ---------------------------------------------------------------------------------------------

// Mounts or unmounts the card while the handset runs; what was on it stays on it. False when it cannot be done.
bool desk_set_card(desk *h, bool present);
// Opens a terminal by its published name ("/dev/ttyCMD0", a link to a slave). O_RDWR|O_NOCTTY|O_CLOEXEC plus `flags`.
// Waits up to limit_ms for the name to appear. Returns the host descriptor or -1.
int desk_open_tty(desk *h, const std::string &path, int limit_ms = 30000, int flags = 0);

// ---- files (links are followed inside the handset) ------------------------------------------------------------------

// open(2) inside the handset's root; returns a host descriptor or -1 with errno.
int desk_open(desk *h, const std::string &path, int flags, mode_t mode = 0644);
// Whole content; false when it cannot be opened or read.
bool desk_read_file(desk *h, const std::string &path, std::string *text);
// The same, "" on failure.
std::string desk_file_text(desk *h, const std::string &path);
// Creates or replaces the content (mode and owner only when created), making no directories.
bool desk_write_file(desk *h, const std::string &path, const std::string &text, mode_t mode = 0644, uid_t uid = 0,
                     gid_t gid = 0);
bool desk_append_file(desk *h, const std::string &path, const std::string &text);
// Copies a host file in.
bool desk_bring(desk *h, const std::string &host_source, const std::string &path, mode_t mode = 0755);
bool desk_stat(desk *h, const std::string &path, struct stat *st);
bool desk_lstat(desk *h, const std::string &path, struct stat *st);
bool desk_exists(desk *h, const std::string &path);
// Target of a symbolic link, "" when it is none.
std::string desk_link_target(desk *h, const std::string &path);
// "0644 2000:1007" of a file, "" when it does not exist: one text to compare.
std::string desk_owner(desk *h, const std::string &path);
// Names in a directory, sorted, without "." and "..".
std::vector<std::string> desk_list(desk *h, const std::string &path);
// mkdir with all parents (existing ones stay as they are), then mode and owner of the last.
bool desk_make_dir(desk *h, const std::string &path, mode_t mode = 0755, uid_t uid = 0, gid_t gid = 0);
// rm -rf inside the handset; true when it is gone.
bool desk_remove(desk *h, const std::string &path);
// Fills /data, with one file /data/.fill, until exactly `available` bytes (a multiple of 4096) are free; replaces an
// earlier filling.
bool desk_fill_data(desk *h, uint64_t available);

// ---- journals -------------------------------------------------------------------------------------------------------

// One line of /dev/.desk/init.journal. In the file fields are separated by tabs; tab, newline and backslash inside one
// are written \t, \n, \\ and come back here as they were.
struct desk_event {
    double time = 0;                  // CLOCK_REALTIME seconds
    std::string kind;                 // "prop", "svc", "exit", "refused", "boot", "start", "kmsg"
    std::vector<std::string> fields;  // prop: name, value; svc: name, state, pid; exit: name, pid, raw wait status
};
// All events so far, or those of one kind.
std::vector<desk_event> desk_events(desk *h, const std::string &kind = "");

// One line of /dev/.desk/log.journal: an entry that the log daemon accepted.
struct desk_log_entry {
    uint64_t sequence = 0;
    double time = 0;
    std::string buffer;  // "main", "radio", "events", ...
    pid_t pid = 0;
    pid_t tid = 0;
    uid_t uid = 0;
    char priority = 0;
    std::string tag;
    std::string text;  // as it was logged, escapes undone
};
// All entries so far, or those with one tag.
std::vector<desk_log_entry> desk_log(desk *h, const std::string &tag = "");
// Waits until an entry of `tag` has exactly this text / has it as a part. Entries with a sequence number of at least
// `from` count. Returns the entry's sequence number + 1 (feed it back as `from` to wait for the next), or 0 when time
// is up.
uint64_t desk_wait_log(desk *h, const std::string &tag, const std::string &text, uint64_t from = 0,
                       int limit_ms = 30000);
uint64_t desk_wait_log_part(desk *h, const std::string &tag, const std::string &part, uint64_t from = 0,
                            int limit_ms = 30000);

// ---- waiting --------------------------------------------------------------------------------------------------------

// The clock of all limits here and in tests, in milliseconds. Between two looks of a thread it advances by 250 ms at most: a
// machine that stands still for some seconds, or a clock that jumps, does not use up a limit. Wait in slices.
int64_t desk_now_ms();
// The next slice of a wait that ends at `end` on that clock: at most 100 ms, 0 when the time is up.
int desk_slice_ms(int64_t end);

// Calls `condition` until it is true or the time is up (looking again after 1 to 20 ms); tells whether it became true.
bool desk_until(const std::function<bool()> &condition, int limit_ms = 30000);
bool desk_wait_path(desk *h, const std::string &path, bool present = true, int limit_ms = 30000);
// Waits until the file contains `part`.
bool desk_wait_text(desk *h, const std::string &path, const std::string &part, int limit_ms = 30000);
// Waits until no process has this pid any more.
bool desk_wait_gone(desk *h, pid_t pid, int limit_ms = 30000);

#endif
