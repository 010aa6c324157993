// The link to a handset through adb: the daemon of the handset opens the device file and passes its bytes. Nothing can
// be asked of a file that way, so its owner and the link that publishes it come from the daemon's file service, and a
// terminal's size and attributes from stty in a shell of the daemon. Turns among the sa-host processes of this machine
// are lock files, which also keep what was used last. Owns the serial number, once it is known, one connection to the
// file service and one shell.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "adb_server.h"
#include "link_kind.h"
#include "message.h"
#include "stream.h"

namespace {

constexpr int SERVER_MS = 5000;   // the server answers at once, and starts within a second or two
constexpr int CONTROL_MS = 3000;  // for one run of stty on the handset

std::string m_serial;     // of the handset that this run talks to, "" until it is known
int m_files = -1;         // a connection to the file service, -1 for none
pid_t m_files_owner = 0;  // the process that opened it: a child closes what it inherits
int m_shell = -1;         // a shell of the daemon, for stty; -1 for none
pid_t m_shell_owner = 0;

// What the file service tells of a file.
struct __attribute__((packed)) file_state {
    char name[4];
    uint32_t error;  // the handset's errno
    uint64_t device, inode;
    uint32_t mode, links, uid, gid;
    uint64_t size;
    int64_t access_time, modify_time, change_time;
};
static_assert(sizeof(file_state) == 72, "as on the wire");

int64_t soon() {
    return now_ms() + SERVER_MS;
}

std::string refused_text(const adb_refusal &refusal) {
    return "adb: " + refusal.said + ". " + refusal.advice;
}

// A handset that is not connected may come; what else adb refuses stays as it is.
link_state state_of(const adb_refusal &refusal) {
    return refusal.may_pass ? LINK_ABSENT : LINK_REFUSED;
}

std::string rights_text(const std::string &path) {
    return "The handset's adb daemon cannot open " + path +
           ": it needs root's rights. Run adb root, where the build allows it, and try again.";
}

bool find_handset(const host_options &options, adb_refusal *refusal) {
    if (m_serial.empty() && !options.serial.empty()) {
        m_serial = options.serial;
    }
    return !m_serial.empty() || (adb_need_server(soon(), refusal) && adb_find_serial(soon(), &m_serial, refusal));
}

// ---- The file service

bool open_files(adb_refusal *refusal, bool *is_reached) {
    if (m_files >= 0 && m_files_owner == getpid()) {
        *is_reached = true;
        return true;
    }
    m_files = adb_open(m_serial, "sync:", soon(), is_reached, refusal);
    m_files_owner = getpid();
    return m_files >= 0;
}

bool ask_file(const char *request, const std::string &path, file_state *state) {
    uint32_t size = static_cast<uint32_t>(path.size());
    std::string text = request;
    text.append(reinterpret_cast<const char *>(&size), sizeof(size));
    text += path;
    if (write_all(m_files, text.data(), text.size(), soon()) == 0 &&
        adb_read_exactly(m_files, state, sizeof(*state), soon()) && memcmp(state->name, request, 4) == 0) {
        return true;
    }
    close(m_files);
    m_files = -1;
    return false;
}

enum file_answer { FILE_TOLD, FILE_UNKNOWN, FILE_UNREACHED };

// Asks for the state of a file: "STA2" follows a link, "LST2" does not. A daemon older than these requests cannot tell.
file_answer stat_file(const char *request, const std::string &path, file_state *state, adb_refusal *refusal) {
    bool is_reached = false;
    // A kept connection may have ended with the handset's last restart: ask once more on a new one.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!open_files(refusal, &is_reached)) {
            return is_reached ? FILE_UNKNOWN : FILE_UNREACHED;
        }
        if (ask_file(request, path, state)) {
            return FILE_TOLD;
        }
    }
    return adb_is_connected(m_serial, soon(), refusal) ? FILE_UNKNOWN : FILE_UNREACHED;
}

bool is_agents(const file_state &state) {
    return S_ISCHR(state.mode) && state.uid == AGENT_PTY_UID && state.gid == AGENT_PTY_GID;
}

// One life of a published link: inode numbers grow until the handset is started anew.
std::string text_of_life(const file_state &link) {
    return text_of("%llu %lld", static_cast<unsigned long long>(link.inode), static_cast<long long>(link.change_time));
}

// ---- Lock files

// The directory of the lock files, private to the user. Result: its path, or "" with errno.
std::string lock_dir() {
    const char *runtime = getenv("XDG_RUNTIME_DIR");
    std::string dir = runtime != nullptr && *runtime != '\0'
                          ? std::string(runtime) + "/sa-host"
                          : text_of("/tmp/sa-host-%u", static_cast<unsigned>(getuid()));
    struct stat st = {};
    if ((mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) || lstat(dir.c_str(), &st) != 0) {
        return "";
    }
    if (!S_ISDIR(st.st_mode) || st.st_uid != getuid()) {
        errno = EPERM;
        return "";
    }
    return dir;
}

std::string file_name_of(const std::string &text) {
    std::string name;
    for (char byte : text) {
        bool is_plain = isalnum(static_cast<unsigned char>(byte)) != 0 || byte == '.' || byte == '-';
        name += is_plain ? std::string(1, byte) : text_of("%%%02x", static_cast<unsigned char>(byte));
    }
    return name;
}

// Takes the lock of one name of the handset. Result: LINK_TAKEN with `lock`, LINK_BUSY, or LINK_REFUSED.
link_state take_lock(const std::string &path, int *lock, link_attempt *attempt) {
    std::string dir = lock_dir();
    std::string file = dir + "/" + file_name_of("adb " + m_serial + " " + path);
    *lock = dir.empty() ? -1 : open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (*lock < 0) {
        attempt->reason =
            text_of("Cannot make the lock file %s: %s. Check XDG_RUNTIME_DIR.", file.c_str(), strerror(errno));
        return LINK_REFUSED;
    }
    if (flock(*lock, LOCK_EX | LOCK_NB) == 0) {
        return LINK_TAKEN;
    }
    close(*lock);
    *lock = -1;
    return LINK_BUSY;
}

bool was_used(int lock, const std::string &life) {
    char buf[64];
    ssize_t got = pread(lock, buf, sizeof(buf), 0);
    return got > 0 && std::string(buf, static_cast<size_t>(got)) == life;
}

void note_use(int lock, const std::string &life) {
    if (ftruncate(lock, 0) != 0 || pwrite(lock, life.data(), life.size(), 0) < 0) {
        // Without the note a request right behind this turn may reach the endpoint that this turn leaves; it then says so.
        return;
    }
}

// ---- Turns

// A link that a killed agent left may lead to a number that the new agent has used for its other name, with the right
// owner, until this name is published anew. Of two names that lead to one terminal the newer link is the right one.
bool is_left_over(const host_options &options, const std::string &path, const file_state &link,
                  const file_state &target) {
    const std::string &other = path == options.channel ? options.listener : options.channel;
    adb_refusal refusal;
    file_state other_link = {};
    file_state other_target = {};
    if (stat_file("STA2", other, &other_target, &refusal) != FILE_TOLD ||
        stat_file("LST2", other, &other_link, &refusal) != FILE_TOLD || other_target.error != 0 ||
        other_link.error != 0) {
        return false;
    }
    bool is_one = other_target.device == target.device && other_target.inode == target.inode;
    bool is_older = link.change_time != other_link.change_time ? link.change_time < other_link.change_time
                                                               : link.inode < other_link.inode;
    return is_one && is_older;
}

// Judges a name by what the file service tells. `life` becomes the text of its publication, "" when it is no link.
link_state judge(const host_options &options, const std::string &path, std::string *life, link_attempt *attempt) {
    adb_refusal refusal;
    file_state link = {};
    file_state target = {};
    file_answer answer = stat_file("LST2", path, &link, &refusal);
    if (answer == FILE_TOLD && S_ISLNK(link.mode)) {
        answer = stat_file("STA2", path, &target, &refusal);
    } else {
        target = link;
    }
    if (answer == FILE_UNREACHED) {
        attempt->reason = refused_text(refusal);
        return state_of(refusal);
    }
    if (answer == FILE_UNKNOWN) {
        return LINK_TAKEN;
    }
    if (link.error != 0 || target.error != 0) {
        attempt->error = static_cast<int>(link.error != 0 ? link.error : target.error);
        return attempt->error == ENOENT ? LINK_ABSENT : LINK_REFUSED;
    }
    bool is_published = S_ISLNK(link.mode);
    *life = is_published ? text_of_life(link) : "";
    attempt->uid = target.uid;
    attempt->gid = target.gid;
    if (!S_ISCHR(target.mode)) {
        attempt->error = ENOTTY;
        return LINK_REFUSED;
    }
    if (is_published && !is_agents(target)) {
        return LINK_FOREIGN;
    }
    return is_published && is_left_over(options, path, link, target) ? LINK_ABSENT : LINK_TAKEN;
}

// Opens a device file of the handset. The daemon gives no reason when it cannot: the file may also have gone just now.
int open_device(const std::string &path, link_attempt *attempt) {
    adb_refusal refusal;
    bool is_reached = false;
    int fd = adb_open(m_serial, "dev:" + path, soon(), &is_reached, &refusal);
    attempt->state = fd >= 0 ? LINK_TAKEN : is_reached ? LINK_ABSENT : state_of(refusal);
    if (fd < 0) {
        attempt->reason = is_reached ? rights_text(path) : refused_text(refusal);
    }
    return fd;
}

link_attempt take(const host_options &options, const std::string &path, link_turn *turn) {
    link_attempt attempt;
    adb_refusal refusal;
    if (!find_handset(options, &refusal)) {
        attempt.state = state_of(refusal);
        attempt.reason = refused_text(refusal);
        return attempt;
    }
    int lock = -1;
    std::string life;
    attempt.state = take_lock(path, &lock, &attempt);
    if (attempt.state == LINK_TAKEN && !adb_need_server(soon(), &refusal)) {
        attempt.state = LINK_REFUSED;
        attempt.reason = refused_text(refusal);
    }
    if (attempt.state == LINK_TAKEN) {
        attempt.state = judge(options, path, &life, &attempt);
    }
    if (attempt.state == LINK_TAKEN && !life.empty() && was_used(lock, life)) {
        attempt.state = LINK_USED;
    }
    if (attempt.state == LINK_TAKEN) {
        turn->fd = open_device(path, &attempt);
    }
    if (attempt.state == LINK_TAKEN) {
        note_use(lock, life);
        turn->lock = lock;
    } else if (lock >= 0) {
        close(lock);
    }
    return attempt;
}

std::string explain_absence(const host_options &, const std::string &path, const char *role) {
    return text_of(
        "There is no %s at %s on the handset %s: the agent is not running there, or publishes it elsewhere. Start the "
        "agent, or name the right path (see --help).",
        role, path.c_str(), m_serial.c_str());
}

std::string identity(const host_options &options, const std::string &path) {
    adb_refusal refusal;
    file_state link = {};
    bool is_told = find_handset(options, &refusal) && stat_file("LST2", path, &link, &refusal) == FILE_TOLD;
    return is_told && link.error == 0 && S_ISLNK(link.mode) ? text_of_life(link) : "";
}

std::string loss(const host_options &) {
    adb_refusal refusal;
    return adb_is_connected(m_serial, soon(), &refusal) ? "" : refused_text(refusal);
}

// ---- Terminals

bool open_terminal(const host_options &, const link_turn &, const std::string &path, link_terminal *terminal) {
    adb_refusal refusal;
    file_state state = {};
    if (stat_file("STA2", path, &state, &refusal) == FILE_TOLD && !is_agents(state)) {
        say("The agent announced %s, which is not a terminal of the agent on the handset (owner %u:%u, error %u). Try "
            "again.",
            path.c_str(), state.uid, state.gid, state.error);
        return false;
    }
    link_attempt attempt;
    terminal->fd = open_device(path, &attempt);
    terminal->path = path;
    terminal->life = text_of_life(state);
    if (terminal->fd < 0) {
        say("The connection %s that the agent announced cannot be opened. %s", path.c_str(), attempt.reason.c_str());
    }
    return terminal->fd >= 0;
}

bool reopen_terminal(const host_options &, link_terminal *terminal) {
    adb_refusal refusal;
    file_state state = {};
    if (stat_file("STA2", terminal->path, &state, &refusal) == FILE_TOLD && text_of_life(state) != terminal->life) {
        return false;
    }
    link_attempt attempt;
    terminal->fd = open_device(terminal->path, &attempt);
    return terminal->fd >= 0;
}

// Runs one stty on the handset, for the terminal. Result: whether it succeeded; its output is in `out`.
bool run_stty(const link_terminal &terminal, const std::string &arguments, std::string *out) {
    if (m_shell < 0 || m_shell_owner != getpid()) {
        adb_refusal refusal;
        bool is_reached = false;
        m_shell = adb_open(m_serial, "exec:sh", soon(), &is_reached, &refusal);
        m_shell_owner = getpid();
    }
    std::string line = "stty -F " + terminal.path + " " + arguments + " 2>/dev/null&&echo +||echo -\n";
    int64_t deadline = now_ms() + CONTROL_MS;
    if (m_shell < 0 || write_all(m_shell, line.data(), line.size(), deadline) != 0) {
        return false;
    }
    out->clear();
    while (out->find_first_of("+-") == std::string::npos || out->back() != '\n') {
        char buf[512];
        long got = read_some(m_shell, buf, sizeof(buf), deadline);
        if (got <= 0) {
            close(m_shell);
            m_shell = -1;
            return false;
        }
        out->append(buf, static_cast<size_t>(got));
    }
    return out->find('+') != std::string::npos;
}

void set_size(const host_options &, const link_terminal &terminal, const struct winsize &size) {
    std::string ignored;
    run_stty(terminal, text_of("rows %u cols %u", size.ws_row, size.ws_col), &ignored);
}

// `stty -g` prints the flags and the control characters in hexadecimal, with colons between them.
bool get_attributes(const host_options &, const link_terminal &terminal, struct termios *attributes) {
    std::string text;
    if (!run_stty(terminal, "-g", &text)) {
        return false;
    }
    tcflag_t *flags[] = {&attributes->c_iflag, &attributes->c_oflag, &attributes->c_cflag, &attributes->c_lflag};
    char *at = &text[0];
    for (tcflag_t *flag : flags) {
        char *end = nullptr;
        *flag = static_cast<tcflag_t>(strtoul(at, &end, 16));
        if (end == at || *end != ':') {
            return false;
        }
        at = end + 1;
    }
    for (size_t i = 0; i < NCCS; ++i) {
        char *end = nullptr;
        attributes->c_cc[i] = static_cast<cc_t>(strtoul(at, &end, 16));
        if (end == at || *end != ':') {
            break;
        }
        at = end + 1;
    }
    return true;
}

bool set_passing(const host_options &, const link_terminal &terminal, bool is_new) {
    std::string ignored;
    return run_stty(terminal, is_new ? "extproc -opost icrnl icanon echo echoe echok isig iexten" : "extproc -opost",
                    &ignored);
}

}  // namespace

const link_kind m_link_adb = {take,     explain_absence, identity,    loss,           open_terminal,
                              set_size, get_attributes,  set_passing, reopen_terminal};
