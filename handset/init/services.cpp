// Services: start, stop and restart. State: the table of services.
// A stop kills all processes of a service. They are recognised by an environment variable that descendants inherit, by
// the process group and by descent; the platform uses a control group.
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <list>
#include <set>

#include "handset/init/init.h"

static const std::string kVariable = "DESK_SERVICE=";
static const char kAgent[] = "zr-qel-sa";

static std::list<service> m_services;  // a list: pointers to its elements stay valid

void service_add(const service &added) {
    if (service_find(added.name) != nullptr) {
        fprintf(stderr, "init: service %s is defined twice\n", added.name.c_str());
        return;
    }
    m_services.push_back(added);
    if (added.name == kAgent && !options().agent) {
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
}

// ---- the processes of a service

// Whether the process' environment holds exactly this variable.
static bool has_variable(pid_t pid, const std::string &variable) {
    std::string environment;
    if (!text_read_file("/proc/" + std::to_string(pid) + "/environ", &environment)) {
        return false;
    }
    const std::string end(1, '\0');
    return (end + environment + end).find(end + variable + end) != std::string::npos;
}

static std::set<pid_t> members(pid_t leader, const std::string &variable) {
    const std::vector<process> all = processes();
    std::set<pid_t> found;
    for (const process &p : all) {
        if (p.pid == leader || (leader > 0 && p.group == leader) || has_variable(p.pid, variable)) {
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

// Repeats until no new process is found: a process may fork before its own signal arrives, but not afterwards.
static void kill_tree(const service &sv, pid_t leader) {
    std::set<pid_t> killed;
    for (bool more = true; more;) {
        more = false;
        for (pid_t pid : members(leader, kVariable + sv.name)) {
            if (killed.insert(pid).second) {
                kill(pid, SIGKILL);
                more = true;
            }
        }
    }
}

// ---- start, stop, end

static child_setup setup_of(const service &sv) {
    const bool is_logd = sv.name == "logd";  // writes the log journal: options for services do not affect it
    child_setup setup;
    setup.argv = sv.argv;
    setup.environment = is_logd ? platform_environment() : child_environment();
    setup.environment.insert(setup.environment.end(), sv.environment.begin(), sv.environment.end());
    setup.environment.push_back(kVariable + sv.name);
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

static void service_ended(service *sv, pid_t pid, int status);

static property_reply start(service *sv) {
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
    child_setup setup = setup_of(*sv);
    setup.ended = [sv](pid_t pid, int status) { service_ended(sv, pid, status); };
    const pid_t pid = child_start(setup);
    if (pid < 0) {
        return PROPERTY_CONTROL;
    }
    sv->pid = pid;
    sv->started = loop_now();
    set_state(*sv, "running");
    return PROPERTY_OK;
}

static property_reply stop(service *sv, bool restart) {
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

property_reply service_control(const std::string &verb, const std::string &name) {
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
    return verb == "restart" ? stop(sv, true) : PROPERTY_CONTROL;
}

static void restart_later(service *sv) {
    set_state(*sv, "restarting");
    int64_t wait = sv->started + options().restart_ms - loop_now();
    sv->timer = loop_after(wait > 0 ? static_cast<int>(wait) : 0, [sv] {
        sv->timer = 0;
        start(sv);
    });
}

static void service_ended(service *sv, pid_t pid, int status) {
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

bool services_any_running() {
    return std::any_of(m_services.begin(), m_services.end(), [](const service &sv) { return sv.pid > 0; });
}
