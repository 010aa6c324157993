// The command line of `handset`. State: none but the tables of options.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "handset.h"

static const char *const m_help =
    "usage: handset run [OPTION]... -- PROGRAM [ARGUMENT]...\n"
    "       handset boot [OPTION]...\n"
    "       handset shell [OPTION]... [-- PROGRAM [ARGUMENT]...]\n"
    "       handset enter PID [-- PROGRAM [ARGUMENT]...]\n"
    "\n"
    "Boots a private desk handset; it ends with this program and leaves nothing behind.\n"
    "  run     run PROGRAM in it (no agent unless --agent) and end with its status\n"
    "  boot    keep it running until end of input, SIGINT, SIGTERM or SIGHUP\n"
    "  shell   root shell on this terminal\n"
    "  enter   the same in a handset that runs already; PID as `handset boot` tells it\n"
    "\n"
    "  --agent, --no-agent    start zr-qel-sa at boot (boot and shell do, run does not)\n"
    "  --image DIR            tree of /system\n"
    "  --state DIR            /data is copied from DIR at boot and back at an orderly end\n"
    "  --bring FILE:DEST      put a file of this machine into the handset\n"
    "  --write DEST:TEXT      put a file with this text into the handset\n"
    "  --remove PATH          remove a path before services start\n"
    "  --data BYTES           size of /data (suffixes k, m, g)\n"
    "  --no-log-dir           without /data/local/log\n"
    "  --no-card              without /storage/real_sd\n"
    "  --card BYTES           size of the card\n"
    "  --no-tmp               without /tmp\n"
    "  --no-config            without /system/etc/zr-qel-sa.cfg\n"
    "  --prop NAME=VALUE      property set before anything starts\n"
    "  --env NAME=VALUE       environment of everything started inside\n"
    "  --timezone TZ          time zone of everything started inside\n"
    "  --old-ctl              control of unknown services succeeds\n"
    "  --property-protocol N  1 or 2\n"
    "  --restart MS           shortest time between two starts of a service\n"
    "  --umask OCTAL          of services (077)\n"
    "  --closed-stdin         services start without descriptor 0\n"
    "  --output FILE          services write stdout and stderr there\n"
    "  --printk TEXT          first content of /proc/sys/kernel/printk\n"
    "  --kmsg machine         /proc/kmsg copies this machine's log\n"
    "  --link dummy|veth      further network links\n"
    "  --user UID[:GID]       run: as whom\n"
    "  --help                 this text\n";

struct flag_row {
    const char *name;
    bool desk_options::*flag;
    bool value;
};
static const flag_row m_flags[] = {
    {"--agent", &desk_options::agent, true},         {"--no-agent", &desk_options::agent, false},
    {"--no-log-dir", &desk_options::log_dir, false}, {"--no-card", &desk_options::card, false},
    {"--no-tmp", &desk_options::tmp, false},         {"--no-config", &desk_options::config, false},
    {"--old-ctl", &desk_options::old_ctl, true},     {"--closed-stdin", &desk_options::closed_stdin, true},
};

struct text_row {
    const char *name;
    std::string desk_options::*text;
};
static const text_row m_texts[] = {
    {"--image", &desk_options::image},   {"--timezone", &desk_options::timezone}, {"--output", &desk_options::output},
    {"--printk", &desk_options::printk}, {"--link", &desk_options::link},
};

static bool take_flag(const std::string &name, desk_options *o) {
    for (const flag_row &row : m_flags) {
        if (name == row.name) {
            o->*row.flag = row.value;
            return true;
        }
    }
    return false;
}

static uint64_t bytes_of(const std::string &text) {
    char *end = nullptr;
    uint64_t value = strtoull(text.c_str(), &end, 10);
    switch (*end) {
        case 'g': return value << 30;
        case 'm': return value << 20;
        case 'k': return value << 10;
        default: return value;
    }
}

static bool take_number(const std::string &name, const std::string &value, desk_options *o) {
    if (name == "--data") {
        o->data_size = bytes_of(value);
    } else if (name == "--card") {
        o->card_size = bytes_of(value);
    } else if (name == "--property-protocol") {
        o->property_protocol = atoi(value.c_str());
    } else if (name == "--restart") {
        o->restart_ms = atoi(value.c_str());
    } else if (name == "--umask") {
        o->umask = static_cast<int>(strtol(value.c_str(), nullptr, 8));
    } else {
        return false;
    }
    return true;
}

// Options that may be given more than once.
static bool take_list(const std::string &name, const std::string &value, desk_options *o) {
    size_t mark = value.find(name == "--prop" ? '=' : ':');
    std::string first = value.substr(0, mark);
    std::string second = mark == std::string::npos ? "" : value.substr(mark + 1);
    if (name == "--prop") {
        o->properties.emplace_back(first, second);
    } else if (name == "--env") {
        o->environment.push_back(value);
    } else if (name == "--remove") {
        o->absent.push_back(value);
    } else if (name == "--bring" || name == "--write") {
        desk_file file;
        file.path = name == "--bring" ? second : first;
        file.text = name == "--bring" ? "" : second;
        file.host_source = name == "--bring" ? first : "";
        o->files.push_back(file);
    } else {
        return false;
    }
    return true;
}

static bool take_user(const std::string &value, handset_call *call) {
    call->uid = atoi(value.c_str());
    size_t mark = value.find(':');
    call->gid = mark == std::string::npos ? call->uid : atoi(value.c_str() + mark + 1);
    return true;
}

static bool take_value(const std::string &name, const std::string &value, handset_call *call) {
    for (const text_row &row : m_texts) {
        if (name == row.name) {
            call->options.*row.text = value;
            return true;
        }
    }
    if (name == "--state") {
        call->state = value;
        return true;
    }
    if (name == "--user") {
        return take_user(value, call);
    }
    if (name == "--kmsg") {
        call->options.kmsg_machine = value == "machine";
        return call->options.kmsg_machine;
    }
    return take_number(name, value, &call->options) || take_list(name, value, &call->options);
}

static int mistake(const std::string &what) {
    fprintf(stderr, "handset: %s\nTry 'handset --help'.\n", what.c_str());
    return 2;
}

static int check(const handset_call &call) {
    if (call.verb != "run" && call.verb != "boot" && call.verb != "shell" && call.verb != "enter") {
        return mistake("unknown command " + call.verb);
    }
    if (call.verb == "enter" && call.entered <= 0) {
        return mistake("enter needs the pid of a handset");
    }
    if (call.verb == "run" && call.program.empty()) {
        return mistake("run needs a program");
    }
    if (call.options.data_size == 0 || call.options.data_size % 4096 != 0) {
        return mistake("the size of /data must be a multiple of 4096");
    }
    return -1;
}

int handset_parse(int argc, char **argv, handset_call *call) {
    if (argc < 2 || strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
        fputs(m_help, argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    call->verb = argv[1];
    call->options.agent = call->verb != "run";
    int first = 2;
    if (call->verb == "enter" && argc > 2) {
        call->entered = atoi(argv[first++]);
    }
    for (int i = first; i < argc; i++) {
        std::string name = argv[i];
        if (name == "--") {
            call->program.assign(argv + i + 1, argv + argc);
            break;
        }
        if (name == "--help") {
            fputs(m_help, stdout);
            return 0;
        }
        if (take_flag(name, &call->options)) {
            continue;
        }
        if (i + 1 == argc || !take_value(name, argv[i + 1], call)) {
            return mistake("bad option " + name);
        }
        i++;
    }
    return check(*call);
}
