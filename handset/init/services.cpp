// Services: starting, stopping with everything they left behind, restarting. State: the table of services.
// A service's processes are told by an environment variable that all descendants inherit, by its process group and by
// descent; the platform uses a control group for it.
#include <dirent.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <list>
#include <set>

#include "init.h"

#define MARK "DESK_SERVICE="
#define AGENT "zr-qel-sa"

static std::list<service> m_services;  // a list: pointers to its elements stay valid

void service_add(const service &added) {
    if (service_find(added.name) != nullptr) {
        fprintf(stderr, "init: service %s is defined twice\n", added.name.c_str());
        return;
    }
    m_services.push_back(added);
    if (added.name == AGENT && !options().agent) {
        m_services.back().disabled = true;
    }
}

service *service_find(const std::string &name) {
    for (service &sv : m_services) {
        if (sv.name == name) {
            return &sv;
        }
    }
    return nullptr;
}

static void set_state(const service &sv, const char *state) {
    journal({"svc", sv.name, state, std::to_string(sv.pid)});
    property_store("init.svc." + sv.name, state);
    actions_property_set("init.svc." + sv.name, state);
}

// ---- the processes of a service

struct process {
    pid_t pid;
    pid_t parent;
    pid_t group;
    bool marked;
};

// True when the process' environment holds exactly this variable.
static bool has_mark(pid_t pid, const std::string &mark) {
    std::string environment;
    if (!text_read_file("/proc/" + std::to_string(pid) + "/environ", &environment)) {
        return false;
    }
    environment.insert(0, 1, '\0');
    environment += '\0';
    return environment.find(std::string(1, '\0') + mark + std::string(1, '\0')) != std::string::npos;
}

// Reads one process; false when it is gone, a zombie or init.
static bool read_process(pid_t pid, const std::string &mark, process *p) {
    std::string stat;
    if (pid <= 1 || !text_read_file("/proc/" + std::to_string(pid) + "/stat", &stat)) {
        return false;
    }
    size_t close = stat.rfind(')');
    char state;
    int parent;
    int group;
    if (close == std::string::npos || sscanf(stat.c_str() + close + 1, " %c %d %d", &state, &parent, &group) != 3 ||
        state == 'Z' || state == 'X') {
        return false;
    }
    *p = {pid, parent, group, has_mark(pid, mark)};
    return true;
}

static std::vector<process> all_processes(const std::string &mark) {
    std::vector<process> all;
    DIR *dir = opendir("/proc");
    if (dir == nullptr) {
        return all;
    }
    for (struct dirent *entry; (entry = readdir(dir)) != nullptr;) {
        process p;
        if (read_process(atoi(entry->d_name), mark, &p)) {
            all.push_back(p);
        }
    }
    closedir(dir);
    return all;
}

static std::set<pid_t> members(pid_t leader, const std::string &mark) {
    std::vector<process> all = all_processes(mark);
    std::set<pid_t> found;
    for (const process &p : all) {
        if (p.marked || p.pid == leader || (leader > 0 && p.group == leader)) {
            found.insert(p.pid);
        }
    }
    for (size_t before = 0; before != found.size();) {
        before = found.size();
        for (const process &p : all) {
            if (found.count(p.parent) != 0) {
                found.insert(p.pid);
            }
        }
    }
    return found;
}

// Kills until a look around finds nobody new: whoever was killed cannot fork any more.
static void kill_tree(const service &sv, pid_t leader) {
    std::set<pid_t> killed;
    for (bool more = true; more;) {
        more = false;
        for (pid_t pid : members(leader, MARK + sv.name)) {
            if (killed.insert(pid).second) {
                kill(pid, SIGKILL);
                more = true;
            }
        }
    }
}

// ---- start, stop, end

static child_setup setup_of(const service &sv) {
    const bool is_logd = sv.name == "logd";  // the journal's source: what a test does to services must not reach it
    child_setup setup;
    setup.argv = sv.argv;
    setup.environment = is_logd ? platform_environment() : child_environment();
    setup.environment.insert(setup.environment.end(), sv.environment.begin(), sv.environment.end());
    setup.environment.push_back(MARK + sv.name);
    setup.uid = account_id(sv.user, 0);
    setup.gid = sv.groups.empty() ? 0 : account_id(sv.groups[0], 0);
    for (size_t i = 1; i < sv.groups.size(); i++) {
        setup.groups.push_back(account_id(sv.groups[i], 0));
    }
    setup.umask = options().umask;
    if (!is_logd) {
        setup.closed_stdin = options().closed_stdin;
        setup.output = options().output;
    }
    return setup;
}

static void forget_timer(service *sv) {
    loop_cancel(sv->timer);
    sv->timer = 0;
}

static uint32_t start(service *sv) {
    sv->disabled = false;
    sv->restart = false;
    if (sv->pid > 0) {
        return PROPERTY_OK;
    }
    forget_timer(sv);
    if (access(sv->argv[0].c_str(), X_OK) != 0) {
        sv->disabled = true;
        return PROPERTY_CONTROL;
    }
    pid_t pid = child_start(setup_of(*sv));
    if (pid < 0) {
        return PROPERTY_CONTROL;
    }
    sv->pid = pid;
    sv->started = loop_now();
    set_state(*sv, "running");
    return PROPERTY_OK;
}

static uint32_t stop(service *sv, bool restart) {
    sv->disabled = !restart;
    sv->restart = restart;
    forget_timer(sv);
    if (sv->pid > 0) {
        set_state(*sv, "stopping");
        kill_tree(*sv, sv->pid);
        return PROPERTY_OK;
    }
    if (restart) {
        return start(sv);
    }
    kill_tree(*sv, 0);
    set_state(*sv, "stopped");
    return PROPERTY_OK;
}

uint32_t service_control(const std::string &verb, const std::string &name) {
    service *sv = service_find(name);
    if (sv == nullptr) {
        return PROPERTY_CONTROL;
    }
    if (verb == "start") {
        return start(sv);
    }
    if (verb == "stop") {
        return stop(sv, false);
    }
    return verb == "restart" ? stop(sv, true) : static_cast<uint32_t>(PROPERTY_CONTROL);
}

static void restart_later(service *sv) {
    set_state(*sv, "restarting");
    int64_t wait = sv->started + options().restart_ms - loop_now();
    sv->timer = loop_after(wait > 0 ? static_cast<int>(wait) : 0, [sv] {
        sv->timer = 0;
        start(sv);
    });
}

bool service_ended(pid_t pid, int status) {
    auto found = std::find_if(m_services.begin(), m_services.end(), [pid](const service &sv) { return sv.pid == pid; });
    if (found == m_services.end()) {
        return false;
    }
    service *sv = &*found;
    journal({"exit", sv->name, std::to_string(pid), std::to_string(status)});
    sv->pid = 0;
    if (!sv->oneshot || sv->restart) {
        kill_tree(*sv, pid);
    }
    if (sv->restart) {
        start(sv);
    } else if (sv->disabled || sv->oneshot) {
        sv->disabled = true;
        set_state(*sv, "stopped");
    } else {
        restart_later(sv);
    }
    return true;
}

static bool in_class(const service &sv, const std::string &name) {
    const std::vector<std::string> &classes = sv.classes;
    return classes.empty() ? name == "default" : std::find(classes.begin(), classes.end(), name) != classes.end();
}

void services_start_class(const std::string &name) {
    for (service &sv : m_services) {
        if (!sv.disabled && in_class(sv, name)) {
            start(&sv);
        }
    }
}

void services_stop_class(const std::string &name) {
    for (service &sv : m_services) {
        if (in_class(sv, name)) {
            stop(&sv, false);
        }
    }
}

bool services_any_running() {
    return std::any_of(m_services.begin(), m_services.end(), [](const service &sv) { return sv.pid > 0; });
}
