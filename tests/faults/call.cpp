// What is left out on purpose: close (an injected failure keeps a descriptor that a real one would have freed), brk (the
// kernel tells of a failure by the old end, never by an error), calls that cannot fail as they are used (signal masks,
// ids, locks), and the end of the process.
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
        {"openat", {"EMFILE", "EACCES"}},
        {"read", {"EIO", "EINTR", "EAGAIN", "ENOMEM"}},
        {"write", {"ENOSPC", "EIO", "EAGAIN"}},
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
        {"execve", {"ENOENT", "ENOMEM"}},
    };
    return all;
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
    static const std::regex kCall("^(?:[0-9]+ +)?([a-z_0-9]+)\\((.*)$");
    static const std::regex kPath("^(?:[0-9]+<(/[^>]*)>|(?:AT_FDCWD<[^>]*>, )?\"(/[^\"]*)\")");
    std::smatch parts;
    if (!std::regex_match(line, parts, kCall)) {
        return false;
    }
    *call = traced_call();
    call->name = parts[1];
    const std::string arguments = parts[2];
    std::smatch path;
    // A link's first path is the fresh slave's, another one at each run.
    if (call->name != "symlink" && std::regex_search(arguments, path, kPath)) {
        call->path = path[1].matched ? path[1].str() : path[2].str();
    }
    call->creates = has(line, "O_CREAT");
    call->title = call->name + kind_of(*call, line) + (call->path.empty() ? "" : " " + call->path);
    return true;
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
    int before = 0;
    int count = 0;
    bool differ = false;  // its calls have other titles: requests of ioctl
};

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
        if (found->count + found->before == 0) {
            found->call = call;
            order.push_back(key);
        }
        found->differ =
            found->differ || found->call.title != call.title || (call.path.empty() && call.name != "sendmsg");
        (i < first ? found->before : found->count)++;
    }
    std::vector<fault> faults;
    for (const std::string &key : order) {
        const group &g = groups[key];
        for (const std::string &when : whens(g.before, g.count, g.differ)) {
            for (const std::string &error : errors_of(g.call)) {
                faults.push_back({g.call.name, g.call.path, error, when});
            }
        }
    }
    return faults;
}
