// Reads *.rc files: services with their options, actions with their commands. No state.
#include <stdio.h>

#include "handset/common/journal.h"
#include "handset/init/init.h"

// Splits a line into words. Double quotes enclose blanks; `#` starts a comment.
static std::vector<std::string> words(const std::string &line) {
    std::vector<std::string> result;
    size_t i = 0;
    while (i < line.size()) {
        if (line[i] == ' ' || line[i] == '\t' || line[i] == '\r') {
            i++;
            continue;
        }
        if (line[i] == '#') {
            break;
        }
        std::string word;
        bool quoted = false;
        for (; i < line.size() && (quoted || (line[i] != ' ' && line[i] != '\t' && line[i] != '\r')); i++) {
            if (line[i] == '"') {
                quoted = !quoted;
            } else {
                word += line[i];
            }
        }
        result.push_back(word);
    }
    return result;
}

// The service or action that is being read.
struct section {
    bool in_service = false;
    service being_read;
    std::string trigger;
    std::vector<command_line> commands;
};

static void close_section(section *s) {
    if (s->in_service) {
        service_add(s->being_read);
    } else if (!s->trigger.empty()) {
        action_add(s->trigger, s->commands);
    }
    *s = section();
}

static void service_option(service *sv, const std::vector<std::string> &line) {
    const std::string &option = line[0];
    std::vector<std::string> rest(line.begin() + 1, line.end());
    if (option == "class") {
        sv->classes = rest;
    } else if (option == "user" && !rest.empty()) {
        sv->user = rest[0];
    } else if (option == "group") {
        sv->groups = rest;
    } else if (option == "oneshot") {
        sv->oneshot = true;
    } else if (option == "disabled") {
        sv->disabled = true;
    } else if (option == "setenv" && rest.size() == 2) {
        sv->environment.push_back(rest[0] + "=" + rest[1]);
    } else if (option != "seclabel" && option != "socket" && option != "writepid" && option != "capabilities" &&
               option != "priority" && option != "ioprio" && option != "task_profiles") {
        fprintf(stderr, "init: service %s: unknown option %s\n", sv->name.c_str(), option.c_str());
    }
}

static void read_line(section *s, const std::vector<std::string> &line, const std::string &file) {
    if (line[0] == "service" && line.size() >= 3) {
        close_section(s);
        s->in_service = true;
        s->being_read.name = line[1];
        s->being_read.argv.assign(line.begin() + 2, line.end());
    } else if (line[0] == "on" && line.size() == 2) {
        close_section(s);
        s->trigger = line[1];
    } else if (s->in_service) {
        service_option(&s->being_read, line);
    } else if (!s->trigger.empty()) {
        s->commands.push_back(line);
    } else {
        fprintf(stderr, "init: %s: \"%s\" is outside of a section\n", file.c_str(), line[0].c_str());
    }
}

static void read_rc(const std::string &path) {
    std::string text;
    if (!text_read_file(path, &text)) {
        fprintf(stderr, "init: %s cannot be read\n", path.c_str());
        return;
    }
    section s;
    for (const std::string &line : text_split(text, '\n')) {
        std::vector<std::string> parts = words(line);
        if (!parts.empty()) {
            read_line(&s, parts, path);
        }
    }
    close_section(&s);
}

void rc_read_directory(const std::string &directory) {
    for (const std::string &name : text_names(directory)) {
        if (name.size() > 3 && name.compare(name.size() - 3, 3, ".rc") == 0) {
            read_rc(directory + "/" + name);
        }
    }
}
