// The stand-in for the platform's init: what its rooms offer each other. Init is one thread around one loop; nothing
// here is called from another thread or from a signal handler, so no state is guarded.
#ifndef HANDSET_INIT_H
#define HANDSET_INIT_H

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

// ---- options.cpp: how this boot differs from a plain one; filled from the argument vector, constant afterwards ------

struct init_options {
    int line_fd = -1;        // to the program that booted us; its end is ours
    int kmsg_fd = -1;        // the machine's kernel log to copy, -1: none
    int register_fd = -1;    // the register of handsets in place; -1: this one has namespaces of its own
    bool keep_data = false;  // in place: /data is an earlier boot's
    bool agent = true;       // the agent's service starts with its class
    bool log_dir = true;     // the agent's log directory exists
    bool card = true;        // the card is in
    bool tmp = true;         // there is a /tmp
    bool config = true;      // the agent's configuration file exists
    bool old_ctl = false;    // control of an unknown service succeeds
    bool closed_stdin = false;
    int protocol = 2;  // version of the property protocol that clients shall use
    int restart_ms = 5000;
    int umask = 077;
    uint64_t card_size = 64u << 20;
    std::string image = "/image";
    std::string output;
    std::string printk;
    std::string link;
    std::vector<std::string> environment;
    std::vector<std::pair<std::string, std::string>> properties;
};

// Reads "key=value" arguments; false at the first that it does not know.
bool options_parse(int argc, char **argv);
const init_options &options();

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
// One line: time stamp, then the fields, tab-separated and escaped.
void journal(const std::vector<std::string> &fields);

// ---- stage.cpp, links.cpp, card.cpp: the root file system and the network -------------------------------------------

// Makes /proc, /dev, /system, /etc, /data, /storage and /tmp. Returns "" or what failed.
std::string stage_run();
// Mounts or unmounts the card; 0 or an errno.
int card_set(bool present);
// Brings up the extra network link "dummy" or "veth". Returns "" or what failed.
std::string links_up(const std::string &kind);

// ---- place.cpp: a handset without namespaces, in the root of a container --------------------------------------------

// Whether this handset is one.
bool place_used();
// Takes the handset's places, clearing away what a killed handset has left in them. Returns "" or why it cannot be.
std::string place_claim();
// Keeps this process and all that it starts from what is the machine's. Returns "" or what cannot be protected.
std::string place_protect();
// Removes everything that place_claim took, /data on demand not.
void place_leave(bool keep_data);

// Names of the places that more than one room knows.
#define DESK_DIR "/dev/.desk"
#define KMSG_FIFO DESK_DIR "/kmsg"

// ---- properties.cpp: the store, its rules and what survives a boot --------------------------------------------------

// Replies of the property service.
enum {
    PROPERTY_OK = 0,
    PROPERTY_READ_COMMAND = 0x4,
    PROPERTY_READ_DATA = 0x8,
    PROPERTY_READ_ONLY = 0xB,
    PROPERTY_NAME = 0x10,
    PROPERTY_VALUE = 0x14,
    PROPERTY_UNKNOWN_COMMAND = 0x1B,
    PROPERTY_CONTROL = 0x20,
    PROPERTY_FAILED = 0x24,
};

// Creates the shared area.
bool properties_open();
// Loads the persist.* properties; from here on they are saved too.
void properties_load_saved();
// "" when unset.
std::string property_value(const std::string &name);
// Sets without rules, saving or actions: for init's own state.
bool property_store(const std::string &name, const std::string &value);
// What a client's request does: rules, ctl.*, saving, journal, actions. Returns a reply code.
uint32_t property_request(const std::string &name, const std::string &value, uid_t uid);

// ---- property_socket.cpp --------------------------------------------------------------------------------------------

bool property_socket_open();

// ---- rc.cpp: reads the *.rc files into services and actions ---------------------------------------------------------

void rc_read_directory(const std::string &directory);

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
    bool restart = false;   // start again as soon as it is gone, whatever else holds
    pid_t pid = 0;          // 0: not running
    int64_t started = 0;
    int timer = 0;  // of the delayed restart, 0: none
};

void service_add(const service &added);
service *service_find(const std::string &name);
// "start", "stop" or "restart". Returns a reply code of the property service.
uint32_t service_control(const std::string &verb, const std::string &name);
void services_start_class(const std::string &name);
void services_stop_class(const std::string &name);
bool services_any_running();
// Takes note of a child's end; false when it was no service.
bool service_ended(pid_t pid, int status);

// ---- actions.cpp ----------------------------------------------------------------------------------------------------

using command_line = std::vector<std::string>;
// `trigger` is an event's name or "property:NAME=VALUE" (VALUE "*": any).
void action_add(const std::string &trigger, const std::vector<command_line> &commands);
void actions_run_event(const std::string &event);
// A property was set: runs its actions once property triggers are live.
void actions_property_set(const std::string &name, const std::string &value);
// Makes property triggers live and runs those that hold already.
void actions_enable_properties();

// ---- children.cpp: what every started program gets, and the reaping -------------------------------------------------

struct child_setup {
    std::vector<std::string> argv;
    std::vector<std::string> environment;  // complete
    std::string cwd = "/";
    std::string output;  // file for 1 and 2, "": /dev/null
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;
    int umask = 022;
    int fds[3] = {-1, -1, -1};  // given descriptors; -1: /dev/null or `output`
    bool closed_stdin = false;
    bool terminal = false;
    bool search = false;   // look argv[0] up in PATH
    bool settled = false;  // come back only when the child has become its program, or failed to
};
// What the platform gives to every program; and that with what the handset's options add for the programs under test.
std::vector<std::string> platform_environment();
std::vector<std::string> child_environment();
// Forks and executes; returns the pid or -1.
pid_t child_start(const child_setup &setup);
bool children_open();
// Called by the loop on SIGCHLD; tells services.cpp and control.cpp.
void children_reap();
// Ends everything that lives in the handset, whatever it ignores, and waits for it.
void children_end_all();

// ---- accounts.cpp ---------------------------------------------------------------------------------------------------

// Number of a user or group name, or of digits; `fallback` for anything else.
unsigned account_id(const std::string &name, unsigned fallback);
bool accounts_write();

// ---- kmsg.cpp -------------------------------------------------------------------------------------------------------

bool kmsg_open();
// Queues one record; false when it is empty, too long or the queue is full.
bool kmsg_feed(const std::string &record);
// Calls `done` as soon as everything queued has been read.
void kmsg_when_drained(std::function<void()> done);

// ---- control.cpp: requests of the desk library ----------------------------------------------------------------------

bool control_open();
// A started program ended; false when it was none of control's.
bool control_ended(pid_t pid, int status);

// ---- text.cpp -------------------------------------------------------------------------------------------------------

std::string text_format(const char *format, ...) __attribute__((format(printf, 1, 2)));
bool text_read_file(const std::string &path, std::string *text);
bool text_write_file(const std::string &path, const std::string &text, mode_t mode);
std::vector<std::string> text_split(const std::string &text, char separator);
// Names in a directory, without "." and "..".
std::vector<std::string> text_names(const std::string &directory);
bool text_starts(const std::string &text, const std::string &start);

#endif
