// The desk library: boots private handsets on a PC, controls them and ends them. Used by the command line tool `handset`
// and by every test that needs a handset's paths, owners, properties, services or kernel messages. A handset has its own
// mount, pid, ipc, uts and network namespaces and ends with the process that booted it. Needs root.
// All waiting calls take a limit in milliseconds. Unless a comment says otherwise, a path is one inside the handset
// ("/data/x"), a pid is the one that processes inside the handset see, and a failing call leaves a reason in
// desk_error().
#ifndef HANDSET_DESK_H
#define HANDSET_DESK_H

#include <stdint.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "handset/common/boot_options.h"

struct desk;  // one handset, over all its boots

// A file created in the handset before its services start.
struct desk_file {
    std::string path;         // missing parent directories are made, root 0755
    std::string text;         // its content ...
    std::string host_source;  // ... or the host file that is copied, when not empty
    mode_t mode = 0644;       // when copied from the host: the execute bits of the source are added
    uid_t uid = 0;
    gid_t gid = 0;
};

// What a handset boots with. The defaults are a first boot of a healthy device with the agent installed.
struct desk_options : boot_options {
    uint64_t data_size = 64u << 20;       // bytes of /data, a multiple of 4096
    std::vector<desk_file> files;         // created before the services start (also over files of /system)
    std::vector<std::string> absent;      // paths removed (whole trees) before the services start
    std::function<bool(desk *)> prepare;  // called after `files` and `absent`, before the services; false ends the boot
    std::string timezone;       // TZ of services but logd, and of desk_run programs; empty: unset, which is UTC
    bool kmsg_machine = false;  // feed a copy of the machine's own kernel log (read without consuming it)
};

// ---- life -----------------------------------------------------------------------------------------------------------

// Boots a handset. Returns once init has started all services of the boot (the agent may still be initialising), or null
// when that has failed or taken more than a minute. The handset ends with the calling thread: call it from a thread that
// outlives it. Release with desk_end.
desk *desk_boot(const desk_options &options);
// A handle for a handset that another process has booted; `init` is what desk_init_pid returns there. All calls but
// desk_reboot work on it, and desk_end frees it without ending the handset. Null when there is none.
desk *desk_attach(pid_t init);
// Ends the handset, waits until all its processes have ended and frees the handle (null is allowed).
void desk_end(desk *h);
// Ends the handset as a loss of power does and boots it again; the handle stays valid. keep: /data stays, with the
// persist.* properties in it, and `data_size` has no effect; else both are lost. options null: the options of the last
// boot, except that with `keep` their effects on /data (files, absent paths, persist.* properties) are not repeated.
// After a failure only desk_end is allowed.
bool desk_reboot(desk *h, bool keep, const desk_options *options = nullptr);
// The reason of this thread's last failed call.
const std::string &desk_error();

// ---- names and numbers ----------------------------------------------------------------------------------------------

// The host's pid of the handset's init, for nsenter and the like.
pid_t desk_init_pid(const desk *h);
// A host path for `path`, below /proc/<pid>/root. The kernel resolves a symbolic link with an absolute target in the
// host's root: use the file calls below for paths that may contain one.
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

// Starts a program as a child of init; returns after the exec. False when init could not fork. desk_wait must follow.
// A program that does not exist ends with exit status 127.
bool desk_start(desk *h, const desk_program &program, desk_child *child);
// Raw wait status of a started program; -1 when it still runs after the limit (then wait again, or desk_kill it).
int desk_wait(desk *h, desk_child *child, int limit_ms);
// Runs a program to its end. `input` becomes its standard input.
desk_result desk_run(desk *h, const desk_program &program, const std::string &input = "", int limit_ms = 30000);
// The same for a root shell command line: mksh -c.
desk_result desk_shell(desk *h, const std::string &command, int limit_ms = 30000);
// Sends a signal to a process, or with a negative pid to a process group, of the handset.
bool desk_kill(desk *h, pid_t pid, int signal);
// Pids whose first argument contains `name`, ascending: the rule of the agent's own lookup.
std::vector<pid_t> desk_pids(desk *h, const std::string &name);
// All arguments of a process; empty when it is gone.
std::vector<std::string> desk_arguments(desk *h, pid_t pid);

// ---- properties -----------------------------------------------------------------------------------------------------

// "" when unset.
std::string desk_property(desk *h, const std::string &name);
// Sets it with root's rights; returns the property service's reply code, 0 for success, -1 when init is gone.
int desk_set_property(desk *h, const std::string &name, const std::string &value);

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

// Queues one record (at most 4096 bytes, its newline included) for the readers of /proc/kmsg. A record can be read once
// the one before it has been read to its end.
bool desk_kmsg_feed(desk *h, const std::string &record);
// Waits until all queued records have been read.
bool desk_kmsg_drained(desk *h, int limit_ms = 30000);

// ---- SD card and terminals ------------------------------------------------------------------------------------------

// Mounts or unmounts the SD card while the handset runs; its content stays. False when it cannot be done.
bool desk_set_sd_card(desk *h, bool present);
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
// Creates the file, with mode and owner, or replaces its content. Makes no directories.
bool desk_write_file(desk *h, const std::string &path, const std::string &text, mode_t mode = 0644, uid_t uid = 0,
                     gid_t gid = 0);
bool desk_append_file(desk *h, const std::string &path, const std::string &text);
// Copies a host file; the execute bits of the source are added to `mode`. Replaces an existing file.
bool desk_bring(desk *h, const std::string &host_source, const std::string &path, mode_t mode = 0755, uid_t uid = 0,
                gid_t gid = 0);
bool desk_stat(desk *h, const std::string &path, struct stat *st);
bool desk_lstat(desk *h, const std::string &path, struct stat *st);
bool desk_exists(desk *h, const std::string &path);
// Target of a symbolic link, "" when it is none.
std::string desk_link_target(desk *h, const std::string &path);
// "0644 2000:1007" of a file, "" when it does not exist: one text to compare.
std::string desk_owner(desk *h, const std::string &path);
// Names in a directory, sorted, without "." and "..".
std::vector<std::string> desk_list(desk *h, const std::string &path);
// Makes a directory and its parents, then sets mode and owner of the last one. An existing directory is not changed.
bool desk_make_dir(desk *h, const std::string &path, mode_t mode = 0755, uid_t uid = 0, gid_t gid = 0);
// rm -rf inside the handset; true when the path does not exist afterwards.
bool desk_remove(desk *h, const std::string &path);
// Makes exactly `available` bytes (a multiple of 4096) of /data free, by one file /data/.fill, which replaces an earlier
// one.
bool desk_fill_data(desk *h, uint64_t available);

// ---- journals -------------------------------------------------------------------------------------------------------

// One line of the journal of init.
struct desk_event {
    double time = 0;                  // CLOCK_REALTIME seconds
    std::string kind;                 // "prop", "svc", "exit", "refused", "boot", "start", "kmsg"
    std::vector<std::string> fields;  // prop: name, value; svc: name, state, pid; exit: name, pid, raw wait status
};
// All events so far, or those of one kind.
std::vector<desk_event> desk_events(desk *h, const std::string &kind = "");

// One line of the log journal: an entry that the log daemon has accepted.
struct desk_log_entry {
    uint64_t sequence = 0;  // ascending: the offset of its line in the journal, plus 1
    double time = 0;
    std::string buffer;  // "main", "radio", "events", ...
    pid_t pid = 0;
    pid_t tid = 0;
    uid_t uid = 0;
    char priority = 0;
    std::string tag;
    std::string text;  // as it was logged
};
// All entries so far, or those with one tag.
std::vector<desk_log_entry> desk_log(desk *h, const std::string &tag = "");
// Waits for an entry of `tag` with exactly this text, or with this part of a text, and a sequence number of at least
// `from`. Returns the entry's sequence number + 1, which as `from` waits for the next one, or 0 after the limit.
uint64_t desk_wait_log(desk *h, const std::string &tag, const std::string &text, uint64_t from = 0,
                       int limit_ms = 30000);
uint64_t desk_wait_log_part(desk *h, const std::string &tag, const std::string &part, uint64_t from = 0,
                            int limit_ms = 30000);

// ---- waiting --------------------------------------------------------------------------------------------------------

// The clock of all limits here and in tests, in milliseconds. Between two calls of a thread it advances by at most 250 ms,
// so that a machine that stops for some seconds, or a clock that jumps, does not use up a limit. Wait in slices.
int64_t desk_now_ms();
// The length of the next slice of a wait that ends at `end` on that clock: at most 100 ms, 0 when the time is up.
int desk_slice_ms(int64_t end);

// Calls `condition` every 1 to 20 ms until it is true or the limit has passed; returns its last result.
bool desk_until(const std::function<bool()> &condition, int limit_ms = 30000);
bool desk_wait_path(desk *h, const std::string &path, bool present = true, int limit_ms = 30000);
// Waits until the file contains `part`.
bool desk_wait_text(desk *h, const std::string &path, const std::string &part, int limit_ms = 30000);
// Waits until no process has this pid.
bool desk_wait_gone(desk *h, pid_t pid, int limit_ms = 30000);

#endif
