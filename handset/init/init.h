// The stand-in for the platform's init: what its files offer each other, lowest layer first. A file calls its own layer
// or lower ones; a higher one is reached through a callback that it has registered. Init has one thread and one event
// loop, and no signal handler, so no state needs a lock.
#ifndef HANDSET_INIT_INIT_H
#define HANDSET_INIT_INIT_H

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "handset/common/boot_options.h"
#include "handset/common/paths.h"

// ---- text.cpp -------------------------------------------------------------------------------------------------------

std::string text_format(const char *format, ...) __attribute__((format(printf, 1, 2)));
bool text_starts(const std::string &text, const std::string &start);
// Whole files. False with errno.
bool text_read_file(const std::string &path, std::string *text);
bool text_write_file(const std::string &path, const std::string &text, mode_t mode);
// Names in a directory, sorted, without "." and ".."; none when it cannot be read.
std::vector<std::string> text_names(const std::string &directory);

// ---- options.cpp: filled from the argument vector, constant afterwards ----------------------------------------------

struct init_options : boot_options {
    int booter_fd = -1;      // socket to the program that boots this handset; the handset ends when it is closed
    int kmsg_fd = -1;        // /dev/kmsg of the machine, whose records are copied; -1: none
    int register_fd = -1;    // the register of handsets in place; -1: this handset has its own namespaces
    bool keep_data = false;  // in place: /data is an earlier boot's
    std::string image = "/image";
};

// Reads "key=value" arguments; false at the first unknown one.
bool options_parse(int argc, char **argv);
const init_options &options();
// Whether this handset runs in the root file system of a container, without namespaces.
bool is_in_place();

// ---- loop.cpp: descriptors and timers -------------------------------------------------------------------------------

bool loop_open();
// Calls `ready` with the epoll events of `fd` until loop_forget.
bool loop_watch(int fd, uint32_t events, std::function<void(uint32_t)> ready);
void loop_change(int fd, uint32_t events);
void loop_forget(int fd);
// Calls `due` once after `ms`; returns a number for loop_cancel.
int loop_after(int ms, std::function<void()> due);
void loop_cancel(int timer);
// Runs until loop_end.
void loop_run();
void loop_end();
// Milliseconds of CLOCK_MONOTONIC.
int64_t loop_now();

// ---- journal.cpp ----------------------------------------------------------------------------------------------------

bool journal_open();
// Appends one line to INIT_JOURNAL: the time, then the fields.
void journal(const std::vector<std::string> &fields);

// ---- accounts.cpp ---------------------------------------------------------------------------------------------------

// Number of a user or group name, or of digits; `fallback` for anything else.
unsigned account_id(const std::string &name, unsigned fallback);
// Writes /etc/passwd and its companions.
bool accounts_write();

// ---- in_place.cpp: a handset without namespaces, in the root file system of a container -----------------------------

// Creates the handset's directories, after removing what a killed handset has left. Returns "" or the reason.
std::string in_place_create();
// Drops the rights that reach the machine's kernel log, settings, mounts and clock, for this process and its
// descendants. Returns "" or what cannot be protected.
std::string in_place_protect();
// Removes everything that in_place_create and the handset have created, except /data with `keep_data`.
void in_place_remove(bool keep_data);

// ---- sd_card.cpp, root_fs.cpp ---------------------------------------------------------------------------------------

// Mounts or unmounts the SD card; 0 or an errno.
int sd_card_set(bool present);
// Makes /proc, /dev, /system, /etc, /data, /storage and /tmp. Returns "" or what failed.
std::string root_fs_make();

#define KMSG_FIFO DESK_DIR "/kmsg"  // bound over /proc/kmsg

// ---- kmsg.cpp -------------------------------------------------------------------------------------------------------

bool kmsg_open();
// Queues one record; false when it is empty, too long or the queue is full.
bool kmsg_feed(const std::string &record);
// Calls `done` as soon as everything queued has been read.
void kmsg_when_drained(std::function<void()> done);

// ---- properties.cpp: the store, its rules and what survives a boot --------------------------------------------------

// Replies of the property service.
enum property_reply : uint32_t {
    PROPERTY_OK = 0,
    PROPERTY_READ_DATA = 0x8,
    PROPERTY_READ_ONLY = 0xB,
    PROPERTY_NAME = 0x10,
    PROPERTY_VALUE = 0x14,
    PROPERTY_UNKNOWN_COMMAND = 0x1B,
    PROPERTY_CONTROL = 0x20,
    PROPERTY_FAILED = 0x24,
};

// Creates the shared area. `changed` is called after every change of a property.
bool properties_open(std::function<void(const std::string &name, const std::string &value)> changed);
// Loads the persist.* properties; from here on they are saved too.
void properties_load_saved();
// "" when unset.
std::string property_value(const std::string &name);
// Whether the rules for names and values allow the pair.
property_reply property_check(const std::string &name, const std::string &value);
// Sets without rules and saving: for init's own state.
bool property_store(const std::string &name, const std::string &value);
// Sets within the rules, except for ctl.*, and saves persist.* properties.
property_reply property_set_checked(const std::string &name, const std::string &value);

// ---- children.cpp: starting and reaping programs --------------------------------------------------------------------

struct child_setup {
    std::vector<std::string> argv;
    std::vector<std::string> environment;  // complete
    std::string cwd = "/";
    std::string output;  // file for 1 and 2, "": /dev/null
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;
    int umask = 022;
    int fds[3] = {-1, -1, -1};  // descriptors for 0, 1 and 2; -1: /dev/null or `output`
    bool closed_stdin = false;
    bool terminal = false;                         // a session of its own with fds[0] as its controlling terminal
    bool search = false;                           // look argv[0] up in PATH
    bool waits_exec = false;                       // child_start returns only after the exec, successful or not
    std::function<void(pid_t, int status)> ended;  // called once when the process has been reaped
};
// The environment that the platform gives to every program; and the same with the variables of the options.
std::vector<std::string> platform_environment();
std::vector<std::string> child_environment();
// Forks and executes; returns the pid or -1 with errno.
pid_t child_start(const child_setup &setup);
bool children_open();
// Reaps all ended processes. The loop calls it on SIGCHLD.
void children_reap();
// All processes but init and zombies.
struct process {
    pid_t pid;
    pid_t parent;
    pid_t group;
};
std::vector<process> processes();
// Kills and reaps every process of the handset but init.
void children_end_all();

// ---- services.cpp ---------------------------------------------------------------------------------------------------

struct service {
    std::string name;
    std::vector<std::string> argv;
    std::vector<std::string> classes;
    std::vector<std::string> environment;
    std::string user;
    std::vector<std::string> groups;
    bool oneshot = false;
    bool disabled = false;  // not started with its class; also set by a stop, cleared by a start
    bool restart = false;   // start again as soon as it has ended
    pid_t pid = 0;          // 0: not running
    int64_t started = 0;
    int timer = 0;  // of the delayed restart, 0: none
};

void service_add(const service &added);
service *service_find(const std::string &name);
// `verb`: "start", "stop" or "restart".
property_reply service_control(const std::string &verb, const std::string &name);
void services_start_class(const std::string &name);
bool services_any_running();

// ---- property_service.cpp: requests of clients ----------------------------------------------------------------------

// Sets a property or, for ctl.*, controls a service, and notes refusals in the journal.
property_reply property_request(const std::string &name, const std::string &value, uid_t uid);
bool property_service_open();

// ---- actions.cpp ----------------------------------------------------------------------------------------------------

using command_line = std::vector<std::string>;
// `trigger` is an event's name or "property:NAME=VALUE" (VALUE "*": any).
void action_add(const std::string &trigger, const std::vector<command_line> &commands);
void actions_run_event(const std::string &event);
// Runs the actions of a property that has been set, once property triggers are enabled.
void actions_property_changed(const std::string &name, const std::string &value);
// Enables property triggers and runs those whose condition is true already.
void actions_enable_properties();

// ---- rc.cpp: reads the *.rc files into services and actions ---------------------------------------------------------

void rc_read_directory(const std::string &directory);

// ---- control.cpp: requests of the desk library ----------------------------------------------------------------------

bool control_open();

#endif
