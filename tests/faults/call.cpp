// Two tables say it all: which errors a call is tried with, and which calls are left in peace. No state.
#include "tests/faults/call.h"

#include <algorithm>
#include <map>
#include <regex>

struct error_row {
    const char *call;
    std::vector<const char *> errors;
};

static const std::vector<error_row> &rows() {
    static const std::vector<error_row> all = {
        {"openat", {"EMFILE", "EACCES", "ENOENT", "ENOMEM", "EIO"}},
        {"read", {"EIO", "EINTR", "EAGAIN", "ENOMEM"}},
        {"write", {"ENOSPC", "EIO", "EAGAIN"}},
        {"writev", {"EPIPE", "EAGAIN"}},
        {"sendmsg", {"EAGAIN", "ECONNREFUSED"}},
        {"sendto", {"EPIPE"}},
        {"recvfrom", {"ECONNRESET"}},
        {"socket", {"EMFILE"}},
        {"connect", {"ECONNREFUSED"}},
        {"clone", {"EAGAIN", "ENOMEM"}},
        {"clone3", {"EAGAIN"}},
        {"mmap", {"ENOMEM"}},
        {"mprotect", {"ENOMEM"}},
        {"wait4", {"EINTR", "ECHILD"}},
        {"waitid", {"ECHILD"}},
        {"access", {"EACCES"}},
        {"mkdir", {"ENOSPC", "EACCES"}},
        {"rename", {"ENOSPC", "EACCES"}},
        {"unlink", {"EACCES", "EROFS"}},
        {"rmdir", {"EBUSY"}},
        {"symlink", {"ENOSPC", "EEXIST"}},
        {"chmod", {"EPERM", "EROFS"}},
        {"chown", {"EPERM"}},
        {"statfs", {"EIO"}},
        {"newfstatat", {"EIO"}},
        {"getdents64", {"EIO"}},
        {"lseek", {"ESPIPE"}},
        {"ioctl", {"EIO", "ENOTTY"}},
        {"fcntl", {"EINVAL"}},
        {"poll", {"EINTR"}},
        {"clock_nanosleep", {"EINTR"}},
        {"kill", {"EPERM", "ESRCH"}},
        {"tgkill", {"EAGAIN"}},
        {"setsid", {"EPERM"}},
        {"setpgid", {"EPERM"}},
        {"setuid", {"EAGAIN"}},
        {"setgid", {"EPERM"}},
        {"chdir", {"EACCES"}},
        {"dup2", {"EBUSY"}},
        {"dup3", {"EBUSY", "EMFILE"}},
        {"execve", {"ENOENT", "ENOMEM"}},
    };
    return all;
}

// Calls that are not tried, and why.
static bool is_left_out(const std::string &call) {
    static const std::map<std::string, const char *> kReasons = {
        {"close", "an injected failure keeps a descriptor that a real one would have freed"},
        {"brk", "the kernel tells of a failure by the old end, never by an error"},
        {"exit", "does not return"},
        {"exit_group", "does not return"},
        {"rt_sigreturn", "does not return"},
        {"futex", "the C library's locks, which know no failure"},
        {"getpid", "cannot fail"},
        {"getrandom", "a seed of the C library's, which does without"},
        {"munmap", "cannot fail for what has been mapped whole"},
        {"madvise", "advice: the C library does not look whether it is taken"},
        {"rt_sigaction", "cannot fail with a signal's right number"},
        {"rt_sigprocmask", "cannot fail with a right set"},
    };
    return kReasons.count(call) > 0;
}

static std::vector<std::string> errors_of(const traced_call &call) {
    std::vector<std::string> errors;
    for (const error_row &row : rows()) {
        if (call.name == row.call) {
            errors.assign(row.errors.begin(), row.errors.end());
        }
    }
    if (call.path == "/data/local/log/sa.log" && !errors.empty()) {
        errors = {call.name == "openat" ? "EMFILE" : errors[0]};  // one line is dropped, whatever the reason
    } else if (call.name == "read" && call.path != "/dev/ptmx" && call.path != "/proc/kmsg") {
        errors = {"EIO"};  // nobody looks at the reason
    } else if (call.name == "openat" && call.creates) {
        errors.push_back("ENOSPC");
    }
    return errors;
}

static bool has(const std::string &text, const char *part) {
    return text.find(part) != std::string::npos;
}

// What tells calls of the same name apart that are about no path.
static std::string kind_of(const traced_call &call, const std::string &line) {
    std::smatch request;
    if (call.name == "clone" || call.name == "clone3") {
        return has(line, "CLONE_THREAD")  ? " of a thread"
               : has(line, "CLONE_VFORK") ? " of a shell command"
                                          : " (fork)";
    }
    if (call.name == "mmap") {
        return has(line, "MAP_STACK") ? " of a stack" : "";
    }
    if (call.name == "ioctl" && std::regex_search(line, request, std::regex("(TIOC[A-Z]+|TCGETS|TCSETS)"))) {
        return " " + request[1].str();
    }
    if (call.name == "fcntl" && std::regex_search(line, request, std::regex("(F_[A-Z]+)"))) {
        return " " + request[1].str();
    }
    return call.name == "connect" && std::regex_search(line, request, std::regex("sun_path=\"([^\"]+)\""))
               ? " " + request[1].str()
               : "";
}

bool parse_call(const std::string &line, traced_call *call) {
    static const std::regex kCall("^(?:([0-9]+) +)?([a-z_0-9]+)\\((.*)$");
    static const std::regex kLink("^\"[^\"]*\", \"(/[^\"]*)\"");
    static const std::regex kPath("^(?:[0-9]+<(/[^>]*)>|(?:AT_FDCWD<[^>]*>, )?\"(/[^\"]*)\")");
    std::smatch parts;
    if (!std::regex_match(line, parts, kCall)) {
        return false;
    }
    *call = traced_call();
    call->thread = parts[1].matched ? stoi(parts[1]) : 0;
    call->name = parts[2];
    const std::string arguments = parts[3];
    std::smatch path;
    // A link's first path is the fresh slave's, another one at each run: the call is about the name that is made.
    if (call->name == "symlink" && std::regex_search(arguments, path, kLink)) {
        call->path = path[1];
    } else if (call->name != "symlink" && std::regex_search(arguments, path, kPath)) {
        call->path = path[1].matched ? path[1].str() : path[2].str();
    }
    call->creates = has(line, "O_CREAT");
    call->title = call->name + kind_of(*call, line) + (call->path.empty() ? "" : " " + call->path);
    return true;
}

std::vector<std::string> whole_calls(const std::vector<std::string> &lines) {
    static const std::regex kResumed("^([0-9]+) +<\\.\\.\\. [a-z_0-9]+ resumed>(.*)$");
    static const std::string kUnfinished = " <unfinished ...>";
    std::vector<std::string> whole;
    std::map<std::string, size_t> begun;  // by thread
    for (const std::string &line : lines) {
        std::smatch parts;
        const size_t cut = line.rfind(kUnfinished);
        if (std::regex_match(line, parts, kResumed) && begun.count(parts[1]) > 0) {
            whole[begun[parts[1]]] += parts[2];
        } else if (cut != std::string::npos && cut + kUnfinished.size() == line.size()) {
            begun[line.substr(0, line.find(' '))] = whole.size();
            whole.push_back(line.substr(0, cut));
        } else {
            whole.push_back(line);
        }
    }
    return whole;
}

// Names that hold a process id are another path at each run, but for the first processes of a handset.
static bool is_repeatable(const std::string &path) {
    return !std::regex_search(path, std::regex("^/proc/(?![12]/)[0-9]+/|/[0-9]{4}_[0-9]{2}_"));
}

// Which of `count` calls behind `before` others fail: each, or some of many, and all of them. Of many that are alike (log
// lines) the first one stands for any.
static std::vector<std::string> whens(int before, int count, bool differ) {
    std::vector<int> places;
    const int most = differ ? 8 : count <= 4 ? count : 1;
    for (int place = 1; place <= std::min(count, most); place++) {
        places.push_back(count <= most || most == 1 ? place : 1 + (place - 1) * (count - 1) / (most - 1));
    }
    std::vector<std::string> all;
    for (const int place : places) {
        all.push_back(std::to_string(before + place));
    }
    if (count > 1) {
        all.push_back(std::to_string(before + 1) + "+");
    }
    return all;
}

struct group {
    traced_call call;
    std::map<int, int> before;  // by thread
    std::map<int, int> counts;
    bool differ = false;  // its calls have other titles: requests of ioctl
};

static int highest(const std::map<int, int> &counts) {
    int found = 0;
    for (const auto &[thread, count] : counts) {
        found = std::max(found, count);
    }
    return found;
}

std::vector<fault> faults_of(const std::vector<std::string> &recording, size_t first) {
    std::vector<std::string> order;
    std::map<std::string, group> groups;
    for (size_t i = 0; i < recording.size(); i++) {
        traced_call call;
        if (!parse_call(recording[i], &call) || errors_of(call).empty() || !is_repeatable(call.path)) {
            continue;
        }
        const std::string key = call.name + " " + call.path;
        group *found = &groups[key];
        if (found->call.name.empty()) {
            found->call = call;
            order.push_back(key);
        }
        found->differ =
            found->differ || found->call.title != call.title || (call.path.empty() && call.name != "sendmsg");
        (i < first ? found->before : found->counts)[call.thread]++;
    }
    std::vector<fault> faults;
    for (const std::string &key : order) {
        const group &g = groups[key];
        for (const std::string &when : whens(highest(g.before), highest(g.counts), g.differ)) {
            for (const std::string &error : errors_of(g.call)) {
                faults.push_back({g.call.name, g.call.path, error, when});
            }
        }
    }
    return faults;
}

std::set<std::string> unknown_calls(const std::vector<std::string> &recording, size_t first) {
    std::set<std::string> unknown;
    for (size_t i = first; i < recording.size(); i++) {
        traced_call call;
        if (parse_call(recording[i], &call) && errors_of(call).empty() && !is_left_out(call.name)) {
            unknown.insert(call.name);
        }
    }
    return unknown;
}
