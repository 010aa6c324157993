// Actions of the rc files: commands that run on boot events and whenever a property is set.
// State: the actions in the order they were read, and whether property triggers are enabled.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "handset/init/init.h"

struct action {
    std::string trigger;
    std::vector<command_line> commands;
};

static std::vector<action> m_actions;
static bool m_properties_enabled = false;
static int m_depth = 0;

static const std::string kPropertyPrefix = "property:";
static const int kMaxDepth = 16;  // an action that sets a property may trigger others, also itself

void action_add(const std::string &trigger, const std::vector<command_line> &commands) {
    m_actions.push_back({trigger, commands});
}

// Blocks init until the file exists, as the platform's `wait` does. Gives up when no service runs that could make it.
static void wait_for(const std::string &path, int ms) {
    int64_t end = loop_now() + ms;
    while (access(path.c_str(), F_OK) != 0 && loop_now() < end && services_any_running()) {
        usleep(500);
        children_reap();
    }
}

static void run_command(const command_line &words) {
    const std::string &verb = words[0];
    if (words.size() < 2) {
        fprintf(stderr, "init: command %s needs an argument\n", verb.c_str());
    } else if (verb == "start" || verb == "stop") {
        service_control(verb, words[1]);
    } else if (verb == "setprop") {
        property_request(words[1], words.size() > 2 ? words[2] : "", 0);
    } else if (verb == "class_start") {
        services_start_class(words[1]);
    } else if (verb == "wait") {
        wait_for(words[1], words.size() > 2 ? 1000 * atoi(words[2].c_str()) : 5000);
    } else {
        fprintf(stderr, "init: unknown command %s\n", verb.c_str());
    }
}

static void run_commands(const action &of) {
    for (const command_line &words : of.commands) {
        run_command(words);
    }
}

static void run_matching(const std::string &trigger, const std::string &other) {
    if (m_depth >= kMaxDepth) {
        fprintf(stderr, "init: actions trigger each other without end: %s\n", trigger.c_str());
        return;
    }
    m_depth++;
    for (const action &each : m_actions) {
        if (each.trigger == trigger || each.trigger == other) {
            run_commands(each);
        }
    }
    m_depth--;
}

void actions_run_event(const std::string &event) {
    journal({"boot", event});
    run_matching(event, event);
}

void actions_property_changed(const std::string &name, const std::string &value) {
    if (m_properties_enabled) {
        run_matching(kPropertyPrefix + name + "=" + value, kPropertyPrefix + name + "=*");
    }
}

static bool is_true(const std::string &condition) {
    size_t mark = condition.find('=');
    if (mark == std::string::npos) {
        return false;
    }
    std::string value = property_value(condition.substr(0, mark));
    std::string wanted = condition.substr(mark + 1);
    return wanted == "*" ? !value.empty() : value == wanted;
}

void actions_enable_properties() {
    m_properties_enabled = true;
    for (const action &each : m_actions) {
        if (text_starts(each.trigger, kPropertyPrefix) && is_true(each.trigger.substr(kPropertyPrefix.size()))) {
            run_commands(each);
        }
    }
}
